#include "timerthread.h"
#include "canmutex.h"

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

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

void TimerThread::raisePriority()
{
    // On Linux QThread's TimeCriticalPriority changes nothing for normal
    // threads. Where the process may (root, CAP_SYS_NICE or an RLIMIT_RTPRIO
    // allowance) the timer runs at the lowest real-time priority, which is
    // above every normal thread; else at nice -20 if allowed; else as it is.
    // The loop sleeps between ticks, so it never holds a core.
    sched_param param{};
    param.sched_priority = sched_get_priority_min(SCHED_FIFO);
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0)
        return;
    setpriority(PRIO_PROCESS, pid_t(syscall(SYS_gettid)), -20);
}

void TimerThread::run()
{
    // The default timer slack of 50 us would be added to every wake-up.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    raisePriority();

    std::unique_lock<std::mutex> lock(mLock);
    while (mRunning) {
        if (!mActive.load()) {
            mWake.wait(lock);
            continue;
        }
        const Clock::duration period = std::chrono::milliseconds(mInterval == 0 ? 1 : mInterval);
        const Clock::time_point now = Clock::now();
        if (mClockValid && now < mClock + period) {
            // Not due: sleep until the deadline (a change wakes the loop earlier).
            mWake.wait_until(lock, mClock + period);
            continue;
        }
        // Due. Stay on the grid when less than half a period late, so that
        // wake-up latency does not add up; later than that (or with the
        // clock never started) the grid restarts now, so that late ticks are
        // not followed by a bunch of catch-up ticks.
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
