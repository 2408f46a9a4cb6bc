// SDOClient: which engine a request goes to, its return codes and signals,
// routing, abort and the abort texts, against the recording adapter.
#include "canopenmasterclass.h"
#include "sdoclient.h"
#include "sdoenginefixture.h"

#include <QLoggingCategory>
#include <QSignalSpy>
#include <QtTest>

namespace {

// The routing wait's debug line is checked even where the environment
// switches debug output off.
QLoggingCategory::CategoryFilter previousFilter = nullptr;
void showDefaultDebug(QLoggingCategory* category)
{
    if (previousFilter)
        previousFilter(category);
    if (qstrcmp(category->categoryName(), "default") == 0)
        category->setEnabled(QtDebugMsg, true);
}

// The transfer kind a request ends in, per data type 1..28 (character
// type-1): '0' none, '2' expedited, '3' segmented, '4' USDO expedited, '5'
// USDO segmented, '6' USDO bulk, '7' block. Strings and domains are written
// as 4 bytes, everything else as the number 4.
struct Setting {
    const char* name;
    bool usdo, block;
    const char* read;  // types 1..28
    const char* write; // types 1..28, value of 4 bytes
};
const Setting kSettings[] = {
    {"classic", false, false, "2222222233030032000032033030", "2222222233030032000032033030"},
    {"classic block", false, true, "2222222277030072000032033030", "2222222233030032000032033030"},
    {"usdo", true, false, "4444444455545554455544544545", "4444444444444444444444444444"},
    {"usdo block", true, true, "4444444455545554455544544545", "4444444444444464444444444444"},
};
} // namespace

class tst_SDOClient : public QObject, SdoEngineFixture<SDOClient>
{
    Q_OBJECT

    SDOClient*& client = engine;
    QSignalSpy* opErrors = nullptr;

