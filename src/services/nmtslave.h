#ifndef NMTSLAVE_H
#define NMTSLAVE_H

#include "canopenservice.h"
#include "nmtnetwork.h"

#include <QElapsedTimer>
#include <QPointer>

class QTimer;

// The master's view of one remote node: NMT commands addressed to it, its NMT
// state from boot-up, heartbeat and node-guarding answers (COB-ID 0x700 +
// node ID), and its supervision by heartbeat consumption or node guarding.
// Everything runs in the thread that owns the object.
class CANOPENMASTER_EXPORT NMTSlave : public CANopenService
{
    Q_OBJECT
public:
    // The commands are those of the broadcast side.
    using NmtCommands = NMTNetwork::NmtCommands;

    enum NmtState {
        Unknown = 0,
        BootUp = 1,
        PreOperational = 2,
        Operational = 3,
        Stopped = 4
    };
    Q_ENUM(NmtState)

    enum HeartbeatGuardingState {
        NotMonitored = 0,
        BootUpReceived = 1,
        StateReceived = 2,
        Running = 3,
        GuardingDelayed = 4,
        Lost = 5
    };
    Q_ENUM(HeartbeatGuardingState)

    static constexpr quint32 ErrorControlCobId = 0x700;

    explicit NMTSlave(QObject* parent = nullptr);
    NMTSlave(unsigned char nodeId, QObject* parent = nullptr);
    NMTSlave(CanScheduler* scheduler, QObject* parent = nullptr);
    NMTSlave(unsigned char nodeId, CanScheduler* scheduler, QObject* parent = nullptr);
    ~NMTSlave() override;

    CAN::RetType setNodeId(unsigned char nodeId);
    unsigned char nodeId() const { return mNodeId; }
    CAN::RetType setCanScheduler(CanScheduler* scheduler);

    CAN::RetType sendCommand(NMTNetwork::NmtCommands command);
    CAN::RetType sendCiA309Command(NMTNetwork::NmtCommands command);
    CAN::RetType startNode() { return sendCommand(NMTNetwork::Start); }
    CAN::RetType stopNode() { return sendCommand(NMTNetwork::Stop); }
    CAN::RetType preopNode() { return sendCommand(NMTNetwork::EnterPreoperational); }
    CAN::RetType resetApplication() { return sendCommand(NMTNetwork::ResetNode); }
    CAN::RetType resetCommunication() { return sendCommand(NMTNetwork::ResetCommunication); }

    CAN::RetType startHeartbeatMonitoring(unsigned short ms);
    CAN::RetType startNodeGuarding(unsigned short guardTime, unsigned char lifeTimeFactor);
    CAN::RetType stopNodeGuarding();

    NmtState getCurrentNodeState() const { return mCurrentState; }
    NmtState getExpectedNodeState() const { return mExpectedState; }
    HeartbeatGuardingState getHeartbeatGuardingState() const { return mSupervisionState; }
    void setStateUnknown();

    static NmtState nmtByte2State(unsigned char byte);
    static NmtState command2State(NMTNetwork::NmtCommands command);
    // a - b in ms; each stamp loses its sub-millisecond part first.
    static qint64 timediff(CAN::CanTimeStamp a, CAN::CanTimeStamp b);
    // The node-guarding remote request for a node.
    static CAN::CanMessage guardingRequest(quint8 nodeId);

Q_SIGNALS:
    void NodeStateChanged(NMTSlave::NmtState state);
    void HeartbeatGuardingStateChanged(NMTSlave::HeartbeatGuardingState state);

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;
    void timerElapsed();

private:
    void replaceTimer(int intervalMs);
    void deleteTimer();
    void setSupervisionState(HeartbeatGuardingState state);
    static void registerMetaTypes();

    QPointer<CanSender> mReceiver;
    QPointer<QTimer> mTimer;
    quint8 mNodeId = 0;
    quint16 mSupervisionTime = 0;
    NmtState mPreviousState = Unknown;
    NmtState mCurrentState = Unknown;
    NmtState mExpectedState = Unknown;
    bool mHeartbeatActive = false;
    bool mGuardingActive = false;
    quint8 mLifeTimeFactor = 0;
    CAN::CanTimeStamp mLastFrameStamp;
    CAN::CanTimeStamp mThisFrameStamp;
    // No frame since the last start call: the next one is never "in time".
    bool mHaveLastFrameStamp = false;
    HeartbeatGuardingState mSupervisionState = NotMonitored;
    QElapsedTimer mLastReception; // host time of the latest frame or start call
};

#endif
