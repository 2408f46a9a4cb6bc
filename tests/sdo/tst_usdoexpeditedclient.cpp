// USDOExpeditedClient against the recording adapter: request layouts plain
// and routed, answers, aborts, time-out, and the node-0 registrations.
#include "canopenmasterclass.h"
#include "sdoenginefixture.h"
#include "usdoexpeditedclient.h"

class tst_USDOExpeditedClient : public QObject, SdoEngineFixture<USDOExpeditedClient>
{
    Q_OBJECT

    USDOExpeditedClient*& client = engine;

    // Inject an answer from node 5 given as hex bytes (FD lengths allowed).
    void answer(const char* hex, quint32 id = 0x585)
    {
        adapter->injectHex(id, hex);
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void init()
    {
        setUp([](CanScheduler* s) { return new USDOExpeditedClient(41, 5, s); });
    }
    void cleanup() { tearDown(); }

    void requestFrames_data()
    {
        QTest::addColumn<bool>("write");
        QTest::addColumn<bool>("routed");
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QByteArray>("frame"); // empty: refused with 2, nothing sent
        QTest::newRow("read u32") << false << false << 7 << QVariant() << QByteArray("629:051100011810");
        QTest::newRow("read routed") << false << true << 7 << QVariant()
                                     << QByteArray("629:209100030700290118100000");
        QTest::newRow("read u64 refused") << false << false << 27 << QVariant() << QByteArray();
        QTest::newRow("write u16") << true << false << 6 << QVariant(0x1234) << QByteArray("629:0501000118100602" "3412");
        QTest::newRow("write bool") << true << false << 1 << QVariant(true) << QByteArray("629:050100011810010101");
        QTest::newRow("write i24") << true << false << 16 << QVariant(-2) << QByteArray("629:0501000118101003feffff");
        QTest::newRow("write r32") << true << false << 8 << QVariant(1.5f)
                                   << QByteArray("629:05010001181008040000c03f");
        QTest::newRow("write string") << true << false << 9 << QVariant(QByteArray("abc"))
                                      << QByteArray("629:0501000118100903616263");
        QTest::newRow("write routed u8") << true << true << 5 << QVariant(0xAB)
                                         << QByteArray("629:20810003070029011810" "0501ab");
        QTest::newRow("write 56 bytes") << true << false << 15 << QVariant(QByteArray(56, 'x'))
                                        << QByteArray("629:0501000118100f38") + QByteArray(56, 'x').toHex();
        QTest::newRow("write 57 bytes refused") << true << false << 15 << QVariant(QByteArray(57, 'x')) << QByteArray();
        QTest::newRow("write u64 refused") << true << false << 27 << QVariant(1) << QByteArray();
    }
    void requestFrames()
    {
        QFETCH(bool, write);
        QFETCH(bool, routed);
        QFETCH(int, type);
        QFETCH(QVariant, value);
        QFETCH(QByteArray, frame);
        client->setRouting(routed, 0x20, 3, 7);
        const auto t = CAN::CANopenDataType(type);
        const CAN::RetType r = write ? client->write(0x1018, 1, t, value) : client->read(0x1018, 1, t);
        QCOMPARE(int(r), frame.isEmpty() ? 2 : 0);
        QCOMPARE(adapter->writtenHex(), frame.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{frame});
        QCOMPARE(client->isBusy(), !frame.isEmpty());
        if (frame.isEmpty())
            return;
        const CAN::CanMessage m = adapter->lastWritten();
        QVERIFY(m.fd);
        QCOMPARE(bool(m.brs), !routed); // bit rate switch only on the local network
        QCOMPARE(client->getSessionId(), quint8(1));
    }

    void answers_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QVariant>("result");  // invalid: none
        QTest::addColumn<int>("error");        // -1: none
        QTest::addColumn<bool>("busyAfter");
        QTest::newRow("u32") << 7 << QByteArray("29 21 00 01 18 10 07 04 78 56 34 12") << QVariant(uint(0x12345678)) << -1 << false;
        QTest::newRow("bit 4 ignored") << 3 << QByteArray("29 31 00 01 18 10 03 02 fe ff 00 00") << QVariant(int(-2)) << -1 << false;
        QTest::newRow("string from 5 bytes") << 9 << QByteArray("29 21 00 01 18 10 09 05 68 65 6c 6c 6f")
                                             << QVariant(QByteArray("hello")) << -1 << false;
        QTest::newRow("length beyond the frame is cut") << 9 << QByteArray("29 21 00 01 18 10 09 30 68 69")
                                                        << QVariant(QByteArray("hi")) << -1 << false;
        QTest::newRow("abort") << 7 << QByteArray("29 7f 00 01 18 10 33 00") << QVariant() << 0x33 << false;
        QTest::newRow("other entry ignored") << 7 << QByteArray("29 21 00 02 18 10 07 04 01 00 00 00")
                                             << QVariant() << -1 << true;
        QTest::newRow("unknown command stops the wait only") << 7 << QByteArray("29 55 00 01 18 10 00 00")
                                                             << QVariant() << -1 << true;
        QTest::newRow("too short") << 7 << QByteArray("29") << QVariant() << -1 << true;
        QTest::newRow("abort of two bytes: code 0") << 7 << QByteArray("29 7f") << QVariant() << 0 << false;
        QTest::newRow("routed answer while not routed: no outcome")
            << 7 << QByteArray("29 a1 00 01 18 10 07 01 18 10 07 04 01 00 00 00") << QVariant() << -1 << true;
    }
    void answers()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, answer);
        QFETCH(QVariant, result);
        QFETCH(int, error);
        QFETCH(bool, busyAfter);
        QCOMPARE(client->read(0x1018, 1, CAN::CANopenDataType(type)), CAN::Ok);
        adapter->injectHex(0x585, answer.constData());
        QTRY_COMPARE_WITH_TIMEOUT(results->count() + errors->count(), result.isValid() || error >= 0 ? 1 : 0, 1000);
        if (result.isValid())
            QCOMPARE(results->at(0).at(2).value<QVariant>(), result);
        if (error >= 0)
            QCOMPARE(errors->at(0), (QList<QVariant>{quint16(0x1018), quint8(1), quint32(error)}));
        QCOMPARE(client->isBusy(), busyAfter);
    }

    void writeAnswerGivesTheWrittenValueAndRoutedAnswersCount()
    {
        client->setRouting(true, 0x20, 3, 7);
        QCOMPARE(client->write(0x2000, 2, CAN::UNSIGNED8, 7), CAN::Ok);
        answer("29 a1 00 03 07 00 20 02 00 20 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 1000);
        QCOMPARE(results->at(0), (QList<QVariant>{quint16(0x2000), quint8(2), QVariant(7)}));
    }

    void timeoutAndAbort()
    {
        QCOMPARE(client->setSdoTimeout(30), CAN::Ok);
        QCOMPARE(client->read(0x1018, 1, CAN::UNSIGNED32), CAN::Ok);
        QCOMPARE(client->read(0x1018, 1, CAN::UNSIGNED32), CAN::Busy);
        QCOMPARE(client->setNodes(41, 6), CAN::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 1000);
        QCOMPARE(errors->at(0).at(2).toUInt(), 0x12u); // USDO time out error
        QCOMPARE(adapter->writtenHex().value(1), QByteArray("629:057f010118101200"));
        QVERIFY(!client->isBusy());
        adapter->clearWritten();
        QCOMPARE(client->read(0x1018, 2, CAN::UNSIGNED32), CAN::Ok);
        QCOMPARE(client->abort(0x70), CAN::Ok);
        QCOMPARE(adapter->lastWritten().data[6], quint8(0x70));
        QCOMPARE(errors->count(), 2);
        QCOMPARE(client->getSessionId(), quint8(2));
    }

    // Node 0: answers are taken from 0x580 and from every node's request channel.
    void nodeZeroListensEverywhere_data()
    {
        QTest::addColumn<quint32>("id");
        QTest::addColumn<bool>("taken");
        QTest::newRow("0x580") << 0x580u << true;
        QTest::newRow("0x601") << 0x601u << true;
        QTest::newRow("0x67F") << 0x67Fu << true;
        QTest::newRow("0x600") << 0x600u << false;
        QTest::newRow("0x680") << 0x680u << false;
    }
    void nodeZeroListensEverywhere()
    {
        QFETCH(quint32, id);
        QFETCH(bool, taken);
        QCOMPARE(client->setNodes(41, 0), CAN::Ok);
        QCOMPARE(client->read(0x1000, 0, CAN::UNSIGNED32), CAN::Ok);
        adapter->injectHex(id, "29 21 00 00 00 10 07 04 01 00 00 00");
        if (taken)
            QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 1000);
        else {
            QTest::qWait(20);
            QCOMPARE(results->count(), 0);
        }
    }

    void withoutSchedulerNothingIsSent()
    {
        USDOExpeditedClient lone;
        QCOMPARE(lone.read(0x1000, 0, CAN::UNSIGNED32), CAN::Error);
        QVERIFY(!lone.isBusy());
        QCOMPARE(lone.setCanScheduler(scheduler), CAN::Ok);
        QCOMPARE(lone.setNodes(41, 5), CAN::Ok);
        QSignalSpy got(&lone, &USDOExpeditedClient::resultReceived);
        QCOMPARE(lone.read(0x1000, 0, CAN::UNSIGNED32), CAN::Ok);
        answer("29 21 00 00 00 10 07 04 91 01 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(got.count(), 1, 1000);
    }
};

QTEST_MAIN(tst_USDOExpeditedClient)
#include "tst_usdoexpeditedclient.moc"
