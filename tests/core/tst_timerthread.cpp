#include "timerthread.h"

#include <QElapsedTimer>
#include <QtTest>
#include <atomic>
#include <mutex>

// Notes every emission in the timer's own thread (direct connection).
class Ticks : public QObject
{
    Q_OBJECT
public:
    explicit Ticks(TimerThread* timer)
    {
        mClock.start();
        connect(timer, &TimerThread::elapsed, this, &Ticks::tick, Qt::DirectConnection);
    }
    int count() const { return mCount.load(); }
    QVector<qint64> times() // ns since construction
    {
        std::lock_guard<std::mutex> g(mLock);
        return mTimes;
    }
    QThread* thread()
    {
        std::lock_guard<std::mutex> g(mLock);
        return mThread;
    }
    qint64 now() const { return mClock.nsecsElapsed(); }

public Q_SLOTS:
    void tick()
    {
        std::lock_guard<std::mutex> g(mLock);
        mTimes.append(mClock.nsecsElapsed());
        mThread = QThread::currentThread();
        mCount.fetch_add(1);
    }

private:
    QElapsedTimer mClock;
    std::atomic<int> mCount{0};
    std::mutex mLock;
    QVector<qint64> mTimes;
    QThread* mThread = nullptr;
};

class tst_TimerThread : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void startsRunningAndIdle()
    {
        TimerThread timer;
        Ticks ticks(&timer);
        QVERIFY(timer.isRunning());
        QCOMPARE(timer.priority(), QThread::TimeCriticalPriority);
        timer.setIntervalMs(1);
        QTest::qWait(50);
        QCOMPARE(ticks.count(), 0); // not enabled
    }

    // The clock restarts at each emission, so N emissions can never come
    // sooner than N intervals after setIntervalMs(). How late they come
    // depends on the machine's load: only a generous bound is checked.
    void periodMatchesInterval_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("emissions");
        QTest::newRow("10 ms") << 10 << 20;
        QTest::newRow("25 ms") << 25 << 8;
        QTest::newRow("0 ms: every wake-up") << 0 << 20;
    }
    void periodMatchesInterval()
    {
        QFETCH(int, interval);
        QFETCH(int, emissions);
        TimerThread timer;
        Ticks ticks(&timer);
        const qint64 start = ticks.now();
        timer.setIntervalMs(quint16(interval));
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() >= emissions, 10000);
        timer.disable();
        const QVector<qint64> times = ticks.times();
        QCOMPARE(ticks.thread(), &timer);
        const qint64 nth = times.at(emissions - 1) - start;
        QVERIFY2(nth >= qint64(emissions) * interval * 1000000,
                 qPrintable(QStringLiteral("emission %1 after %2 ns").arg(emissions).arg(nth)));
        // Loose, for a loaded machine: on average no worse than three times
        // the interval plus 10 ms.
        QVERIFY2(nth <= qint64(emissions) * (3 * interval + 10) * 1000000,
                 qPrintable(QStringLiteral("emission %1 after %2 ns").arg(emissions).arg(nth)));
    }

    void disableStopsAndEnableResumes()
    {
        TimerThread timer;
        Ticks ticks(&timer);
        timer.setIntervalMs(5);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() >= 3, 5000);
        timer.disable();
        QTest::qWait(20); // an emission under way when disable() came may still land
        const int stopped = ticks.count();
        QTest::qWait(100);
        QCOMPARE(ticks.count(), stopped);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() > stopped, 5000);
        timer.disable();
    }

    // A longer interval set while active takes effect at once.
    void intervalChangeWhileActive()
    {
        TimerThread timer;
        Ticks ticks(&timer);
        timer.setIntervalMs(2);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() >= 3, 5000);
        timer.setIntervalMs(60000);
        QTest::qWait(10);
        const int after = ticks.count();
        QTest::qWait(100);
        QCOMPARE(ticks.count(), after);
        timer.disable();
    }

    void shutdownJoinsPromptly()
    {
        TimerThread timer;
        Ticks ticks(&timer);
        timer.setIntervalMs(1);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() > 0, 5000);
        QElapsedTimer t;
        t.start();
        timer.shutdown();
        QVERIFY2(t.elapsed() < 2000, "the loop looks at its flag every millisecond");
        QVERIFY(timer.isFinished());
        const int last = ticks.count();
        QTest::qWait(20);
        QCOMPARE(ticks.count(), last);
        timer.shutdown(); // again: nothing to do
    }

    // Destroyed while active, with a queued receiver in this thread whose
    // events may still be pending.
    void destructionWhileActiveIsSafe()
    {
        int received = 0;
        QObject context;
        {
            TimerThread timer;
            connect(&timer, &TimerThread::elapsed, &context, [&] { ++received; }, Qt::QueuedConnection);
            timer.setIntervalMs(1);
            timer.enable();
            QTRY_VERIFY_WITH_TIMEOUT(received > 0, 5000);
        }
        QVERIFY(received > 0);
        QTest::qWait(10); // events posted before the end are delivered or dropped, never crash
        auto* heap = new TimerThread;
        heap->setIntervalMs(0);
        heap->enable();
        delete heap;
    }
};

QTEST_GUILESS_MAIN(tst_TimerThread)
#include "tst_timerthread.moc"
