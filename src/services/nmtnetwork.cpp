#include "nmtnetwork.h"
#include "abstractcanadapter.h"

NMTNetwork::NMTNetwork(QObject* parent)
    : CANopenService(parent)
{
}

NMTNetwork::NMTNetwork(CanScheduler* scheduler, QObject* parent)
    : CANopenService(parent)
{
    setCanScheduler(scheduler);
}

CAN::RetType NMTNetwork::setCanScheduler(CanScheduler* scheduler)
{
    mScheduler = scheduler; // sends only: no receiver to register
    return CAN::Ok;
}

CAN::CanMessage NMTNetwork::commandFrame(NMTNetwork::NmtCommands command, quint8 nodeId)
{
    CAN::CanMessage frame;
    frame.id = NmtCobId;
    frame.length = 2;
    frame.data[0] = quint8(command); // written as given, also outside the table
    frame.data[1] = nodeId;
    frame.fd = CANopenService::mUseCANopenFD.load();
    return frame;
}

QString NMTNetwork::gatewayCommand(NMTNetwork::NmtCommands command, quint8 nodeId)
{
    const char* text = nullptr;
    switch (command) {
    case Start: text = "start"; break;
    case Stop: text = "stop"; break;
    case EnterPreoperational: text = "preop"; break;
    case ResetNode: text = "reset node"; break;
    case ResetCommunication: text = "reset comm"; break;
    }
    if (!text)
        return QString();
    return QStringLiteral("%1 %2").arg(nodeId).arg(QLatin1String(text));
}

CAN::RetType NMTNetwork::sendCommand(NMTNetwork::NmtCommands command)
{
    if (!adapter())
        return CAN::Error;
    if (onGateway())
        return sendCiA309Command(command);
    CAN::CanMessage frame = commandFrame(command, 0);
    return writeFrame(frame);
}

CAN::RetType NMTNetwork::sendCiA309Command(NMTNetwork::NmtCommands command)
{
    // Node field 0: all nodes. An unknown command still goes out, as an empty line.
    const QString line = gatewayCommand(command, 0);
    AbstractCanAdapter* a = adapter();
    if (!a)
        return CAN::Error;
    qint16 sequence = -1; // not waited for: the answer is not read
    return a->sendCiA309Request(line, sequence);
}
