#include "signalwatcher.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {
// The pipe is process-wide: a signal handler cannot find an object.
int gPipe[2] = {-1, -1};

extern "C" void writeSignalToPipe(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    if (gPipe[1] >= 0) {
        [[maybe_unused]] const ssize_t n = ::write(gPipe[1], &byte, 1);
    }
    errno = savedErrno;
}
} // namespace

SignalWatcher::SignalWatcher(const QList<int>& signalNumbers, QObject* parent)
    : QObject(parent)
    , mSignals(signalNumbers)
{
    if (gPipe[0] < 0 && ::pipe2(gPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    mNotifier = new QSocketNotifier(gPipe[0], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &SignalWatcher::readPipe);

    mValid = true;
    for (int signalNumber : mSignals) {
        struct sigaction action = {};
        action.sa_handler = writeSignalToPipe;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART | SA_RESETHAND;
        if (::sigaction(signalNumber, &action, nullptr) != 0)
            mValid = false;
    }
}

SignalWatcher::~SignalWatcher()
{
    for (int signalNumber : mSignals)
        ::signal(signalNumber, SIG_DFL);
    // The pipe stays open: a signal arriving now must not write to a closed
    // (or reused) descriptor. It is reused by the next watcher.
}

void SignalWatcher::readPipe()
{
    unsigned char byte;
    while (::read(gPipe[0], &byte, 1) == 1)
        Q_EMIT signalReceived(int(byte));
}

SignalWatcher* SignalWatcher::quitOnTermination(QObject* parent)
{
    auto* watcher = new SignalWatcher({SIGINT, SIGTERM}, parent);
    QObject::connect(watcher, &SignalWatcher::signalReceived, QCoreApplication::instance(),
                     &QCoreApplication::quit, Qt::QueuedConnection);
    return watcher;
}
