#ifndef SIMNMTSLAVE_H
#define SIMNMTSLAVE_H

#include "cantypes.h"
#include "simdevice.h"

#include <QObject>
#include <atomic>

// The device's NMT slave: follows NMT commands (0x000: command, node ID or 0
// for all nodes) and answers node guarding (remote frame on 0x700 + node ID:
// one byte, state | toggle bit). Frames are handled in the adapter's
// receive thread.
class SimNmtSlave : public QObject
{
    Q_OBJECT
public:
    // NMT command specifiers.
    enum Command : quint8 {
        Start = 0x01,
        Stop = 0x02,
        EnterPreOperational = 0x80,
        ResetNode = 0x81,
        ResetCommunication = 0x82
    };
    Q_ENUM(Command)

    explicit SimNmtSlave(SimDevice* device, QObject* parent = nullptr);
    ~SimNmtSlave() override;

    // Carries out a command as if it had been received (any thread). A reset
    // sends the boot-up frame again and ends in pre-operational, with the
    // guarding toggle bit back at 0. False for an unknown command.
    bool execute(quint8 command);

    // The toggle bit the next guarding answer carries (0x00 or 0x80).
    quint8 nextToggle() const { return mToggle.load(); }

    // The command of an NMT frame addressed to `nodeId` (or to all nodes);
    // false when the frame is not such a command.
    static bool parseCommand(const CAN::CanMessage& frame, quint8 nodeId, quint8& command);
    // True for a node guarding request to `nodeId`.
    static bool isGuardingRequest(const CAN::CanMessage& frame, quint8 nodeId);
    static CAN::CanMessage guardingAnswer(quint8 nodeId, SimDevice::NmtState state, quint8 toggle);

Q_SIGNALS:
    // A command arrived on the bus (emitted in the receive thread).
    void commandReceived(quint8 command);

private:
    bool handleFrame(const CAN::CanRxMessage& frame);
    void reset();

    SimDevice* mDevice;
    int mHandler = 0;
    std::atomic<quint8> mToggle{0};
};

#endif
