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
        if (m.id != id || m.rtr || m.extended || m.fd || m.length > 1)
            return {-100}; // not a SYNC frame
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

    void counterBytes_data()
    {
        QTest::addColumn<int>("overflow");    // setSyncCounter(overflow)
        QTest::addColumn<int>("counterFlag"); // -1: leave, else setCounterFlag(bool) afterwards
        QTest::addColumn<QVector<int>>("expected");
        QTest::newRow("no counter") << 0 << -1 << QVector<int>{-1, -1};
        QTest::newRow("overflow 3 wraps to 1") << 3 << -1 << QVector<int>{1, 2, 3, 1, 2};
        QTest::newRow("overflow 1") << 1 << -1 << QVector<int>{1, 1};
        QTest::newRow("flag on, overflow 0: always 1") << 0 << 1 << QVector<int>{1, 1};
        QTest::newRow("flag off keeps overflow silent") << 3 << 0 << QVector<int>{-1, -1};
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
            sync.setCounterFlag(counterFlag != 0);
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        for (int i = 0; i < expected.size(); ++i)
            QCOMPARE(sync.oneSync(), CAN::Ok);
        QCOMPARE(syncCounterBytes(adapter.written(), 0x80), expected);
        QCOMPARE(events.count(), expected.size());
    }

    // start() sends the first SYNC at once with the COB-ID given so far,
    // stop() restarts the counter, setCobId() applies at once; interval 0 refuses.
    void startStopAndCobId()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        SYNCProducer idle(0x80, &scheduler);
        QCOMPARE(idle.start(), CAN::Error);
        QCOMPARE(adapter.writtenCount(), 0);
        SYNCProducer sync(0x81, 10000000, 3, &scheduler); // 10 s: only our own frames
        QSignalSpy events(&sync, &SYNCProducer::syncEvent);
        sync.oneSync();
        QCOMPARE(adapter.lastWritten().id, 0x80u); // the COB-ID reaches the frame at start()
        adapter.clearWritten();
        QCOMPARE(sync.start(), CAN::Ok);
        sync.oneSync();
        QCOMPARE(sync.stop(), CAN::Ok);
        QCOMPARE(sync.start(), CAN::Ok);
        sync.stop();
        QCOMPARE(syncCounterBytes(adapter.written(), 0x81), (QVector<int>{2, 3, 1}));
        QCOMPARE(sync.setCobId(0x82), CAN::Ok);
        sync.oneSync();
        QCOMPARE(adapter.lastWritten().id, 0x82u);
        QCOMPARE(events.count(), 5);
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
        CanScheduler scheduler(&adapter), noAdapter(nullptr);
        SYNCProducer sync;
        sync.setSyncCounter(10);
        sync.setCanScheduler(setup == 1 ? &noAdapter : setup == 2 ? &scheduler : nullptr);
        adapter.failWrites(setup == 2 ? CAN::TxQueueFull : CAN::Ok);
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
        QCOMPARE(sync.start(), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(events.count() >= 11, 5000);
        sync.stop();
        const int frames = adapter.writtenCount();
        QCOMPARE(events.count(), frames); // one event per frame written
        const QVector<int> bytes = syncCounterBytes(adapter.written(), 0x80);
        for (int i = 0; i < bytes.size(); ++i)
            QCOMPARE(bytes[i], i + 1); // no gaps
        // Ten periods take at least ten intervals; the upper bound only
        // catches a stalled timer.
        const qint64 tenPeriods = events.timesUs()[10] - events.timesUs()[0];
        QVERIFY2(tenPeriods >= 99000 && tenPeriods < 2000000, qPrintable(QString::number(tenPeriods)));
        QTest::qWait(30);
        QCOMPARE(adapter.writtenCount(), frames); // stop() is final
    }

    // A new interval reaches the running timer; the destructor ends it promptly.
    void newIntervalAndDestructionWhileRunning()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        QElapsedTimer clock;
        {
            SYNCProducer sync(0x80, 10000000, &scheduler);
            sync.start();
            QCOMPARE(sync.setSyncInterval(2000), CAN::Ok);
            QCOMPARE(sync.syncInterval(), 2000u);
            QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 4, 3000);
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
