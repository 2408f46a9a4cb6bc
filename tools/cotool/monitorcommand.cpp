#include "monitorcommand.h"

#include "netnotation.h"
#include "nmtslave.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <memory>
#include <unistd.h>
#include <vector>

MonitorCommand::MonitorCommand()
    : mHeartbeatOption(QStringLiteral("heartbeat"),
                       QStringLiteral("Heartbeat consumer time in ms: Lost when no heartbeat came for that long."),
                       QStringLiteral("ms"))
    , mGuardOption(QStringLiteral("guard"), QStringLiteral("Node guarding: guard time in ms (a remote request each period)."),
                   QStringLiteral("ms"))
    , mLifeOption(QStringLiteral("life-factor"), QStringLiteral("Node guarding life time factor (default 3)."),
                  QStringLiteral("n"))
    , mCountOption({QStringLiteral("n"), QStringLiteral("count")}, QStringLiteral("Exit after this many events."),
                   QStringLiteral("events"))
    , mDurationOption({QStringLiteral("d"), QStringLiteral("duration")},
                      QStringLiteral("Exit after this long, in ms."), QStringLiteral("ms"))
{
}

void MonitorCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOptions({mHeartbeatOption, mGuardOption, mLifeOption, mCountOption, mDurationOption});
    parser.addPositionalArgument(QStringLiteral("nodes"), QStringLiteral("Node-IDs: 5, 5,6 or 1-3,7."));
}

int MonitorCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    QString error;
    qint64 heartbeat = 0, guard = 0, life = 0, count = 0, duration = 0;
    if (!positiveOption(parser, mHeartbeatOption, 65535, heartbeat, &error)
        || !positiveOption(parser, mGuardOption, 65535, guard, &error)
        || !positiveOption(parser, mLifeOption, 255, life, &error)
        || !positiveOption(parser, mCountOption, 0x7FFFFFFF, count, &error)
        || !positiveOption(parser, mDurationOption, 0x7FFFFFFF, duration, &error))
        return usageError(error);
    if (heartbeat && guard)
        return usageError(QStringLiteral("--heartbeat and --guard exclude each other: a node is supervised one way"));
    if (life && !guard)
        return usageError(QStringLiteral("--life-factor goes with --guard"));
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return usageError(QStringLiteral("no node given (e.g. cotool monitor 5 --heartbeat 1500)"));
    if (args.size() > 1)
        return usageError(QStringLiteral("unexpected argument '%1' (write node lists as 5,6)").arg(args.at(1)));
    QVector<quint8> nodes;
    if (!NetNotation::parseNodeList(args.at(0), nodes, &error))
        return usageError(error);

    ToolBus bus;
    if (!bus.create(options, &error))
        return failure(error);

    QElapsedTimer clock;
    clock.start();
    qint64 events = 0;
    auto report = [&](quint8 node, const char* signal, const QString& value) {
        out(QStringLiteral("%1  node %2  %3 %4").arg(NetNotation::seconds(clock.elapsed())).arg(node, 3).arg(QLatin1String(signal), value));
        if (count && ++events == count)
            QCoreApplication::quit();
    };
    std::vector<std::unique_ptr<NMTSlave>> slaves;
    for (quint8 node : nodes) {
        auto slave = std::make_unique<NMTSlave>(node, bus.scheduler());
        QObject::connect(slave.get(), &NMTSlave::NodeStateChanged, [&report, node](NMTSlave::NmtState s) {
            report(node, "NodeStateChanged", NetNotation::stateName(s));
        });
        QObject::connect(slave.get(), &NMTSlave::HeartbeatGuardingStateChanged,
                         [&report, node](NMTSlave::HeartbeatGuardingState s) {
                             report(node, "HeartbeatGuardingStateChanged", NetNotation::supervisionName(s));
                         });
        if (heartbeat)
            slave->startHeartbeatMonitoring(quint16(heartbeat));
        else if (guard)
            slave->startNodeGuarding(quint16(guard), quint8(life ? life : 3));
        slaves.push_back(std::move(slave));
    }
    if (!bus.open(options, &error))
        return failure(error);
    if (::isatty(STDERR_FILENO))
        note(QStringLiteral("watching node%1 %2%3 (Ctrl-C to stop)")
             .arg(nodes.size() > 1 ? QStringLiteral("s") : QString(), args.at(0),
                  heartbeat ? QStringLiteral(", heartbeat consumer time %1 ms").arg(heartbeat)
                  : guard   ? QStringLiteral(", guard time %1 ms, life time factor %2").arg(guard).arg(life ? life : 3)
                            : QString()));
    runEventLoop(duration);
    if (count && events < count && !interrupted())
        return failure(QStringLiteral("%1 of %2 events before the time limit").arg(events).arg(count));
    return Success;
}
