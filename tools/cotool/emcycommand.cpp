#include "emcycommand.h"

#include "emcyconsumer.h"
#include "netnotation.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <memory>
#include <unistd.h>
#include <vector>

EmcyCommand::EmcyCommand()
    : mCountOption({QStringLiteral("n"), QStringLiteral("count")}, QStringLiteral("Exit after this many emergencies."),
                   QStringLiteral("count"))
    , mDurationOption({QStringLiteral("d"), QStringLiteral("duration")},
                      QStringLiteral("Exit after this long, in ms."), QStringLiteral("ms"))
{
}

void EmcyCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOptions({mCountOption, mDurationOption});
    parser.addPositionalArgument(QStringLiteral("nodes"),
                                 QStringLiteral("Node-IDs: 5, 5,6 or 1-3,7 (default: all, 1-127)."),
                                 QStringLiteral("[nodes]"));
}

int EmcyCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    QString error;
    qint64 count = 0, duration = 0;
    if (!positiveOption(parser, mCountOption, 0x7FFFFFFF, count, &error)
        || !positiveOption(parser, mDurationOption, 0x7FFFFFFF, duration, &error))
        return usageError(error);
    const QStringList args = parser.positionalArguments();
    if (args.size() > 1)
        return usageError(QStringLiteral("unexpected argument '%1' (write node lists as 5,6)").arg(args.at(1)));
    QVector<quint8> nodes;
    if (!NetNotation::parseNodeList(args.isEmpty() ? QStringLiteral("1-127") : args.at(0), nodes, &error))
        return usageError(error);

    ToolBus bus;
    if (!bus.create(options, &error))
        return failure(error);

    QElapsedTimer clock;
    clock.start();
    qint64 seen = 0;
    // One consumer per node on its EMCY COB-ID 0x80 + node-ID (the
    // pre-defined connection set); on a gateway each reads the report lines.
    std::vector<std::unique_ptr<EMCYConsumer>> consumers;
    for (quint8 node : nodes) {
        auto consumer = std::make_unique<EMCYConsumer>(0x80u + node, bus.scheduler());
        QObject::connect(consumer.get(), &EMCYConsumer::newEmcyData, [&, node](EMCYConsumer::EMCYData d) {
            if (count && seen >= count)
                return;
            out(QStringLiteral("%1  node %2  %3").arg(NetNotation::seconds(clock.elapsed())).arg(node, 3).arg(NetNotation::formatEmcy(d)));
            if (count && ++seen == count)
                QCoreApplication::quit();
        });
        consumers.push_back(std::move(consumer));
    }
    if (!bus.open(options, &error))
        return failure(error);
    if (::isatty(STDERR_FILENO))
        note(QStringLiteral("waiting for emergencies of %1 (Ctrl-C to stop)")
                 .arg(args.isEmpty() ? QStringLiteral("all nodes") : QStringLiteral("node(s) %1").arg(args.at(0))));
    runEventLoop(duration);
    if (count && seen < count && !interrupted())
        return failure(QStringLiteral("%1 of %2 emergencies before the time limit").arg(seen).arg(count));
    return Success;
}
