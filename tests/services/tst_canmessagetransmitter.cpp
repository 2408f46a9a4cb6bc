#include "canmessagetransmitter.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QtTest>
#include <cstring>

class tst_CanMessageTransmitter : public QObject
{
    Q_OBJECT
    RecordingCanAdapter* adapter = nullptr;
    CanScheduler* scheduler = nullptr;
    CanMessageTransmitter* cmt = nullptr;

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void init()
    {
        adapter = new RecordingCanAdapter;
        scheduler = new CanScheduler(adapter);
        cmt = new CanMessageTransmitter;
        cmt->setCanScheduler(scheduler);
    }
    void cleanup()
    {
        delete cmt;
        delete scheduler;
        delete adapter;
    }

    void sendsTheFrameUnchangedEveryInterval_data()
    {
        QTest::addColumn<bool>("fd");
        QTest::newRow("classic extended 3 bytes") << false;
        QTest::newRow("FD 64 bytes") << true;
    }
    void sendsTheFrameUnchangedEveryInterval()
    {
        QFETCH(bool, fd);
        CAN::CanMessage frame;
        frame.id = fd ? 0x123 : 0x1ABCDEF0;
        frame.extended = !fd;
        frame.fd = frame.brs = fd;
        frame.length = fd ? 64 : 3;
        for (int i = 0; i < frame.length; ++i)
            frame.data[i] = quint8(0xA0 + i);
        cmt->setTranmissionParameter(frame, 5, 7);
        QVERIFY(!cmt->isRunning());
        cmt->startTransmission();
        QTRY_VERIFY_WITH_TIMEOUT(adapter->writtenCount() >= 3, 3000);
        QVERIFY(cmt->isRunning());
        cmt->stopTransmission();
        QVERIFY(!cmt->isRunning());
        const QVector<CAN::CanMessage> sent = adapter->written();
        for (const CAN::CanMessage& m : sent)
            QVERIFY(std::memcmp(&m, &frame, sizeof m) == 0);
        QTest::qWait(30);
        QCOMPARE(adapter->writtenCount(), sent.size()); // stopped for good
    }

    void withoutAdapterNothingRuns()
    {
        cmt->setCanScheduler(QPointer<CanScheduler>());
        cmt->setTranmissionParameter(makeFrame(0x100, {1}), 1, 0);
        cmt->startTransmission();
        QTest::qWait(30);
        QVERIFY(!cmt->isRunning());
    }

    // stop() wakes the loop from its pause: a new start is served at once.
    void stopCutsALongPauseShort()
    {
        cmt->setTranmissionParameter(makeFrame(0x100, {1}), 1000, 0);
        cmt->startTransmission();
        QTRY_COMPARE_WITH_TIMEOUT(adapter->writtenCount(), 1, 3000);
        cmt->stopTransmission();
        QElapsedTimer clock;
        clock.start();
        cmt->startTransmission();
        QTRY_COMPARE_WITH_TIMEOUT(adapter->writtenCount(), 2, 3000);
        QVERIFY2(clock.elapsed() < 700, qPrintable(QString::number(clock.elapsed())));
        cmt->stopTransmission();
    }

    void secondStartIsQueuedBehindTheFirstAndAStopCancelsBoth()
    {
        cmt->setTranmissionParameter(makeFrame(0x100, {1}), 2, 0);
        cmt->startTransmission();
        cmt->startTransmission(); // waits for the first loop to end
        QTRY_VERIFY_WITH_TIMEOUT(adapter->writtenCount() >= 3, 3000);
        cmt->stopTransmission();
        // A stop right after a start: one frame at most, never a transmission that goes on.
        cmt->startTransmission();
        cmt->stopTransmission();
        QTest::qWait(30);
        const int frames = adapter->writtenCount();
        QVERIFY(!cmt->isRunning());
        QTest::qWait(30);
        QCOMPARE(adapter->writtenCount(), frames);
    }

    void updatedIntervalAppliesToTheNextPause()
    {
        cmt->setTranmissionParameter(makeFrame(0x100, {1}), 2, 0);
        cmt->startTransmission();
        QTRY_VERIFY_WITH_TIMEOUT(adapter->writtenCount() >= 3, 3000);
        cmt->updateInterval(60000);
        QTest::qWait(30); // the pause running now (2 ms) ends, then one more frame at most
        const int frames = adapter->writtenCount();
        QTest::qWait(30);
        QCOMPARE(adapter->writtenCount(), frames);
        QVERIFY(cmt->isRunning());
    }

    void destructorNeverWaitsForThePause()
    {
        cmt->setTranmissionParameter(makeFrame(0x100, {1}), 60000, 0);
        cmt->startTransmission();
        cmt->startTransmission(); // a second loop queued behind it
        QTRY_COMPARE_WITH_TIMEOUT(adapter->writtenCount(), 1, 3000);
        QElapsedTimer clock;
        clock.start();
        delete cmt;
        cmt = nullptr;
        QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(adapter->writtenCount(), 1);
    }
};

QTEST_MAIN(tst_CanMessageTransmitter)
#include "tst_canmessagetransmitter.moc"