    QList<int> opErrorCodes() const
    {
        QList<int> codes;
        for (const auto& args : *opErrors)
            codes << args.at(2).toInt();
        return codes;
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void init()
    {
        setUp();
        opErrors = new QSignalSpy(client, &SDOClient::opError);
    }

    void cleanup()
    {
        delete opErrors;
        tearDown();
        SDOClient::mUseBlockTransfer = false;
        SDOClient::mRoutingActive = false;
        SDOClient::mRoutingNetwork = 0;
        SDOClient::mRoutingGatewayInLocalNetwork = 0;
        SDOClient::mUseUSDO = false;
        CANopenService::activateCANopenFD(false);
    }

    // Every data type under every setting: the engine chosen, the first frame
    // on the wire, the return code and the opError signals.
    void transferKindForEveryType_data()
    {
        QTest::addColumn<bool>("usdo");
        QTest::addColumn<bool>("block");
        QTest::addColumn<bool>("write");
        QTest::addColumn<int>("type");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<int>("kind");
        for (const Setting& s : kSettings)
            for (int t = 1; t <= 28; ++t) {
                QTest::addRow("%s read %d", s.name, t) << s.usdo << s.block << false << t << QByteArray()
                                                      << s.read[t - 1] - '0';
                QTest::addRow("%s write %d", s.name, t)
                    << s.usdo << s.block << true << t << QByteArray("abcd") << s.write[t - 1] - '0';
            }
        // Size thresholds: block download from 29 bytes, USDO expedited below 57.
        for (int t : {9, 10, 15}) {
            QTest::addRow("block write %d, 28 bytes", t) << false << true << true << t << QByteArray(28, 'x') << 3;
            QTest::addRow("block write %d, 29 bytes", t) << false << true << true << t << QByteArray(29, 'x') << 7;
        }
        QTest::newRow("usdo write 56 bytes") << true << false << true << 9 << QByteArray(56, 'x') << 4;
        QTest::newRow("usdo write 57 bytes") << true << false << true << 9 << QByteArray(57, 'x') << 5;
    }
    void transferKindForEveryType()
    {
        QFETCH(bool, usdo);
        QFETCH(bool, block);
        QFETCH(bool, write);
        QFETCH(int, type);
        QFETCH(QByteArray, value);
        QFETCH(int, kind);
        SDOClient::mUseBlockTransfer = block;
        if (usdo) // switched on by another client: this one's engine keeps its local node 0x29
            SDOClient().activateUSDO(true, 0x33);
        const auto t = CAN::CANopenDataType(type);
        const bool sized = type == 9 || type == 10 || type == 15;
        const QVariant v = sized && write ? QVariant(value) : QVariant(4);
        const CAN::RetType r = write ? client->write(0x2000, 1, t, v) : client->read(0x2000, 1, t);
        QCOMPARE(client->getTransferKind(), quint32(kind));
        // The USDO expedited engine itself takes types 1..10, 15, 16 and 22 only.
        const bool usdoTakes = (type >= 1 && type <= 10) || type == 15 || type == 16 || type == 22;
        const bool started = kind == 2 || kind == 3 || kind == 7 || (kind == 4 && usdoTakes);
        QCOMPARE(int(r), started ? 0 : 2);
        QCOMPARE(client->isBusy(), started);
        // A read the engine refuses reports the engine's code twice.
        const QList<int> refused = kind == 4 && !write ? QList<int>{2, 2} : QList<int>{2};
        QCOMPARE(opErrorCodes(), started ? QList<int>() : refused);
        if (!started) {
            QCOMPARE(adapter->writtenCount(), 0);
            return;
        }
        const CAN::CanMessage frame = adapter->lastWritten();
        const quint8 cmd = kind == 4 ? frame.data[1] : frame.data[0];
        QCOMPARE(frame.id, kind == 4 ? 0x629u : Tx);
        QCOMPARE(bool(frame.fd), kind == 4);
        if (kind == 4)
            QCOMPARE(int(cmd), write ? 0x01 : 0x11); // USDO download / upload to node 5
        else if (!write)
            QCOMPARE(int(cmd & 0xE0), kind == 7 ? 0xA0 : 0x40); // block or plain initiate upload
        else if (kind == 2)
            QCOMPARE(int(cmd & 0xE2), 0x22); // expedited
        else if (kind == 3)
            QCOMPARE(int(cmd), 0x21); // segmented, size in the data
        else
            QCOMPARE(int(cmd & 0xE1), 0xC0); // block download
    }

    // A result or error from the engine ends the facade's transfer too.
    void outcomesFromTheEngines_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<bool>("block");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QVariant>("expected");
        QTest::newRow("expedited u32") << 7 << false << QByteArray("\x78\x56\x34\x12", 4)
                                       << QVariant(uint(0x12345678));
        QTest::newRow("segmented string") << 9 << false << QByteArray("cosim simulated device")
                                          << QVariant(QByteArray("cosim simulated device"));
        QTest::newRow("block domain") << 15 << true << QByteArray(300, 'q') << QVariant(QByteArray(300, 'q'));
    }
    void outcomesFromTheEngines()
    {
        QFETCH(int, type);
        QFETCH(bool, block);
        QFETCH(QByteArray, content);
        QFETCH(QVariant, expected);
        SDOClient::mUseBlockTransfer = block;
        ScriptedSdoServer server;
        server.content = content;
        ScriptedResponder device(adapter, Rx, [&](const CAN::CanMessage& m) { return server.answer(m); });
        QSignalSpy progress(client, &SDOClient::progress);
        QCOMPARE(client->read(0x1008, 0, CAN::CANopenDataType(type)), CAN::Ok);
        QVERIFY(device.serveUntil([&] { return results->count() > 0; }, 3000));
        QCOMPARE(results->at(0).at(0).toUInt(), 0x1008u);
        QCOMPARE(results->at(0).at(2).value<QVariant>().toByteArray(), expected.toByteArray());
        QVERIFY(!client->isBusy());
        if (type != 7)
            QVERIFY(!progress.isEmpty());
        // Then a server abort: errorReceived with its code, and the next request may start.
        ScriptedResponder refusing(adapter, Rx, [](const CAN::CanMessage& m) {
            return QList<QByteArray>{QByteArray::fromHex("80") + QByteArray(reinterpret_cast<const char*>(m.data) + 1, 3)
                                     + QByteArray::fromHex("00000206")};
        });
        adapter->clearWritten();
        QCOMPARE(client->read(0x1009, 0, CAN::UNSIGNED8), CAN::Ok);
        QVERIFY(refusing.serveUntil([&] { return errors->count() > 0; }, 3000));
        QCOMPARE(errors->at(0), (QList<QVariant>{quint16(0x1009), quint8(0), quint32(0x06020000)}));
        QVERIFY(!client->isBusy());
    }

