// End-to-end tests of cotool's network commands through a gateway played by
// FakeGateway, which records the lines it receives and answers them whole or
// in pieces. A virtual bus is watched too: nothing may go out on CAN.
#include "fakegateway.h"
#include "toolprocess.h"

#include <QtTest>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
} // namespace

class tst_CotoolGateway : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
    }

    // The line sent to the gateway and its answer, printed; exit code 0 for "OK" only.
    void nmtThroughAGateway_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("answer"); // null: the gateway stays silent
        QTest::addColumn<QList<int>>("splits");
        QTest::addColumn<QString>("sent"); // the first line printed
        QTest::newRow("reset-node 5") << QStringList{"reset-node", "5"} << "OK" << QList<int>{} << "sent reset-node to node 5: [0] 5 reset node";
        QTest::newRow("start all, byte by byte") << QStringList{"start"} << "OK" << FakeGateway::ByteByByte << "sent start to all nodes: [0] 0 start";
        // "[0] ERROR:100 #bad\r\n" in pieces: none of them is the answer alone.
        QTest::newRow("gateway error, split") << QStringList{"stop", "3"} << "ERROR:100 #bad" << QList<int>{3, 9, 18} << "sent stop to node 3: [0] 3 stop";
        QTest::newRow("no answer") << QStringList{"stop", "3"} << QString() << QList<int>{} << "sent stop to node 3: [0] 3 stop";
    }
    void nmtThroughAGateway()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, answer);
        QFETCH(QList<int>, splits);
        QFETCH(QString, sent);
        FakeGateway gateway;
        gateway.answerWith(answer, splits);
        mBus->frames.clear();
        ToolProcess nmt(kCotool, QStringList{"nmt", "--gateway", gateway.address()} + args);
        QCOMPARE(nmt.finish(10000), answer == QLatin1String("OK") ? 0 : 1);
        QCOMPARE(gateway.lines(), QStringList{sent.section(QStringLiteral(": "), 1)});
        QCOMPARE(nmt.out(), sent + '\n' + (answer.isNull() ? QString() : "gateway answered: [0] " + answer + '\n'));
        if (answer.isNull())
            QVERIFY2(nmt.err().contains("no answer from the gateway within 1000 ms"), qPrintable(nmt.err()));
        QCOMPARE(mBus->frames.count(), 0); // nothing on CAN
    }

    // cotool sdo through the gateway: the read line, the answer as a person
    // reads it, or the abort code and text of an error line.
    void sdoThroughAGateway_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("printed"); // stdout, or the end of stderr
        QTest::newRow("value") << "2748" << 0 << "node 5 1018h sub 01h: 2748 (0x00000abc)";
        QTest::newRow("real gateway's error line") << "ERROR:0x06020000 #Object does not exist." << 1
                                                   << "SDO abort 0x06020000: Object does not exist";
    }
    void sdoThroughAGateway()
    {
        QFETCH(QString, answer);
        QFETCH(int, exitCode);
        QFETCH(QString, printed);
        FakeGateway gateway;
        gateway.answerWith(answer);
        mBus->frames.clear();
        ToolProcess sdo(kCotool, {"sdo", "read", "5", "1018", "1", "u32", "--gateway", gateway.address()});
        QCOMPARE(sdo.finish(10000), exitCode);
        QVERIFY2(gateway.lines().contains(QStringLiteral("[1] 5 r 0x1018 1 u32")), qPrintable(gateway.lines().join('|')));
        if (exitCode == 0)
            QCOMPARE(sdo.out(), printed + '\n');
        else
            QVERIFY2(sdo.err().trimmed().endsWith(printed), qPrintable(sdo.err()));
        QCOMPARE(mBus->frames.count(), 0); // nothing on CAN
    }

    void emcyThroughAGateway()
    {
        FakeGateway gateway;
        ToolProcess emcy(kCotool, {"emcy", "5", "--gateway", gateway.address(), "--count", "2", "--duration", "10000"});
        // Reports until it has seen enough; node 6's are not for it.
        QTimer pusher;
        connect(&pusher, &QTimer::timeout, &gateway, [&gateway]() {
            gateway.send("6 emcy 0x1000 1 0 0 0 0 0\r\n5 EMCY 0x8110 0x11 1 2 3 4 5\r\n", {40});
        });
        pusher.start(100);
        QCOMPARE(emcy.finish(10000), 0);
        const QString line = QStringLiteral("node   5  EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)");
        QCOMPARE(emcy.events(), (QStringList{line, line}));
        QCOMPARE(gateway.lines(), QStringList()); // it only listens
    }

private:
    std::unique_ptr<WatchedBus> mBus;
};

QTEST_MAIN(tst_CotoolGateway)
#include "tst_cotoolgateway.moc"
