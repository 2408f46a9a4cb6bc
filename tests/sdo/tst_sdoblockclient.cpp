#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "sdoenginefixture.h"
#include "recordingcanadapter.h"
#include "scriptedresponder.h"
#include "scriptedsdoserver.h"
#include "sdoblockclient.h"

#include <QSignalSpy>
#include <QtTest>
#include <cstring>

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
                                 "605:030f101112131415", "605:0416171819 1a1b1c", "605:851d000000000000",
                                 "605:d900000000000000"}
            << QList<int>{100};
        QTest::newRow("30 bytes in blocks of 2")
            << countingBytes(30) << 2
            << QList<QByteArray>{"605:c20022011e000000", "605:0101020304050607", "605:0208090a0b0c0d0e",
                                 "605:010f101112131415", "605:0216171819 1a1b1c", "605:811d1e0000000000",
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
        for (QByteArray& f : frames)
            f.replace(' ', "");
        ScriptedSdoServer server;
        server.downloadBlockSize = quint8(blockSize);
        ScriptedResponder responder(adapter, Rx,
                                    [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->write(0x2200, 1, value), CAN::Ok);
        QVERIFY(engine->isBusy());
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), frames);
        QCOMPARE(errors->count(), 0);
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2200u);
        QCOMPARE(results->at(0).at(1).toUInt(), 1u);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), QVariant(int(0)));
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(server.received, value);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void confirmationShortOfTheBlockAborts()
    {
        ScriptedSdoServer server;
        server.downloadBlockSize = 5;
        server.confirmOnly = 3;
        ScriptedResponder responder(adapter, Rx,
                                    [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->write(0x2200, 1, countingBytes(50)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2200u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 1u);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x08000000u);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:8000220100000008"));
        QTest::qWait(20); // no segment is sent again, none of the next block either
        QCOMPARE(adapter->writtenCount(), 1 + 5 + 1);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void fullTransmitQueueIsRetried()
    {
        ScriptedSdoServer server;
        server.downloadBlockSize = 4;
        ScriptedResponder responder(adapter, Rx,
                                    [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->write(0x2200, 1, countingBytes(40)), CAN::Ok);
        adapter->failWrites(CAN::TxQueueFull);
        responder.serveWaiting(); // the initiate answer: the first segment meets a full queue
        QTest::qWait(35);         // retried every 10 ms, nothing gets through
        QCOMPARE(adapter->writtenCount(), 1);
        QVERIFY(engine->isBusy());
        adapter->failWrites(CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(results->count(), 1);
        QCOMPARE(server.received, countingBytes(40)); // nothing lost, nothing twice
        const QList<QByteArray> frames = adapter->writtenHex();
        QCOMPARE(frames.size(), 1 + 6 + 1);
        QCOMPARE(frames.at(1), QByteArray("605:0101020304050607"));
        QCOMPARE(frames.at(5), QByteArray("605:01 1d1e1f20212223").replace(' ', ""));
        QCOMPARE(frames.at(6), QByteArray("605:822425262728 0000").replace(' ', ""));
    }

    void upload_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QList<QByteArray>>("requests");
        QTest::addColumn<QList<int>>("percent");
        QTest::newRow("20 bytes")
            << 20
            << QList<QByteArray>{"605:a40022017f000000", "605:a300000000000000", "605:a2037f0000000000",
                                 "605:a100000000000000"}
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
        ScriptedSdoServer server;
        server.content = countingBytes(length);
        ScriptedResponder responder(adapter, Rx,
                                    [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->read(0x2200, 1), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), requests);
        QCOMPARE(errors->count(), 0);
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2200u);
        QCOMPARE(results->at(0).at(1).toUInt(), 1u);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), server.content);
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void uploadGrowsSegmentBySegment()
    {
        QCOMPARE(engine->read(0x2200, 1), CAN::Ok);
        adapter->injectHex(Rx, "c2 00 22 01 10 00 00 00");
        adapter->injectHex(Rx, "01 01 02 03 04 05 06 07");
        QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(7));
        adapter->injectHex(Rx, "02 08 09 0a 0b 0c 0d 0e");
        QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(14));
        QCOMPARE(adapter->writtenCount(), 2); // no confirmation inside a block
    }

    void silentServerTimesOut_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("silentAfter");
        QTest::newRow("download: no initiate answer") << false << 0;
        QTest::newRow("download: no confirmation") << false << 1;
        QTest::newRow("upload: no initiate answer") << true << 0;
        QTest::newRow("upload: server dies mid-block") << true << 1;
    }
    void silentServerTimesOut()
    {
        QFETCH(bool, upload);
        QFETCH(int, silentAfter);
        ScriptedSdoServer server;
        server.content = countingBytes(200);
        server.silentAfter = 3; // upload: three segments of the block, then nothing
        int answered = 0;
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) {
            return answered++ < silentAfter || (upload && silentAfter > 0) ? server.answer(m)
                                                                            : QList<QByteArray>();
        });
        QCOMPARE(engine->setSdoTimeout(60), CAN::Ok);
        QCOMPARE(upload ? engine->read(0x2200, 1) : engine->write(0x2200, 1, countingBytes(40)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }, 3000));
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x05040000u);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:8000220100000405"));
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        if (upload && silentAfter > 0)
            QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(21));
    }

    void serverAbort_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("answersBefore");
        QTest::newRow("download, at initiate") << false << 0;
        QTest::newRow("download, after a block") << false << 1;
        QTest::newRow("upload, at initiate") << true << 0;
        QTest::newRow("upload, mid block") << true << 2;
    }
    void serverAbort()
    {
        QFETCH(bool, upload);
        QFETCH(int, answersBefore);
        ScriptedSdoServer server;
        server.content = countingBytes(100);
        server.downloadBlockSize = 2;
        server.silentAfter = 2;
        int answered = 0;
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) {
            return answered++ < answersBefore ? server.answer(m) : QList<QByteArray>();
        });
        QCOMPARE(upload ? engine->read(0x2200, 1) : engine->write(0x2200, 1, countingBytes(40)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return answered >= answersBefore; }));
        QTest::qWait(5); // let the paced segments of a download go out
        responder.serveWaiting();
        const int sent = adapter->writtenCount();
        adapter->injectHex(Rx, "80 00 22 01 00 00 02 06");
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2200u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 1u);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x06020000u);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        QTest::qWait(20);
        QCOMPARE(adapter->writtenCount(), sent); // nothing answers an abort
        QCOMPARE(results->count(), 0);
    }

    void callerAbortStopsTheSegmentPacing_data()
    {
        QTest::addColumn<quint32>("code");
        QTest::newRow("code 0: no frame") << 0u;
        QTest::newRow("with code") << 0x05040001u;
    }
    void callerAbortStopsTheSegmentPacing()
    {
        QFETCH(quint32, code);
        QCOMPARE(engine->setSdoTimeout(50), CAN::Ok);
        QCOMPARE(engine->write(0x2200, 1, countingBytes(2000)), CAN::Ok);
        adapter->injectHex(Rx, "a0 00 22 01 7f 00 00 00");
        QCOMPARE(adapter->writtenCount(), 2); // the first segment at once, the others paced
        QCOMPARE(engine->abort(code), CAN::Ok);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2200u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 1u);
        QCOMPARE(errors->at(0).at(2).toUInt(), code);
        const int sent = code ? 3 : 2;
        QCOMPARE(adapter->writtenCount(), sent);
        if (code)
            QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:8000220101000405"));
        QTest::qWait(120); // no further segment, no time-out
        QCOMPARE(adapter->writtenCount(), sent);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        // A new transfer starts cleanly after the abort.
        QCOMPARE(engine->read(0x2200, 2), CAN::Ok);
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
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());

        SDOBlockClient lone(Rx, Tx, nullptr);
        QCOMPARE(lone.read(0x2200, 1), CAN::Error);
        QCOMPARE(lone.write(0x2200, 1, countingBytes(3)), CAN::Error);
    }

    void transfersAnsweredFromAnotherThread()
    {
        ScriptedSdoServer server;
        server.content = countingBytes(2000);
        server.downloadBlockSize = 10;
        ScriptedResponder responder(adapter, Rx,
                                    [&](const CAN::CanMessage& m) { return server.answer(m); });
        responder.start();
        QCOMPARE(engine->read(0x2200, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 5000);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), countingBytes(2000));
        QCOMPARE(engine->write(0x2200, 2, countingBytes(333)), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 2, 5000);
        responder.stop();
        QCOMPARE(server.received, countingBytes(333));
        QCOMPARE(errors->count(), 0);
        QCOMPARE(firstArguments(*progress).last(), 100);
        QCOMPARE(option26(), (QVariantList{true, false, true, false}));
        QVERIFY(!engine->isBusy());
    }
};

QTEST_MAIN(tst_SDOBlockClient)
#include "tst_sdoblockclient.moc"