    void secondRequestWhileBusy()
    {
        QCOMPARE(client->read(0x1018, 1, CAN::UNSIGNED32), CAN::Ok);
        QCOMPARE(client->write(0x2000, 2, CAN::UNSIGNED8, 1), CAN::Busy);
        QCOMPARE(client->read(0x2000, 3, CAN::UNSIGNED8), CAN::Busy);
        QCOMPARE(client->setCobIds(0x586, 0x606), CAN::Busy);
        QCOMPARE(opErrors->count(), 2);
        QCOMPARE(opErrors->at(0), (QList<QVariant>{quint16(0x2000), quint8(2), QVariant::fromValue(CAN::Busy)}));
        QCOMPARE(adapter->writtenCount(), 1);
        adapter->injectHex(Rx, "43 18 10 01 11 22 33 44");
        QTRY_COMPARE_WITH_TIMEOUT(results->count(), 1, 2000);
        QCOMPARE(results->at(0).at(2).toUInt(), 0x44332211u);
        QVERIFY(!client->isBusy());
    }

    // An engine that cannot send (the adapter's queue is full): read reports
    // the engine's code twice and returns it, write reports it and then 2,
    // and returns 2.
    void refusedStart_data()
    {
        QTest::addColumn<bool>("write");
        QTest::addColumn<int>("type");
        QTest::addColumn<QList<int>>("signals_");
        QTest::addColumn<int>("result");
        QTest::newRow("read expedited") << false << 7 << QList<int>{6, 6} << 6;
        QTest::newRow("read segmented") << false << 9 << QList<int>{5, 5} << 5;
        QTest::newRow("write expedited") << true << 7 << QList<int>{5, 2} << 2;
        QTest::newRow("write segmented") << true << 9 << QList<int>{5, 2} << 2;
    }
    void refusedStart()
    {
        QFETCH(bool, write);
        QFETCH(int, type);
        QFETCH(QList<int>, signals_);
        QFETCH(int, result);
        adapter->failWrites(CAN::TxQueueFull);
        const auto t = CAN::CANopenDataType(type);
        QCOMPARE(int(write ? client->write(0x2000, 1, t, QByteArray("abc")) : client->read(0x2000, 1, t)), result);
        QCOMPARE(opErrorCodes(), signals_);
        QVERIFY(!client->isBusy());
    }

