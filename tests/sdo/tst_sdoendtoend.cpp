// End to end: the expedited, segmented and block SDO engines over the real
// virtual bus (private port) against the simulated device: its SDO server and
// object dictionary in this process on a second adapter (answering in that
// adapter's receive thread), and the cosim program in a process of its own.

#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "objectdictionary.h"
#include "sdoblockclient.h"
#include "sdoenginefixture.h"
#include "sdosegmentedclient.h"
#include "sdoserver.h"
#include "simdevice.h"
#include "testbus.h"

#include <QProcess>
#include <QRandomGenerator>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>

namespace {

constexpr quint8 Node = 5;      // the in-process device with its SDO server
constexpr quint8 CosimNode = 9; // the cosim process
constexpr int Outcome = 20000;  // upper bound for an outcome that is due (sanitizer builds are slow)
constexpr quint32 Timeout = 0x05040000;

enum Op { ExpeditedRead, ExpeditedWrite, SegmentedRead, SegmentedWrite, BlockRead, BlockWrite };

qint64 steadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

QByteArray randomBytes(int size, quint32 seed)
{
    QByteArray out(size, '\0');
    QRandomGenerator gen(seed);
    for (int i = 0; i < size; ++i)
        out[i] = char(gen.generate());
    return out;
}

// The three engines addressing one node.
struct Engines {
    SDOExpeditedClient expedited;
    SDOSegmentedClient segmented;
    SDOBlockClient block;

    Engines(quint8 node, CanScheduler* scheduler)
        : expedited(0x580u + node, 0x600u + node, scheduler)
        , segmented(0x580u + node, 0x600u + node, scheduler)
        , block(0x580u + node, 0x600u + node, scheduler)
    {
    }
    SDOExpeditedClient* engineFor(Op op)
    {
        return op <= ExpeditedWrite ? &expedited : op <= SegmentedWrite ? static_cast<SDOExpeditedClient*>(&segmented)
                                                                        : &block;
    }
    // Starts one transfer; `value` is the written value (bytes for the
    // segmented and block engines).
    CAN::RetType start(Op op, quint16 index, quint8 sub, CAN::CANopenDataType type = CAN::UNSIGNED32,
                       const QVariant& value = QVariant())
    {
        const QByteArray bytes = value.toByteArray();
        return op == ExpeditedRead    ? expedited.read(index, sub, type)
             : op == ExpeditedWrite   ? expedited.write(index, sub, type, value)
             : op == SegmentedRead    ? segmented.read(index, sub)
             : op == SegmentedWrite   ? segmented.write(index, sub, bytes)
             : op == BlockRead        ? block.read(index, sub)
                                      : block.write(index, sub, bytes);
    }
    bool setTimeout(quint32 ms)
    {
        return expedited.setSdoTimeout(ms) == CAN::Ok && segmented.setSdoTimeout(ms) == CAN::Ok
            && block.setSdoTimeout(ms) == CAN::Ok;
    }
};

// The outcome signals of one engine.
struct Spies {
    SDOExpeditedClient* engine;
    QSignalSpy results;
    QSignalSpy errors;
    std::unique_ptr<QSignalSpy> progress; // segmented and block engines only

    explicit Spies(SDOExpeditedClient* e)
        : engine(e)
        , results(e, &SDOExpeditedClient::resultReceived)
        , errors(e, &SDOExpeditedClient::errorReceived)
    {
        if (e->metaObject()->indexOfSignal("progress(quint8)") >= 0)
            progress = std::make_unique<QSignalSpy>(e, SIGNAL(progress(quint8)));
    }
    int outcomes() const { return results.count() + errors.count(); }

    // Runs the event loop until `n` outcomes have arrived (returning as soon
    // as they have) or `ms` have passed; true when there are exactly `n`.
    bool wait(int n, int ms = Outcome)
    {
        QEventLoop loop;
        const auto check = [&] {
            if (outcomes() >= n)
                loop.quit();
        };
        // Connected after the spies, so they have counted when this runs.
        QObject::connect(engine, &SDOExpeditedClient::resultReceived, &loop, check);
        QObject::connect(engine, &SDOExpeditedClient::errorReceived, &loop, check);
        QTimer::singleShot(ms, &loop, &QEventLoop::quit);
        if (outcomes() < n)
            loop.exec();
        return outcomes() == n;
    }
};

} // namespace

class tst_SDOEndToEnd : public QObject
{
    Q_OBJECT

    DemoCanAdapter* masterBus = nullptr;
    DemoCanAdapter* deviceBus = nullptr;
    CanScheduler* scheduler = nullptr;
    ObjectDictionary od;
    SimDevice* device = nullptr;
    SdoServer* server = nullptr;
    FrameCollector* deviceFrames = nullptr; // what reaches the device's adapter
    Engines* engines = nullptr;

