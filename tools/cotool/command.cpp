#include "command.h"

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
