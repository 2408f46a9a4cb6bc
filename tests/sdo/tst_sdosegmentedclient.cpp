#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "sdoenginefixture.h"
#include "recordingcanadapter.h"
#include "scriptedresponder.h"
#include "scriptedsdoserver.h"
#include "sdosegmentedclient.h"

#include <QSignalSpy>
#include <QtTest>
#include <cstring>

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
            << countingBytes(7) << QList<QByteArray>{"605:2100210a07000000", "605:0101020304050607"}
            << QList<int>{100};
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
            << QByteArray() << QList<QByteArray>{"605:2100210a00000000", "605:0f00000000000000"}
            << QList<int>{100};
    }
    void downloadFramesAndProgress()
    {
        QFETCH(QByteArray, value);
        QFETCH(QList<QByteArray>, frames);
        QFETCH(QList<int>, percent);
        for (QByteArray& f : frames)
            f.replace(' ', "");
        ScriptedSdoServer server;
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->write(0x2100, 0x0A, value), CAN::Ok);
        QVERIFY(engine->isBusy());
        QCOMPARE(option26(), QVariantList{true});
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(adapter->writtenHex(), frames);
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2100u);
        QCOMPARE(results->at(0).at(1).toUInt(), 0x0Au);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), QVariant(int(0)));
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
        QTest::newRow("expedited 0x4F: one byte")
            << QList<QByteArray>{"4f002103aabbccdd"} << QList<QByteArray>{init} << QByteArray("\xaa") << QList<int>{};
        QTest::newRow("expedited 0x4B: two bytes")
            << QList<QByteArray>{"4b002103aabbccdd"} << QList<QByteArray>{init} << QByteArray("\xaa\xbb")
            << QList<int>{};
        QTest::newRow("expedited 0x47: three bytes")
            << QList<QByteArray>{"47002103aabbccdd"} << QList<QByteArray>{init} << QByteArray("\xaa\xbb\xcc")
            << QList<int>{};
        QTest::newRow("expedited 0x43: four bytes")
            << QList<QByteArray>{"43002103aabbccdd"} << QList<QByteArray>{init}
            << QByteArray("\xaa\xbb\xcc\xdd") << QList<int>{};
        QTest::newRow("segmented, size 10, cut to size")
            << QList<QByteArray>{"410021030a000000", "0001020304050607", "1908090aeeeeeeee"}
            << QList<QByteArray>{init, "605:6000000000000000", "605:7000000000000000"} << countingBytes(10)
            << QList<int>{70, 140};
        QTest::newRow("segmented without size keeps padding")
            << QList<QByteArray>{"4000210300000000", "0001020304050607", "1508090a0b000000"}
            << QList<QByteArray>{init, "605:6000000000000000", "605:7000000000000000"}
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
        for (const QByteArray& a : answers) {
            QVERIFY(!ended());
            adapter->injectHex(Rx, QByteArray(a).replace(' ', "").constData());
        }
        QCOMPARE(adapter->writtenHex(), requests);
        QCOMPARE(errors->count(), 0);
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2100u);
        QCOMPARE(results->at(0).at(1).toUInt(), 3u);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), value);
        QCOMPARE(firstArguments(*progress), percent);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
    }

    void longTransfersBothWays()
    {
        ScriptedSdoServer server;
        server.content = countingBytes(1000);
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) { return server.answer(m); });
        QCOMPARE(engine->read(0x2100, 1), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), server.content);
        QCOMPARE(adapter->writtenCount(), 1 + 143); // initiate and one request per 7 bytes
        const QList<int> up = firstArguments(*progress);
        QCOMPARE(up.size(), 100); // every percent once
        QCOMPARE(up.last(), 100);

        progress->clear();
        QCOMPARE(engine->write(0x2100, 2, countingBytes(999)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return results->count() == 2; }));
        QCOMPARE(server.received, countingBytes(999));
        QCOMPARE(firstArguments(*progress).last(), 100);
        QCOMPARE(errors->count(), 0);
    }

    void fastDownloadKeepsTwoSegmentsInFlight()
    {
        engine->setFastSegmentedDownload(true, 2);
        QCOMPARE(engine->write(0x2100, 1, countingBytes(30)), CAN::Ok);
        const QByteArray answer0 = "20 00 00 00 00 00 00 00", answer1 = "30 00 00 00 00 00 00 00";
        adapter->injectHex(Rx, "60 00 21 01 00 00 00 00");
        // Two segments back to back: toggle 0, then toggle 1.
        QCOMPARE(adapter->writtenHex().mid(1),
                 (QList<QByteArray>{"605:0001020304050607", "605:1008090a0b0c0d0e"}));
        adapter->injectHex(Rx, answer0.constData());
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:000f101112131415"));
        adapter->injectHex(Rx, answer1.constData());
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:10161718191a1b1c"));
        adapter->injectHex(Rx, answer0.constData());
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:0b1d1e0000000000")); // last, n = 5
        QCOMPARE(results->count(), 0);
        // The answer to the fourth segment arrives with the last one sent: done.
        adapter->injectHex(Rx, answer1.constData());
        QCOMPARE(results->count(), 1);
        adapter->injectHex(Rx, answer0.constData()); // the last answer finds the engine idle
        QCOMPARE(adapter->writtenCount(), 6);
        QCOMPARE(results->count(), 1);
        QCOMPARE(errors->count(), 0);
        QCOMPARE(option26(), (QVariantList{true, false}));
    }

    void serverAbortReportsTheFramesEntry_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("answersBefore");
        QTest::newRow("download, at initiate") << false << 0;
        QTest::newRow("download, mid transfer") << false << 2;
        QTest::newRow("upload, at initiate") << true << 0;
        QTest::newRow("upload, mid transfer") << true << 2;
    }
    void serverAbortReportsTheFramesEntry()
    {
        QFETCH(bool, upload);
        QFETCH(int, answersBefore);
        ScriptedSdoServer server;
        server.content = countingBytes(40);
        int answered = 0;
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) {
            return answered++ < answersBefore ? server.answer(m) : QList<QByteArray>();
        });
        QCOMPARE(upload ? engine->read(0x2100, 1) : engine->write(0x2100, 1, countingBytes(40)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return answered == answersBefore + 1; }));
        const int sent = adapter->writtenCount();
        QCOMPARE(sent, answersBefore + 1);
        adapter->injectHex(Rx, "80 00 21 07 00 00 09 06"); // names sub-index 7
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2100u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 7u);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x06090000u);
        QVERIFY(!engine->isBusy());
        QCOMPARE(option26(), (QVariantList{true, false}));
        adapter->injectHex(Rx, "20 00 00 00 00 00 00 00");
        QCOMPARE(adapter->writtenCount(), sent); // nothing more goes out
        QCOMPARE(results->count(), 0);
    }

    void silentServerTimesOut_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("answersBefore");
        QTest::newRow("download, no answer at all") << false << 0;
        QTest::newRow("download, server falls silent") << false << 2;
        QTest::newRow("upload, no answer at all") << true << 0;
        QTest::newRow("upload, server falls silent") << true << 2;
    }
    void silentServerTimesOut()
    {
        QFETCH(bool, upload);
        QFETCH(int, answersBefore);
        ScriptedSdoServer server;
        server.content = countingBytes(40);
        int answered = 0;
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) {
            return answered++ < answersBefore ? server.answer(m) : QList<QByteArray>();
        });
        QCOMPARE(engine->setSdoTimeout(60), CAN::Ok);
        QCOMPARE(upload ? engine->read(0x2100, 1) : engine->write(0x2100, 1, countingBytes(40)), CAN::Ok);
        QVERIFY(responder.serveUntil([&] { return ended(); }));
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2100u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 1u);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x05040000u);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:8000210100000405"));
        QCOMPARE(adapter->writtenCount(), answersBefore + 2);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        QCOMPARE(results->count(), 0);
    }

    void answersKeepTheTransferAlive()
    {
        // Each answer restarts the time-out: a slow but steady server is served
        // although the whole transfer takes longer than the time-out.
        QCOMPARE(engine->setSdoTimeout(400), CAN::Ok);
        ScriptedSdoServer server;
        QCOMPARE(engine->write(0x2100, 1, countingBytes(28)), CAN::Ok);
        for (int i = 0; i < 5 && !ended(); ++i) {
            QTest::qWait(100);
            const QByteArray a = server.answer(adapter->lastWritten()).value(0);
            CAN::CanRxMessage rx;
            rx.message.id = Rx;
            rx.message.length = 8;
            std::memcpy(rx.message.data, a.constData(), 8);
            adapter->inject(rx);
        }
        QCOMPARE(errors->count(), 0);
        QCOMPARE(results->count(), 1);
        QCOMPARE(server.received, countingBytes(28));
    }

    void callerAbort_data()
    {
        QTest::addColumn<quint32>("code");
        QTest::addColumn<int>("frames");
        QTest::newRow("code 0: no frame") << 0u << 2;
        QTest::newRow("with code") << 0x05040001u << 3;
    }
    void callerAbort()
    {
        QFETCH(quint32, code);
        QFETCH(int, frames);
        QCOMPARE(engine->setSdoTimeout(50), CAN::Ok);
        QCOMPARE(engine->write(0x2100, 4, countingBytes(20)), CAN::Ok);
        adapter->injectHex(Rx, "60 00 21 04 00 00 00 00");
        QCOMPARE(adapter->writtenCount(), 2);
        QCOMPARE(engine->abort(code), CAN::Ok);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2100u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 4u);
        QCOMPARE(errors->at(0).at(2).toUInt(), code);
        QCOMPARE(adapter->writtenCount(), frames);
        if (code != 0)
            QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("605:8000210401000405"));
        QCOMPARE(option26(), (QVariantList{true, false}));
        QVERIFY(!engine->isBusy());
        adapter->injectHex(Rx, "20 00 00 00 00 00 00 00"); // late answer: no next segment
        QTest::qWait(120);                                  // and no time-out either
        QCOMPARE(adapter->writtenCount(), frames);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(results->count(), 0);
    }

    void refusals()
    {
        QCOMPARE(engine->read(0x2100, 1), CAN::Ok);
        QCOMPARE(engine->read(0x2100, 2), CAN::Busy);
        QCOMPARE(engine->write(0x2100, 2, countingBytes(3)), CAN::Busy);
        QCOMPARE(option26(), QVariantList{true}); // the running transfer keeps it
        QCOMPARE(engine->setSdoTimeout(10), CAN::Busy);
        QCOMPARE(engine->setCobIds(0x586, 0x606), CAN::Busy);
        QCOMPARE(adapter->writtenCount(), 1);
        QCOMPARE(engine->abort(0), CAN::Ok);

        adapter->clearOptionHistory();
        adapter->failWrites(CAN::TxQueueFull);
        QCOMPARE(engine->write(0x2100, 1, countingBytes(3)), CAN::Error);
        QCOMPARE(option26(), (QVariantList{true, false}));
        QCOMPARE(engine->read(0x2100, 1), CAN::Error);
        QVERIFY(!engine->isBusy());

        SDOSegmentedClient lone(Rx, Tx, nullptr);
        QCOMPARE(lone.read(0x2100, 1), CAN::Error);
        QCOMPARE(lone.write(0x2100, 1, countingBytes(3)), CAN::Error);
    }

    void currentlyReceivedDataGrows()
    {
        QCOMPARE(engine->read(0x2100, 1), CAN::Ok);
        adapter->injectHex(Rx, "41 00 21 01 14 00 00 00");
        QCOMPARE(engine->getCurrentlyReceivedData(), QByteArray());
        adapter->injectHex(Rx, "00 01 02 03 04 05 06 07");
        QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(7));
        adapter->injectHex(Rx, "10 08 09 0a 0b 0c 0d 0e");
        QCOMPARE(engine->getCurrentlyReceivedData(), countingBytes(14));
        QCOMPARE(firstArguments(*progress), (QList<int>{35, 70, 105}));
    }

    void zeroTimeoutStillSupervisesSegmentedTransfers()
    {
        // 0 makes expedited transfers fire-and-forget; a segmented transfer
        // cannot be, so it neither ends at once nor runs unsupervised.
        QCOMPARE(engine->setSdoTimeout(0), CAN::Ok);
        QCOMPARE(engine->read(0x2100, 1), CAN::Ok);
        QTest::qWait(50);
        QVERIFY(engine->isBusy());
        QCOMPARE(errors->count(), 0);
        adapter->injectHex(Rx, "4f 00 21 01 05 00 00 00");
        QCOMPARE(results->count(), 1);
    }

    void transfersAnsweredFromAnotherThread()
    {
        ScriptedSdoServer server;
        server.content = countingBytes(300);
        ScriptedResponder responder(adapter, Rx, [&](const CAN::CanMessage& m) { return server.answer(m); });
        responder.start();
        QThread* const testThread = QThread::currentThread();
        std::atomic<int> foreign{0};
        connect(engine, &SDOSegmentedClient::progress, this, [&](quint8) {
            if (QThread::currentThread() != testThread)
                ++foreign;
        });
        QCOMPARE(engine->read(0x2100, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 5000);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), countingBytes(300));
        const QList<int> up = firstArguments(*progress);
        QVERIFY(!up.isEmpty());
        QCOMPARE(up.last(), 100);
        QVERIFY(std::is_sorted(up.begin(), up.end()));

        QCOMPARE(engine->write(0x2100, 2, countingBytes(250)), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 2, 5000);
        responder.stop();
        QCOMPARE(server.received, countingBytes(250));
        QCOMPARE(errors->count(), 0);
        QCOMPARE(foreign.load(), 0);
        QCOMPARE(option26(), (QVariantList{true, false, true, false}));
        QVERIFY(!engine->isBusy());
    }
};

QTEST_MAIN(tst_SDOSegmentedClient)
#include "tst_sdosegmentedclient.moc"
