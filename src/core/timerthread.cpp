#include "timerthread.h"
#include "canmutex.h"

TimerThread::TimerThread(QObject* parent)
    : QThread(parent)
{
    start(QThread::TimeCriticalPriority);
}

TimerThread::~TimerThread()
{
    shutdown();
}

void TimerThread::setIntervalMs(quint16 ms)
{
    mInterval.store(ms);
    std::lock_guard<std::mutex> guard(mClockLock);
    mClock.start();
}

void TimerThread::enable() { mActive.store(true); }

void TimerThread::disable() { mActive.store(false); }

void TimerThread::shutdown()
{
    // The loop looks at the flag every millisecond, so a join is enough:
    // no forced termination.
    mRunning.store(false);
    if (QThread::currentThread() != this) {
        wait();
        tsanAcquire(this); // the loop's end, seen through QThread::wait()
    }
}

void TimerThread::run()
{
    while (mRunning.load()) {
        QThread::msleep(1);
        if (!mActive.load())
            continue;
        bool due = false;
        {
            std::lock_guard<std::mutex> guard(mClockLock);
            // An invalid (never started) clock counts as long elapsed.
            if (!mClock.isValid() || mClock.elapsed() >= mInterval.load()) {
                mClock.start(); // restart at emission: the error does not accumulate
                due = true;
            }
        }
        if (due)
            Q_EMIT elapsed();
    }
    tsanRelease(this);
}
