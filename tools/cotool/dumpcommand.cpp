#include "dumpcommand.h"

#include "abstractcanadapter.h"
#include "framenotation.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <atomic>
#include <cstdio>
#include <memory>
#include <unistd.h>

DumpCommand::DumpCommand()
    : mCountOption({QStringLiteral("n"), QStringLiteral("count")},
                   QStringLiteral("Exit after this many frames (exit code 1 if a time limit ends the dump first)."),
                   QStringLiteral("frames"))
    , mTimeoutOption({QStringLiteral("t"), QStringLiteral("timeout")},
                     QStringLiteral("Exit after this long without a frame, in ms."), QStringLiteral("ms"))
    , mDurationOption({QStringLiteral("d"), QStringLiteral("duration")},
                      QStringLiteral("Exit after this long in any case, in ms."), QStringLiteral("ms"))
{
}

void DumpCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOptions({mCountOption, mTimeoutOption, mDurationOption});
}

int DumpCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    qint64 limits[3] = {0, 0, 0}; // count, timeout, duration; 0 = none
    const QCommandLineOption* limitOptions[3] = {&mCountOption, &mTimeoutOption, &mDurationOption};
    for (int i = 0; i < 3; ++i) {
        if (!parser.isSet(*limitOptions[i]))
            continue;
        bool ok = false;
        limits[i] = parser.value(*limitOptions[i]).toLongLong(&ok);
        if (!ok || limits[i] <= 0 || limits[i] > 0x7FFFFFFF)
            return usageError(QStringLiteral("--%1 wants a positive number, got '%2'")
                                  .arg(limitOptions[i]->names().last(), parser.value(*limitOptions[i])));
    }
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));
    const qint64 count = limits[0], timeout = limits[1], duration = limits[2];

    QString error;
    std::unique_ptr<AbstractCanAdapter> adapter(options.createAdapter(&error));
    if (!adapter)
        return failure(error);

    QElapsedTimer clock;
    clock.start();
    std::atomic<qint64> seen{0};
    std::atomic<qint64> lastFrameMs{0};
    // Lines are written in the adapter's receive thread, as each frame comes:
    // no copy, no thread hop; stdout is flushed per line like candump does.
    QObject receiver;
    QObject::connect(adapter.get(), &AbstractCanAdapter::newCanMessage, &receiver,
        [&](CAN::CanRxMessage* rx) {
            if (count && seen.load() >= count)
                return;
            const QByteArray line = FrameNotation::dumpLine(*rx).toLatin1() + '\n';
            std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
            std::fflush(stdout);
            lastFrameMs.store(clock.elapsed());
            if (seen.fetch_add(1) + 1 == count)
                QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
        },
        Qt::DirectConnection);

    const CAN::RetType opened = adapter->open();
    if (opened != CAN::Ok)
        return failure(ToolOptions::openError(adapter.get(), int(opened)));
    if (::isatty(STDERR_FILENO))
        note(QStringLiteral("listening on the %1 (Ctrl-C to stop)").arg(ToolOptions::describe(adapter.get())));

    QTimer limitCheck;
    if (timeout || duration) {
        limitCheck.setInterval(int(qBound<qint64>(1, qMin(timeout ? timeout : duration, duration ? duration : timeout) / 4, 20)));
        QObject::connect(&limitCheck, &QTimer::timeout, [&]() {
            const qint64 now = clock.elapsed();
            if ((duration && now >= duration) || (timeout && now - lastFrameMs.load() >= timeout))
                QCoreApplication::quit();
        });
        limitCheck.start();
    }
    if (!interrupted())
        QCoreApplication::exec();
    adapter->close();
    QObject::disconnect(adapter.get(), nullptr, &receiver, nullptr);

    if (count && seen.load() < count && !interrupted())
        return failure(QStringLiteral("%1 of %2 frames before the time limit").arg(seen.load()).arg(count));
    return Success;
}
