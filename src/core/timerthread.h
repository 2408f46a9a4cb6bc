#ifndef TIMERTHREAD_H
#define TIMERTHREAD_H

#include "canopenmaster_global.h"

#include <QElapsedTimer>
#include <QThread>
#include <atomic>
#include <mutex>

// Periodic timer in a thread of its own at the highest priority: polls every
// millisecond and emits elapsed() from that thread once the interval is over.
class CANOPENMASTER_EXPORT TimerThread : public QThread
{
    Q_OBJECT
public:
    explicit TimerThread(QObject* parent = nullptr);
    ~TimerThread() override;

    void setIntervalMs(quint16 ms);
    void enable();
    void disable();
    // Ends the loop: clears the running flag and joins the thread.
    void shutdown();

Q_SIGNALS:
    void elapsed();

protected:
    void run() override;

private:
    std::atomic<bool> mActive{false};
    std::atomic<quint16> mInterval{0};
    std::atomic<bool> mRunning{true};
    std::mutex mClockLock;   // the clock is restarted by both threads
    QElapsedTimer mClock;    // time of the last emission
};

#endif
