#ifndef NMTNETWORK_H
#define NMTNETWORK_H

#include "canopenservice.h"

#include <QString>

// NMT master, broadcast side: the five network management commands to all
// nodes at once. On a CiA 309-3 gateway the equivalent text command is sent
// instead of the frame. NMTSlave sends the same commands to one node.
class CANOPENMASTER_EXPORT NMTNetwork : public CANopenService
{
    Q_OBJECT
public:
    // NMT command specifiers (first data byte of the NMT frame, COB-ID 0).
    enum NmtCommands {
        Start = 1,
        Stop = 2,
        EnterPreoperational = 128,
        ResetNode = 129,
        ResetCommunication = 130
    };
    Q_ENUM(NmtCommands)

    static constexpr quint32 NmtCobId = 0x000;

    explicit NMTNetwork(QObject* parent = nullptr);
    NMTNetwork(CanScheduler* scheduler, QObject* parent = nullptr);

    CAN::RetType setCanScheduler(CanScheduler* scheduler);

    CAN::RetType sendCommand(NMTNetwork::NmtCommands command);
    CAN::RetType sendCiA309Command(NMTNetwork::NmtCommands command);

    CAN::RetType start() { return sendCommand(Start); }
    CAN::RetType stop() { return sendCommand(Stop); }
    CAN::RetType preop() { return sendCommand(EnterPreoperational); }
    CAN::RetType resetAppl() { return sendCommand(ResetNode); }
    CAN::RetType resetComm() { return sendCommand(ResetCommunication); }

    // Pure helpers shared with NMTSlave.
    // The NMT frame: length 2, command specifier, node ID (0: all nodes);
    // fd follows the CANopen FD switch.
    static CAN::CanMessage commandFrame(NMTNetwork::NmtCommands command, quint8 nodeId);
    // The gateway command for one node ("5 preop") or all nodes ("0 reset
    // node"); an empty line for a value that is no NMT command.
    static QString gatewayCommand(NMTNetwork::NmtCommands command, quint8 nodeId);
};

#endif
