#include "scriptedresponder.h"
#include "recordingcanadapter.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <chrono>

int ScriptedResponder::serveWaiting()
{
    const int count = mAdapter->writtenCount();
    int seen = 0;
    while (mSeen < count) {
        const QList<QByteArray> answers = mScript(mAdapter->writtenAt(mSeen++));
        ++seen;
        for (const QByteArray& answer : answers)
            mAdapter->inject(mAnswerId, answer);
    }
    return seen;
}

bool ScriptedResponder::serveUntil(const std::function<bool()>& done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents();
        if (serveWaiting() == 0)
            QThread::usleep(100);
    }
    return true;
}

void ScriptedResponder::start()
{
    mStop.store(false);
    mThread = std::thread([this] {
        while (!mStop.load()) {
            if (serveWaiting() == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
}

void ScriptedResponder::stop()
{
    mStop.store(true);
    if (mThread.joinable())
        mThread.join();
}
