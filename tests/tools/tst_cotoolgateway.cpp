// End-to-end tests of cotool's network commands through a gateway played by
// FakeGateway, which records the lines it receives and answers them whole or
// in pieces. A virtual bus is watched too: nothing may go out on CAN.
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "fakegateway.h"
#include "framecollector.h"
#include "testbus.h"
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
        CanopenMaster master;
        TestBus::usePrivatePort();
        mBus.reset(new DemoCanAdapter(QStringLiteral("v")));
        mCollector.reset(new FrameCollector(mBus.get()));
        QCOMPARE(mBus->open(), CAN::Ok);
    }
    void cleanupTestCase()
    {
        mBus->close();
        mCollector.reset();
        mBus.reset();
    }

    void nmtThroughAGateway_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("answer"); // null: the gateway stays silent
        QTest::addColumn<QList<int>>("splits");
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("printed");
        QTest::newRow("reset-node 5") << QStringList{"reset-node", "5"} << "OK" << QList<int>{} << "[0] 5 reset node" << 0
                                      << "sent reset-node to node 5: [0] 5 reset node\ngateway answered: [0] OK\n";
        QTest::newRow("start all, byte by byte") << QStringList{"start"} << "OK" << FakeGateway::ByteByByte << "[0] 0 start" << 0
                                                 << "sent start to all nodes: [0] 0 start\ngateway answered: [0] OK\n";
        QTest::newRow("preop 127") << QStringList{"preop", "127"} << "OK" << QList<int>{} << "[0] 127 preop" << 0
                                   << "sent preop to node 127: [0] 127 preop\ngateway answered: [0] OK\n";
        QTest::newRow("reset-comm all") << QStringList{"reset-comm", "0"} << "OK" << QList<int>{} << "[0] 0 reset comm" << 0
                                        << "sent reset-comm to all nodes: [0] 0 reset comm\ngateway answered: [0] OK\n";
        const QString error = QStringLiteral("sent stop to node 3: [0] 3 stop\ngateway answered: [0] ERROR:100 #bad\n");
        QTest::newRow("gateway error") << QStringList{"stop", "3"} << "ERROR:100 #bad" << QList<int>{} << "[0] 3 stop" << 1 << error;
        // "[0] ERROR:100 #bad\r\n" in pieces: none of them is the answer alone.
        QTest::newRow("error split after the number") << QStringList{"stop", "3"} << "ERROR:100 #bad" << QList<int>{4}
                                                      << "[0] 3 stop" << 1 << error;
        QTest::newRow("error split in the number") << QStringList{"stop", "3"} << "ERROR:100 #bad" << QList<int>{2}
                                                   << "[0] 3 stop" << 1 << error;
        QTest::newRow("error split three times") << QStringList{"stop", "3"} << "ERROR:100 #bad" << QList<int>{3, 9, 18}
                                                 << "[0] 3 stop" << 1 << error;
        QTest::newRow("error byte by byte") << QStringList{"stop", "3"} << "ERROR:100 #bad" << FakeGateway::ByteByByte
                                            << "[0] 3 stop" << 1 << error;
        QTest::newRow("no answer") << QStringList{"stop", "3"} << QString() << QList<int>{} << "[0] 3 stop" << 1
                                   << "sent stop to node 3: [0] 3 stop\n";
    }
    void nmtThroughAGateway()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, answer);
        QFETCH(QList<int>, splits);
        QFETCH(QString, line);
        QFETCH(int, exitCode);
        QFETCH(QString, printed);
        FakeGateway gateway;
        gateway.answerWith(answer, splits);
        mCollector->clear();
        ToolProcess nmt(kCotool, QStringList{"nmt", "--gateway", gateway.address()} + args);
        QCOMPARE(nmt.finish(10000), exitCode);
        QCOMPARE(gateway.lines(), QStringList{line});
        QCOMPARE(nmt.out(), printed);
        if (answer.isNull())
            QVERIFY2(nmt.err().contains("no answer from the gateway within 1000 ms"), qPrintable(nmt.err()));
        QCOMPARE(mCollector->count(), 0); // nothing on CAN
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
        QTRY_VERIFY_WITH_TIMEOUT(!emcy.isRunning(), 10000);
        QCOMPARE(emcy.finish(), 0);
        QStringList events;
        for (const QString& l : emcy.outLines())
            events << l.mid(9); // after the time column
        QCOMPARE(events, (QStringList{"node   5  EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)",
                                      "node   5  EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)"}));
        QCOMPARE(gateway.lines(), QStringList()); // it only listens
    }

    void gatewayThatIsNotThere()
    {
        // A port that just stopped listening refuses the connection.
        const QString address = FakeGateway().address();
        const ToolProcess::Result r = ToolProcess::run(kCotool, {"nmt", "--gateway", address, "start"});
        QCOMPARE(r.exitCode, 1);
        QVERIFY2(r.err.contains("could not connect to the gateway"), qPrintable(r.err));
        QCOMPARE(r.out, QString());
    }

private:
    std::unique_ptr<DemoCanAdapter> mBus;
    std::unique_ptr<FrameCollector> mCollector;
};

QTEST_MAIN(tst_CotoolGateway)
#include "tst_cotoolgateway.moc"
