// End-to-end tests of the cosim program on a private virtual bus: it boots,
// produces its heartbeat, runs its SDO server as its options say, and ends
// cleanly on SIGINT and SIGTERM.
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "recordingcanadapter.h"
#include "testbus.h"
#include "toolprocess.h"

#include <QtTest>
#include <csignal>
#include <memory>

namespace {
const QString kCosim = QStringLiteral(COSIM_PATH);
}

class tst_Cosim : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        TestBus::usePrivatePort(); // before the adapter reads it
        mBus = std::make_unique<DemoCanAdapter>(QStringLiteral("v"));
        mCollector = std::make_unique<FrameCollector>(mBus.get());
        QCOMPARE(mBus->open(), CAN::Ok);
    }
    void cleanupTestCase() { mBus->close(); }
    void init() { mCollector->clear(); }

    void bootsBeatsAndStopsOnSignal_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::addColumn<QStringList>("extraArgs");
        QTest::addColumn<QString>("stderrPart");
        QTest::newRow("SIGINT, quiet") << int(SIGINT) << QStringList{"--quiet"} << QString();
        QTest::newRow("SIGTERM, with log") << int(SIGTERM) << QStringList{} << "stopped by signal 15";
        // With a boot delay the first frame is still the boot-up: no
        // heartbeat may go out before it.
        QTest::newRow("SIGTERM, delayed boot") << int(SIGTERM) << QStringList{"--delay", "300", "-q"} << QString();
    }
    void bootsBeatsAndStopsOnSignal()
    {
        QFETCH(int, signalNumber);
        QFETCH(QStringList, extraArgs);
        QFETCH(QString, stderrPart);
        ToolProcess cosim(kCosim, QStringList{"--node", "9", "--heartbeat", "50"} + extraArgs);
        QTRY_VERIFY_WITH_TIMEOUT(mCollector->count(0x709) >= 3, 10000);
        QStringList beats;
        for (const CAN::CanRxMessage& rx : mCollector->frames(0x709).mid(0, 3))
            beats << FrameCollector::describe(rx.message);
        QCOMPARE(beats, (QStringList{"709 [1] 00", "709 [1] 7F", "709 [1] 7F"})); // boot-up, pre-operational
        ::kill(pid_t(cosim.pid()), signalNumber);
        QCOMPARE(cosim.finish(5000), 0);
        if (stderrPart.isEmpty())
            QCOMPARE(cosim.err(), QString());
        else
            QVERIFY2(cosim.err().contains(stderrPart), qPrintable(cosim.err()));
        // Nothing more once it has ended.
        const int after = mCollector->count();
        QTest::qWait(150);
        QCOMPARE(mCollector->count(), after);
    }

    // The answer to a block download request: the server's block size and
    // CRC support as the options set them, or no answer without a server.
    void sdoServerOptions_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("answer"); // empty: none
        QTest::newRow("default") << QStringList() << "589 [8] A40220007F000000";
        QTest::newRow("block size 9, no CRC") << QStringList{"--sdo-block-size", "9", "--sdo-no-crc"} << "589 [8] A002200009000000";
        QTest::newRow("no server") << QStringList{"--no-sdo"} << QString();
    }
    void sdoServerOptions()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, answer);
        ToolProcess cosim(kCosim, QStringList{"--node", "9", "--heartbeat", "0", "--no-console", "-q"} + args);
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x709), 1, 10000);
        CAN::CanMessage request = makeFrame(0x609, {0xC2, 0x02, 0x20, 0x00, 0x10, 0x00, 0x00, 0x00});
        QCOMPARE(mBus->write(&request), CAN::Ok);
        QTest::qWait(answer.isEmpty() ? 300 : 0);
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x589), answer.isEmpty() ? 0 : 1, 5000);
        if (!answer.isEmpty())
            QCOMPARE(FrameCollector::describe(mCollector->frames(0x589).at(0).message), answer);
    }

    void listsItsDictionary()
    {
        const ToolProcess::Result r = ToolProcess::run(kCosim, {"--list-od", "--node", "9"});
        QCOMPARE(r.exitCode, 0);
        QVERIFY2(r.out.contains("0x609") && r.out.contains("2004h 00h UNSIGNED32      wo"), qPrintable(r.out));
    }

    void badArgumentsExitWith2_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("node 0") << QStringList{"--node", "0"} << "node-ID";
        QTest::newRow("node 128") << QStringList{"-n", "128"} << "node-ID";
        QTest::newRow("heartbeat not a number") << QStringList{"--heartbeat", "often"} << "heartbeat";
        QTest::newRow("port 0") << QStringList{"--port", "0"} << "port";
        QTest::newRow("negative delay") << QStringList{"--delay", "-5"} << "delay";
        QTest::newRow("block size 128") << QStringList{"--sdo-block-size", "128"} << "block size";
        QTest::newRow("negative SDO time-out") << QStringList{"--sdo-timeout", "-1"} << "time-out";
    }
    void badArgumentsExitWith2()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, errorPart);
        const ToolProcess::Result r = ToolProcess::run(kCosim, args);
        QCOMPARE(r.exitCode, 2);
        QVERIFY2(r.err.contains(errorPart), qPrintable(r.err));
    }

private:
    std::unique_ptr<DemoCanAdapter> mBus;
    std::unique_ptr<FrameCollector> mCollector;
};

QTEST_MAIN(tst_Cosim)
#include "tst_cosim.moc"
