#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "sdoenginefixture.h"
#include "cansender.h"
#include "recordingcanadapter.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>
#include <atomic>
#include <thread>

class tst_SDOExpeditedClient : public QObject, private SdoEngineFixture<SDOExpeditedClient>
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

    void readSendsUploadInitiateForExpeditedTypesOnly_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("result");
        const QSet<int> expedited = {1, 2, 3, 4, 5, 6, 7, 8, 16, 22};
        for (int t = 1; t <= 28; ++t)
            QTest::addRow("type %d", t) << t << (expedited.contains(t) ? 0 : 2);
    }
    void readSendsUploadInitiateForExpeditedTypesOnly()
    {
        QFETCH(int, type);
        QFETCH(int, result);
        QCOMPARE(int(engine->read(0x1018, 2, CAN::CANopenDataType(type))), result);
        if (result == 0) {
            QCOMPARE(adapter->writtenHex(), QList<QByteArray>{"605:4018100200000000"});
            QVERIFY(engine->isBusy());
        } else {
            QCOMPARE(adapter->writtenCount(), 0);
            QVERIFY(!engine->isBusy());
        }
    }

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
        QTest::newRow("REAL32 from double") << 8 << QVariant(-2.0) << QByteArray("605:23002001000000c0");
    }
    void writeSendsCommandByTypeAndEchoesValue()
    {
        QFETCH(int, type);
        QFETCH(QVariant, value);
        QFETCH(QByteArray, frame);
        QCOMPARE(engine->write(0x2000, 1, CAN::CANopenDataType(type), value), CAN::Ok);
        QCOMPARE(adapter->writtenHex(), QList<QByteArray>{frame});
        adapter->injectHex(Rx, "60 00 20 01 00 00 00 00");
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(results->at(0).at(1).toUInt(), 1u);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), value);
        QCOMPARE(errors->count(), 0);
        QVERIFY(!engine->isBusy());
    }

    void writeRefusesTypesWithoutExpeditedForm_data()
    {
        QTest::addColumn<int>("type");
        for (int t : {9, 10, 11, 12, 13, 15, 17, 21, 24, 27, 28})
            QTest::addRow("type %d", t) << t;
    }
    void writeRefusesTypesWithoutExpeditedForm()
    {
        QFETCH(int, type);
        QCOMPARE(engine->write(0x2000, 1, CAN::CANopenDataType(type), QVariant(1)), CAN::NotSupported);
        QCOMPARE(adapter->writtenCount(), 0);
        QVERIFY(!engine->isBusy());
    }

    void readConvertsByType_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("BOOLEAN 2 -> 1") << 1 << QByteArray("4f 00 30 05 02 00 00 00") << QVariant(int(1));
        QTest::newRow("BOOLEAN 0") << 1 << QByteArray("4f 00 30 05 00 00 00 00") << QVariant(int(0));
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
        QTest::newRow("UNSIGNED24 not masked") << 22 << QByteArray("47 00 30 05 78 56 34 12")
                                               << QVariant(uint(0x12345678));
        QTest::newRow("download answer counts too") << 7 << QByteArray("60 00 30 05 01 00 00 00")
                                                    << QVariant(uint(1));
    }
    void readConvertsByType()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, answer);
        QFETCH(QVariant, expected);
        QCOMPARE(engine->read(0x3000, 5, CAN::CANopenDataType(type)), CAN::Ok);
        adapter->injectHex(Rx, answer.constData());
        QCOMPARE(results->count(), 1);
        const QVariant value = results->at(0).at(2).value<QVariant>();
        QCOMPARE(value.userType(), expected.userType());
        QCOMPARE(value, expected);
        QCOMPARE(results->at(0).at(0).toUInt(), 0x3000u);
        QCOMPARE(results->at(0).at(1).toUInt(), 5u);
        QCOMPARE(adapter->writtenCount(), 1); // nothing sent in reply
    }

    void failingAnswersEndTheTransfer_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<quint32>("code");
        QTest::newRow("segmented offer 0x41") << true << QByteArray("41 00 20 01 10 00 00 00") << 0x08000000u;
        QTest::newRow("segmented offer with toggle bits 0x71") << true << QByteArray("71 00 20 01 10 00 00 00")
                                                               << 0x08000000u;
        QTest::newRow("offer answering a write") << false << QByteArray("41 00 20 01 00 00 00 00") << 0x08000000u;
        QTest::newRow("server abort on read") << true << QByteArray("80 00 20 01 11 00 09 06") << 0x06090011u;
        QTest::newRow("server abort on write") << false << QByteArray("80 00 20 01 02 00 01 06") << 0x06010002u;
    }
    void failingAnswersEndTheTransfer()
    {
        QFETCH(bool, upload);
        QFETCH(QByteArray, answer);
        QFETCH(quint32, code);
        const CAN::RetType r = upload ? engine->read(0x2000, 1, CAN::UNSIGNED32)
                                      : engine->write(0x2000, 1, CAN::UNSIGNED32, 7);
        QCOMPARE(r, CAN::Ok);
        adapter->injectHex(Rx, answer.constData());
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 1u);
        QCOMPARE(errors->at(0).at(2).toUInt(), code);
        QCOMPARE(results->count(), 0);
        QVERIFY(!engine->isBusy());
        QCOMPARE(adapter->writtenCount(), 1); // no abort of ours follows
        // A repeated answer finds the engine idle.
        adapter->injectHex(Rx, answer.constData());
        QCOMPARE(errors->count(), 1);
    }

    void answersForOtherEntriesAreIgnoredAndTheTimeoutFollows_data()
    {
        QTest::addColumn<quint32>("id");
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("other sub-index") << Rx << QByteArray("43 00 20 02 01 00 00 00");
        QTest::newRow("other index") << Rx << QByteArray("43 01 20 01 01 00 00 00");
        QTest::newRow("other COB-ID") << 0x586u << QByteArray("43 00 20 01 01 00 00 00");
        QTest::newRow("neither answer nor abort") << Rx << QByteArray("20 00 20 01 01 00 00 00");
        QTest::newRow("abort for another entry") << Rx << QByteArray("80 00 21 01 00 00 04 05");
    }
    void answersForOtherEntriesAreIgnoredAndTheTimeoutFollows()
    {
        QFETCH(quint32, id);
        QFETCH(QByteArray, answer);
        QCOMPARE(engine->setSdoTimeout(50), CAN::Ok);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(engine->read(0x2000, 1, CAN::UNSIGNED16), CAN::Ok);
        adapter->injectHex(id, answer.constData());
        QCOMPARE(results->count() + errors->count(), 0);
        QVERIFY(engine->isBusy());
        QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 2000);
        QVERIFY(clock.elapsed() >= 45);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x05040000u);
        QCOMPARE(adapter->writtenHex(),
                 (QList<QByteArray>{"605:4000200100000000", "605:8000200100000405"}));
        QVERIFY(!engine->isBusy());
        QCOMPARE(results->count(), 0);
    }

    void timeoutRunsFromTheLastRequest()
    {
        // After a time-out the engine takes the next request, and that one is
        // supervised again from its own start.
        QCOMPARE(engine->setSdoTimeout(60), CAN::Ok);
        QCOMPARE(engine->write(0x2000, 1, CAN::UNSIGNED8, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 2000);
        QCOMPARE(engine->read(0x2000, 2, CAN::UNSIGNED8), CAN::Ok);
        QTest::qWait(20);
        adapter->injectHex(Rx, "4f 00 20 02 09 00 00 00");
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), QVariant(9));
        QTest::qWait(120); // the earlier deadline must not strike again
        QCOMPARE(errors->count(), 1);
        QCOMPARE(adapter->writtenCount(), 3);
    }

    void zeroTimeoutIsFireAndForget()
    {
        QCOMPARE(engine->setSdoTimeout(0), CAN::Ok);
        QCOMPARE(engine->getSdoTimeout(), 0u);
        QCOMPARE(engine->read(0x2000, 1, CAN::UNSIGNED8), CAN::Ok);
        QVERIFY(!engine->isBusy());
        QCOMPARE(engine->write(0x2000, 1, CAN::UNSIGNED8, 5), CAN::Ok);
        QVERIFY(!engine->isBusy());
        adapter->injectHex(Rx, "60 00 20 01 00 00 00 00");
        QTest::qWait(30);
        QCOMPARE(results->count() + errors->count(), 0);
        QCOMPARE(adapter->writtenHex(), (QList<QByteArray>{"605:4000200100000000", "605:2f00200105000000"}));
    }

    void refusesWhileBusy()
    {
        QCOMPARE(engine->read(0x2000, 1, CAN::UNSIGNED8), CAN::Ok);
        QCOMPARE(engine->read(0x2000, 2, CAN::UNSIGNED8), CAN::Busy);
        QCOMPARE(engine->write(0x2000, 2, CAN::UNSIGNED8, 1), CAN::Busy);
        QCOMPARE(engine->setSdoTimeout(10), CAN::Busy);
        QCOMPARE(engine->getSdoTimeout(), 2000u);
        QCOMPARE(engine->setCobIds(0x586, 0x606), CAN::Busy);
        QCOMPARE(adapter->writtenCount(), 1);
        adapter->injectHex(Rx, "4f 00 20 01 01 00 00 00"); // the first request is still served
        QCOMPARE(results->count(), 1);
    }

    void withoutAdapterNothingStarts()
    {
        SDOExpeditedClient lone(Rx, Tx, nullptr);
        QCOMPARE(lone.read(0x2000, 1, CAN::UNSIGNED8), CAN::Error);
        QCOMPARE(lone.write(0x2000, 1, CAN::UNSIGNED8, 1), CAN::Error);
        QVERIFY(!lone.isBusy());
        CanScheduler empty(nullptr);
        QCOMPARE(lone.setCanScheduler(&empty), CAN::Ok);
        QCOMPARE(lone.read(0x2000, 1, CAN::UNSIGNED8), CAN::Error);
        QVERIFY(!lone.isBusy());
    }

    void failedSendLeavesEngineIdle_data()
    {
        QTest::addColumn<CAN::RetType>("failure");
        QTest::newRow("queue full") << CAN::TxQueueFull;
        QTest::newRow("not ready") << CAN::NotReady;
        QTest::newRow("error") << CAN::Error;
    }
    void failedSendLeavesEngineIdle()
    {
        QFETCH(CAN::RetType, failure);
        adapter->failWrites(failure);
        QCOMPARE(engine->read(0x2000, 1, CAN::UNSIGNED8), failure); // the adapter's own code
        QVERIFY(!engine->isBusy());
        QCOMPARE(engine->write(0x2000, 1, CAN::UNSIGNED8, 1), CAN::Error); // always 5
        QVERIFY(!engine->isBusy());
        adapter->failWrites(CAN::Ok);
        QCOMPARE(engine->read(0x2000, 1, CAN::UNSIGNED8), CAN::Ok);
    }

    void callerAbort_data()
    {
        QTest::addColumn<quint32>("code");
        QTest::addColumn<QList<QByteArray>>("frames");
        QTest::newRow("code 0: no frame") << 0u << QList<QByteArray>{"605:4000200300000000"};
        QTest::newRow("with code") << 0x06020000u
                                   << QList<QByteArray>{"605:4000200300000000", "605:8000200300000206"};
    }
    void callerAbort()
    {
        QFETCH(quint32, code);
        QFETCH(QList<QByteArray>, frames);
        QCOMPARE(engine->setSdoTimeout(50), CAN::Ok);
        QCOMPARE(engine->read(0x2000, 3, CAN::UNSIGNED8), CAN::Ok);
        QCOMPARE(engine->abort(code), CAN::Ok);
        QCOMPARE(errors->count(), 1);
        QCOMPARE(errors->at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(errors->at(0).at(1).toUInt(), 3u);
        QCOMPARE(errors->at(0).at(2).toUInt(), code);
        QVERIFY(!engine->isBusy());
        QCOMPARE(adapter->optionHistory(AbstractCanAdapter::SdoTransferActive), QVariantList{false});
        adapter->injectHex(Rx, "4f 00 20 03 01 00 00 00"); // too late
        QTest::qWait(120);                                  // and no time-out either
        QCOMPARE(errors->count(), 1);
        QCOMPARE(results->count(), 0);
        QCOMPARE(adapter->writtenHex(), frames);
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
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), QVariant(uint(0x0F0191)));
    }

    // The engines of a node share its answer COB-ID and the dispatcher hands
    // a frame to them one after the other. A transfer started while a frame
    // is still on its way (here from a receiver's slot, as when one engine's
    // outcome makes the caller start the next one in another thread) does not
    // take that frame as its answer; the same bytes dispatched afresh are one.
    void aFrameStillBeingDispatchedIsNoAnswer_data()
    {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QByteArray>("initiate");
        QTest::addColumn<QByteArray>("next");    // the frame the answer leads to, if any
        QTest::addColumn<QVariant>("result");    // the result it leads to, if any
        QTest::newRow("expedited read") << "expedited read" << QByteArray("43 18 10 04 05 00 00 5d")
                                        << QByteArray("605:4018100400000000") << QByteArray()
                                        << QVariant(uint(0x5D000005));
        QTest::newRow("segmented read") << "segmented read" << QByteArray("43 18 10 04 05 00 00 5d")
                                        << QByteArray("605:4018100400000000") << QByteArray()
                                        << QVariant(QByteArray("\x05\x00\x00\x5d", 4));
        QTest::newRow("segmented write") << "segmented write" << QByteArray("60 05 20 00 00 00 00 00")
                                         << QByteArray("605:2105200003000000") << QByteArray("605:0961626300000000")
                                         << QVariant();
        QTest::newRow("block read") << "block read" << QByteArray("c6 18 10 04 04 00 00 00")
                                    << QByteArray("605:a41810047f000000") << QByteArray("605:a300000000000000")
                                    << QVariant();
        QTest::newRow("block write") << "block write" << QByteArray("a4 05 20 00 7f 00 00 00")
                                     << QByteArray("605:c205200003000000") << QByteArray("605:8161626300000000")
                                     << QVariant();
    }
    void aFrameStillBeingDispatchedIsNoAnswer()
    {
        QFETCH(QString, op);
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, initiate);
        QFETCH(QByteArray, next);
        QFETCH(QVariant, result);
        SDOSegmentedClient segmented(Rx, Tx, scheduler);
        SDOBlockClient block(Rx, Tx, scheduler);
        SDOExpeditedClient* e = op.startsWith(QLatin1String("expedited")) ? engine
            : op.startsWith(QLatin1String("segmented"))                   ? static_cast<SDOExpeditedClient*>(&segmented)
                                                                          : &block;
        QSignalSpy res(e, &SDOExpeditedClient::resultReceived);
        QSignalSpy err(e, &SDOExpeditedClient::errorReceived);
        const auto start = [&] {
            if (op == QLatin1String("expedited read"))
                return engine->read(0x1018, 4, CAN::UNSIGNED32);
            if (op == QLatin1String("segmented read"))
                return segmented.read(0x1018, 4);
            if (op == QLatin1String("segmented write"))
                return segmented.write(0x2005, 0, "abc");
            if (op == QLatin1String("block read"))
                return block.read(0x1018, 4);
            return block.write(0x2005, 0, "abc");
        };
        CanSender* first = scheduler->registerCanId(Rx);
        int calls = 0;
        connect(first, qOverload<CAN::CanRxMessage>(&CanSender::received), this,
                [&](CAN::CanRxMessage message) {
                    if (calls++ != 0)
                        return;
                    QCOMPARE(start(), CAN::Ok);
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
        if (result.isValid()) {
            QCOMPARE(res.count(), 1);
            QCOMPARE(res.at(0).at(2).value<QVariant>(), result);
        } else {
            QCOMPARE(adapter->writtenHex().value(1), next);
        }
        scheduler->unregisterCan(first);
    }

    void answersFromTheReceiveThreadReachTheCallersThread()
    {
        // The answers come from another thread, as from an adapter's receive
        // loop; every outcome must still be emitted in the engine's thread.
        constexpr int rounds = 200;
        std::atomic<bool> stop{false};
        std::thread server([&] {
            int answered = 0;
            while (answered < rounds && !stop.load()) {
                if (adapter->writtenCount() <= answered) {
                    std::this_thread::yield();
                    continue;
                }
                const quint8 v = quint8(answered);
                adapter->inject(Rx, {0x4f, 0x00, 0x20, 0x01, v, 0x00, 0x00, 0x00});
                ++answered;
            }
        });
        struct Joiner {
            std::atomic<bool>& stop;
            std::thread& thread;
            ~Joiner()
            {
                stop.store(true);
                thread.join();
            }
        } joiner{stop, server};
        QThread* const testThread = QThread::currentThread();
        std::atomic<int> foreignEmissions{0};
        connect(engine, &SDOExpeditedClient::resultReceived, this, [&](quint16, quint8, QVariant) {
            if (QThread::currentThread() != testThread)
                ++foreignEmissions;
        });
        bool ok = true;
        for (int i = 0; i < rounds && ok; ++i) {
            ok = engine->read(0x2000, 1, CAN::UNSIGNED8) == CAN::Ok;
            // The outcome is posted to this thread: it cannot have arrived yet.
            ok = ok && results->count() == i && results->wait(5000) && results->count() == i + 1
                 && results->at(i).at(2).value<QVariant>() == QVariant(i & 0xFF);
        }
        QVERIFY(ok);
        QCOMPARE(foreignEmissions.load(), 0);
        QCOMPARE(errors->count(), 0);
        QVERIFY(!engine->isBusy());
    }
};

QTEST_MAIN(tst_SDOExpeditedClient)
#include "tst_sdoexpeditedclient.moc"
