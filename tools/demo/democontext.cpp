#include "democontext.h"

#include "abstractcanadapter.h"
#include "canopenmaster_c.h"
#include "canscheduler.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {
std::atomic<bool> gInterrupted{false};
}

DemoContext::DemoContext()
{
    mClock.start();
}

DemoContext::~DemoContext()
{
    if (adapter)
        adapter->close();
    delete scheduler;
    delete adapter;
    if (cHandle >= 0)
        ca_destroy(cHandle);
}

QString DemoContext::now() const
{
    return QStringLiteral("%1 s").arg(double(mClock.elapsed()) / 1000.0, 6, 'f', 3);
}

void DemoContext::heading(int number, const QString& title) const
{
    say(QStringLiteral("\nStep %1: %2").arg(number).arg(title));
}

void DemoContext::say(const QString& text) const
{
    const QByteArray bytes = (text + QLatin1Char('\n')).toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

bool DemoContext::waitUntil(const std::function<bool()>& done, int ms) const
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (gInterrupted.load() || t.elapsed() >= ms)
            return false;
        QEventLoop loop;
        QTimer::singleShot(10, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

void DemoContext::wait(int ms) const
{
    waitUntil([]() { return false; }, ms);
}

bool DemoContext::interrupted()
{
    return gInterrupted.load();
}

void DemoContext::setInterrupted()
{
    gInterrupted.store(true);
}

QString DemoContext::nmtStateName(quint8 state)
{
    switch (state) {
    case 0x00: return QStringLiteral("boot-up");
    case 0x04: return QStringLiteral("stopped");
    case 0x05: return QStringLiteral("operational");
    case 0x7F: return QStringLiteral("pre-operational");
    default: return QStringLiteral("unknown state 0x%1").arg(state, 2, 16, QLatin1Char('0'));
    }
}

bool DemoContext::tellDevice(const QString& line) const
{
    // Opened per line: the pipe's reader (the device) is there all along,
    // so a non-blocking open cannot fail for want of one.
    const int fd = deviceConsole.isEmpty() ? -1 : ::open(deviceConsole.toLocal8Bit().constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        say(QStringLiteral("  (no console pipe to the device: start codemo with --device-console)"));
        return false;
    }
    const QByteArray bytes = (line + QLatin1Char('\n')).toLocal8Bit();
    const bool ok = ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
    ::close(fd);
    say(QStringLiteral("    %1  device console <- \"%2\"").arg(now(), line));
    return ok;
}
