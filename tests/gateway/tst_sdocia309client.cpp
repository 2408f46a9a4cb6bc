// SDOCiA309Client against the recording adapter playing a gateway: request
// lines, answer lines in this library's and in real gateways' forms, DOMAIN
// steps, abort.
#include "canopenmasterclass.h"
#include "sdocia309client.h"
#include "sdoenginefixture.h"

class tst_SDOCiA309Client : public QObject, SdoEngineFixture<SDOCiA309Client>
{
    Q_OBJECT

    SDOCiA309Client*& client = engine;

    // The answer text for the last request, "[n] " put in front of each line.
    void answer(const QStringList& lines)
    {
        const QString seq = QStringLiteral("[%1] ").arg(adapter->requests().size() - 1);
        QString text;
        for (const QString& l : lines)
            text += seq + l + QStringLiteral("\r\n");
        Q_EMIT adapter->newCiA309Response(text);
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void init()
    {
        setUp([](CanScheduler* s) { return new SDOCiA309Client(s); }, true);
    }
    void cleanup() { tearDown(); }

    void requestLines_data()
    {
        QTest::addColumn<bool>("write");
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("line");
        QTest::newRow("read u32") << false << 7 << QVariant() << "5 r 0x1018 1 u32";
        QTest::newRow("read domain") << false << 15 << QVariant() << "5 r 0x1018 1 d";
        QTest::newRow("write r32 1.0") << true << 8 << QVariant(1.0f) << "5 w 0x1018 1 r32 1";
        QTest::newRow("write i16") << true << 3 << QVariant(-2) << "5 w 0x1018 1 i16 -2";
        QTest::newRow("write u64") << true << 27 << QVariant(quint64(1) << 40) << "5 w 0x1018 1 u64 1099511627776";
        QTest::newRow("write vs plain") << true << 9 << QVariant("abc") << "5 w 0x1018 1 vs abc";
        QTest::newRow("write vs quoted") << true << 9 << QVariant("a \"b\"") << "5 w 0x1018 1 vs \"a \"\"b\"\"\"";
        QTest::newRow("write domain") << true << 15 << QVariant(QByteArray("\x01\x02\x03", 3)) << "5 w 0x1018 1 d AQID";
    }
    void requestLines()
    {
        QFETCH(bool, write);
        QFETCH(int, type);
        QFETCH(QVariant, value);
        QFETCH(QString, line);
        const auto t = CAN::CANopenDataType(type);
        QCOMPARE(write ? client->write(5, 0x1018, 1, t, value) : client->read(5, 0x1018, 1, t), CAN::Ok);
        QCOMPARE(adapter->requests(), (QStringList{"set sdo_timeout 2000", line}));
        QCOMPARE(client->read(5, 0x1018, 1, t), CAN::Busy);
        QCOMPARE(client->setSdoTimeout(500), CAN::Ok);
        QCOMPARE(adapter->requests().last(), QString("set sdo_timeout 500"));
    }

    void refusals()
    {
        QCOMPARE(client->read(5, 0x2000, 0, CAN::UNICODE_STRING), CAN::Busy); // no gateway name
        SDOCiA309Client lone;
        QCOMPARE(lone.read(5, 0x2000, 0, CAN::UNSIGNED8), CAN::Busy); // no scheduler
        adapter->failWrites(CAN::Error);
        QCOMPARE(client->read(5, 0x2000, 0, CAN::UNSIGNED8), CAN::Error);
        QVERIFY(client->isBusy()); // left for the caller's abort
    }

    void answers_data()
    {
        QTest::addColumn<bool>("write");
        QTest::addColumn<int>("type");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QVariant>("result"); // invalid: an error is expected
        QTest::addColumn<quint32>("code");
        QTest::newRow("u32 hex") << false << 7 << QStringList{"0x12345678"} << QVariant(0x12345678u) << 0u;
        QTest::newRow("i8 negative") << false << 2 << QStringList{"-5"} << QVariant(-5) << 0u;
        QTest::newRow("u64") << false << 27 << QStringList{"18446744073709551615"}
                             << QVariant(quint64(18446744073709551615ull)) << 0u;
        QTest::newRow("r64 as float") << false << 17 << QStringList{"2.5"} << QVariant(2.5f) << 0u;
        QTest::newRow("vs joined") << false << 9 << QStringList{"cosim  simulated device"}
                                   << QVariant("cosim simulated device") << 0u;
        QTest::newRow("vs quoted") << false << 9 << QStringList{"\"cosim simulated device\""}
                                   << QVariant("cosim simulated device") << 0u;
        QTest::newRow("vs quoted with an error word") << false << 9 << QStringList{"\"ERROR log\""}
                                                      << QVariant("ERROR log") << 0u;
        QTest::newRow("write OK") << true << 7 << QStringList{"OK"} << QVariant(0) << 0u;
        QTest::newRow("Error word") << false << 7 << QStringList{"Error 0x06020000"} << QVariant() << 0x06020000u;
        QTest::newRow("glued hex") << false << 7 << QStringList{"ERROR:0x06020000 #Object does not exist."} << QVariant()
                                   << 0x06020000u;
        QTest::newRow("separate 8 digits") << false << 7 << QStringList{"ERROR: 06020000 (Object does not exist)"}
                                           << QVariant() << 0x06020000u;
        QTest::newRow("gateway code") << true << 7 << QStringList{"ERROR:100"} << QVariant() << 100u;
        QTest::newRow("no code") << false << 7 << QStringList{"error"} << QVariant() << 0u;
        QTest::newRow("domain in one line") << false << 15 << QStringList{"AQID"} << QVariant(QByteArray("\x01\x02\x03", 3))
                                            << 0u;
        QTest::newRow("domain in blocks") << false << 15 << QStringList{"BLOCK 1 2", "AQ", "BLOCK 2 2", "ID"}
                                          << QVariant(QByteArray("\x01\x02\x03", 3)) << 0u;
        QTest::newRow("domain write") << true << 15 << QStringList{"BLOCK 1 2", "BLOCK 2 2", "OK"} << QVariant(0) << 0u;
    }
    void answers()
    {
        QFETCH(bool, write);
        QFETCH(int, type);
        QFETCH(QStringList, lines);
        QFETCH(QVariant, result);
        QFETCH(quint32, code);
        const auto t = CAN::CANopenDataType(type);
        QCOMPARE(write ? client->write(7, 0x2000, 3, t, QVariant(1)) : client->read(7, 0x2000, 3, t), CAN::Ok);
        Q_EMIT adapter->newCiA309Response("[99] 0x11\n[0] OK\n"); // other numbers are not ours
        answer(lines);
        QCOMPARE(results->count() + errors->count(), 1);
        QVERIFY(!client->isBusy());
        if (!result.isValid()) {
            QCOMPARE(errors->at(0), (QList<QVariant>{quint16(0x2000), quint8(3), code}));
            return;
        }
        QCOMPARE(results->at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), result);
        if (type == 15 && lines.size() > 1)
            QCOMPARE(progress->first().at(0).toInt(), 50);
    }

    void twoAnswersInOneChunkAndAbort()
    {
        QCOMPARE(client->read(7, 0x2000, 3, CAN::UNSIGNED8), CAN::Ok);
        QCOMPARE(client->abort(0x08000000), CAN::Ok);
        QCOMPARE(errors->count(), 1);
        QVERIFY(!client->isBusy());
        answer({"ERROR 0x05040000"}); // still reported for the aborted request
        QCOMPARE(errors->count(), 2);
        QCOMPARE(client->read(7, 0x2000, 4, CAN::UNSIGNED8), CAN::Ok);
        answer({"17", "18"});
        QCOMPARE(results->count(), 1);
        QCOMPARE(results->at(0).at(2).value<QVariant>(), QVariant(17u));
    }
};

QTEST_MAIN(tst_SDOCiA309Client)
#include "tst_sdocia309client.moc"
