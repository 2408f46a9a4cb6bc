#include "nmtcommand.h"

#include "abstractcanadapter.h"
#include "framenotation.h"
#include "netnotation.h"
#include "nmtnetwork.h"
#include "nmtslave.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>

NmtCommand::NmtCommand() = default;

void NmtCommand::addOptions(QCommandLineParser& parser)
{
    parser.addPositionalArgument(QStringLiteral("command"),
                                 QStringLiteral("start, stop, preop, reset-node or reset-comm."));
    parser.addPositionalArgument(QStringLiteral("node"),
                                 QStringLiteral("Node-ID 1..127; 0 or none: all nodes."), QStringLiteral("[node]"));
}

int NmtCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return usageError(QStringLiteral("no NMT command given (e.g. cotool nmt start 5)"));
    if (args.size() > 2)
        return usageError(QStringLiteral("unexpected argument '%1'").arg(args.at(2)));
    NMTNetwork::NmtCommands command;
    quint8 node = 0;
    QString error;
    if (!NetNotation::parseNmtCommand(args.at(0), command, &error)
        || (args.size() == 2 && !NetNotation::parseNodeId(args.at(1), true, node, &error)))
        return usageError(error);

    ToolBus bus;
    if (!bus.open(options, &error))
        return failure(error);

    // On a gateway: remember the line we send, then wait for the answer
    // carrying its sequence number.
    QString sentLine, answer;
    qint64 sequence = -1;
    QObject context;
    if (bus.isGateway()) {
        QObject::connect(bus.adapter(), &AbstractCanAdapter::newCiA309RequestSent, &context, [&](QString line) {
            sentLine = line.trimmed();
            const QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^\\[(\\d+)\\]")).match(sentLine);
            sequence = m.hasMatch() ? m.captured(1).toLongLong() : -1;
        });
        QObject::connect(bus.adapter(), &AbstractCanAdapter::newCiA309Response, &context, [&](QString text) {
            for (const QString& raw : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
                const QString line = raw.trimmed();
                if (sequence >= 0 && answer.isEmpty() && line.startsWith(QStringLiteral("[%1]").arg(sequence))) {
                    answer = line;
                    QCoreApplication::quit();
                }
            }
        });
    }

    NMTNetwork network(bus.scheduler());
    NMTSlave slave(bus.scheduler());
    CAN::RetType result;
    if (node == 0) {
        result = network.sendCommand(command);
    } else {
        slave.setNodeId(node);
        result = slave.sendCommand(command);
    }
    const QString target = node ? QStringLiteral("node %1").arg(node) : QStringLiteral("all nodes");
    if (result != CAN::Ok)
        return failure(QStringLiteral("%1 to %2 was refused (error %3)").arg(args.at(0), target).arg(int(result)));

    if (!bus.isGateway()) {
        out(QStringLiteral("sent %1 to %2: %3")
                .arg(NetNotation::nmtCommandName(command), target,
                     FrameNotation::format(NMTNetwork::commandFrame(command, node))));
        return Success;
    }
    out(QStringLiteral("sent %1 to %2: %3").arg(NetNotation::nmtCommandName(command), target, sentLine));
    runEventLoop(GatewayAnswerMs);
    if (answer.isEmpty())
        return interrupted() ? Failure
                             : failure(QStringLiteral("no answer from the gateway within %1 ms").arg(GatewayAnswerMs));
    out(QStringLiteral("gateway answered: %1").arg(answer));
    // Only "OK" after the sequence number is success: an error, or anything cut short, is not.
    const QString verdict = answer.mid(answer.indexOf(QLatin1Char(']')) + 1).trimmed();
    return verdict.compare(QLatin1String("OK"), Qt::CaseInsensitive) == 0 ? Success : Failure;
}
