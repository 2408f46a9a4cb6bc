#include "canopenservice.h"
#include "abstractcanadapter.h"

std::atomic<bool> CANopenService::mUseCANopenFD{false};

CANopenService::CANopenService(QObject* parent)
    : QObject(parent)
{
}

void CANopenService::activateCANopenFD(bool on)
{
    mUseCANopenFD.store(on);
}

void CANopenService::newCanMessageReceived(CAN::CanRxMessage) {}

AbstractCanAdapter* CANopenService::adapter() const
{
    return mScheduler ? mScheduler->canAdapter() : nullptr;
}

bool CANopenService::onGateway() const
{
    AbstractCanAdapter* a = adapter();
    return a && a->getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool();
}

void CANopenService::releaseReceiver(QPointer<CanSender>& receiver)
{
    if (mScheduler && receiver)
        mScheduler->unregisterCan(receiver.data());
    receiver.clear();
}

CAN::RetType CANopenService::attachScheduler(CanScheduler* scheduler, quint32 id,
                                             QPointer<CanSender>& receiver, Qt::ConnectionType type)
{
    releaseReceiver(receiver);
    mScheduler = scheduler;
    if (!scheduler)
        return CAN::Ok;
    return reregister(id, receiver, type);
}

CAN::RetType CANopenService::reregister(quint32 id, QPointer<CanSender>& receiver, Qt::ConnectionType type)
{
    if (!mScheduler)
        return CAN::Error;
    releaseReceiver(receiver);
    receiver = mScheduler->registerCanId(id);
    connect(receiver.data(), qOverload<CAN::CanRxMessage>(&CanSender::received), this,
            &CANopenService::newCanMessageReceived, type);
    return CAN::Ok;
}

CAN::RetType CANopenService::writeFrame(CAN::CanMessage& message) const
{
    AbstractCanAdapter* a = adapter();
    if (!a)
        return CAN::Error;
    return a->write(&message);
}
