#include "canopenmasterclass.h"
#include "sdoblockclient.h"
#include "sdoenginefixture.h"

class tst_SDOBlockClient : public QObject, private SdoEngineFixture<SDOBlockClient>
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

    void downloadFrames_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<QList<QByteArray>>("frames");
        QTest::addColumn<QList<int>>("percent");
        QTest::newRow("29 bytes, one block, n = 6")
            << countingBytes(29) << 127
            << QList<QByteArray>{"605:c20022011d000000", "605:0101020304050607", "605:0208090a0b0c0d0e",
                                 "605:030f101112131415", "605:04161718191a1b1c", "605:851d000000000000",
                                 "605:d900000000000000"}
            << QList<int>{100};
        QTest::newRow("30 bytes in blocks of 2")
            << countingBytes(30) << 2
            << QList<QByteArray>{"605:c20022011e000000", "605:0101020304050607", "605:0208090a0b0c0d0e",
                                 "605:010f101112131415", "605:02161718191a1b1c", "605:811d1e0000000000",
                                 "605:d500000000000000"}
            << QList<int>{46, 93, 100};
        QTest::newRow("7 bytes: n = 0")
            << countingBytes(7) << 127
            << QList<QByteArray>{"605:c200220107000000", "605:8101020304050607", "605:c100000000000000"}
            << QList<int>{100};
        QTest::newRow("empty: one segment without data, n = 7")
            << QByteArray() << 127
            << QList<QByteArray>{"605:c200220100000000", "605:8100000000000000", "605:dd00000000000000"}
            << QList<int>{100};
    }
    void downloadFrames()
    {
        QFETCH(QByteArray, value);
        QFETCH(int, blockSize);
        QFETCH(QList<QByteArray>, frames);
        QFETCH(QList<int>, percent);
        server.downloadBlockSize = quint8(blockSize);
        QCOMPARE(engine->write(0x2200, 1, value), CAN::Ok);
        QVERIFY(engine->isBusy());
        QVERIFY(responder->serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), frames);
        QCOMPARE(emitted(*results), (QVariantList{0x2200, 1, 0}));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(server.received, value);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void confirmationShortOfTheBlockAborts()
    {
        server.downloadBlockSize = 5;
        server.confirmOnly = 3;
        QCOMPARE(engine->write(0x2200, 1, countingBytes(50)), CAN::Ok);
        QVERIFY(responder->serveUntil([&] { return ended(); }));
        QCOMPARE(emitted(*errors), (QVariantList{0x2200, 1, 0x08000000u}));
        QCOMPARE(frameHex(adapter->lastWritten()), abortHex(0x2200, 1, 0x08000000));
        QTest::qWait(20); // no segment is sent again, none of the next block either
        QCOMPARE(adapter->writtenCount(), 1 + 5 + 1);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void fullTransmitQueueIsRetried()
    {
        server.downloadBlockSize = 4;
        QCOMPARE(engine->write(0x2200, 1, countingBytes(40)), CAN::Ok);
        adapter->failWrites(CAN::TxQueueFull);
        responder->serveWaiting(); // the initiate answer: the first segment meets a full queue
        QTest::qWait(35);          // retried every 10 ms, nothing gets through
        QCOMPARE(adapter->writtenCount(), 1);
        QVERIFY(engine->isBusy());
        adapter->failWrites(CAN::Ok);
        QVERIFY(responder->serveUntil([&] { return ended(); }));
        QCOMPARE(results->count(), 1);
        QCOMPARE(server.received, countingBytes(40)); // nothing lost, nothing twice
        QCOMPARE(adapter->writtenCount(), 1 + 6 + 1);
    }

    void upload_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QList<QByteArray>>("requests");
        QTest::addColumn<QList<int>>("percent");
        QTest::newRow("20 bytes") << 20
                                  << QList<QByteArray>{"605:a40022017f000000", "605:a300000000000000",
                                                       "605:a2037f0000000000", "605:a100000000000000"}
                                  << QList<int>{105, 100};
        QTest::newRow("127 segments confirmed after the 127th, then the rest")
            << 127 * 7 + 10
            << QList<QByteArray>{"605:a40022017f000000", "605:a300000000000000", "605:a27f7f0000000000",
                                 "605:a2027f0000000000", "605:a100000000000000"}
            << QList<int>{98, 100, 100};
    }
    void upload()
    {
        QFETCH(int, length);
        QFETCH(QList<QByteArray>, requests);
        QFETCH(QList<int>, percent);
        server.content = countingBytes(length);
        QCOMPARE(engine->read(0x2200, 1), CAN::Ok);
        QVERIFY(responder->serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), requests);
        QCOMPARE(emitted(*results), (QVariantList{0x2200, 1, server.content}));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        // The start request can also be sent on its own, as a slot.
        engine->sendBlockInitiateEnd();
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:a300000000000000"));
    }
};

QTEST_MAIN(tst_SDOBlockClient)
#include "tst_sdoblockclient.moc"
