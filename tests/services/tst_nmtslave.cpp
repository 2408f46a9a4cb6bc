#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "nmtslave.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>
#include <memory>

Q_DECLARE_METATYPE(CAN::CanTimeStamp)

using S = NMTSlave;

namespace {
CAN::CanTimeStamp stamp(quint32 seconds, qint32 microseconds)
{
    CAN::CanTimeStamp ts;
    ts.seconds = seconds;
    ts.microseconds = microseconds;
    return ts;
}

template <typename E>
QList<int> values(const QSignalSpy& spy)
{
    QList<int> list;
    for (const QList<QVariant>& args : spy)
        list << int(args.at(0).value<E>());
    return list;
}

// A node monitor on a recording adapter, with spies on both signals.
struct Fixture {
    explicit Fixture(quint8 node, bool gateway = false)
    {
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, gateway);
        scheduler.connectToAdapter(true);
        slave.reset(new NMTSlave(node, &scheduler));
        states.reset(new QSignalSpy(slave.get(), &NMTSlave::NodeStateChanged));
        supervision.reset(new QSignalSpy(slave.get(), &NMTSlave::HeartbeatGuardingStateChanged));
    }
    QList<int> stateList() const { return values<S::NmtState>(*states); }
    QList<int> supervisionList() const { return values<S::HeartbeatGuardingState>(*supervision); }

    RecordingCanAdapter adapter;
    CanScheduler scheduler{&adapter};
    std::unique_ptr<NMTSlave> slave;
    std::unique_ptr<QSignalSpy> states;
    std::unique_ptr<QSignalSpy> supervision;
};
} // namespace

