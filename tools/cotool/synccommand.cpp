#include "synccommand.h"

#include "netnotation.h"
#include "syncproducer.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <atomic>
#include <unistd.h>

SyncCommand::SyncCommand()
    : mPeriodOption(QStringLiteral("period"),
                    QStringLiteral("SYNC period with unit us or ms, e.g. 10ms or 5000us (ms without a unit). The "
                                   "timer runs in whole milliseconds, so the period must be a multiple of 1000 us."),
                    QStringLiteral("period"))
    , mOverflowOption({QStringLiteral("o"), QStringLiteral("overflow")},
                      QStringLiteral("Counter overflow value 2..240: each SYNC carries a counter byte 1..value "
                                     "(default: no counter byte)."),
                      QStringLiteral("value"))
    , mCobIdOption(QStringLiteral("cob-id"), QStringLiteral("COB-ID of the SYNC frame in hex (default 80)."),
                   QStringLiteral("id"))
    , mCountOption({QStringLiteral("n"), QStringLiteral("count")}, QStringLiteral("Stop after this many SYNCs."),
                   QStringLiteral("count"))
    , mDurationOption({QStringLiteral("d"), QStringLiteral("duration")},
                      QStringLiteral("Stop after this long, in ms."), QStringLiteral("ms"))
{
}

void SyncCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOptions({mPeriodOption, mOverflowOption, mCobIdOption, mCountOption, mDurationOption});
}

int SyncCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    QString error;
    qint64 overflow = 0, count = 0, duration = 0;
    if (!positiveOption(parser, mOverflowOption, 255, overflow, &error)
        || !positiveOption(parser, mCountOption, 0x7FFFFFFF, count, &error)
        || !positiveOption(parser, mDurationOption, 0x7FFFFFFF, duration, &error))
        return usageError(error);
    // The synchronous counter overflow value of object 1019h: 2..240.
    if (overflow && (overflow < 2 || overflow > 240))
        return usageError(QStringLiteral("--overflow wants 2..240, got '%1'").arg(overflow));
    if (!parser.isSet(mPeriodOption))
        return usageError(QStringLiteral("no period given (e.g. --period 10ms)"));
    quint32 periodUs = 0;
    if (!NetNotation::parsePeriodUs(parser.value(mPeriodOption), periodUs, &error))
        return usageError(error);
    if (periodUs % 1000)
        return usageError(QStringLiteral("the SYNC timer runs in whole milliseconds: %1 us is no multiple of 1000").arg(periodUs));
    quint32 cobId = 0x80;
    if (parser.isSet(mCobIdOption) && !NetNotation::parseCobId(parser.value(mCobIdOption), cobId, &error))
        return usageError(error);
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));

    ToolBus bus;
    if (!bus.open(options, &error))
        return failure(error);

    SYNCProducer producer(cobId, periodUs, quint8(overflow), bus.scheduler());
    std::atomic<qint64> sent{0};
    // syncEvent() comes from the producer's timer thread: the count is
    // checked there and the producer stopped at once, so that exactly
    // `count` frames leave (stop() may be called from that thread).
    QObject::connect(&producer, &SYNCProducer::syncEvent, &producer, [&]() {
        if (sent.fetch_add(1) + 1 == count) {
            producer.stop();
            QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
        }
    }, Qt::DirectConnection);

    QElapsedTimer clock;
    clock.start();
    const CAN::RetType started = producer.start();
    if (started != CAN::Ok)
        return failure(QStringLiteral("the first SYNC was refused (error %1)").arg(int(started)));
    if (count && sent.load() >= count)
        producer.stop(); // a count of 1: start() re-enables the timer after its first frame
    if (::isatty(STDERR_FILENO))
        note(QStringLiteral("SYNC on %1 every %2 ms (Ctrl-C to stop)").arg(cobId, 3, 16, QLatin1Char('0')).arg(periodUs / 1000));
    if (!count || sent.load() < count)
        runEventLoop(duration);
    producer.stop();
    const qint64 elapsed = clock.elapsed();
    out(QStringLiteral("%1 SYNC frames on %2, period %3 ms%4, in %5 s")
            .arg(sent.load())
            .arg(QStringLiteral("%1").arg(cobId, 3, 16, QLatin1Char('0')).toUpper())
            .arg(periodUs / 1000)
            .arg(overflow ? QStringLiteral(", counter 1..%1").arg(overflow) : QString())
            .arg(NetNotation::seconds(elapsed).trimmed()));
    return Success;
}
