// End-to-end tests of cotool's network commands (nmt, monitor, sync, emcy,
// pdo): against the simulated device cosim on a private virtual bus, with
// the frames checked on a second adapter. Their gateway form is tested in
// tst_cotoolgateway.
#include "recordingcanadapter.h"
#include "toolprocess.h"

#include <QtTest>
#include <algorithm>
#include <csignal>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);
constexpr quint8 kNode = 5;
} // namespace

class tst_CotoolNet : public QObject
{
    Q_OBJECT
private:
    // A device on the bus, booted (its boot-up frame seen by the test's adapter).
    std::unique_ptr<ToolProcess> startDevice(const QStringList& extra)
    {
        mBus->frames.clear();
        auto device = std::make_unique<ToolProcess>(kCosim, QStringList{"--node", QString::number(kNode), "--quiet"} + extra);
        const bool booted = QTest::qWaitFor([this]() { return mBus->frames.find(0x700 + kNode); }, 10000);
        if (!booted)
            qWarning("cosim did not boot: %s", qPrintable(device->err()));
        return booted ? std::move(device) : nullptr;
    }
    // A command that listens, once its adapter listens on the bus (it
    // registers its receivers before it opens the adapter).
    std::unique_ptr<ToolProcess> startListener(const QStringList& args)
    {
        auto p = std::make_unique<ToolProcess>(kCotool, args);
        if (!p->waitUntilBound(mBus->port))
            qWarning("cotool %s did not bind port %u", qPrintable(args.join(' ')), mBus->port);
        return p;
    }

private Q_SLOTS:
    void initTestCase()
    {
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
    }
    void init() { mBus->frames.clear(); }

