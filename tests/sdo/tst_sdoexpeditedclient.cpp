#include "canopenmasterclass.h"
#include "cansender.h"
#include "sdoblockclient.h"
#include "sdoenginefixture.h"
#include "sdosegmentedclient.h"

#include <QElapsedTimer>
#include <atomic>
#include <memory>

class tst_SDOExpeditedClient : public QObject, private SdoEngineFixture<SDOExpeditedClient>
{
    Q_OBJECT

    enum Kind { Expedited, Segmented, Block };
    static void addKinds()
    {
        QTest::addColumn<int>("kind");
        for (int k : {Expedited, Segmented, Block})
            QTest::newRow(k == Expedited ? "expedited" : k == Segmented ? "segmented" : "block") << k;
    }
    static SDOExpeditedClient* make(int kind, CanScheduler* s)
    {
        return kind == Segmented ? new SDOSegmentedClient(Rx, Tx, s)
             : kind == Block     ? static_cast<SDOExpeditedClient*>(new SDOBlockClient(Rx, Tx, s))
                                 : new SDOExpeditedClient(Rx, Tx, s);
    }
    // Writes countingBytes(n) with any of the three engines; the expedited
    // one writes the UNSIGNED32 value of countingBytes(4).
    static CAN::RetType startWrite(SDOExpeditedClient* e, quint16 idx, quint8 sub, int n)
    {
        if (auto* s = qobject_cast<SDOSegmentedClient*>(e))
            return s->write(idx, sub, countingBytes(n));
        if (auto* b = qobject_cast<SDOBlockClient*>(e))
            return b->write(idx, sub, countingBytes(n));
        return e->write(idx, sub, CAN::UNSIGNED32, 0x04030201u);
    }
    // Starts a read on any of the three engines.
    static CAN::RetType startRead(SDOExpeditedClient* e, quint16 idx, quint8 sub)
    {
        if (auto* s = qobject_cast<SDOSegmentedClient*>(e))
            return s->read(idx, sub);
        if (auto* b = qobject_cast<SDOBlockClient*>(e))
            return b->read(idx, sub);
        return e->read(idx, sub, CAN::UNSIGNED32);
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        QtWarningTrap::install();
    }
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void writeSendsCommandByTypeAndEchoesValue_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QByteArray>("frame");
        QTest::newRow("BOOLEAN without size bit") << 1 << QVariant(true) << QByteArray("605:2200200101000000");
        QTest::newRow("INTEGER8 -1, all four bytes") << 2 << QVariant(-1) << QByteArray("605:2f002001ffffffff");
        QTest::newRow("UNSIGNED8 0x1FF unmasked") << 5 << QVariant(0x1FF) << QByteArray("605:2f002001ff010000");
        QTest::newRow("INTEGER16 -2") << 3 << QVariant(-2) << QByteArray("605:2b002001feffffff");
        QTest::newRow("UNSIGNED16") << 6 << QVariant(0xBEEF) << QByteArray("605:2b002001efbe0000");
        QTest::newRow("INTEGER24 min") << 16 << QVariant(-8388608) << QByteArray("605:27002001000080ff");
        QTest::newRow("UNSIGNED24") << 22 << QVariant(0x123456) << QByteArray("605:2700200156341200");
        QTest::newRow("INTEGER32") << 4 << QVariant(-100000) << QByteArray("605:230020016079feff");
        QTest::newRow("UNSIGNED32") << 7 << QVariant(uint(0xDEADBEEF)) << QByteArray("605:23002001efbeadde");
        QTest::newRow("REAL32 bits") << 8 << QVariant(1.5f) << QByteArray("605:230020010000c03f");
    }
    void writeSendsCommandByTypeAndEchoesValue()
    {
        QFETCH(int, type);
        QFETCH(QVariant, value);
        QFETCH(QByteArray, frame);
        QCOMPARE(engine->write(0x2000, 1, CAN::CANopenDataType(type), value), CAN::Ok);
        QCOMPARE(adapter->writtenHex(), QList<QByteArray>{frame});
        adapter->injectHex(Rx, "60 00 20 01 00 00 00 00");
        QCOMPARE(emitted(*results), (QVariantList{0x2000, 1, value}));
        QCOMPARE(errors->count(), 0);
        QVERIFY(!engine->isBusy());
    }

    void readConvertsByType_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("BOOLEAN 2 -> 1") << 1 << QByteArray("4f 00 30 05 02 00 00 00") << QVariant(int(1));
        QTest::newRow("INTEGER8 sign") << 2 << QByteArray("4f 00 30 05 80 00 00 00") << QVariant(int(-128));
        QTest::newRow("INTEGER8 low byte only") << 2 << QByteArray("43 00 30 05 ff 7f 00 00") << QVariant(int(-1));
        QTest::newRow("INTEGER16 sign") << 3 << QByteArray("4b 00 30 05 00 80 00 00") << QVariant(int(-32768));
        QTest::newRow("INTEGER32") << 4 << QByteArray("43 00 30 05 ff ff ff ff") << QVariant(int(-1));
        QTest::newRow("UNSIGNED8 masked") << 5 << QByteArray("43 00 30 05 34 12 00 00") << QVariant(int(0x34));
        QTest::newRow("UNSIGNED16 masked") << 6 << QByteArray("43 00 30 05 34 12 01 00") << QVariant(int(0x1234));
        QTest::newRow("UNSIGNED32") << 7 << QByteArray("43 00 30 05 ff ff ff ff") << QVariant(uint(0xFFFFFFFF));
        QTest::newRow("REAL32") << 8 << QByteArray("43 00 30 05 00 00 c0 3f") << QVariant(1.5f);
        QTest::newRow("INTEGER24 min") << 16 << QByteArray("47 00 30 05 00 00 80 00") << QVariant(int(-8388608));
        QTest::newRow("INTEGER24 max") << 16 << QByteArray("47 00 30 05 ff ff 7f 00") << QVariant(int(8388607));
        QTest::newRow("UNSIGNED24 not masked") << 22 << QByteArray("47 00 30 05 78 56 34 12") << QVariant(0x12345678u);
        QTest::newRow("download answer counts too") << 7 << QByteArray("60 00 30 05 01 00 00 00") << QVariant(1u);
    }
    void readConvertsByType()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, answer);
        QFETCH(QVariant, expected);
        QCOMPARE(engine->read(0x3000, 5, CAN::CANopenDataType(type)), CAN::Ok);
        adapter->injectHex(Rx, answer.constData());
        QCOMPARE(emitted(*results), (QVariantList{0x3000, 5, expected}));
        QCOMPARE(emitted(*results).at(2).userType(), expected.userType());
        QCOMPARE(adapter->writtenCount(), 1); // nothing sent in reply
    }

    // Answers that end the transfer with an error, and frames that are no
    // answer to it (code 0), after which the time-out strikes.
    void answersThatFail_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<quint32>("id");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<quint32>("code");
        QTest::newRow("segmented offer 0x41") << true << Rx << QByteArray("41 00 20 01 10 00 00 00") << 0x08000000u;
        QTest::newRow("offer with toggle bit 0x71") << true << Rx << QByteArray("71 00 20 01 10 00 00 00") << 0x08000000u;
        QTest::newRow("offer answering a write") << false << Rx << QByteArray("41 00 20 01 00 00 00 00") << 0x08000000u;
        QTest::newRow("server abort on read") << true << Rx << QByteArray("80 00 20 01 11 00 09 06") << 0x06090011u;
        QTest::newRow("server abort on write") << false << Rx << QByteArray("80 00 20 01 02 00 01 06") << 0x06010002u;
        QTest::newRow("other sub-index") << true << Rx << QByteArray("43 00 20 02 01 00 00 00") << 0u;
        QTest::newRow("other index") << false << Rx << QByteArray("60 01 20 01 01 00 00 00") << 0u;
        QTest::newRow("other COB-ID") << true << 0x586u << QByteArray("43 00 20 01 01 00 00 00") << 0u;
        QTest::newRow("neither answer nor abort") << true << Rx << QByteArray("20 00 20 01 01 00 00 00") << 0u;
        QTest::newRow("neither answer nor abort, bit 0 set") << false << Rx << QByteArray("21 00 20 01 01 00 00 00") << 0u;
        QTest::newRow("abort for another entry") << true << Rx << QByteArray("80 00 21 01 00 00 04 05") << 0u;
    }
    void answersThatFail()
    {
        QFETCH(bool, upload);
        QFETCH(quint32, id);
        QFETCH(QByteArray, answer);
        QFETCH(quint32, code);
        QCOMPARE(engine->setSdoTimeout(50), CAN::Ok);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(upload ? engine->read(0x2000, 1, CAN::UNSIGNED32) : engine->write(0x2000, 1, CAN::UNSIGNED32, 7),
                 CAN::Ok);
        adapter->injectHex(id, answer.constData());
        QCOMPARE(errors->count(), code ? 1 : 0);
        QCOMPARE(engine->isBusy(), code == 0);
        QList<QByteArray> frames = adapter->writtenHex().mid(0, 1);
        if (code == 0) {
            QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 2000);
            QVERIFY(clock.elapsed() >= 45);
            frames << abortHex(0x2000, 1, code = 0x05040000);
        }
        QCOMPARE(emitted(*errors), (QVariantList{0x2000, 1, code}));
        QVERIFY(!engine->isBusy());
        adapter->injectHex(id, answer.constData()); // a repeated answer finds the engine idle
        QCOMPARE(errors->count(), 1);
        QCOMPARE(results->count(), 0);
        QCOMPARE(adapter->writtenHex(), frames);
        // The next request is supervised from its own start: no earlier deadline strikes.
        QCOMPARE(engine->read(0x2000, 2, CAN::UNSIGNED8), CAN::Ok);
        QTest::qWait(20);
        adapter->injectHex(Rx, "4f 00 20 02 09 00 00 00");
        QCOMPARE(emitted(*results), (QVariantList{0x2000, 2, 9}));
        QTest::qWait(60);
        QCOMPARE(errors->count(), 1);
    }

    void setCobIdsMovesTheRegistration()
    {
        QCOMPARE(engine->setCobIds(0x58A, 0x60A), CAN::Ok);
        QCOMPARE(engine->getClientRxCobId(), 0x58Au);
        QCOMPARE(engine->getServerCobId(), 0x60Au);
        QCOMPARE(engine->read(0x1000, 0, CAN::UNSIGNED32), CAN::Ok);
        QCOMPARE(frameHex(adapter->lastWritten()), QByteArray("60a:4000100000000000"));
        adapter->injectHex(Rx, "43 00 10 00 91 01 0f 00");
        QCOMPARE(results->count(), 0);
        adapter->injectHex(0x58A, "43 00 10 00 91 01 0f 00");
        QCOMPARE(emitted(*results), (QVariantList{0x1000, 0, 0x0F0191u}));
    }

    // Each engine built bare, given its identifiers and only then its
    // scheduler, is answered through that scheduler; moved to another one,
    // it hears only the new one.
    void schedulerGivenLater_data() { addKinds(); }
    void schedulerGivenLater()
    {
        QFETCH(int, kind);
        const QByteArray initiate = kind == Block ? "605:a40020017f000000" : "605:4000200100000000";
        RecordingCanAdapter otherAdapter;
        CanScheduler other(&otherAdapter);
        other.connectToAdapter(true);
        ScriptedResponder otherResponder(&otherAdapter, Rx, [&](const CAN::CanMessage& m) { return server.answer(m); });
        std::unique_ptr<SDOExpeditedClient> e(kind == Expedited   ? new SDOExpeditedClient
                                              : kind == Segmented ? static_cast<SDOExpeditedClient*>(new SDOSegmentedClient)
                                                                  : new SDOBlockClient);
        QSignalSpy res(e.get(), &SDOExpeditedClient::resultReceived);
        QCOMPARE(e->setCobIds(Rx, Tx), CAN::Ok); // no scheduler yet to register with
        QCOMPARE(e->setCanScheduler(scheduler), CAN::Ok);
        server.content = QByteArray("\x11\x22\x33\x44");
        const QVariant value = kind == Expedited ? QVariant(0x44332211u) : QVariant(server.content);
        QCOMPARE(startRead(e.get(), 0x2000, 1), CAN::Ok);
        QCOMPARE(adapter->writtenHex().value(0), initiate);
        QVERIFY(responder->serveUntil([&] { return !res.isEmpty(); }));
        QCOMPARE(emitted(res), (QVariantList{0x2000, 1, value}));
        responder->serveWaiting(); // the block upload's closing frame
        QCOMPARE(e->setCanScheduler(&other), CAN::Ok);
        QCOMPARE(startRead(e.get(), 0x2000, 1), CAN::Ok);
        QCOMPARE(otherAdapter.writtenHex(), QList<QByteArray>{initiate});
        adapter->injectHex(Rx, kind == Block ? "c2 00 20 01 04 00 00 00" : "43 00 20 01 01 00 00 00"); // on the old one
        QCoreApplication::processEvents();
        QCOMPARE(res.count(), 1);
        QCOMPARE(otherAdapter.writtenCount(), 1);
        QVERIFY(otherResponder.serveUntil([&] { return res.count() == 2; }));
        QCOMPARE(emitted(res, 1), (QVariantList{0x2000, 1, value}));
    }

    // The engines of a node share its answer COB-ID and the dispatcher hands
    // a frame to them one after the other. A transfer started while a frame
    // is still on its way (here from a receiver's slot, as when one engine's
    // outcome makes the caller start the next one in another thread) does not
    // take that frame as its answer; the same bytes dispatched afresh are one.
    void aFrameStillBeingDispatchedIsNoAnswer_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("upload");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QByteArray>("initiate");
        QTest::addColumn<QVariant>("next"); // the frame or the result the answer leads to
        QTest::newRow("expedited read") << int(Expedited) << true << QByteArray("43 18 10 04 05 00 00 5d")
                                        << QByteArray("605:4018100400000000") << QVariant(0x5D000005u);
        QTest::newRow("expedited write") << int(Expedited) << false << QByteArray("60 18 10 04 00 00 00 00")
                                         << QByteArray("605:2318100401020304") << QVariant(0x04030201u);
        QTest::newRow("segmented read") << int(Segmented) << true << QByteArray("43 18 10 04 05 00 00 5d")
                                        << QByteArray("605:4018100400000000") << QVariant(QByteArray("\x05\0\0\x5d", 4));
        QTest::newRow("segmented write") << int(Segmented) << false << QByteArray("60 18 10 04 00 00 00 00")
                                         << QByteArray("605:2118100403000000") << QVariant("605:0901020300000000");
        QTest::newRow("block read") << int(Block) << true << QByteArray("c6 18 10 04 04 00 00 00")
                                    << QByteArray("605:a41810047f000000") << QVariant("605:a300000000000000");
        QTest::newRow("block write") << int(Block) << false << QByteArray("a4 18 10 04 7f 00 00 00")
                                     << QByteArray("605:c218100403000000") << QVariant("605:8101020300000000");
    }
    void aFrameStillBeingDispatchedIsNoAnswer()
    {
        QFETCH(int, kind);
        QFETCH(bool, upload);
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, initiate);
        QFETCH(QVariant, next);
        std::unique_ptr<SDOExpeditedClient> e(make(kind, scheduler));
        QSignalSpy res(e.get(), &SDOExpeditedClient::resultReceived);
        QSignalSpy err(e.get(), &SDOExpeditedClient::errorReceived);
        CanSender* first = scheduler->registerCanId(Rx);
        int calls = 0;
        connect(first, qOverload<CAN::CanRxMessage>(&CanSender::received), this,
                [&](CAN::CanRxMessage message) {
                    if (calls++ != 0)
                        return;
                    QCOMPARE(upload ? startRead(e.get(), 0x1018, 4) : startWrite(e.get(), 0x1018, 4, 3), CAN::Ok);
                    e->newCanMessageReceived(message); // reached next in the same dispatch
                },
                Qt::DirectConnection);
        adapter->injectHex(Rx, answer.constData());
        QCoreApplication::processEvents(); // a block download paces its segments here
        QCOMPARE(calls, 1);
        QVERIFY(e->isBusy());
        QCOMPARE(res.count() + err.count(), 0);
        QCOMPARE(adapter->writtenHex(), QList<QByteArray>{initiate});

        adapter->injectHex(Rx, answer.constData());
        QCoreApplication::processEvents();
        QCOMPARE(err.count(), 0);
        if (res.isEmpty())
            QCOMPARE(QVariant(adapter->writtenHex().value(1)), next);
        else
            QCOMPARE(emitted(res).value(2), next);
        scheduler->unregisterCan(first);
    }

    // Requests refused while a transfer runs, without an adapter, or when the
    // adapter does not take the frame; a time-out of 0 makes an expedited
    // transfer fire-and-forget, not a segmented or block one.
    void refusals_data() { addKinds(); }
    void refusals()
    {
        QFETCH(int, kind);
        std::unique_ptr<SDOExpeditedClient> e(make(kind, scheduler));
        QCOMPARE(startRead(e.get(), 0x2000, 1), CAN::Ok);
        QCOMPARE(startRead(e.get(), 0x2000, 2), CAN::Busy);
        QCOMPARE(startWrite(e.get(), 0x2000, 2, 3), CAN::Busy);
        QCOMPARE(e->setSdoTimeout(10), CAN::Busy);
        QCOMPARE(e->getSdoTimeout(), 2000u);
        QCOMPARE(e->setCobIds(0x586, 0x606), CAN::Busy);
        QVERIFY(e->isBusy());
        QCOMPARE(adapter->writtenCount(), 1);
        QCOMPARE(option26(), kind == Expedited ? QVariantList{} : QVariantList{true}); // the running transfer keeps it
        QCOMPARE(e->abort(0), CAN::Ok);
        for (int type : {0, 9, 15, 17, 21, 23, 27}) { // types without an expedited form
            QCOMPARE(engine->read(0x2000, 1, CAN::CANopenDataType(type)), CAN::NotSupported);
            QCOMPARE(engine->write(0x2000, 1, CAN::CANopenDataType(type), 1), CAN::NotSupported);
        }
        QCOMPARE(adapter->writtenCount(), 1);
        for (CAN::RetType failure : {CAN::TxQueueFull, CAN::NotReady, CAN::Error}) {
            adapter->clearOptionHistory();
            adapter->failWrites(failure);
            QCOMPARE(startRead(e.get(), 0x2000, 1), kind == Expedited ? failure : CAN::Error);
            QCOMPARE(startWrite(e.get(), 0x2000, 1, 3), CAN::Error);
            QVERIFY(!e->isBusy());
            QCOMPARE(option26(), kind == Expedited ? QVariantList{} : (QVariantList{true, false, true, false}));
        }
        adapter->failWrites(CAN::Ok);
        QCOMPARE(e->setSdoTimeout(0), CAN::Ok);
        QCOMPARE(startRead(e.get(), 0x2000, 1), CAN::Ok);
        QCOMPARE(startWrite(e.get(), 0x2000, 1, 3), kind == Expedited ? CAN::Ok : CAN::Busy);
        QTest::qWait(20);
        QCOMPARE(e->isBusy(), kind != Expedited);

        std::unique_ptr<SDOExpeditedClient> lone(make(kind, nullptr));
        QCOMPARE(startRead(lone.get(), 0x2000, 1), CAN::Error);
        QCOMPARE(startWrite(lone.get(), 0x2000, 1, 3), CAN::Error);
        CanScheduler empty(nullptr);
        QCOMPARE(lone->setCanScheduler(&empty), CAN::Ok);
        QCOMPARE(startRead(lone.get(), 0x2000, 1), CAN::Error);
        QVERIFY(!lone->isBusy());
    }

    // How a transfer ends early: the server aborts, falls silent (time-out),
    // or the caller aborts with or without a code; at the initiate, or in
    // mid-transfer (a block download with its segment pacing running, a
    // block upload with three segments of 200 bytes received). Nothing
    // follows the end, and a new transfer starts.
    void endings_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("upload");
        QTest::addColumn<int>("answered");
        QTest::addColumn<int>("sent");
        QTest::addColumn<QString>("ending");
        for (const char* ending : {"server abort", "silence", "abort 0", "abort 0x05040001"}) {
            for (bool up : {false, true}) {
                const char* dir = up ? "upload" : "download";
                QTest::addRow("expedited %s, %s", dir, ending) << int(Expedited) << up << 0 << 1 << QString(ending);
                QTest::addRow("segmented %s at initiate, %s", dir, ending) << int(Segmented) << up << 0 << 1 << QString(ending);
                QTest::addRow("segmented %s after two answers, %s", dir, ending) << int(Segmented) << up << 2 << 3 << QString(ending);
                QTest::addRow("block %s at initiate, %s", dir, ending) << int(Block) << up << 0 << 1 << QString(ending);
                QTest::addRow("block %s in mid-block, %s", dir, ending) << int(Block) << up << (up ? 2 : 1) << 2 << QString(ending);
            }
        }
    }
    void endings()
    {
        QFETCH(int, kind);
        QFETCH(bool, upload);
        QFETCH(int, answered);
        QFETCH(int, sent);
        QFETCH(QString, ending);
        std::unique_ptr<SDOExpeditedClient> e(make(kind, scheduler));
        QSignalSpy res(e.get(), &SDOExpeditedClient::resultReceived);
        QSignalSpy err(e.get(), &SDOExpeditedClient::errorReceived);
        server.content = countingBytes(200);
        server.silentAfter = 3;
        server.answerRequests = answered;
        QCOMPARE(e->setSdoTimeout(60), CAN::Ok);
        QCOMPARE(upload ? startRead(e.get(), 0x2200, 1) : startWrite(e.get(), 0x2200, 1, 2000), CAN::Ok);
        QVERIFY(responder->serveUntil([&] { return adapter->writtenCount() == sent; }));
        responder->serveWaiting();
        if (upload && kind == Block)
            QCOMPARE(qobject_cast<SDOBlockClient*>(e.get())->getCurrentlyReceivedData(), countingBytes(answered ? 21 : 0));
        QVariantList error{0x2200, 1, 0x05040000u};
        if (ending == "server abort") {
            // The segmented engine reports the entry the frame names.
            const QByteArray sub = kind == Segmented ? "07" : "01";
            adapter->injectHex(Rx, ("80 00 22 " + sub + " 00 00 02 06").constData());
            error = {0x2200, sub.toInt(), 0x06020000u};
        } else if (ending == "silence") {
            QVERIFY(responder->serveUntil([&] { return !err.isEmpty(); }));
            sent = adapter->writtenCount(); // a block download's block goes out before the time-out
            QCOMPARE(frameHex(adapter->lastWritten()), abortHex(0x2200, 1, 0x05040000));
        } else {
            error[2] = ending.mid(6).toUInt(nullptr, 0);
            QCOMPARE(e->abort(error[2].toUInt()), CAN::Ok);
            if (error[2].toUInt()) {
                QCOMPARE(frameHex(adapter->lastWritten()), abortHex(0x2200, 1, error[2].toUInt()));
                ++sent;
            }
        }
        QCOMPARE(err.count(), 1);
        QCOMPARE(emitted(err), error);
        QCOMPARE(option26(), (kind != Expedited ? QVariantList{true, false}
                              : ending.startsWith("abort") ? QVariantList{false} : QVariantList{}));
        QVERIFY(!e->isBusy());
        adapter->injectHex(Rx, "a2 7f 7f 00 00 00 00 00"); // late: no segment, no end frame
        QTest::qWait(100);                                  // no paced segment, no time-out either
        QCOMPARE(adapter->writtenCount(), sent);
        QCOMPARE(err.count(), 1);
        QCOMPARE(res.count(), 0);
        QCOMPARE(startRead(e.get(), 0x2200, 2), CAN::Ok);
    }

    // Answers from another thread, as from an adapter's receive loop: every
    // outcome and progress report is still emitted in the engine's thread.
    void answersFromAnotherThread_data() { addKinds(); }
    void answersFromAnotherThread()
    {
        QFETCH(int, kind);
        std::unique_ptr<SDOExpeditedClient> e(make(kind, scheduler));
        QSignalSpy res(e.get(), &SDOExpeditedClient::resultReceived);
        server.content = kind == Expedited ? QByteArray("\x2a") : countingBytes(300);
        server.downloadBlockSize = 10;
        responder->start();
        QThread* const testThread = QThread::currentThread();
        std::atomic<int> foreign{0};
        const auto count = [&] { foreign += QThread::currentThread() != testThread; };
        connect(e.get(), &SDOExpeditedClient::resultReceived, this, count);
        connect(e.get(), &SDOExpeditedClient::errorReceived, this, count);
        if (auto* s = qobject_cast<SDOSegmentedClient*>(e.get()))
            connect(s, &SDOSegmentedClient::progress, this, count);
        else if (auto* b = qobject_cast<SDOBlockClient*>(e.get()))
            connect(b, &SDOBlockClient::progress, this, count);
        const QVariant value = kind == Expedited ? QVariant(0x2a) : QVariant(server.content);
        bool ok = true;
        const int rounds = kind == Expedited ? 200 : 20;
        for (int i = 0; i < rounds && ok; ++i) {
            ok = startRead(e.get(), 0x2000, 1) == CAN::Ok;
            // The outcome is posted to this thread: it cannot have arrived yet.
            ok = ok && res.count() == i && res.wait(5000) && res.count() == i + 1 && emitted(res, i).value(2) == value;
        }
        QVERIFY(ok);
        QCOMPARE(startWrite(e.get(), 0x2000, 2, 250), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(res.count(), rounds + 1, 5000);
        responder->stop();
        QCOMPARE(server.received, countingBytes(kind == Expedited ? 4 : 250));
        QCOMPARE(foreign.load(), 0);
        QVERIFY(!e->isBusy());
    }
};

QTEST_MAIN(tst_SDOExpeditedClient)
#include "tst_sdoexpeditedclient.moc"
