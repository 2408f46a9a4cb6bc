#include "command.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <cstdio>

namespace {
std::atomic<bool> gInterrupted{false};
}

Command::~Command() = default;

bool Command::interrupted()
{
    return gInterrupted.load();
}

void Command::setInterrupted()
{
    gInterrupted.store(true);
}

bool Command::waitFor(int ms)
{
    if (interrupted())
        return false;
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec(); // QCoreApplication::quit() ends it early
    return !interrupted();
}

void Command::note(const QString& message) const
{
    const QByteArray line = QStringLiteral("cotool %1: %2\n").arg(name(), message).toLocal8Bit();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    std::fflush(stderr);
}

int Command::usageError(const QString& message) const
{
    note(message);
    return UsageError;
}

int Command::failure(const QString& message) const
{
    note(message);
    return Failure;
}

void Command::out(const QString& line)
{
    const QByteArray bytes = (line + QLatin1Char('\n')).toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

bool Command::positiveOption(const QCommandLineParser& parser, const QCommandLineOption& option, qint64 max,
                             qint64& value, QString* error)
{
    value = 0;
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    value = parser.value(option).toLongLong(&ok);
    if (ok && value > 0 && value <= max)
        return true;
    *error = QStringLiteral("--%1 wants a number 1..%2, got '%3'").arg(option.names().last()).arg(max).arg(parser.value(option));
    return false;
}

void Command::runEventLoop(qint64 durationMs)
{
    if (interrupted())
        return;
    QTimer limit;
    if (durationMs > 0) {
        limit.setSingleShot(true);
        QObject::connect(&limit, &QTimer::timeout, QCoreApplication::instance(), &QCoreApplication::quit);
        limit.start(int(qMin<qint64>(durationMs, 0x7FFFFFFF)));
    }
    QCoreApplication::exec();
}