    // Requests to node 5 after this many are swallowed before the server sees
    // them (-1: none): a device that is silent or stops answering in mid-transfer.
    std::atomic<int> muteAfter{-1};
    std::atomic<int> requestsSeen{0};
    std::atomic<qint64> mutedAtMs{0};

    // A further request on every engine of node 5 is accepted and served.
    void checkEnginesServeAgain()
    {
        for (Op op : {ExpeditedRead, SegmentedRead, BlockRead}) {
            Spies spies(engines->engineFor(op));
            QVERIFY(!spies.engine->isBusy());
            QCOMPARE(engines->start(op, 0x1018, 4, CAN::UNSIGNED32), CAN::Ok);
            QVERIFY(spies.wait(1));
            QCOMPARE(spies.errors.count(), 0);
            const QByteArray serial("\x05\x00\x00\x5d", 4); // 1018h:04
            QCOMPARE(emitted(spies.results).at(2),
                     op == ExpeditedRead ? QVariant(0x5D000000u | Node) : QVariant(serial));
        }
        // The block upload's closing frame has reached the server too:
        // nothing of ours is left on the way.
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome);
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster init;
        TestBus::usePrivatePort();
        QtWarningTrap::install();
        masterBus = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        deviceBus = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        device = new SimDevice(Node, deviceBus);
        // Registered before the server's handler, so it sees requests first.
        device->addHandler([this](const CAN::CanRxMessage& frame) {
            const int limit = muteAfter.load();
            if (frame.message.id != 0x600u + Node || limit < 0 || requestsSeen.fetch_add(1) < limit)
                return false;
            qint64 none = 0;
            mutedAtMs.compare_exchange_strong(none, steadyMs());
            return true;
        });
        od.addDefaultEntries(Node, device);
        server = new SdoServer(device, &od);
        deviceFrames = new FrameCollector(deviceBus);
        QCOMPARE(masterBus->open(), CAN::Ok);
        QCOMPARE(deviceBus->open(), CAN::Ok);
        scheduler = new CanScheduler(masterBus);
        scheduler->connectToAdapter(true);
        engines = new Engines(Node, scheduler);
        // Asked until both receive sockets are bound and the server answers.
        Spies spies(&engines->expedited);
        QCOMPARE(engines->expedited.setSdoTimeout(100), CAN::Ok);
        for (int i = 0; i < 50 && spies.results.isEmpty(); ++i) {
            QCOMPARE(engines->expedited.read(0x1000, 0, CAN::UNSIGNED32), CAN::Ok);
            QVERIFY(spies.wait(i + 1));
        }
        QVERIFY(!spies.results.isEmpty());
    }

    void cleanupTestCase()
    {
        delete engines;
        masterBus->close();
        deviceBus->close();
        delete scheduler;
        delete deviceFrames;
        delete server;
        delete device;
        delete masterBus;
        delete deviceBus;
    }

    void cleanup()
    {
        muteAfter.store(-1);
        server->setTimeout(SdoServer::DefaultTimeoutMs);
        QVERIFY(engines->setTimeout(SDOExpeditedClient::DefaultTimeoutMs));
        const QStringList warnings = QtWarningTrap::take();
        QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join('\n')));
    }

    // Values into the domain and back, byte-exact: sizes at the edges of a
    // segment (7 bytes), of the expedited answer a server gives for up to 4
    // bytes and of a block (127 segments), and 64 KiB with the progress.
    void roundTrip_data()
    {
        QTest::addColumn<bool>("block");
        QTest::addColumn<int>("size");
        for (int size : {0, 1, 4, 5, 7, 8, 14, 889, 890, 1778, 65536}) {
            QTest::addRow("segmented, %d bytes", size) << false << size;
            QTest::addRow("block, %d bytes", size) << true << size;
        }
    }
    void roundTrip()
    {
        QFETCH(bool, block);
        QFETCH(int, size);
        const QByteArray value = randomBytes(size, quint32(size) + block);
        QVERIFY(od.setValue(0x2002, 0, QByteArrayLiteral("not empty yet")));
        Spies spies(engines->engineFor(block ? BlockWrite : SegmentedWrite));
        QList<int> oneToHundred; // every change of the percentage, once
        while (oneToHundred.size() < 100)
            oneToHundred.append(oneToHundred.size() + 1);
        for (const Op op : {block ? BlockWrite : SegmentedWrite, block ? BlockRead : SegmentedRead}) {
            if (size == 0 && (op == BlockRead || op == SegmentedRead))
                break;
            spies.progress->clear();
            QCOMPARE(engines->start(op, 0x2002, 0, CAN::DOMAIN, value), CAN::Ok);
            const int n = spies.outcomes() + 1;
            QVERIFY(spies.wait(n));
            QCOMPARE(spies.errors.count(), 0);
            const bool write = op == BlockWrite || op == SegmentedWrite;
            QCOMPARE(emitted(spies.results, n - 1), (QVariantList{0x2002, 0, write ? QVariant(0) : QVariant(value)}));
            QVERIFY(od.value(0x2002, 0) == value);
            const QList<int> percent = firstArguments(*spies.progress);
            if (size == 65536 && !block)
                QCOMPARE(percent, oneToHundred);
            if (size == 65536 && block) // one per confirmed block (74 blocks of 127), then 100 at the end
                QVERIFY(percent.size() >= 73 && std::is_sorted(percent.begin(), percent.end()) && percent.last() == 100);
        }
        QVERIFY(!spies.engine->isBusy());
    }

    // ---------------------------------------------------------------- time-outs

    // The device is silent from the start, or falls silent in mid-transfer:
    // the transfer ends with 0x05040000 within the time-out after the last
    // answer, the engine's abort frame reaches the device, an unfinished
    // download stores nothing, and all engines are served again afterwards.
    void silentDevice_data()
    {
        QTest::addColumn<int>("op");
        QTest::addColumn<int>("answered"); // requests the server still sees
        int op = ExpeditedRead;
        for (const char* name : {"expedited read", "expedited write", "segmented read", "segmented write",
                                 "block read", "block write"})
            QTest::addRow("%s, no answer at all", name) << op++ << 0;
        QTest::newRow("segmented read, silent in mid-transfer") << int(SegmentedRead) << 20;
        QTest::newRow("segmented write, silent in mid-transfer") << int(SegmentedWrite) << 20;
        QTest::newRow("block read, first confirmation lost") << int(BlockRead) << 2; // initiate, start
        QTest::newRow("block write, silent inside the first block") << int(BlockWrite) << 60;
    }
    void silentDevice()
    {
        QFETCH(int, op);
        QFETCH(int, answered);
        constexpr quint32 timeoutMs = 200;
        const QByteArray value = randomBytes(65536, 3);
        QVERIFY(od.setValue(0x2002, 0, value));
        // The server gives up later than the client, so that the client's own
        // time-out ends the transfer.
        server->setTimeout(int(timeoutMs) * 3);
        QVERIFY(engines->setTimeout(timeoutMs));
        Spies spies(engines->engineFor(Op(op)));
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome); // counting starts with our initiate
        requestsSeen.store(0);
        mutedAtMs.store(0);
        muteAfter.store(answered);
        deviceFrames->clear();
        const QVariant written = op == ExpeditedWrite ? QVariant(1) : QVariant(randomBytes(65536, 4));
        QCOMPARE(engines->start(Op(op), 0x2002, 0, CAN::UNSIGNED32, written), CAN::Ok);
        QVERIFY(spies.engine->isBusy());
        QVERIFY(spies.wait(1));
        const qint64 endedMs = steadyMs();
        QCOMPARE(emitted(spies.errors), (QVariantList{0x2002, 0, Timeout}));
        QVERIFY(mutedAtMs.load() != 0);
        QVERIFY2(endedMs - mutedAtMs.load() < qint64(timeoutMs) + 1500, // not the 2 s default
                 qPrintable(QString::number(endedMs - mutedAtMs.load())));
        const auto lastRequest = [&] {
            const QVector<CAN::CanRxMessage> requests = deviceFrames->frames(0x600u + Node);
            return requests.isEmpty() ? QByteArray() : frameData(requests.last().message);
        };
        QTRY_COMPARE_WITH_TIMEOUT(lastRequest(), QByteArray::fromHex("8002200000000405"), Outcome);
        if (Op(op) == SegmentedRead && answered) {
            const int got = engines->segmented.getCurrentlyReceivedData().size();
            QVERIFY2(got > 0 && got < 65536, qPrintable(QString::number(got)));
        } else if (Op(op) == BlockRead && answered) {
            QCOMPARE(engines->block.getCurrentlyReceivedData().size(), 127 * 7); // one block, then silence
        }
        QVERIFY(od.value(0x2002, 0) == value);
        QVERIFY(!spies.engine->isBusy());
        // Answering again: the server's own time-out has ended its side (its
        // abort reaches an idle engine and is ignored); then all is served.
        muteAfter.store(-1);
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome);
        checkEnginesServeAgain();
        QCOMPARE(spies.errors.count(), 1);
    }

    // A local abort in mid-transfer, from inside the first progress report:
    // reported with its code, the server told.
    void localAbort_data()
    {
        QTest::addColumn<int>("op");
        QTest::newRow("segmented read") << int(SegmentedRead);
        QTest::newRow("segmented write") << int(SegmentedWrite);
        QTest::newRow("block read") << int(BlockRead);
        QTest::newRow("block write") << int(BlockWrite);
    }
    void localAbort()
    {
        QFETCH(int, op);
        QVERIFY(od.setValue(0x2002, 0, randomBytes(65536, 5)));
        const QByteArray stored = od.value(0x2002, 0);
        Spies spies(engines->engineFor(Op(op)));
        int aborts = 0;
        QObject context; // ends the connection with this scope
        const auto abortOnce = [&] {
            if (aborts++ == 0)
                QCOMPARE(spies.engine->abort(0x08000020), CAN::Ok);
        };
        if (auto* s = qobject_cast<SDOSegmentedClient*>(spies.engine))
            connect(s, &SDOSegmentedClient::progress, &context, abortOnce);
        else
            connect(static_cast<SDOBlockClient*>(spies.engine), &SDOBlockClient::progress, &context, abortOnce);
        QCOMPARE(engines->start(Op(op), 0x2002, 0, CAN::DOMAIN, randomBytes(65536, 6)), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(emitted(spies.errors), (QVariantList{0x2002, 0, 0x08000020u}));
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome);
        QVERIFY(od.value(0x2002, 0) == stored);
        checkEnginesServeAgain();
        QCOMPARE(spies.errors.count(), 1); // nothing more from the aborted transfer
    }

    // ---------------------------------------------------------------- the cosim process

    void cosimProcess()
    {
        QProcess cosim;
        cosim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        cosim.start(QStringLiteral(COSIM_PATH), {"--node", QString::number(CosimNode), "--port",
                                                 QString::number(masterBus->busPort()), "--heartbeat", "0",
                                                 "--no-console"});
        QVERIFY(cosim.waitForStarted(10000));
        Engines remote(CosimNode, scheduler);
        QVERIFY(remote.setTimeout(200));
        Spies exp(&remote.expedited), blk(&remote.block), seg(&remote.segmented);
        for (int i = 0; i < 100 && exp.results.isEmpty(); ++i) { // asked until the process is up
            QCOMPARE(remote.expedited.read(0x1018, 4, CAN::UNSIGNED32), CAN::Ok);
            QVERIFY(exp.wait(i + 1));
        }
        QCOMPARE(emitted(exp.results).value(2), QVariant(0x5D000000u | CosimNode));
        QVERIFY(remote.setTimeout(SDOExpeditedClient::DefaultTimeoutMs));
        exp.results.clear();
        exp.errors.clear(); // the time-outs while the process started

        // 64 KiB both ways, in blocks and in segments.
        const QByteArray value = randomBytes(65536, 9);
        QByteArray reversed = value;
        std::reverse(reversed.begin(), reversed.end());
        QCOMPARE(remote.block.write(0x2002, 0, value), CAN::Ok);
        QVERIFY(blk.wait(1));
        QCOMPARE(remote.segmented.read(0x2002, 0), CAN::Ok);
        QVERIFY(seg.wait(1));
        QVERIFY(emitted(seg.results).value(2) == value);
        QCOMPARE(remote.segmented.write(0x2002, 0, reversed), CAN::Ok);
        QVERIFY(seg.wait(2));
        QCOMPARE(remote.block.read(0x2002, 0), CAN::Ok);
        QVERIFY(blk.wait(2));
        QVERIFY(emitted(blk.results, 1).value(2) == reversed);
        QCOMPARE(seg.errors.count() + blk.errors.count(), 0);
        // A server abort from the process.
        QCOMPARE(remote.expedited.write(0x2003, 0, CAN::UNSIGNED32, 1), CAN::Ok);
        QVERIFY(exp.wait(1));
        QCOMPARE(emitted(exp.errors), (QVariantList{0x2003, 0, 0x06010002u}));

        // The process dies: every engine ends its transfer with the time-out.
        cosim.kill();
        QVERIFY(cosim.waitForFinished(10000));
        QVERIFY(remote.setTimeout(200));
        QCOMPARE(remote.segmented.read(0x2002, 0), CAN::Ok);
        QCOMPARE(remote.block.read(0x2002, 0), CAN::Ok);
        QVERIFY(seg.wait(3) && blk.wait(3));
        QCOMPARE(emitted(seg.errors), (QVariantList{0x2002, 0, Timeout}));
        QCOMPARE(emitted(blk.errors), (QVariantList{0x2002, 0, Timeout}));
    }
};

QTEST_GUILESS_MAIN(tst_SDOEndToEnd)
#include "tst_sdoendtoend.moc"
