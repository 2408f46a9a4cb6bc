#include "nmtslave.h"
#include "abstractcanadapter.h"

#include <QTimer>
#include <cstdlib>

NMTSlave::NMTSlave(QObject* parent)
    : CANopenService(parent)
{
    registerMetaTypes();
}

NMTSlave::NMTSlave(unsigned char nodeId, QObject* parent)
    : NMTSlave(parent)
{
    setNodeId(nodeId);
}

NMTSlave::NMTSlave(CanScheduler* scheduler, QObject* parent)
    : NMTSlave(parent)
{
    setCanScheduler(scheduler);
}

NMTSlave::NMTSlave(unsigned char nodeId, CanScheduler* scheduler, QObject* parent)
    : NMTSlave(parent)
{
    mNodeId = nodeId;
    setCanScheduler(scheduler);
}

NMTSlave::~NMTSlave()
{
    releaseReceiver(mReceiver);
    deleteTimer();
}

void NMTSlave::registerMetaTypes()
{
    // For queued connections and QVariant (QSignalSpy) by the names used in the signals.
    static const bool done = [] {
        qRegisterMetaType<NMTSlave::NmtState>("NMTSlave::NmtState");
        qRegisterMetaType<NMTSlave::HeartbeatGuardingState>("NMTSlave::HeartbeatGuardingState");
        return true;
    }();
    Q_UNUSED(done)
}

CAN::RetType NMTSlave::setNodeId(unsigned char nodeId)
{
    if (nodeId != mNodeId) {
        // Another node: what we knew no longer applies. The timer keeps
        // ticking but does nothing until supervision is started again.
        mPreviousState = mCurrentState = mExpectedState = Unknown;
        mHeartbeatActive = false;
        mGuardingActive = false;
    }
    mNodeId = nodeId;
    if (!mScheduler)
        return CAN::Error;
    return reregister(ErrorControlCobId + mNodeId, mReceiver);
}

CAN::RetType NMTSlave::setCanScheduler(CanScheduler* scheduler)
{
    return attachScheduler(scheduler, ErrorControlCobId + mNodeId, mReceiver);
}

void NMTSlave::setStateUnknown()
{
    mPreviousState = mCurrentState = mExpectedState = Unknown;
}

NMTSlave::NmtState NMTSlave::nmtByte2State(unsigned char byte)
{
    // Bit 7 is the toggle bit of a guarding answer.
    switch (byte & 0x7F) {
    case 0x00: return BootUp;
    case 0x7F: return PreOperational;
    case 0x05: return Operational;
    case 0x04: return Stopped;
    default: return Unknown;
    }
}

NMTSlave::NmtState NMTSlave::command2State(NMTNetwork::NmtCommands command)
{
    switch (command) {
    case NMTNetwork::Start: return Operational;
    case NMTNetwork::Stop: return Stopped;
    case NMTNetwork::EnterPreoperational:
    case NMTNetwork::ResetNode:
    case NMTNetwork::ResetCommunication: return PreOperational; // resets end in pre-operational
    }
    return Unknown;
}

qint64 NMTSlave::timediff(CAN::CanTimeStamp a, CAN::CanTimeStamp b)
{
    return (qint64(a.seconds) - qint64(b.seconds)) * 1000 + a.microseconds / 1000 - b.microseconds / 1000;
}

CAN::CanMessage NMTSlave::guardingRequest(quint8 nodeId)
{
    CAN::CanMessage frame;
    frame.id = ErrorControlCobId + nodeId;
    frame.length = 1;
    frame.rtr = true;
    frame.fd = CANopenService::mUseCANopenFD.load();
    return frame;
}

CAN::RetType NMTSlave::sendCommand(NMTNetwork::NmtCommands command)
{
    if (mNodeId == 0)
        return CAN::Error; // the broadcast belongs to NMTNetwork
    if (!adapter())
        return CAN::Error;
    if (onGateway())
        return sendCiA309Command(command); // the expected state is left alone here
    CAN::CanMessage frame = NMTNetwork::commandFrame(command, mNodeId);
    // Set before sending; it stays even if the write fails.
    mExpectedState = command2State(command);
    return writeFrame(frame);
}

CAN::RetType NMTSlave::sendCiA309Command(NMTNetwork::NmtCommands command)
{
    // Node ID 0 would address every node: refused here as in sendCommand.
    if (mNodeId == 0)
        return CAN::Error;
    AbstractCanAdapter* a = adapter();
    if (!a)
        return CAN::Error;
    qint16 sequence = -1;
    return a->sendCiA309Request(NMTNetwork::gatewayCommand(command, mNodeId), sequence);
}

void NMTSlave::setSupervisionState(HeartbeatGuardingState state)
{
    mSupervisionState = state;
    Q_EMIT HeartbeatGuardingStateChanged(state);
}

