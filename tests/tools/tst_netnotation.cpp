// The notations of cotool's network commands: what each parser accepts and
// refuses, and the printed forms of decoded PDOs and emergencies.
#include "netnotation.h"

#include <QtTest>

Q_DECLARE_METATYPE(QVector<quint8>)
Q_DECLARE_METATYPE(QVector<CAN::CANopenDataType>)

class tst_NetNotation : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void nmtCommands_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("command"); // -1: refused
        QTest::newRow("start") << "start" << 1;
        QTest::newRow("stop") << "stop" << 2;
        QTest::newRow("preop") << "preop" << 128;
        QTest::newRow("reset-node") << "reset-node" << 129;
        QTest::newRow("reset-comm") << "reset-comm" << 130;
        QTest::newRow("upper case") << "START" << -1;
        QTest::newRow("gateway spelling") << "reset node" << -1;
        QTest::newRow("number") << "1" << -1;
        QTest::newRow("empty") << "" << -1;
    }
    void nmtCommands()
    {
        QFETCH(QString, text);
        QFETCH(int, command);
        NMTNetwork::NmtCommands got = NMTNetwork::Stop;
        QString error;
        QCOMPARE(NetNotation::parseNmtCommand(text, got, &error), command >= 0);
        if (command >= 0) {
            QCOMPARE(int(got), command);
            QCOMPARE(NetNotation::nmtCommandName(got), text); // printed as typed
        } else {
            QVERIFY(error.contains(QStringLiteral("'%1'").arg(text)));
            QVERIFY(error.contains(QLatin1String("reset-comm")));
        }
    }

    void nodeIds_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("allowAll");
        QTest::addColumn<int>("node"); // -1: refused
        QTest::newRow("1") << "1" << false << 1;
        QTest::newRow("127") << "127" << false << 127;
        QTest::newRow("128") << "128" << true << -1;
        QTest::newRow("0 for all") << "0" << true << 0;
        QTest::newRow("0 not allowed") << "0" << false << -1;
        QTest::newRow("hex") << "0x05" << false << -1;
        QTest::newRow("sign") << "+5" << false << -1;
        QTest::newRow("blank") << " 5" << false << -1;
        QTest::newRow("empty") << "" << true << -1;
    }
    void nodeIds()
    {
        QFETCH(QString, text);
        QFETCH(bool, allowAll);
        QFETCH(int, node);
        quint8 got = 99;
        QString error;
        QCOMPARE(NetNotation::parseNodeId(text, allowAll, got, &error), node >= 0);
        if (node >= 0)
            QCOMPARE(int(got), node);
        else
            QVERIFY(error.contains(QLatin1String("1..127")));
    }

    void nodeLists_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QVector<quint8>>("nodes");
        QTest::newRow("one") << "5" << true << QVector<quint8>{5};
        QTest::newRow("sorted, each once") << "7,5,5,6" << true << QVector<quint8>{5, 6, 7};
        QTest::newRow("range") << "1-3" << true << QVector<quint8>{1, 2, 3};
        QTest::newRow("range and single") << "10,1-2" << true << QVector<quint8>{1, 2, 10};
        QTest::newRow("one-node range") << "4-4" << true << QVector<quint8>{4};
        QTest::newRow("all") << "1-127" << true << QVector<quint8>();
        QTest::newRow("backwards range") << "3-1" << false << QVector<quint8>();
        QTest::newRow("node 0") << "0,5" << false << QVector<quint8>();
        QTest::newRow("node 128") << "120-128" << false << QVector<quint8>();
        QTest::newRow("empty item") << "5,,6" << false << QVector<quint8>();
        QTest::newRow("open range") << "5-" << false << QVector<quint8>();
        QTest::newRow("words") << "all" << false << QVector<quint8>();
    }
    void nodeLists()
    {
        QFETCH(QString, text);
        QFETCH(bool, ok);
        QFETCH(QVector<quint8>, nodes);
        QVector<quint8> got{99};
        QString error;
        QCOMPARE(NetNotation::parseNodeList(text, got, &error), ok);
        if (!ok) {
            QCOMPARE(got, QVector<quint8>{99}); // untouched
            QVERIFY(error.contains(text));
        } else if (text == QLatin1String("1-127")) {
            QCOMPARE(got.size(), 127);
            QCOMPARE(int(got.first()), 1);
            QCOMPARE(int(got.last()), 127);
        } else {
            QCOMPARE(got, nodes);
        }
    }

    void cobIds_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("cobId"); // -1: refused
        QTest::newRow("bare hex") << "185" << 0x185;
        QTest::newRow("0x") << "0x185" << 0x185;
        QTest::newRow("0X, lower digits") << "0X1a5" << 0x1A5;
        QTest::newRow("highest") << "7FF" << 0x7FF;
        QTest::newRow("above 11 bits") << "800" << -1;
        QTest::newRow("29-bit") << "12345678" << -1;
        QTest::newRow("not hex") << "18G" << -1;
        QTest::newRow("just 0x") << "0x" << -1;
    }
    void cobIds()
    {
        QFETCH(QString, text);
        QFETCH(int, cobId);
        quint32 got = 0;
        QCOMPARE(NetNotation::parseCobId(text, got), cobId >= 0);
        if (cobId >= 0)
            QCOMPARE(int(got), cobId);
    }

    void periods_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("us"); // -1: refused
        QTest::newRow("ms") << "10ms" << qint64(10000);
        QTest::newRow("us") << "500us" << qint64(500);
        QTest::newRow("no unit means ms") << "25" << qint64(25000);
        QTest::newRow("longest") << "65535ms" << qint64(65535000);
        QTest::newRow("too long") << "65536ms" << qint64(-1);
        QTest::newRow("too long in us") << "65535001us" << qint64(-1);
        QTest::newRow("zero") << "0ms" << qint64(-1);
        QTest::newRow("seconds unit") << "1s" << qint64(-1);
        QTest::newRow("blank before unit") << "10 ms" << qint64(-1);
        QTest::newRow("fraction") << "1.5ms" << qint64(-1);
        QTest::newRow("unit only") << "ms" << qint64(-1);
    }
    void periods()
    {
        QFETCH(QString, text);
        QFETCH(qint64, us);
        quint32 got = 0;
        QString error;
        QCOMPARE(NetNotation::parsePeriodUs(text, got, &error), us >= 0);
        if (us >= 0)
            QCOMPARE(qint64(got), us);
        else
            QVERIFY(error.contains(text));
    }

    void mappings_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QVector<CAN::CANopenDataType>>("mapping");
        QTest::newRow("u16,i32") << "u16,i32" << true << QVector<CAN::CANopenDataType>{CAN::UNSIGNED16, CAN::INTEGER32};
        QTest::newRow("every type") << "u8,i8,u16,i16" << true
                                    << QVector<CAN::CANopenDataType>{CAN::UNSIGNED8, CAN::INTEGER8, CAN::UNSIGNED16, CAN::INTEGER16};
        QTest::newRow("32-bit pair, 8 bytes") << "U32, i32" << true << QVector<CAN::CANopenDataType>{CAN::UNSIGNED32, CAN::INTEGER32};
        QTest::newRow("9 bytes") << "u32,u32,u8" << false << QVector<CAN::CANopenDataType>();
        QTest::newRow("64-bit") << "u64" << false << QVector<CAN::CANopenDataType>();
        QTest::newRow("float") << "f32" << false << QVector<CAN::CANopenDataType>();
        QTest::newRow("empty entry") << "u8,,u8" << false << QVector<CAN::CANopenDataType>();
        QTest::newRow("empty") << "" << false << QVector<CAN::CANopenDataType>();
    }
    void mappings()
    {
        QFETCH(QString, text);
        QFETCH(bool, ok);
        QFETCH(QVector<CAN::CANopenDataType>, mapping);
        QVector<CAN::CANopenDataType> got;
        QString error;
        QCOMPARE(NetNotation::parseMapping(text, got, &error), ok);
        if (ok)
            QCOMPARE(got, mapping);
        else
            QVERIFY(!error.isEmpty());
    }

    void pdoValues()
    {
        const QVector<CAN::CANopenDataType> mapping{CAN::UNSIGNED16, CAN::INTEGER8, CAN::UNSIGNED32};
        QCOMPARE(NetNotation::formatPdoValues(mapping, {QVariant(0x1234), QVariant(-1), QVariant(4294967295u)}),
                 QStringLiteral("u16=4660 i8=-1 u32=4294967295"));
        QCOMPARE(NetNotation::formatPdoValues({}, {}), QString());
    }

    void stateNames_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<bool>("supervision");
        QTest::addColumn<QString>("name");
        QTest::newRow("pre-operational") << 2 << false << "PreOperational";
        QTest::newRow("boot-up") << 1 << false << "BootUp";
        QTest::newRow("no such state") << 9 << false << "9";
        QTest::newRow("lost") << 5 << true << "Lost";
        QTest::newRow("running") << 3 << true << "Running";
        QTest::newRow("guarding delayed") << 4 << true << "GuardingDelayed";
    }
    void stateNames()
    {
        QFETCH(int, state);
        QFETCH(bool, supervision);
        QFETCH(QString, name);
        QCOMPARE(supervision ? NetNotation::supervisionName(NMTSlave::HeartbeatGuardingState(state))
                             : NetNotation::stateName(NMTSlave::NmtState(state)),
                 name);
    }

    void emcyDescriptions_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("reset") << 0x0000 << "error reset or no error";
        QTest::newRow("generic") << 0x1000 << "generic error";
        QTest::newRow("output current") << 0x2310 << "current, device output side";
        QTest::newRow("current, other sub-class") << 0x2510 << "current";
        QTest::newRow("mains voltage") << 0x3110 << "mains voltage";
        QTest::newRow("device temperature") << 0x4210 << "device temperature";
        QTest::newRow("hardware") << 0x5000 << "device hardware";
        QTest::newRow("data set") << 0x6300 << "data set";
        QTest::newRow("CAN overrun") << 0x8110 << "CAN overrun, objects lost";
        QTest::newRow("heartbeat") << 0x8130 << "life guard or heartbeat error";
        QTest::newRow("other communication") << 0x8199 << "monitoring: communication";
        QTest::newRow("PDO length") << 0x8210 << "PDO not processed due to length error";
        QTest::newRow("other protocol") << 0x8201 << "monitoring: protocol error";
        QTest::newRow("external") << 0x9000 << "external error";
        QTest::newRow("additional functions") << 0xF001 << "additional functions";
        QTest::newRow("device specific") << 0xFF42 << "device specific";
        QTest::newRow("reserved class") << 0xA000 << "reserved error code class";
    }
    void emcyDescriptions()
    {
        QFETCH(int, code);
        QFETCH(QString, text);
        QCOMPARE(NetNotation::emcyDescription(quint16(code)), text);
    }

    void emcyLine()
    {
        EMCYConsumer::EMCYData d;
        d.errorCode = 0x8110;
        d.errorRegister = 0x11;
        const quint8 bytes[5] = {0x01, 0x02, 0xAB, 0x04, 0x05};
        std::copy(bytes, bytes + 5, d.manufacturerData);
        QCOMPARE(NetNotation::formatEmcy(d),
                 QStringLiteral("EMCY 8110  register 11  data 01 02 AB 04 05  (CAN overrun, objects lost)"));
    }

    void seconds_data()
    {
        QTest::addColumn<qint64>("ms");
        QTest::addColumn<QString>("text");
        QTest::newRow("zero") << qint64(0) << "  0.000";
        QTest::newRow("ms") << qint64(1234) << "  1.234";
        QTest::newRow("long") << qint64(123456) << "123.456";
    }
    void seconds()
    {
        QFETCH(qint64, ms);
        QFETCH(QString, text);
        QCOMPARE(NetNotation::seconds(ms), text);
    }
};

QTEST_MAIN(tst_NetNotation)
#include "tst_netnotation.moc"