    void abortPerKind_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<quint32>("code");
        QTest::addColumn<QByteArray>("frame"); // empty: nothing sent
        QTest::newRow("expedited") << 7 << 0x08000000u << QByteArray("605:8000200100000008");
        QTest::newRow("segmented") << 9 << 0x05040000u << QByteArray("605:8000200100000405");
        QTest::newRow("code 0 sends nothing") << 7 << 0u << QByteArray();
        QTest::newRow("no transfer") << 0 << 0x08000000u << QByteArray();
    }
    void abortPerKind()
    {
        QFETCH(int, type);
        QFETCH(quint32, code);
        QFETCH(QByteArray, frame);
        if (type)
            QCOMPARE(client->read(0x2000, 1, CAN::CANopenDataType(type)), CAN::Ok);
        adapter->clearWritten();
        QCOMPARE(client->abort(code), CAN::Ok);
        QCOMPARE(adapter->writtenHex(), frame.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{frame});
        QVERIFY(!client->isBusy());
        if (type)
            QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 2000);
        else
            QCOMPARE(errors->count(), 0);
    }

    // Built without scheduler: nothing works until setCanScheduler and setCobIds.
    void schedulerGivenLater()
    {
        SDOClient late;
        QCOMPARE(late.setCanScheduler(nullptr), CAN::Error);
        QCOMPARE(late.setCobIds(0x587, 0x607), CAN::Ok);
        QCOMPARE(late.setCanScheduler(scheduler), CAN::Ok);
        QCOMPARE(late.getCanScheduler(), scheduler);
        QCOMPARE(late.setSdoTimeout(300), CAN::Ok);
        QCOMPARE(late.getSdoTimeout(), 300u);
        QSignalSpy got(&late, &SDOClient::resultReceived);
        QCOMPARE(late.read(0x1000, 0, CAN::UNSIGNED16), CAN::Ok);
        QCOMPARE(adapter->writtenHex(), QList<QByteArray>{"607:4000100000000000"});
        adapter->injectHex(0x587, "4b 00 10 00 91 01 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(got.count(), 1, 2000);
        QCOMPARE(got.at(0).at(2).toInt(), 0x191);
    }

    // Routing: the network indication goes to the gateway node first; its
    // answer lets the transfer start, an abort or silence ends in 0x05040000.
    void routing_data()
    {
        QTest::addColumn<QByteArray>("answer"); // to the indication; empty: none
        QTest::addColumn<int>("timeout");
        QTest::addColumn<int>("result");
        QTest::newRow("answered") << QByteArray::fromHex("6000000000000000") << 500 << 0;
        QTest::newRow("abort answer runs into the time-out") << QByteArray::fromHex("8000000000000206") << 60 << 5;
        QTest::newRow("silent gateway") << QByteArray() << 60 << 5;
        QTest::newRow("time-out below one cycle") << QByteArray::fromHex("6000000000000000") << 9 << 5;
    }
    void routing()
    {
        QFETCH(QByteArray, answer);
        QFETCH(int, timeout);
        QFETCH(int, result);
        previousFilter = QLoggingCategory::installFilter(showDefaultDebug);
        client->setRouting(0x0103, 0x20);
        client->setSdoTimeout(quint32(timeout));
        ScriptedResponder gateway(adapter, 0x5A0, [&](const CAN::CanMessage& m) {
            return m.id == 0x620 && !answer.isEmpty() ? QList<QByteArray>{answer} : QList<QByteArray>();
        });
        gateway.start();
        if (result == 0)
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^void SDOClient::mysleep\\(quint16, bool\\*\\) "
                                                                "aborted after  \\d+  10ms cycles\\.$"));
        QCOMPARE(int(client->read(0x1018, 1, CAN::UNSIGNED32)), result);
        gateway.stop();
        QLoggingCategory::installFilter(previousFilter);
        QCOMPARE(adapter->writtenHex().value(0), QByteArray("620:e003010500000000"));
        if (result == 0) {
            QCOMPARE(adapter->writtenHex().value(1), QByteArray("605:4018100100000000"));
            QCOMPARE(opErrors->count(), 0);
            return;
        }
        QCOMPARE(adapter->writtenCount(), 1);
        QCOMPARE(opErrorCodes(), QList<int>{5});
        QVERIFY(client->isBusy());
        QTRY_COMPARE_WITH_TIMEOUT(errors->count(), 1, 1000);
        QCOMPARE(errors->at(0), (QList<QVariant>{quint16(0x1018), quint8(1), quint32(0x05040000)}));
        QVERIFY(!client->isBusy());
    }

    void routingFrameNotSent()
    {
        client->setRouting(1, 0x20);
        adapter->failWrites(CAN::TxQueueFull);
        QCOMPARE(client->write(0x2000, 1, CAN::UNSIGNED8, 1), CAN::TxQueueFull);
        QCOMPARE(opErrorCodes(), QList<int>{6});
        QVERIFY(client->isBusy()); // left set on this path
        // Routing off again: the engines go back to the node's own COB-IDs.
        adapter->failWrites(CAN::Ok);
        client->setRouting(0, 0);
        QVERIFY(!SDOClient::mRoutingActive);
    }

    void abortTexts_data()
    {
        QTest::addColumn<bool>("usdo");
        QTest::addColumn<quint32>("code");
        QTest::addColumn<QString>("text");
        const QStringList sdo = {
            "05030000 Toggle bit not alternated",
            "05040000 SDO Protocol timed out",
            "05040001 Command specifier not valid or unknown",
            "05040002 Invalid block size (block mode only).",
            "05040003 Invalid sequence number (block mode only).",
            "05040004 CRC error (block mode only).",
            "05040005 Unsupported access to an object",
            "06010000 Unsupported access to an object",
            "06010001 Attempt to read a write only object",
            "06010002 Attempt to write a read only object",
            "06020000 Object does not exist",
            "06040041 Object cannot be mapped to the PDO",
            "06040042 The number and length of the objects to be mapped would exceed PDO length",
            "06040043 General parameter incompatibility reason",
            "06040047 General internal incompatibility in the device.",
            "06060000 Access failed due to an hardware error",
            "06070010 Data type does not match, length of service parameter does not match",
            "06070012 Data type does not match: length too high",
            "06070013 Data type does not match: length too low",
            "06090011 sub index does not exist",
            "06090030 Invalid value for parameter (download only)",
            "06090031 Value of parameter written too high (download only).",
            "06090032 Value of parameter written too lpw (download only).",
            "06090036 Maximum value is less than minimum value",
            "060A0023 Resource not available: SDO connection",
            "08000000 General error",
            "08000020 Data cannot be transferred or stored to the application",
            "08000021 Data cannot be transferred or stored to the application because of local control",
            "08000022 Data cannot be transferred or stored to the application because of present device state",
            "08000023 Object dictionary dynamic generation failes or no object dictionary is present",
            "08000024 No data available",
            "12345678 unknown SDO abort code",
            "06090012 unknown SDO abort code",
        };
        const QStringList usdo = {
            "10 Unknown error", "11 USDO protocol error detected", "12 USDO time out error",
            "13 Unknown command specifier", "14 Invalid value in counter byte(segmented protocol)", "15 CRC error",
            "16 Out of memory", "17 General parameter incompatibility reason",
            "18 General internal incompatibility in the device", "19 USDO general routing error",
            "1A USDO destination network unknown", "1B USDO destination node unknown",
            "1C USDO source network unknown", "1D USDO source node unknown", "1E Unexpected CAN DLC",
            "1F Unexpected multiplexer", "30 Unsupported access to an object",
            "31 Attempt to read a write only object", "32 Attempt to write a read only object",
            "33 Object does not exist in the object dictionary", "34 Sub-index does not exist",
            "35 Access failed due to a hardware error",
            "36 Data type does not match, length of service parameter does not match",
            "37 Data type does not match, length of service parameter too high",
            "38 Data type does not match, length of service parameter too low",
            "40 Invalid value for parameter (download only)",
            "41 Value of parameter written too high (download only)",
            "42 Value of parameter written too low (download only)", "43 Maximum value is less than minimum value",
            "44 Minimum value is higher than maximum value",
            "45 CAN-ID and CAN frame format are of access type read-only", "50 Object cannot be mapped to the PDO",
            "51 The number and length of the objects to be mapped would exceed PDO length",
            "52 Attempt to map a non-mappable parameter to a PDO",
            "53 Attempt to map a parameter of PDO access type RPDO to a TPDO",
            "54 Attempt to map a parameter of PDO access type TPDO to a RPDO",
            "55 Attempt to write to PDO parameters, while PDO is valid",
            "56 Attempt to write to PDO mapping parameters, while PDO mapping is valid",
            "60 Data cannot be transferred or stored to the application",
            "61 Data cannot be transferred or stored to the application because of local control",
            "62 Data cannot be transferred or stored to the application because of the present device state",
            "63 Object dictionary dynamic generation fails or no object dictionary is present",
            "64 No data available", "70 USDO server busy", "112 USDO time out error",
            "20 Error Code 32 \n No interpretation yet",
        };
        for (const QString& row : sdo)
            QTest::addRow("sdo %s", qPrintable(row.left(8)))
                << false << row.left(8).toUInt(nullptr, 16) << row.mid(9);
        for (const QString& row : usdo) {
            const int blank = row.indexOf(' ');
            QTest::addRow("usdo %s", qPrintable(row.left(blank)))
                << true << row.left(blank).toUInt(nullptr, 16) << row.mid(blank + 1);
        }
        QTest::newRow("USDO mode reads SDO codes as USDO codes")
            << true << 0x05040000u << QString("Error Code 84148224 \n No interpretation yet");
    }
    void abortTexts()
    {
        QFETCH(bool, usdo);
        QFETCH(quint32, code);
        QFETCH(QString, text);
        SDOClient::mUseUSDO = usdo;
        QCOMPARE(usdo ? SDOClient::interpretSdoAbort(code) : SDOClient::interpretSdoAbort(code), text);
        if (usdo)
            QCOMPARE(SDOClient::interpretUsdoAbort(code), text);
        QCOMPARE(SDOClient::mAbortCodeMap.size(), 44);
    }
};

QTEST_MAIN(tst_SDOClient)
#include "tst_sdoclient.moc"
