#include "rpdo.h"
#include "canscheduler.h"

#include <QDebug>

namespace {
void registerTypes()
{
    static const bool done = [] {
        qRegisterMetaType<QVector<QVariant>>("QVector<QVariant>");
        qRegisterMetaType<PDO::PdoError>("PDO::PdoError");
        return true;
    }();
    Q_UNUSED(done)
}
} // namespace

RPDO::RPDO(QObject* parent)
    : PDO(parent)
{
    registerTypes();
}

RPDO::RPDO(unsigned int cobId, CanScheduler* scheduler, QObject* parent)
    : PDO(parent)
{
    registerTypes();
    mScheduler = scheduler;
    setCobId(cobId);
}

RPDO::RPDO(unsigned int cobId, QVector<CAN::CANopenDataType> mapping, CanScheduler* scheduler, QObject* parent)
    : RPDO(cobId, scheduler, parent)
{
    setMapping(std::move(mapping));
}

RPDO::~RPDO()
{
    releaseReceiver(mReceiver);
}

CAN::RetType RPDO::setCobId(unsigned int cobId)
{
    PDO::setCobId(cobId);
    if (mScheduler)
        reregister(cobId, mReceiver); // automatic: frames are queued into this object's thread
    return CAN::Ok;
}

CAN::RetType RPDO::setCanScheduler(CanScheduler* scheduler)
{
    mScheduler = scheduler;
    return CAN::Ok;
}

bool RPDO::decodePdo(const QVector<CAN::CANopenDataType>& mapping, const CAN::CanMessage& frame,
                     QVector<QVariant>& values)
{
    QVector<QVariant> out(mapping.size(), QVariant(int(0)));
    int pos = 0;
    for (int i = 0; i < mapping.size(); ++i) {
        const int n = typeLength(mapping[i]);
        if (n == 0)
            return false;
        out[i] = decodeValue(mapping[i], frame.data, pos);
        pos += n;
    }
    values = std::move(out);
    return true;
}

void RPDO::newCanMessageReceived(CAN::CanRxMessage message)
{
    if (message.message.id != mCobId)
        return;
    QVector<QVariant> values;
    if (!decodePdo(mMapping, message.message, values)) {
        qDebug() << Q_FUNC_INFO << "Currently not supported";
        return;
    }
    Q_EMIT newPDOData(values);
    // Compared as 8-bit values, in either direction.
    if (quint8(mappedLength()) != message.message.length)
        Q_EMIT newPDOError(LengthMismatch);
}