    // The frame on the wire is the one printed.
    void nmtPutsTheFrameOnTheWire_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("printed");
        QTest::newRow("start node 5") << QStringList{"start", "5"} << "sent start to node 5: 000#0105";
        QTest::newRow("preop, all nodes") << QStringList{"preop"} << "sent preop to all nodes: 000#8000";
        QTest::newRow("reset-node, node 0") << QStringList{"reset-node", "0"} << "sent reset-node to all nodes: 000#8100";
        QTest::newRow("reset-comm node 1") << QStringList{"reset-comm", "1"} << "sent reset-comm to node 1: 000#8201";
    }
    void nmtPutsTheFrameOnTheWire()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, printed);
        const ToolProcess::Result r = ToolProcess::run(kCotool, QStringList{"nmt"} + args);
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.out, printed + QLatin1Char('\n'));
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.count(), 1, 2000);
        const CAN::CanMessage m = mBus->frames.frames().at(0).message;
        QCOMPARE(QStringLiteral("%1#").arg(m.id, 3, 16, QLatin1Char('0')) + frameData(m).toHex().toUpper(), printed.section(": ", 1));
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
        const QString received = QStringLiteral("node   5  HeartbeatGuardingStateChanged StateReceived");
        QCOMPARE(monitor->events(), (QStringList{"node   5  NodeStateChanged PreOperational", received, "node   5  NodeStateChanged Operational",
                                                 received, "node   5  NodeStateChanged Stopped", received,
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
        QVERIFY(mBus->frames.frames(0x700 + kNode).size() >= 2); // boot-up, then at least one answer
        device.reset();
        QCOMPARE(monitor->finish(), 0); // --count 4 reached
        QCOMPARE(monitor->events().mid(2), (QStringList{"node   5  HeartbeatGuardingStateChanged GuardingDelayed",
                                                                  "node   5  HeartbeatGuardingStateChanged Lost"}));
        // The requests on the wire: remote frames of length 1.
        const auto guards = mBus->frames.frames(0x700 + kNode);
        QVERIFY(std::any_of(guards.begin(), guards.end(), [](const CAN::CanRxMessage& rx) { return rx.message.rtr && rx.message.length == 1; }));
    }

    void syncCountsAndCounterBytes_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<quint32>("cobId");
        QTest::addColumn<QString>("bytes"); // the counter bytes of the frames, "-" per frame without; empty: 5..32 frames
        QTest::addColumn<QString>("printed"); // after the number of frames
        QTest::newRow("counter 1..3") << QStringList{"--period", "5ms", "--overflow", "3", "--count", "7"} << 0x80u
                                      << "1 2 3 1 2 3 1" << " SYNC frames on 080, period 5 ms, counter 1..3, in ";
        QTest::newRow("other COB-ID") << QStringList{"--period", "2", "--count", "3", "--cob-id", "0x1A0"} << 0x1A0u
                                      << "- - -" << " SYNC frames on 1A0, period 2 ms, in ";
        // 30 periods, give or take a loaded machine.
        QTest::newRow("duration") << QStringList{"--period", "10ms", "--duration", "300"} << 0x80u << "" << " SYNC frames on 080, period 10 ms, in ";
    }
    void syncCountsAndCounterBytes()
    {
        QFETCH(QStringList, args);
        QFETCH(quint32, cobId);
        QFETCH(QString, bytes);
        QFETCH(QString, printed);
        const ToolProcess::Result r = ToolProcess::run(kCotool, QStringList{"sync"} + args);
        QCOMPARE(r.exitCode, 0);
        const int n = r.out.section(' ', 0, 0).toInt();
        QVERIFY2(r.out.mid(r.out.indexOf(' ')).startsWith(printed), qPrintable(r.out));
        QVERIFY2(bytes.isEmpty() ? n >= 5 && n <= 32 : n == bytes.split(' ').size(), qPrintable(r.out));
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.frames(cobId).size(), n, 2000);
        QTest::qWait(50);
        QStringList got;
        for (const CAN::CanRxMessage& rx : mBus->frames.frames(cobId)) // and no more
            got << (rx.message.length ? QString::number(rx.message.data[0]) : QStringLiteral("-"));
        QCOMPARE(got.size(), n);
        if (!bytes.isEmpty())
            QCOMPARE(got.join(' '), bytes);
    }

    // The device answers every SYNC with its TPDO 0x185 (u16 counter, i32
    // -1000 x counter); pdo decodes it by the mapping given.
    void pdoDecodesTheDevicesTpdo_data()
    {
        QTest::addColumn<QString>("map");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("full mapping") << "u16,i32" << QStringList{"185  u16=1 i32=-1000", "185  u16=2 i32=-2000", "185  u16=3 i32=-3000"};
        const QString mismatch = QStringLiteral("185  length mismatch: the frame's length differs from the mapping's 2 bytes");
        QTest::newRow("short mapping") << "i16" << QStringList{"185  i16=1", mismatch, "185  i16=2", mismatch, "185  i16=3", mismatch};
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
            QCOMPARE(mBus->adapter.write(&sync), CAN::Ok);
            QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.frames(0x185).size(), i + 1, 3000);
        }
        const int pdoExit = pdo->finish();
        QVERIFY2(pdoExit == 0, qPrintable(pdo->err() + pdo->out()));
        QCOMPARE(pdo->events(), lines);
    }

    // Node 5's emergencies, or none of them when it is not asked for.
    void emcyPrintsTheDevicesEmergencies_data()
    {
        QTest::addColumn<QStringList>("nodes");
        QTest::addColumn<bool>("printed");
        QTest::newRow("node 5") << QStringList{"5"} << true;
        QTest::newRow("all nodes") << QStringList{} << true;
        QTest::newRow("a list with 5") << QStringList{"1-4,5,9"} << true;
        QTest::newRow("other nodes") << QStringList{"6,7", "--duration", "800"} << false;
    }
    void emcyPrintsTheDevicesEmergencies()
    {
        QFETCH(QStringList, nodes);
        QFETCH(bool, printed);
        auto device = startDevice({"--heartbeat", "0"}); // with its console on stdin
        QVERIFY(device);
        auto emcy = startListener(QStringList{"emcy", "--count", "2", "--duration", "10000"} + nodes);
        device->write("emcy 8110 11 01 02 03 04 05\nemcy clear\n");
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.frames(0x85).size(), 2, 3000); // on the bus
        QCOMPARE(emcy->finish(), printed ? 0 : 1);
        const QStringList lines{"node   5  EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)",
                                "node   5  EMCY 0000  register 00  data 00 00 00 00 00  (error reset or no error)"};
        QCOMPARE(emcy->events(), printed ? lines : QStringList());
        QVERIFY2(printed || emcy->err().contains("0 of 2 emergencies"), qPrintable(emcy->err()));
    }

private:
    std::unique_ptr<WatchedBus> mBus;
};

QTEST_MAIN(tst_CotoolNet)
#include "tst_cotoolnet.moc"
