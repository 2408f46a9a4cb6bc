#include "crossthreadspy.h"
#include "timerthread.h"

#include <QElapsedTimer>
#include <QtTest>
#include <chrono>

namespace {
qint64 nowUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch()).count();
}
} // namespace

class tst_TimerThread : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // N emissions never come sooner than N intervals after setIntervalMs()
    // (0: every millisecond). How late they come depends on the machine's
    // load: only a generous bound is checked.
    void periodMatchesInterval_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("emissions");
        QTest::newRow("10 ms") << 10 << 20;
        QTest::newRow("0 ms: every millisecond") << 0 << 20;
    }
    void periodMatchesInterval()
    {
        QFETCH(int, interval);
        QFETCH(int, emissions);
        TimerThread timer;
        CrossThreadSpy ticks(&timer, &TimerThread::elapsed);
        QVERIFY(timer.isRunning());
        timer.setIntervalMs(1);
        QTest::qWait(30);
        QCOMPARE(ticks.count(), 0); // not enabled yet
        const qint64 start = nowUs();
        timer.setIntervalMs(quint16(interval));
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() >= emissions, 10000);
        timer.disable();
        const qint64 nth = ticks.timesUs().at(emissions - 1) - start;
        const int period = qMax(interval, 1);
        QVERIFY2(nth >= qint64(emissions) * period * 1000, qPrintable(QString::number(nth)));
        QVERIFY2(nth <= qint64(emissions) * (3 * period + 10) * 1000, qPrintable(QString::number(nth)));
    }

    // disable() stops at once and enable() resumes; a longer interval set
    // while active takes effect at once.
    void disableAndIntervalChangeTakeEffectAtOnce()
    {
        TimerThread timer;
        CrossThreadSpy ticks(&timer, &TimerThread::elapsed);
        timer.setIntervalMs(2);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() >= 3, 5000);
        timer.disable();
        int stopped = ticks.count(); // no emission is under way once disable() returned
        QTest::qWait(60);
        QCOMPARE(ticks.count(), stopped);
        timer.enable();
        QTRY_VERIFY_WITH_TIMEOUT(ticks.count() > stopped + 2, 5000);
        timer.setIntervalMs(60000);
        stopped = ticks.count();
        QTest::qWait(60);
        QVERIFY(ticks.count() <= stopped + 1);
        timer.disable();
    }

    // Shutdown joins promptly; destruction while active, with queued
    // receivers whose events may still be pending, is safe.
    void shutdownAndDestructionWhileActive()
    {
        int received = 0;
        QObject context;
        {
            TimerThread timer;
            connect(&timer, &TimerThread::elapsed, &context, [&] { ++received; }, Qt::QueuedConnection);
            timer.setIntervalMs(1);
            timer.enable();
            QTRY_VERIFY_WITH_TIMEOUT(received > 0, 5000);
            QElapsedTimer t;
            t.start();
            timer.shutdown();
            QVERIFY(t.elapsed() < 2000);
            QVERIFY(timer.isFinished());
            timer.shutdown(); // again: nothing to do
        }
        auto* heap = new TimerThread;
        connect(heap, &TimerThread::elapsed, &context, [&] { ++received; }, Qt::QueuedConnection);
        heap->setIntervalMs(0);
        heap->enable();
        QTRY_VERIFY_WITH_TIMEOUT(received > 1, 5000);
        delete heap;
        QTest::qWait(10); // events posted before the end are delivered or dropped, never crash
    }
};

QTEST_GUILESS_MAIN(tst_TimerThread)
#include "tst_timerthread.moc"
