// End-to-end tests of cotool's network commands (nmt, monitor, sync, emcy,
// pdo): against the simulated device cosim on a private virtual bus, with
// the frames checked on a second adapter. Their gateway form is tested in
// tst_cotoolgateway.
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
const QString kCotool = QStringLiteral(COTOOL_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);
constexpr quint8 kNode = 5;

QString hex(const CAN::CanMessage& m)
{
    return QStringLiteral("%1 [%2] %3")
        .arg(m.id, 3, 16, QLatin1Char('0'))
        .arg(m.length)
        .arg(QString::fromLatin1(frameData(m).toHex()))
        .toUpper();
}

// The text after the time column of an event line ("  1.234  node ...").
QStringList events(const QStringList& lines)
{
    QStringList result;
    for (const QString& line : lines)
        result << line.mid(9);
    return result;
}

} // namespace

class tst_CotoolNet : public QObject
{
    Q_OBJECT
private:
    // A device on the bus, booted (its boot-up frame seen by the test's adapter).
    std::unique_ptr<ToolProcess> startDevice(const QStringList& extra)
    {
        mCollector->clear();
        auto device = std::make_unique<ToolProcess>(kCosim, QStringList{"--node", QString::number(kNode), "--quiet"} + extra);
        const bool booted = QTest::qWaitFor([this]() { return mCollector->count(0x700 + kNode) > 0; }, 10000);
        if (!booted)
            qWarning("cosim did not boot: %s", qPrintable(device->err()));
        return booted ? std::move(device) : nullptr;
    }
    // A command that listens, once its adapter listens on the bus (it
    // registers its receivers before it opens the adapter).
    std::unique_ptr<ToolProcess> startListener(const QStringList& args)
    {
        auto p = std::make_unique<ToolProcess>(kCotool, args);
        if (!p->waitUntilBound(mPort))
            qWarning("cotool %s did not bind port %u", qPrintable(args.join(' ')), mPort);
        return p;
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        mPort = TestBus::usePrivatePort();
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
    void init() { mCollector->clear(); }

    void nmtPutsTheFrameOnTheWire_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("frame");
        QTest::addColumn<QString>("printed");
        QTest::newRow("start node 5") << QStringList{"start", "5"} << "000 [2] 0105" << "sent start to node 5: 000#0105";
        QTest::newRow("stop node 127") << QStringList{"stop", "127"} << "000 [2] 027F" << "sent stop to node 127: 000#027F";
        QTest::newRow("preop, all nodes") << QStringList{"preop"} << "000 [2] 8000" << "sent preop to all nodes: 000#8000";
        QTest::newRow("reset-node, node 0") << QStringList{"reset-node", "0"} << "000 [2] 8100" << "sent reset-node to all nodes: 000#8100";
        QTest::newRow("reset-comm node 1") << QStringList{"reset-comm", "1"} << "000 [2] 8201" << "sent reset-comm to node 1: 000#8201";
    }
    void nmtPutsTheFrameOnTheWire()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, frame);
        QFETCH(QString, printed);
        const ToolProcess::Result r = ToolProcess::run(kCotool, QStringList{"nmt"} + args);
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, printed + QLatin1Char('\n'));
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x000), 1, 2000);
        QCOMPARE(hex(mCollector->frames(0x000).at(0).message), frame);
    }

    // nmt drives the device; monitor sees its state changes, and the loss
    // of its heartbeat once it is gone.
    void monitorFollowsTheDeviceThroughNmtAndItsLoss()
    {
        auto device = startDevice({"--heartbeat", "100", "--no-console"});
        QVERIFY(device);
        auto monitor = startListener({"monitor", QString::number(kNode), "--heartbeat", "1000", "--duration", "20000"});
        QTRY_VERIFY_WITH_TIMEOUT(monitor->out().contains("NodeStateChanged PreOperational"), 5000);
        QCOMPARE(ToolProcess::run(kCotool, {"nmt", "start", QString::number(kNode)}).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(monitor->out().contains("NodeStateChanged Operational"), 5000);
        QCOMPARE(ToolProcess::run(kCotool, {"nmt", "stop"}).exitCode, 0); // all nodes
        QTRY_VERIFY_WITH_TIMEOUT(monitor->out().contains("NodeStateChanged Stopped"), 5000);
        device.reset(); // killed: no more heartbeats
        QTRY_VERIFY_WITH_TIMEOUT(monitor->out().contains("HeartbeatGuardingStateChanged Lost"), 5000);
        ::kill(pid_t(monitor->pid()), SIGINT);
        QCOMPARE(monitor->finish(), 0);
        QCOMPARE(events(monitor->outLines()),
                 (QStringList{"node   5  NodeStateChanged PreOperational",
                              "node   5  HeartbeatGuardingStateChanged StateReceived",
                              "node   5  NodeStateChanged Operational",
                              "node   5  HeartbeatGuardingStateChanged StateReceived",
                              "node   5  NodeStateChanged Stopped",
                              "node   5  HeartbeatGuardingStateChanged StateReceived",
                              "node   5  HeartbeatGuardingStateChanged Lost"}));
    }

    void monitorGuardsANodeWithoutHeartbeat()
    {
        auto device = startDevice({"--heartbeat", "0", "--no-console"});
        QVERIFY(device);
        auto monitor = startListener({"monitor", QString::number(kNode), "--guard", "200", "--life-factor", "3",
                                      "--count", "4", "--duration", "20000"});
        // The guarding requests are answered: the state comes from the answers.
        QTRY_VERIFY_WITH_TIMEOUT(monitor->out().contains("NodeStateChanged PreOperational"), 5000);
        QVERIFY(mCollector->count(0x700 + kNode) >= 2); // boot-up, then at least one answer
        device.reset();
        QCOMPARE(monitor->finish(), 0); // --count 4 reached
        QStringList got = events(monitor->outLines());
        QCOMPARE(got.mid(2), (QStringList{"node   5  HeartbeatGuardingStateChanged GuardingDelayed",
                                          "node   5  HeartbeatGuardingStateChanged Lost"}));
        // The requests on the wire: remote frames of length 1.
        const auto requests = mCollector->frames(0x700 + kNode);
        bool sawRequest = false;
        for (const CAN::CanRxMessage& rx : requests)
            sawRequest |= rx.message.rtr && rx.message.length == 1;
        QVERIFY(sawRequest);
    }

    void syncCountsAndCounterBytes_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<quint32>("cobId");
        QTest::addColumn<QString>("bytes"); // the counter bytes of the frames, or "-" per frame without
        QTest::addColumn<QString>("printed");
        QTest::newRow("counter 1..3") << QStringList{"--period", "5ms", "--overflow", "3", "--count", "7"} << 0x80u
                                      << "1 2 3 1 2 3 1" << "7 SYNC frames on 080, period 5 ms, counter 1..3";
        QTest::newRow("no counter, one frame") << QStringList{"--period", "1000us", "-n", "1"} << 0x80u << "-"
                                               << "1 SYNC frames on 080, period 1 ms";
        QTest::newRow("other COB-ID") << QStringList{"--period", "2", "--count", "3", "--cob-id", "0x1A0"} << 0x1A0u
                                      << "- - -" << "3 SYNC frames on 1A0, period 2 ms";
    }
    void syncCountsAndCounterBytes()
    {
        QFETCH(QStringList, args);
        QFETCH(quint32, cobId);
        QFETCH(QString, bytes);
        QFETCH(QString, printed);
        const ToolProcess::Result r = ToolProcess::run(kCotool, QStringList{"sync"} + args);
        QCOMPARE(r.exitCode, 0);
        QVERIFY2(r.out.startsWith(printed + QStringLiteral(", in ")), qPrintable(r.out));
        const int n = bytes.split(' ').size();
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(cobId), n, 2000);
        QTest::qWait(50);
        QCOMPARE(mCollector->count(cobId), n); // and no more
        QStringList got;
        for (const CAN::CanRxMessage& rx : mCollector->frames(cobId))
            got << (rx.message.length ? QString::number(rx.message.data[0]) : QStringLiteral("-"));
        QCOMPARE(got.join(' '), bytes);
    }

    void syncForADuration()
    {
        const ToolProcess::Result r = ToolProcess::run(kCotool, {"sync", "--period", "10ms", "--duration", "300"});
        QCOMPARE(r.exitCode, 0);
        const int n = r.out.section(' ', 0, 0).toInt();
        // 30 periods, give or take a loaded machine.
        QVERIFY2(n >= 5 && n <= 32, qPrintable(r.out));
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x80), n, 2000);
    }

    // The device answers every SYNC with its TPDO 0x185 (u16 counter, i32
    // -1000 x counter); pdo decodes it by the mapping given.
    void pdoDecodesTheDevicesTpdo_data()
    {
        QTest::addColumn<QString>("map");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("full mapping") << "u16,i32"
                                      << QStringList{"185  u16=1 i32=-1000", "185  u16=2 i32=-2000", "185  u16=3 i32=-3000"};
        QTest::newRow("bytes as u8, i8") << "u8,u8,i8,i8,i8,i8"
                                         << QStringList{"185  u8=1 u8=0 i8=24 i8=-4 i8=-1 i8=-1",
                                                        "185  u8=2 u8=0 i8=48 i8=-8 i8=-1 i8=-1",
                                                        "185  u8=3 u8=0 i8=72 i8=-12 i8=-1 i8=-1"};
        const QString mismatch = QStringLiteral("185  length mismatch: the frame's length differs from the mapping's 2 bytes");
        QTest::newRow("short mapping") << "i16"
                                       << QStringList{"185  i16=1", mismatch, "185  i16=2", mismatch, "185  i16=3", mismatch};
    }
    void pdoDecodesTheDevicesTpdo()
    {
        QFETCH(QString, map);
        QFETCH(QStringList, lines);
        auto device = startDevice({"--operational", "--heartbeat", "0", "--no-console"});
        QVERIFY(device);
        auto pdo = startListener({"pdo", "185", "--map", map, "--count", "3", "--duration", "10000"});
        for (int i = 0; i < 3; ++i) {
            CAN::CanMessage sync = makeFrame(0x80, {});
            QCOMPARE(mBus->write(&sync), CAN::Ok);
            QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x185), i + 1, 3000);
        }
        const int pdoExit = pdo->finish();
        QVERIFY2(pdoExit == 0, qPrintable(pdo->err() + pdo->out()));
        QCOMPARE(events(pdo->outLines()), lines);
    }

    void emcyPrintsTheDevicesEmergencies_data()
    {
        QTest::addColumn<QStringList>("nodes");
        QTest::newRow("node 5") << QStringList{"5"};
        QTest::newRow("all nodes") << QStringList{};
        QTest::newRow("a list with 5") << QStringList{"1-4,5,9"};
    }
    void emcyPrintsTheDevicesEmergencies()
    {
        QFETCH(QStringList, nodes);
        auto device = startDevice({"--heartbeat", "0"}); // with its console on stdin
        QVERIFY(device);
        auto emcy = startListener(QStringList{"emcy", "--count", "2", "--duration", "10000"} + nodes);
        device->write("emcy 8110 11 01 02 03 04 05\nemcy clear\n");
        QCOMPARE(emcy->finish(), 0);
        QCOMPARE(events(emcy->outLines()),
                 (QStringList{"node   5  EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)",
                              "node   5  EMCY 0000  register 00  data 00 00 00 00 00  (error reset or no error)"}));
    }

    void emcyIgnoresOtherNodes()
    {
        auto device = startDevice({"--heartbeat", "0"});
        QVERIFY(device);
        auto emcy = startListener({"emcy", "6,7", "--count", "1", "--duration", "800"});
        device->write("emcy 1000 01\n");
        QTRY_COMPARE_WITH_TIMEOUT(mCollector->count(0x85), 1, 3000); // it was on the bus
        ToolProcess::Result r;
        r.exitCode = emcy->finish();
        r.out = emcy->out();
        r.err = emcy->err();
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.out, QString());
        QVERIFY2(r.err.contains("0 of 1 emergencies"), qPrintable(r.err));
    }

private:
    std::unique_ptr<DemoCanAdapter> mBus;
    std::unique_ptr<FrameCollector> mCollector;
    quint16 mPort = 0;
};

QTEST_MAIN(tst_CotoolNet)
#include "tst_cotoolnet.moc"
