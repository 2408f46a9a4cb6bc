// End-to-end tests of the cosim program on a private virtual bus: it boots,
// produces its heartbeat, runs its SDO server as its options say, and ends
// cleanly on SIGINT and SIGTERM.
#include "recordingcanadapter.h"
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
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
    }
    void init() { mBus->frames.clear(); }

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
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.frames(0x709).size() >= 3, 10000);
        QStringList beats;
        for (const CAN::CanRxMessage& rx : mBus->frames.frames(0x709).mid(0, 3))
            beats << FrameCollector::describe(rx.message);
        QCOMPARE(beats, (QStringList{"709 [1] 00", "709 [1] 7F", "709 [1] 7F"})); // boot-up, pre-operational
        ::kill(pid_t(cosim.pid()), signalNumber);
        QCOMPARE(cosim.finish(5000), 0);
        if (stderrPart.isEmpty())
            QCOMPARE(cosim.err(), QString());
        else
            QVERIFY2(cosim.err().contains(stderrPart), qPrintable(cosim.err()));
        // Nothing more once it has ended.
        const int after = mBus->frames.count();
        QTest::qWait(150);
        QCOMPARE(mBus->frames.count(), after);
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
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.frames(0x709).size(), 1, 10000);
        CAN::CanMessage request = makeFrame(0x609, {0xC2, 0x02, 0x20, 0x00, 0x10, 0x00, 0x00, 0x00});
        QCOMPARE(mBus->adapter.write(&request), CAN::Ok);
        QTest::qWait(answer.isEmpty() ? 300 : 0);
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.frames(0x589).size(), answer.isEmpty() ? 0 : 1, 5000);
        if (!answer.isEmpty())
            QCOMPARE(FrameCollector::describe(mBus->frames.frames(0x589).at(0).message), answer);
    }

    // Bad arguments exit with 2 and a message; --list-od prints the dictionary.
    void commandLine_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("errorPart"); // or of the output, for exit code 0
        QTest::newRow("list the dictionary") << QStringList{"--list-od", "--node", "9"} << "2004h 00h UNSIGNED32      wo";
        QTest::newRow("node 128") << QStringList{"-n", "128"} << "node-ID";
        QTest::newRow("heartbeat not a number") << QStringList{"--heartbeat", "often"} << "heartbeat";
        QTest::newRow("port 0") << QStringList{"--port", "0"} << "port";
        QTest::newRow("negative delay") << QStringList{"--delay", "-5"} << "delay";
        QTest::newRow("block size 128") << QStringList{"--sdo-block-size", "128"} << "block size";
        QTest::newRow("negative SDO time-out") << QStringList{"--sdo-timeout", "-1"} << "time-out";
    }
    void commandLine()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, errorPart);
        const ToolProcess::Result r = ToolProcess::run(kCosim, args);
        const bool listing = args.contains("--list-od");
        QCOMPARE(r.exitCode, listing ? 0 : 2);
        QVERIFY2(listing ? r.out.contains(errorPart) && r.out.contains("0x609") : r.err.contains(errorPart), qPrintable(r.err + r.out));
    }

private:
    std::unique_ptr<WatchedBus> mBus;
};

QTEST_MAIN(tst_Cosim)
#include "tst_cosim.moc"
