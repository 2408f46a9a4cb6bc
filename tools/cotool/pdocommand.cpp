#include "pdocommand.h"

#include "netnotation.h"
#include "rpdo.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <unistd.h>

PdoCommand::PdoCommand()
    : mMapOption({QStringLiteral("m"), QStringLiteral("map")},
                 QStringLiteral("The mapping: types in frame order, comma-separated, little-endian: u8, u16, u32 "
                                "(unsigned), i8, i16, i32 (signed); at most 8 bytes. E.g. u16,i32."),
                 QStringLiteral("types"))
    , mCountOption({QStringLiteral("n"), QStringLiteral("count")}, QStringLiteral("Exit after this many PDOs."),
                   QStringLiteral("count"))
    , mDurationOption({QStringLiteral("d"), QStringLiteral("duration")},
                      QStringLiteral("Exit after this long, in ms."), QStringLiteral("ms"))
{
}

void PdoCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOptions({mMapOption, mCountOption, mDurationOption});
    parser.addPositionalArgument(QStringLiteral("cob-id"), QStringLiteral("The PDO's COB-ID in hex (0x optional), e.g. 185."));
}

int PdoCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    QString error;
    qint64 count = 0, duration = 0;
    if (!positiveOption(parser, mCountOption, 0x7FFFFFFF, count, &error)
        || !positiveOption(parser, mDurationOption, 0x7FFFFFFF, duration, &error))
        return usageError(error);
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return usageError(QStringLiteral("no COB-ID given (e.g. cotool pdo 185 --map u16,i32)"));
    if (args.size() > 1)
        return usageError(QStringLiteral("unexpected argument '%1'").arg(args.at(1)));
    quint32 cobId = 0;
    if (!NetNotation::parseCobId(args.at(0), cobId, &error))
        return usageError(error);
    if (!parser.isSet(mMapOption))
        return usageError(QStringLiteral("no mapping given (e.g. --map u16,i32)"));
    QVector<CAN::CANopenDataType> mapping;
    if (!NetNotation::parseMapping(parser.value(mMapOption), mapping, &error))
        return usageError(error);

    ToolBus bus;
    if (!bus.create(options, &error))
        return failure(error);

    QElapsedTimer clock;
    clock.start();
    qint64 seen = 0;
    const QString id = QStringLiteral("%1").arg(cobId, 3, 16, QLatin1Char('0')).toUpper();
    RPDO pdo(cobId, mapping, bus.scheduler());
    QObject::connect(&pdo, &RPDO::newPDOData, [&](QVector<QVariant> values) {
        if (count && seen >= count)
            return;
        out(QStringLiteral("%1  %2  %3").arg(NetNotation::seconds(clock.elapsed()), id, NetNotation::formatPdoValues(mapping, values)));
        if (count && ++seen == count)
            QCoreApplication::quit();
    });
    // Reported after the values of the same frame.
    QObject::connect(&pdo, &RPDO::newPDOError, [&](PDO::PdoError) {
        if (!count || seen <= count)
            out(QStringLiteral("%1  %2  length mismatch: the frame's length differs from the mapping's %3 bytes")
                    .arg(NetNotation::seconds(clock.elapsed()), id)
                    .arg(pdo.mappedLength()));
    });
    if (!bus.open(options, &error))
        return failure(error);
    if (::isatty(STDERR_FILENO))
        note(QStringLiteral("decoding COB-ID %1 (Ctrl-C to stop)").arg(cobId, 3, 16, QLatin1Char('0')));
    runEventLoop(duration);
    if (count && seen < count && !interrupted())
        return failure(QStringLiteral("%1 of %2 PDOs before the time limit").arg(seen).arg(count));
    return Success;
}
