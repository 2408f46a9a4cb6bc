#include "simdevice.h"

#include <cstring>

SimDevice::SimDevice(quint8 nodeId, AbstractCanAdapter* adapter, QObject* parent)
    : QObject(parent)
    , mNodeId(nodeId)
    , mAdapter(adapter)
{
    mHeartbeatTimer.setTimerType(Qt::PreciseTimer); // a coarse timer drifts by up to 5 %
    connect(&mHeartbeatTimer, &QTimer::timeout, this, &SimDevice::sendHeartbeat);
    connect(this, &SimDevice::heartbeatTimeChanged, this, &SimDevice::applyHeartbeatTime, Qt::QueuedConnection);
    connect(adapter, &AbstractCanAdapter::newCanMessage, this, &SimDevice::onFrame, Qt::DirectConnection);
}

SimDevice::~SimDevice()
{
    if (mAdapter)
        disconnect(mAdapter, nullptr, this, nullptr);
}

void SimDevice::start()
{
    if (!isConfigured()) {
        mHeartbeatTimer.stop();
        setNmtState(Initialising);
        return;
    }
    // Boot-up: 0x700 + node ID with the single byte 0, then pre-operational.
    send(0x700 + nodeId(), QByteArray(1, '\0'));
    setNmtState(PreOperational);
    applyHeartbeatTime(mHeartbeatMs.load());
}

void SimDevice::setHeartbeatTime(quint16 ms)
{
    mHeartbeatMs.store(ms);
    Q_EMIT heartbeatTimeChanged(ms);
}

void SimDevice::applyHeartbeatTime(quint16 ms)
{
    if (ms == 0) {
        mHeartbeatTimer.stop();
        return;
    }
    mHeartbeatTimer.start(ms);
}

void SimDevice::setNmtState(NmtState state)
{
    if (mState.exchange(state) != state)
        Q_EMIT nmtStateChanged(state);
}

void SimDevice::sendHeartbeat()
{
    if (isConfigured())
        send(0x700 + nodeId(), QByteArray(1, char(mState.load())));
}

CAN::RetType SimDevice::send(const CAN::CanMessage& frame)
{
    if (!mAdapter)
        return CAN::Error;
    CAN::CanMessage copy = frame;
    return mAdapter->write(&copy);
}

CAN::RetType SimDevice::send(quint32 id, const QByteArray& data)
{
    CAN::CanMessage m;
    m.id = id;
    m.length = quint8(qMin(data.size(), 64));
    std::memcpy(m.data, data.constData(), m.length);
    return send(m);
}

int SimDevice::addHandler(FrameHandler handler)
{
    std::lock_guard<std::mutex> guard(mHandlersLock);
    const int handle = mNextHandle++;
    mHandlers.emplace_back(handle, std::move(handler));
    return handle;
}

void SimDevice::removeHandler(int handle)
{
    std::lock_guard<std::mutex> guard(mHandlersLock);
    for (auto it = mHandlers.begin(); it != mHandlers.end(); ++it) {
        if (it->first == handle) {
            mHandlers.erase(it);
            return;
        }
    }
}

void SimDevice::onFrame(CAN::CanRxMessage* frame)
{
    if (frame->echo || !isConfigured())
        return;
    std::lock_guard<std::mutex> guard(mHandlersLock);
    for (const auto& entry : mHandlers) {
        if (entry.second(*frame))
            return;
    }
}
