#include "canmessagetransmitter.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QtTest>
#include <cstring>

namespace {
bool sameFrame(const CAN::CanMessage& a, const CAN::CanMessage& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}
} // namespace

class tst_CanMessageTransmitter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void sendsTheFrameUnchangedEveryInterval_data()
    {
        QTest::addColumn<bool>("fd");
        QTest::addColumn<bool>("extended");
        QTest::addColumn<int>("length");
        QTest::newRow("classic 3 bytes") << false << false << 3;
        QTest::newRow("extended 8 bytes") << false << true << 8;
        QTest::newRow("FD 64 bytes") << true << false << 64;
        QTest::newRow("empty") << false << false << 0;
    }
    void sendsTheFrameUnchangedEveryInterval()
    {
        QFETCH(bool, fd);
        QFETCH(bool, extended);
        QFETCH(int, length);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanMessageTransmitter cmt;
        cmt.setCanScheduler(&scheduler);
        CAN::CanMessage frame;
        frame.id = extended ? 0x1ABCDEF0 : 0x123;
        frame.extended = extended;
        frame.fd = fd;
        frame.brs = fd;
        frame.length = quint8(length);
        for (int i = 0; i < length; ++i)
            frame.data[i] = quint8(0xA0 + i);
        cmt.setTranmissionParameter(frame, 5, 7);
        QVERIFY(!cmt.isRunning());
        cmt.startTransmission();
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 3, 3000);
        QVERIFY(cmt.isRunning());
        cmt.stopTransmission();
        QVERIFY(!cmt.isRunning());
        const QVector<CAN::CanMessage> sent = adapter.written();
        for (const CAN::CanMessage& m : sent)
            QVERIFY(sameFrame(m, frame));
        QTest::qWait(30);
        QCOMPARE(adapter.writtenCount(), sent.size()); // stopped for good
    }

    void intervalZeroSendsBackToBack()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanMessageTransmitter cmt;
        cmt.setCanScheduler(&scheduler);
        cmt.setTranmissionParameter(makeFrame(0x7FF, {0x55}), 0, 0);
        cmt.startTransmission();
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 2000, 5000);
        cmt.stopTransmission();
    }

    void withoutAdapterNothingRuns_data()
    {
        QTest::addColumn<bool>("nullScheduler");
        QTest::newRow("scheduler never set") << false;
        QTest::newRow("null scheduler") << true;
    }
    void withoutAdapterNothingRuns()
    {
        QFETCH(bool, nullScheduler);
        CanMessageTransmitter cmt;
        if (nullScheduler)
            cmt.setCanScheduler(QPointer<CanScheduler>());
        cmt.setTranmissionParameter(makeFrame(0x100, {1}), 1, 0);
        cmt.startTransmission();
        QTest::qWait(30);
        QVERIFY(!cmt.isRunning());
    }

    void stopCutsALongPauseShort()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanMessageTransmitter cmt;
        cmt.setCanScheduler(&scheduler);
        cmt.setTranmissionParameter(makeFrame(0x100, {1}), 1000, 0);
        cmt.startTransmission();
        QTRY_COMPARE_WITH_TIMEOUT(adapter.writtenCount(), 1, 3000);
        cmt.stopTransmission();
        // A new start is served at once: the old loop did not sit out its
        // 1000 ms pause, and sent no further frame when it ended.
        QElapsedTimer clock;
        clock.start();
        cmt.startTransmission();
        QTRY_COMPARE_WITH_TIMEOUT(adapter.writtenCount(), 2, 3000);
        QVERIFY2(clock.elapsed() < 700, qPrintable(QString::number(clock.elapsed())));
        cmt.stopTransmission();
    }

    void secondStartIsQueuedBehindTheFirstAndAStopCancelsBoth()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanMessageTransmitter cmt;
        cmt.setCanScheduler(&scheduler);
        cmt.setTranmissionParameter(makeFrame(0x100, {1}), 2, 0);
        cmt.startTransmission();
        cmt.startTransmission(); // waits for the first loop to end
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 3, 3000);
        cmt.stopTransmission();
        QTest::qWait(30);
        const int frames = adapter.writtenCount();
        QVERIFY(!cmt.isRunning());
        QTest::qWait(30);
        QCOMPARE(adapter.writtenCount(), frames);
        // A stop right after a start: one frame at most (if the worker got
        // to it first), never a transmission that goes on.
        cmt.startTransmission();
        cmt.stopTransmission();
        QTest::qWait(30);
        const int afterQuickStop = adapter.writtenCount();
        QVERIFY(afterQuickStop - frames <= 1);
        QVERIFY(!cmt.isRunning());
        QTest::qWait(30);
        QCOMPARE(adapter.writtenCount(), afterQuickStop);
    }

    void updatedIntervalAppliesToTheNextPause()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        CanMessageTransmitter cmt;
        cmt.setCanScheduler(&scheduler);
        cmt.setTranmissionParameter(makeFrame(0x100, {1}), 2, 0);
        cmt.startTransmission();
        QTRY_VERIFY_WITH_TIMEOUT(adapter.writtenCount() >= 3, 3000);
        cmt.updateInterval(60000);
        QTest::qWait(50); // the pause running now (2 ms) ends, then one more frame at most
        const int frames = adapter.writtenCount();
        QTest::qWait(50);
        QCOMPARE(adapter.writtenCount(), frames);
        QVERIFY(cmt.isRunning());
    }

    void destructorNeverWaitsForThePause()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        QElapsedTimer clock;
        {
            CanMessageTransmitter cmt;
            cmt.setCanScheduler(&scheduler);
            cmt.setTranmissionParameter(makeFrame(0x100, {1}), 60000, 0);
            cmt.startTransmission();
            cmt.startTransmission(); // a second loop queued behind it
            QTRY_COMPARE_WITH_TIMEOUT(adapter.writtenCount(), 1, 3000);
            clock.start();
        }
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(adapter.writtenCount(), 1);
    }

    void destructorRightAfterConstruction()
    {
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 20; ++i)
            CanMessageTransmitter cmt;
        QVERIFY(clock.elapsed() < 5000);
    }
};

QTEST_MAIN(tst_CanMessageTransmitter)
#include "tst_canmessagetransmitter.moc"