void NMTSlave::newCanMessageReceived(CAN::CanRxMessage message)
{
    const CAN::CanMessage& frame = message.message;
    // Error-control frames (boot-up, heartbeat, guarding answer) carry exactly
    // one byte. A remote frame is a guarding request (ours echoed, or another
    // master's) and holds no state.
    if (frame.id != ErrorControlCobId + mNodeId || frame.length != 1 || frame.rtr)
        return;

    mPreviousState = mCurrentState;
    const quint8 byte = frame.data[0];
    mThisFrameStamp = message.timeStamp;
    if (byte == 0x00) {
        // Boot-up, reported every time. BootUpReceived is not stored, so a
        // boot-up does not clear a loss.
        mCurrentState = BootUp;
        Q_EMIT NodeStateChanged(BootUp);
        Q_EMIT HeartbeatGuardingStateChanged(BootUpReceived);
    } else {
        // The toggle bit of a guarding answer is not checked.
        mCurrentState = nmtByte2State(byte);
        if (mCurrentState != mPreviousState) {
            Q_EMIT NodeStateChanged(mCurrentState);
            Q_EMIT HeartbeatGuardingStateChanged(StateReceived);
        }
    }
    mLastReception.start();

    if (!mHeartbeatActive && !mGuardingActive)
        return;
    // In time is judged by the adapter's time stamps, so queueing delays in
    // this thread do not count. The first frame after a start call has no
    // predecessor and is never in time.
    const bool havePrevious = mHaveLastFrameStamp;
    const qint64 d = timediff(mThisFrameStamp, mLastFrameStamp);
    mLastFrameStamp = mThisFrameStamp;
    mHaveLastFrameStamp = true;
    if (havePrevious && mSupervisionTime != 0 && d <= mSupervisionTime
        && (mSupervisionState == GuardingDelayed || mSupervisionState == Lost))
        setSupervisionState(Running);
}

void NMTSlave::deleteTimer()
{
    delete mTimer.data();
    mTimer.clear();
}

void NMTSlave::replaceTimer(int intervalMs)
{
    deleteTimer();
    auto* timer = new QTimer(); // no parent; owned through mTimer
    connect(timer, &QTimer::timeout, this, &NMTSlave::timerElapsed);
    timer->setInterval(intervalMs);
    timer->start();
    mTimer = timer;
}

CAN::RetType NMTSlave::startHeartbeatMonitoring(unsigned short ms)
{
    if (ms == 0) {
        mHeartbeatActive = false;
        deleteTimer();
        mSupervisionTime = 0;
        return CAN::Ok;
    }
    // Node guarding, if on, stays on.
    mHeartbeatActive = true;
    replaceTimer(ms);
    mSupervisionTime = ms;
    mLastReception.start();
    mLastFrameStamp = CAN::CanTimeStamp();
    mHaveLastFrameStamp = false;
    return CAN::Ok;
}

CAN::RetType NMTSlave::startNodeGuarding(unsigned short guardTime, unsigned char lifeTimeFactor)
{
    if (guardTime == 0)
        return CAN::Ok; // nothing changes; guarding already running goes on
    mLifeTimeFactor = lifeTimeFactor;
    mHeartbeatActive = false;
    mGuardingActive = true;
    mSupervisionTime = guardTime;
    // The first remote request goes out at the first tick, one guard time from now.
    replaceTimer(guardTime);
    mLastReception.start();
    mLastFrameStamp = CAN::CanTimeStamp();
    mHaveLastFrameStamp = false;
    return CAN::Ok;
}

CAN::RetType NMTSlave::stopNodeGuarding()
{
    if (!mGuardingActive)
        return CAN::Error;
    mGuardingActive = false;
    deleteTimer();
    return CAN::Ok;
}

void NMTSlave::timerElapsed()
{
    if (mHeartbeatActive) {
        // Heartbeat consumer: no frame within the consumer time means lost, reported once.
        const qint64 e = std::llabs(mLastReception.elapsed());
        if (e > mSupervisionTime && mSupervisionState != Lost)
            setSupervisionState(Lost);
    }
    if (mGuardingActive) {
        const qint64 e = std::llabs(mLastReception.elapsed());
        const qint64 g = mSupervisionTime;
        const qint64 lifeTime = g * mLifeTimeFactor;
        // Lost is reached only from GuardingDelayed: with a life time factor
        // of 1 the life time ends before 1.4 guard times and no loss is reported.
        if (double(e) > 1.4 * double(g)) {
            if (lifeTime > e) {
                if (mSupervisionState != GuardingDelayed)
                    setSupervisionState(GuardingDelayed);
            } else if (mSupervisionState == GuardingDelayed) {
                setSupervisionState(Lost);
            }
        } else if (lifeTime <= e && mSupervisionState == GuardingDelayed) {
            setSupervisionState(Lost);
        }
        // Remote request for the node's state; skipped without scheduler or adapter.
        CAN::CanMessage request = guardingRequest(mNodeId);
        writeFrame(request);
    }
}
