#include "syncproducer.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "crossthreadspy.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

Q_DECLARE_METATYPE(QVector<int>)

namespace {
// Counter bytes of the frames written (-1 for a frame without counter byte),
// after checking that every frame is a classic SYNC on `id`.
QVector<int> syncCounterBytes(const QVector<CAN::CanMessage>& frames, quint32 id)
{
    QVector<int> bytes;
    for (const CAN::CanMessage& m : frames) {
        if (m.id != id || m.rtr || m.extended || m.fd || m.brs || m.length > 1)
            return {-100}; // not a SYNC frame
        for (int i = m.length; i < 64; ++i) {
            if (m.data[i] != 0)
                return {-200}; // bytes beyond the length must be zero
        }
        bytes.append(m.length == 1 ? int(m.data[0]) : -1);
    }
    return bytes;
}
} // namespace

class tst_SYNCProducer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void cleanup() { CANopenService::activateCANopenFD(false); }

    void counterBytes_data()
    {
        QTest::addColumn<int>("overflow");    // setSyncCounter(overflow)
        QTest::addColumn<int>("counterFlag"); // -1: leave, else setCounterFlag(bool) afterwards
        QTest::addColumn<QVector<int>>("expected");
        QTest::newRow("no counter") << 0 << -1 << QVector<int>{-1, -1, -1};
        QTest::newRow("overflow 3 wraps to 1") << 3 << -1 << QVector<int>{1, 2, 3, 1, 2, 3, 1};
        QTest::newRow("overflow 1") << 1 << -1 << QVector<int>{1, 1, 1};
        QTest::newRow("overflow 240") << 240 << -1 << QVector<int>{1, 2, 3, 4};
        QTest::newRow("flag on, overflow 0: always 1") << 0 << 1 << QVector<int>{1, 1, 1};
        QTest::newRow("flag off keeps overflow silent") << 3 << 0 << QVector<int>{-1, -1, -1};
    }
    void counterBytes()
    {
        QFETCH(int, overflow);
        QFETCH(int, counterFlag);
        QFETCH(QVector<int>, expected);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 10000, &scheduler);
        QCOMPARE(sync.setSyncCounter(quint8(overflow)), CAN::Ok);
        if (counterFlag >= 0)
            QCOMPARE(sync.setCounterFlag(counterFlag != 0), CAN::Ok);
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        for (int i = 0; i < expected.size(); ++i)
            QCOMPARE(sync.oneSync(), CAN::Ok);
        QCOMPARE(syncCounterBytes(adapter.written(), 0x80), expected);
        QCOMPARE(events.count(), expected.size());
    }

    void counterAfter255WrapsTo1()
    {
        QCOMPARE(int(SYNCProducer::nextCounter(254, 255)), 255);
        QCOMPARE(int(SYNCProducer::nextCounter(255, 255)), 1);
        QCOMPARE(int(SYNCProducer::nextCounter(0, 0)), 1);
    }

    void overflowGivenToConstructorSwitchesCounterOn()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 1000000, 2, &scheduler);
        for (int i = 0; i < 3; ++i)
            sync.oneSync();
        QCOMPARE(syncCounterBytes(adapter.written(), 0x80), (QVector<int>{1, 2, 1}));
    }

    void syncStaysClassicInFdMode()
    {
        CANopenService::activateCANopenFD(true);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 10000, &scheduler);
        QCOMPARE(sync.oneSync(), CAN::Ok);
        QCOMPARE(adapter.lastWritten().fd, false);
    }

    void startWithIntervalZeroSendsNothing()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, &scheduler);
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        QCOMPARE(sync.start(), CAN::Error);
        QTest::qWait(20);
        QCOMPARE(adapter.writtenCount(), 0);
        QCOMPARE(events.count(), 0);
    }

    void startSendsFirstSyncAtOnceAndStopRestartsCounter()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        // 10 s period: only the frames sent by start() and oneSync() appear.
        SYNCProducer sync(0x80, 10000000, 3, &scheduler);
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        QCOMPARE(sync.start(), CAN::Ok);
        QCOMPARE(adapter.writtenCount(), 1); // written before start() returned
        QCOMPARE(events.count(), 1);
        sync.oneSync();
        QCOMPARE(sync.stop(), CAN::Ok);
        QCOMPARE(sync.start(), CAN::Ok);
        sync.oneSync();
        sync.stop();
        QCOMPARE(syncCounterBytes(adapter.written(), 0x80), (QVector<int>{1, 2, 1, 2}));
        QCOMPARE(events.count(), 4);
    }

    void cobIdReachesFrameAtStartOrAtOnceBySetter()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x81, 10000000, &scheduler);
        QCOMPARE(sync.cobId(), 0x81u);
        sync.oneSync();
        QCOMPARE(adapter.lastWritten().id, 0x80u); // not yet in the frame
        sync.start();
        QCOMPARE(adapter.lastWritten().id, 0x81u);
        QCOMPARE(sync.setCobId(0x82), CAN::Ok);
        sync.oneSync();
        QCOMPARE(adapter.lastWritten().id, 0x82u);
        sync.stop();
    }

    void noAdapterOrFailedWriteGivesNoEvent_data()
    {
        QTest::addColumn<int>("setup"); // 0 no scheduler, 1 scheduler without adapter, 2 write fails
        QTest::addColumn<int>("result");
        QTest::newRow("no scheduler") << 0 << int(CAN::Error);
        QTest::newRow("scheduler without adapter") << 1 << int(CAN::Error);
        QTest::newRow("transmit queue full") << 2 << int(CAN::TxQueueFull);
    }
    void noAdapterOrFailedWriteGivesNoEvent()
    {
        QFETCH(int, setup);
        QFETCH(int, result);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanScheduler noAdapter(nullptr);
        SYNCProducer sync;
        sync.setSyncCounter(10);
        if (setup == 1)
            sync.setCanScheduler(&noAdapter);
        if (setup == 2) {
            sync.setCanScheduler(&scheduler);
            adapter.failWrites(CAN::TxQueueFull);
        }
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        QCOMPARE(int(sync.oneSync()), result);
        QCOMPARE(events.count(), 0);
        // The counter advanced all the same: the next frame carries 2.
        adapter.failWrites(CAN::Ok);
        sync.setCanScheduler(&scheduler);
        QCOMPARE(sync.oneSync(), CAN::Ok);
        QCOMPARE(syncCounterBytes(adapter.written(), 0x80), QVector<int>{2});
        QCOMPARE(events.count(), 1);
    }

    void timerSendsPeriodicallyFromItsOwnThread()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 10000, 240, &scheduler);
        CrossThreadSpy events(&sync, &SYNCProducer::syncEvent);
        QThread* emitter = nullptr;
        CanMutex lock;
        connect(&sync, &SYNCProducer::syncEvent, this, [&] {
            std::lock_guard<CanMutex> g(lock);
            emitter = QThread::currentThread();
        }, Qt::DirectConnection);
        QCOMPARE(sync.start(), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(events.count() >= 11, 5000);
        sync.stop();
        const int frames = adapter.writtenCount();
        QCOMPARE(events.count(), frames); // one event per frame written
        {
            std::lock_guard<CanMutex> g(lock);
            QVERIFY(emitter != QThread::currentThread());
        }
        // Counter bytes run on without gaps.
        const QVector<int> bytes = syncCounterBytes(adapter.written(), 0x80);
        for (int i = 0; i < bytes.size(); ++i)
            QCOMPARE(bytes[i], i + 1);
        // Ten periods take at least ten intervals (the timer is never early
        // on average); the upper bound only catches a stalled timer.
        const QVector<qint64> t = events.timesUs();
        const qint64 tenPeriods = t[10] - t[0];
        QVERIFY2(tenPeriods >= 99000, qPrintable(QString::number(tenPeriods)));
        QVERIFY2(tenPeriods < 2000000, qPrintable(QString::number(tenPeriods)));
        // stop() is final: no frame follows it.
        QTest::qWait(40);
        QCOMPARE(adapter.writtenCount(), frames);
    }

    void subMillisecondIntervalSyncsEveryMillisecond()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 500, &scheduler); // 500 us -> a 0 ms timer period
        QCOMPARE(sync.start(), CAN::Ok);
        QElapsedTimer clock;
        clock.start();
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 30, 5000);
        sync.stop();
        QVERIFY(clock.elapsed() >= 25);
    }

    void newIntervalAppliesFromTheNextTick()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer sync(0x80, 10000000, &scheduler);
        sync.start();
        QCOMPARE(adapter.writtenCount(), 1);
        QCOMPARE(sync.setSyncInterval(5000), CAN::Ok);
        QCOMPARE(sync.syncInterval(), 5000u);
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 4, 3000);
        sync.stop();
    }

    void destructorWhileRunningIsPrompt()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        QElapsedTimer clock;
        {
            SYNCProducer sync(0x80, 1000, &scheduler);
            sync.start();
            QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 3, 3000);
            clock.start();
        }
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        const int frames = adapter.writtenCount();
        QTest::qWait(20);
        QCOMPARE(adapter.writtenCount(), frames);
    }
};

QTEST_MAIN(tst_SYNCProducer)
#include "tst_syncproducer.moc"