class tst_NMTSlave : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void cleanup() { CANopenService::activateCANopenFD(false); }

    void timediffDropsSubMilliseconds_data()
    {
        QTest::addColumn<CAN::CanTimeStamp>("a");
        QTest::addColumn<CAN::CanTimeStamp>("b");
        QTest::addColumn<qint64>("ms");
        QTest::newRow("5 s 999 us - 4 s 1000 us") << stamp(5, 999) << stamp(4, 1000) << qint64(999);
        QTest::newRow("reversed") << stamp(4, 1000) << stamp(5, 999) << qint64(-999);
        QTest::newRow("across a second") << stamp(11, 99999) << stamp(10, 999999) << qint64(100);
        QTest::newRow("zero stamps") << stamp(0, 0) << stamp(0, 0) << qint64(0);
    }
    void timediffDropsSubMilliseconds()
    {
        QFETCH(CAN::CanTimeStamp, a);
        QFETCH(CAN::CanTimeStamp, b);
        QFETCH(qint64, ms);
        QCOMPARE(S::timediff(a, b), ms);
    }

    // The frame on CAN (the expected state set before sending, kept when
    // the write fails) and the line on the gateway (expected state untouched).
    void commandsForOneNode_data()
    {
        QTest::addColumn<int>("node");
        QTest::addColumn<int>("command");
        QTest::addColumn<int>("expectedState");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<QString>("line");
        QTest::newRow("start 5") << 5 << 1 << int(S::Operational) << false << "5 start";
        QTest::newRow("stop 5") << 5 << 2 << int(S::Stopped) << false << "5 stop";
        QTest::newRow("preop 5") << 5 << 128 << int(S::PreOperational) << false << "5 preop";
        QTest::newRow("reset node 127") << 127 << 129 << int(S::PreOperational) << false << "127 reset node";
        QTest::newRow("reset comm 1, FD") << 1 << 130 << int(S::PreOperational) << true << "1 reset comm";
        QTest::newRow("not a command") << 5 << 3 << int(S::Unknown) << false << "";
    }
    void commandsForOneNode()
    {
        QFETCH(int, node);
        QFETCH(int, command);
        QFETCH(int, expectedState);
        QFETCH(bool, fd);
        QFETCH(QString, line);
        Fixture f{quint8(node)}, gateway{quint8(node), true};
        CANopenService::activateCANopenFD(fd);
        QCOMPARE(f.slave->sendCommand(NMTNetwork::NmtCommands(command)), CAN::Ok);
        QCOMPARE(f.adapter.writtenHex(), QList<QByteArray>{"0:" + (QByteArray(1, char(command)) + char(node)).toHex()});
        QCOMPARE(f.adapter.lastWritten().fd, fd);
        QCOMPARE(int(f.slave->getExpectedNodeState()), expectedState);
        f.adapter.failWrites(CAN::TxQueueFull);
        QCOMPARE(f.slave->sendCommand(NMTNetwork::Stop), CAN::TxQueueFull);
        QCOMPARE(f.slave->getExpectedNodeState(), S::Stopped);

        QCOMPARE(gateway.slave->sendCommand(NMTNetwork::NmtCommands(command)), CAN::Ok);
        QCOMPARE(gateway.adapter.requests(), QStringList{line});
        QCOMPARE(gateway.adapter.writtenCount(), 0);
        QCOMPARE(gateway.slave->getExpectedNodeState(), S::Unknown);
    }

    // Node 0 (the broadcast belongs to NMTNetwork) and a missing scheduler.
    void refusedCommands()
    {
        Fixture zero(0), zeroGateway(0, true);
        for (Fixture* f : {&zero, &zeroGateway}) {
            QCOMPARE(f->slave->startNode(), CAN::Error);
            QCOMPARE(f->slave->sendCiA309Command(NMTNetwork::Start), CAN::Error);
            QCOMPARE(f->adapter.writtenCount() + f->adapter.requests().size(), 0);
        }
        NMTSlave lonely(5);
        QCOMPARE(lonely.setNodeId(6), CAN::Error); // stored, but nothing to register with
        QCOMPARE(lonely.nodeId(), quint8(6));
        QCOMPARE(lonely.startNode(), CAN::Error);
        QCOMPARE(lonely.sendCiA309Command(NMTNetwork::Start), CAN::Error);
        Fixture f(5);
        QCOMPARE(f.slave->setCanScheduler(nullptr), CAN::Ok);
        QCOMPARE(f.slave->stopNode(), CAN::Error);
        f.adapter.inject(0x705, {0x05});
        QCOMPARE(f.states->count(), 0); // unregistered
    }

    void stateFromErrorControlFrames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QList<int>>("states");
        QTest::addColumn<QList<int>>("supervision");
        const int boot = S::BootUpReceived, changed = S::StateReceived;
        QTest::newRow("0x85 then 0x05: one change")
            << QByteArray("\x85\x05") << QList<int>{S::Operational} << QList<int>{changed};
        QTest::newRow("two boot-ups: two reports")
            << QByteArray("\x00\x00", 2) << QList<int>{S::BootUp, S::BootUp} << QList<int>{boot, boot};
        QTest::newRow("boot-up, pre-operational, toggled again")
            << QByteArray("\x00\x7F\xFF", 3) << QList<int>{S::BootUp, S::PreOperational}
            << QList<int>{boot, changed};
        QTest::newRow("stopped, operational, stopped")
            << QByteArray("\x04\x05\x84") << QList<int>{S::Stopped, S::Operational, S::Stopped}
            << QList<int>{changed, changed, changed};
        QTest::newRow("no state byte, from unknown") << QByteArray("\x33") << QList<int>{} << QList<int>{};
        QTest::newRow("operational, then no state byte")
            << QByteArray("\x05\x33") << QList<int>{S::Operational, S::Unknown} << QList<int>{changed, changed};
        // Bit 7 set on a boot-up byte is a guarding answer, not a boot-up frame.
        QTest::newRow("0x80") << QByteArray("\x80") << QList<int>{S::BootUp} << QList<int>{changed};
    }
    void stateFromErrorControlFrames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QList<int>, states);
        QFETCH(QList<int>, supervision);
        Fixture f(5);
        for (char b : bytes)
            f.adapter.inject(0x705, {quint8(b)});
        QCOMPARE(f.stateList(), states);
        QCOMPARE(f.supervisionList(), supervision);
        if (!bytes.isEmpty())
            QCOMPARE(f.slave->getCurrentNodeState(), S::nmtByte2State(quint8(bytes.back())));
    }

    void framesThatAreNoErrorControlFrameAreIgnored_data()
    {
        QTest::addColumn<CAN::CanRxMessage>("frame");
        QTest::newRow("length 2") << makeRxFrame(0x705, {0x05, 0x00});
        QTest::newRow("length 0") << makeRxFrame(0x705, {});
        QTest::newRow("other node") << makeRxFrame(0x706, {0x05});
        CAN::CanRxMessage remote = makeRxFrame(0x705, {0x00});
        remote.message.rtr = true; // a guarding request, ours echoed or another master's
        QTest::newRow("remote frame") << remote;
    }
    void framesThatAreNoErrorControlFrameAreIgnored()
    {
        QFETCH(CAN::CanRxMessage, frame);
        Fixture f(5);
        f.adapter.inject(frame);
        f.slave->newCanMessageReceived(frame); // also when handed over directly
        QCOMPARE(f.states->count(), 0);
        QCOMPARE(f.supervision->count(), 0);
        QCOMPARE(f.slave->getCurrentNodeState(), S::Unknown);
    }

    void newNodeIdForgetsTheOldNode()
    {
        Fixture f(5);
        QCOMPARE(f.slave->startHeartbeatMonitoring(50), CAN::Ok);
        f.adapter.inject(0x705, {0x05});
        QCOMPARE(f.slave->stopNode(), CAN::Ok);
        QCOMPARE(f.slave->setNodeId(5), CAN::Ok); // same node: nothing forgotten
        QCOMPARE(f.slave->getCurrentNodeState(), S::Operational);
        QCOMPARE(f.slave->setNodeId(6), CAN::Ok);
        QCOMPARE(f.slave->getCurrentNodeState(), S::Unknown);
        QCOMPARE(f.slave->getExpectedNodeState(), S::Unknown);
        f.states->clear();
        f.adapter.inject(0x705, {0x7F});
        QCOMPARE(f.states->count(), 0);
        f.adapter.inject(0x706, {0x7F});
        QCOMPARE(f.stateList(), QList<int>{S::PreOperational});
        f.slave->setStateUnknown();
        QCOMPARE(f.slave->getCurrentNodeState(), S::Unknown);
        QTest::qWait(250); // supervision stopped: the timer still ticks, into nothing
        QCOMPARE(f.supervisionList(), (QList<int>{S::StateReceived, S::StateReceived}));
        // Node first, scheduler later.
        NMTSlave later(9);
        QCOMPARE(later.setCanScheduler(&f.scheduler), CAN::Ok);
        QSignalSpy laterStates(&later, &NMTSlave::NodeStateChanged);
        f.adapter.inject(0x709, {0x05});
        QCOMPARE(laterStates.count(), 1);
    }

    void heartbeatLossIsReportedOnce()
    {
        Fixture f(5);
        QElapsedTimer t;
        t.start();
        QCOMPARE(f.slave->startHeartbeatMonitoring(100), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(f.supervision->count(), 1, 5000);
        QVERIFY2(t.elapsed() >= 100, "lost before the consumer time was over");
        QCOMPARE(f.supervisionList(), QList<int>{S::Lost});
        QTest::qWait(250);
        QCOMPARE(f.supervision->count(), 1);

        // Back again: the first frame after the loss is not in time (nothing
        // to compare it with), the second one, 80 ms later by its stamp, is.
        f.adapter.inject(0x705, {0x05}, stamp(10, 0));
        QCOMPARE(f.slave->getHeartbeatGuardingState(), S::Lost);
        f.adapter.inject(0x705, {0x05}, stamp(10, 80000));
        QCOMPARE(f.supervisionList(), (QList<int>{S::Lost, S::StateReceived, S::Running}));
        QCOMPARE(f.slave->getHeartbeatGuardingState(), S::Running);

        QCOMPARE(f.slave->startHeartbeatMonitoring(0), CAN::Ok); // ends it
        f.supervision->clear();
        QTest::qWait(250);
        QCOMPARE(f.supervision->count(), 0);
    }

    void inTimeIsJudgedByTimeStamps_data()
    {
        QTest::addColumn<CAN::CanTimeStamp>("first");
        QTest::addColumn<CAN::CanTimeStamp>("second");
        QTest::addColumn<bool>("running");
        QTest::newRow("50 ms") << stamp(20, 0) << stamp(20, 50000) << true;
        QTest::newRow("exactly 100 ms") << stamp(20, 0) << stamp(20, 100000) << true;
        QTest::newRow("101 ms") << stamp(20, 0) << stamp(20, 101000) << false;
        QTest::newRow("100 ms after dropping sub-ms parts") << stamp(10, 999999) << stamp(11, 99999) << true;
        QTest::newRow("2 s") << stamp(20, 0) << stamp(22, 0) << false;
    }
    void inTimeIsJudgedByTimeStamps()
    {
        QFETCH(CAN::CanTimeStamp, first);
        QFETCH(CAN::CanTimeStamp, second);
        QFETCH(bool, running);
        Fixture f(5);
        // Lost within a few ms, then supervised at 100 ms: the loss stays stored.
        f.slave->startHeartbeatMonitoring(1);
        QTRY_COMPARE_WITH_TIMEOUT(f.slave->getHeartbeatGuardingState(), S::Lost, 3000);
        f.slave->startHeartbeatMonitoring(100);
        f.supervision->clear();
        // Stamps close to zero: the first frame after a start still never counts.
        f.adapter.inject(0x705, {0x7F}, stamp(0, 0));
        QCOMPARE(f.slave->getHeartbeatGuardingState(), S::Lost);
        f.adapter.inject(0x705, {0x7F}, stamp(0, 0)); // 0 ms later: in time
        QCOMPARE(f.slave->getHeartbeatGuardingState(), S::Running);
        f.slave->startHeartbeatMonitoring(1);
        QTRY_COMPARE_WITH_TIMEOUT(f.slave->getHeartbeatGuardingState(), S::Lost, 3000);
        f.slave->startHeartbeatMonitoring(100);
        f.supervision->clear();

        f.adapter.inject(0x705, {0x7F}, first);
        f.adapter.inject(0x705, {0x7F}, second);
        QCOMPARE(f.supervisionList().contains(S::Running), running);
        QCOMPARE(f.slave->getHeartbeatGuardingState(), running ? S::Running : S::Lost);
    }

    void nodeGuardingDelayedThenLost()
    {
        Fixture f(5);
        QElapsedTimer t;
        QList<qint64> at;
        connect(f.slave.get(), &NMTSlave::HeartbeatGuardingStateChanged, this, [&] { at << t.elapsed(); });
        t.start();
        QCOMPARE(f.slave->startNodeGuarding(100, 3), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(f.supervisionList().contains(S::Lost), 5000);
        QCOMPARE(f.supervisionList(), (QList<int>{S::GuardingDelayed, S::Lost}));
        QVERIFY2(at[0] > 140, "delayed before 1.4 guard times of silence");
        QVERIFY2(at[1] >= 300, "lost before the life time was over");
        // One remote request per tick, the first one guard time after the start.
        const QVector<CAN::CanMessage> requests = f.adapter.written();
        QVERIFY(requests.size() >= 2);
        for (const CAN::CanMessage& m : requests) {
            QCOMPARE(m.id, 0x705u);
            QCOMPARE(int(m.length), 1);
            QCOMPARE(m.rtr, true);
            QCOMPARE(m.fd, false);
        }
        QTest::qWait(250);
        QCOMPARE(f.supervision->count(), 2); // lost once

        // Answers 100 ms apart by their stamps: running again.
        f.adapter.inject(0x705, {0x85}, stamp(30, 0));
        f.adapter.inject(0x705, {0x05}, stamp(30, 100000)); // toggle not checked
        QCOMPARE(f.supervisionList().mid(2), (QList<int>{S::StateReceived, S::Running}));

        QCOMPARE(f.slave->stopNodeGuarding(), CAN::Ok);
        QCOMPARE(f.slave->stopNodeGuarding(), CAN::Error);
        const int sent = f.adapter.writtenCount();
        QTest::qWait(250);
        QCOMPARE(f.adapter.writtenCount(), sent);
    }

    void guardingWithLifeTimeFactorOneNeverReportsALoss()
    {
        Fixture f(5);
        CANopenService::activateCANopenFD(true);
        QCOMPARE(f.slave->startNodeGuarding(100, 1), CAN::Ok);
        QTest::qWait(450);
        QCOMPARE(f.supervision->count(), 0);
        QVERIFY(f.adapter.writtenCount() >= 2);
        QCOMPARE(f.adapter.lastWritten().fd, true);
    }

    void startCallsSwitchSupervision()
    {
        // Guard time 0 changes nothing.
        {
            Fixture f(5);
            QCOMPARE(f.slave->startNodeGuarding(0, 3), CAN::Ok);
            QCOMPARE(f.slave->stopNodeGuarding(), CAN::Error); // never started
            QCOMPARE(f.slave->startNodeGuarding(50, 1), CAN::Ok);
            QCOMPARE(f.slave->startNodeGuarding(0, 3), CAN::Ok);
            QTRY_VERIFY_WITH_TIMEOUT(f.adapter.writtenCount() >= 2, 3000); // still guarding
        }
        // Guarding after heartbeat: heartbeat off.
        {
            Fixture f(5);
            f.slave->startHeartbeatMonitoring(50);
            f.slave->startNodeGuarding(50, 1);
            QTRY_VERIFY_WITH_TIMEOUT(f.adapter.writtenCount() >= 4, 3000);
            QCOMPARE(f.supervision->count(), 0);
        }
        // A new guard time replaces the old one: the 20 ms ticks stop.
        {
            Fixture f(5);
            f.slave->startNodeGuarding(20, 3);
            f.slave->startNodeGuarding(10000, 3);
            QTest::qWait(150);
            QCOMPARE(f.adapter.writtenCount(), 0);
        }
    }
};

QTEST_MAIN(tst_NMTSlave)
#include "tst_nmtslave.moc"
