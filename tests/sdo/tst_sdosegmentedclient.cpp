#include "canopenmasterclass.h"
#include "sdoenginefixture.h"
#include "sdosegmentedclient.h"

#include <algorithm>
#include <atomic>

class tst_SDOSegmentedClient : public QObject, private SdoEngineFixture<SDOSegmentedClient>
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        QtWarningTrap::install();
    }
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void downloadFramesAndProgress_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QList<QByteArray>>("frames");
        QTest::addColumn<QList<int>>("percent");
        QTest::newRow("10 bytes: 70 then 140")
            << countingBytes(10)
            << QList<QByteArray>{"605:2100210a0a000000", "605:0001020304050607", "605:1908090a00000000"}
            << QList<int>{70, 140};
        QTest::newRow("7 bytes: first segment is the last")
            << countingBytes(7) << QList<QByteArray>{"605:2100210a07000000", "605:0101020304050607"} << QList<int>{100};
        QTest::newRow("1 byte: n = 6, percent as 8 bits")
            << countingBytes(1) << QList<QByteArray>{"605:2100210a01000000", "605:0d01000000000000"}
            << QList<int>{700 & 0xFF};
        QTest::newRow("14 bytes: toggle on the last")
            << countingBytes(14)
            << QList<QByteArray>{"605:2100210a0e000000", "605:0001020304050607", "605:1108090a0b0c0d0e"}
            << QList<int>{50, 100};
        QTest::newRow("15 bytes: toggle back to 0")
            << countingBytes(15)
            << QList<QByteArray>{"605:2100210a0f000000", "605:0001020304050607", "605:1008090a0b0c0d0e",
                                 "605:0d0f000000000000"}
            << QList<int>{46, 93, 140};
        QTest::newRow("empty: size 0, one segment without data")
            << QByteArray() << QList<QByteArray>{"605:2100210a00000000", "605:0f00000000000000"} << QList<int>{100};
    }
    void downloadFramesAndProgress()
    {
        QFETCH(QByteArray, value);
        QFETCH(QList<QByteArray>, frames);
        QFETCH(QList<int>, percent);
        QCOMPARE(engine->write(0x2100, 0x0A, value), CAN::Ok);
        QVERIFY(engine->isBusy());
        QCOMPARE(option26(), QVariantList{true});
        QVERIFY(responder->serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), frames);
        QCOMPARE(emitted(*results), (QVariantList{0x2100, 0x0A, 0}));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(server.received, value);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void uploadAnswers_data()
    {
        QTest::addColumn<QList<QByteArray>>("answers");
        QTest::addColumn<QList<QByteArray>>("requests");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QList<int>>("percent");
        const QByteArray init = "605:4000210300000000";
        const QList<QByteArray> segmented{init, "605:6000000000000000", "605:7000000000000000"};
        for (int n = 1; n <= 4; ++n) // the expedited answers 4F, 4B, 47 and 43
            QTest::addRow("expedited, %d bytes", n) << QList<QByteArray>{QByteArray::number(0x43 + 4 * (4 - n), 16) + "002103aabbccdd"}
                                                    << QList<QByteArray>{init} << QByteArray("\xaa\xbb\xcc\xdd").left(n) << QList<int>{};
        QTest::newRow("segmented, size 10, cut to size")
            << QList<QByteArray>{"410021030a000000", "0001020304050607", "1908090aeeeeeeee"} << segmented
            << countingBytes(10) << QList<int>{70, 140};
        QTest::newRow("segmented without size keeps padding")
            << QList<QByteArray>{"4000210300000000", "0001020304050607", "1508090a0b000000"} << segmented
            << (countingBytes(11) + QByteArray(3, '\0')) << QList<int>{100};
    }
    void uploadAnswers()
    {
        QFETCH(QList<QByteArray>, answers);
        QFETCH(QList<QByteArray>, requests);
        QFETCH(QByteArray, value);
        QFETCH(QList<int>, percent);
        QCOMPARE(engine->read(0x2100, 3), CAN::Ok);
        QCOMPARE(option26(), QVariantList{true});
        for (int i = 0; i < answers.size(); ++i) {
            QVERIFY(!ended());
            QCOMPARE(engine->getCurrentlyReceivedData(), value.left(7 * qMax(0, i - 1))); // grows by segment
            adapter->injectHex(Rx, answers.at(i).constData());
        }
        QCOMPARE(adapter->writtenHex(), requests);
        QCOMPARE(emitted(*results), (QVariantList{0x2100, 3, value}));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void fastDownloadKeepsTwoSegmentsInFlight()
    {
        engine->setFastSegmentedDownload(true, 2);
        QCOMPARE(engine->write(0x2100, 1, countingBytes(30)), CAN::Ok);
        const char *answer0 = "20 00 00 00 00 00 00 00", *answer1 = "30 00 00 00 00 00 00 00";
        adapter->injectHex(Rx, "60 00 21 01 00 00 00 00");
        // Two segments back to back: toggle 0, then toggle 1.
        QCOMPARE(adapter->writtenHex().mid(1), (QList<QByteArray>{"605:0001020304050607", "605:1008090a0b0c0d0e"}));
        adapter->injectHex(Rx, answer0);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:000f101112131415"));
        adapter->injectHex(Rx, answer1);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:10161718191a1b1c"));
        adapter->injectHex(Rx, answer0);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:0b1d1e0000000000")); // last, n = 5
        QCOMPARE(results->count(), 0);
        // The answer to the fourth segment arrives with the last one sent: done.
        adapter->injectHex(Rx, answer1);
        QCOMPARE(results->count(), 1);
        adapter->injectHex(Rx, answer0); // the last answer finds the engine idle
        QCOMPARE(adapter->writtenCount(), 6);
        QCOMPARE(results->count(), 1);
        QCOMPARE(errors->count(), 0);
        QCOMPARE(option26(), (QVariantList{true, false}));
    }

    void answersKeepTheTransferAlive()
    {
        // Each answer restarts the time-out: a slow but steady server is served
        // although the whole transfer takes longer than the time-out.
        QCOMPARE(engine->setSdoTimeout(400), CAN::Ok);
        QCOMPARE(engine->write(0x2100, 1, countingBytes(28)), CAN::Ok);
        for (int i = 0; i < 5 && !ended(); ++i) {
            QTest::qWait(100);
            responder->serveWaiting();
        }
        QCOMPARE(errors->count(), 0);
        QCOMPARE(results->count(), 1);
        QCOMPARE(server.received, countingBytes(28));
    }
};

QTEST_MAIN(tst_SDOSegmentedClient)
#include "tst_sdosegmentedclient.moc"
