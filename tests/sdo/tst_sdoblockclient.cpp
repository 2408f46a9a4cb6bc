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
        QCOMPARE(errors->count(), 0);
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
        const QList<QByteArray> frames = adapter->writtenHex();
        QCOMPARE(frames.size(), 1 + 6 + 1);
        QCOMPARE(frames.at(1), QByteArray("605:0101020304050607"));
        QCOMPARE(frames.at(5), QByteArray("605:011d1e1f20212223"));
        QCOMPARE(frames.at(6), QByteArray("605:8224252627280000"));
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
        QCOMPARE(errors->count(), 0);
        QCOMPARE(emitted(*results), (QVariantList{0x2200, 1, server.content}));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    // How a transfer ends early: the server aborts, falls silent (time-out),
    // or the caller aborts with or without a code; at the initiate, or in
    // mid-block (a download with its segment pacing running, an upload with
    // three segments of 200 bytes received). Nothing follows the end.
    void endings_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("answered");
        QTest::addColumn<int>("sent");
        QTest::addColumn<QString>("ending");
        for (const char* ending : {"server abort", "silence", "abort 0", "abort 0x05040001"}) {
            QTest::addRow("%s, download at initiate", ending) << false << 0 << 1 << QString(ending);
            QTest::addRow("%s, download in mid-block", ending) << false << 1 << 2 << QString(ending);
            QTest::addRow("%s, upload at initiate", ending) << true << 0 << 1 << QString(ending);
            QTest::addRow("%s, upload in mid-block", ending) << true << 2 << 2 << QString(ending);
        }
    }
    void endings()
    {
        QFETCH(bool, upload);
        QFETCH(int, answered);
        QFETCH(int, sent);
        QFETCH(QString, ending);
        server.content = countingBytes(200);
        server.silentAfter = 3;
        server.answerRequests = answered;
        QCOMPARE(engine->setSdoTimeout(60), CAN::Ok);
        QCOMPARE(upload ? engine->read(0x2200, 1) : engine->write(0x2200, 1, countingBytes(2000)), CAN::Ok);
        QVERIFY(responder->serveUntil([&] { return adapter->writtenCount() == sent; }));
        responder->serveWaiting();
        if (upload)
            QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(answered ? 21 : 0));
        quint32 code = 0x05040000;
        if (ending == "server abort") {
            code = 0x06020000;
            adapter->injectHex(Rx, "80 00 22 01 00 00 02 06");
        } else if (ending == "silence") {
            QVERIFY(responder->serveUntil([&] { return ended(); }));
            sent = adapter->writtenCount(); // a download's block goes out before the time-out
            QCOMPARE(frameHex(adapter->lastWritten()), abortHex(0x2200, 1, code));
        } else {
            code = ending.mid(6).toUInt(nullptr, 0);
            QCOMPARE(engine->abort(code), CAN::Ok);
            if (code) {
                QCOMPARE(frameHex(adapter->lastWritten()), abortHex(0x2200, 1, code));
                ++sent;
            }
        }
        QCOMPARE(errors->count(), 1);
        QCOMPARE(emitted(*errors), (QVariantList{0x2200, 1, code}));
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        adapter->injectHex(Rx, "a2 7f 7f 00 00 00 00 00"); // late: no segment, no end frame
        QTest::qWait(100);                                  // no paced segment, no time-out either
        QCOMPARE(adapter->writtenCount(), sent);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(results->count(), 0);
        QCOMPARE(engine->read(0x2200, 2), CAN::Ok); // a new transfer starts cleanly
    }

    void refusals()
    {
        QCOMPARE(engine->write(0x2200, 1, countingBytes(40)), CAN::Ok);
        QCOMPARE(engine->write(0x2200, 1, countingBytes(40)), CAN::Busy);
        QCOMPARE(engine->read(0x2200, 1), CAN::Busy);
        QCOMPARE(engine->setSdoTimeout(5), CAN::Busy);
        QCOMPARE(adapter->writtenCount(), 1);
        QCOMPARE(option26(), QVariantList{true});
        QCOMPARE(engine->abort(0), CAN::Ok);

        adapter->clearOptionHistory();
        adapter->failWrites(CAN::Error);
        QCOMPARE(engine->read(0x2200, 1), CAN::Error);
        QCOMPARE(engine->write(0x2200, 1, countingBytes(3)), CAN::Error);
        QCOMPARE(option26(), (QVariantList{true, false, true, false}));
        QVERIFY(!engine->isBusy());

        SDOBlockClient lone(Rx, Tx, nullptr);
        QCOMPARE(lone.read(0x2200, 1), CAN::Error);
        QCOMPARE(lone.write(0x2200, 1, countingBytes(3)), CAN::Error);
    }

    void transfersAnsweredFromAnotherThread()
    {
        server.content = countingBytes(2000);
        server.downloadBlockSize = 10;
        responder->start();
        QCOMPARE(engine->read(0x2200, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 5000);
        QCOMPARE(emitted(*results).value(2), QVariant(countingBytes(2000)));
        QCOMPARE(engine->write(0x2200, 2, countingBytes(333)), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 2, 5000);
        responder->stop();
        QCOMPARE(server.received, countingBytes(333));
        QCOMPARE(errors->count(), 0);
        QCOMPARE(firstArguments(*progress).last(), 100);
        QCOMPARE(option26(), (QVariantList{true, false, true, false}));
        QVERIFY(!engine->isBusy());
    }
};

QTEST_MAIN(tst_SDOBlockClient)
#include "tst_sdoblockclient.moc"
