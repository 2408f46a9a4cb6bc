#ifndef TIMERTHREAD_H
#define TIMERTHREAD_H

#include "canopenmaster_global.h"

#include <QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

// Periodic timer in a thread of its own at the highest priority: emits
// elapsed() from that thread every interval milliseconds while enabled.
//
// The thread sleeps until the next deadline instead of polling. Deadlines lie
// on a fixed grid from the last clock restart (setIntervalMs), so wake-up
// latency does not add up from period to period; a tick more than half a
// period late restarts the grid instead (missed ticks are not made up). An
// interval of 0 ticks every millisecond. The thread runs at real-time
// priority where the process is allowed to (see raisePriority()).
class CANOPENMASTER_EXPORT TimerThread : public QThread
{
    Q_OBJECT
public:
    explicit TimerThread(QObject* parent = nullptr);
    ~TimerThread() override;

    // Stores the interval and restarts the clock: the next tick is one
    // interval from now.
    void setIntervalMs(quint16 ms);
    void enable();
    // After disable() returns (from any other thread) no elapsed() is being
    // emitted and none follows until enable(). A receiver of elapsed() must
    // therefore not wait for the thread that calls disable().
    void disable();
    // Ends the loop: clears the running flag, wakes and joins the thread
    // (no forced termination).
    void shutdown();

Q_SIGNALS:
    void elapsed();

protected:
    void run() override;

private:
    static void raisePriority();

    using Clock = std::chrono::steady_clock;

    std::atomic<bool> mActive{false};
    quint16 mInterval = 0;      // guarded by mLock
    bool mRunning = true;       // guarded by mLock
    bool mClockValid = false;   // guarded by mLock
    Clock::time_point mClock;   // guarded by mLock: start of the present period
    std::mutex mLock;
    std::condition_variable mWake;
    std::mutex mEmitLock;       // held while elapsed() is emitted
};

#endif
