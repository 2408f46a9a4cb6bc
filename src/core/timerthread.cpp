#include "timerthread.h"
#include "canmutex.h"

#include <sys/prctl.h>

TimerThread::TimerThread(QObject* parent)
    : QThread(parent)
{
    QThread::setTerminationEnabled(true);
    start(QThread::TimeCriticalPriority);
}

TimerThread::~TimerThread()
{
    shutdown();
}

void TimerThread::setIntervalMs(quint16 ms)
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mInterval = ms;
        mClock = Clock::now();
        mClockValid = true;
    }
    mWake.notify_all();
}

void TimerThread::enable()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mActive.store(true);
    }
    mWake.notify_all();
}

void TimerThread::disable()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mActive.store(false);
    }
    mWake.notify_all();
    // Wait for an emission in progress (not from inside one: that would deadlock).
    if (QThread::currentThread() != this)
        std::lock_guard<std::mutex> wait(mEmitLock);
}

void TimerThread::shutdown()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mRunning = false;
    }
    mWake.notify_all();
    if (QThread::currentThread() != this) {
        wait();
        tsanAcquire(this); // the loop's end, seen through QThread::wait()
    }
}

void TimerThread::run()
{
    // The default timer slack of 50 us would be added to every wake-up.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);

    std::unique_lock<std::mutex> lock(mLock);
    while (mRunning) {
        if (!mActive.load()) {
            mWake.wait(lock);
            continue;
        }
        const Clock::duration period = std::chrono::milliseconds(mInterval == 0 ? 1 : mInterval);
        const Clock::time_point now = Clock::now();
        if (mClockValid && now < mClock + period) {
            // Woken early by a change or spuriously: the loop looks again.
            mWake.wait_until(lock, mClock + period);
            continue;
        }
        // Due. Stay on the grid when less than half a period late, so that
        // wake-up latency does not add up; later than that (or with the
        // clock never started) the grid restarts now, so that two ticks are
        // never closer than half a period and missed ticks are not made up.
        if (mClockValid && now < mClock + period + period / 2)
            mClock += period;
        else
            mClock = now;
        mClockValid = true;
        lock.unlock();
        {
            std::lock_guard<std::mutex> emitting(mEmitLock);
            if (mActive.load())
                Q_EMIT elapsed();
        }
        lock.lock();
    }
    lock.unlock();
    tsanRelease(this);
}
