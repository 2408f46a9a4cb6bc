// End to end: the segmented and block SDO engines over the real virtual bus
// (private port) against the simulated device's SDO server and object
// dictionary, in this process on a second adapter (answering in that
// adapter's receive thread), and against the cosim program in a process of
// its own.

#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "objectdictionary.h"
#include "sdoblockclient.h"
#include "sdoenginefixture.h"
#include "sdosegmentedclient.h"
#include "sdoclient.h"
#include "sdoserver.h"
#include "usdoserver.h"
#include "simdevice.h"
#include "testbus.h"

#include <QProcess>
#include <QRandomGenerator>
#include <algorithm>

namespace {

constexpr quint8 Node = 5;
constexpr quint8 CosimNode = 9; // the cosim process
constexpr int Outcome = 20000; // upper bound for an outcome that is due (sanitizer builds are slow)

QByteArray randomBytes(int size, quint32 seed)
{
    QByteArray out(size, '\0');
    QRandomGenerator gen(seed);
    for (int i = 0; i < size; ++i)
        out[i] = char(gen.generate());
    return out;
}

// The outcome signals of one engine.
struct Spies {
    SDOExpeditedClient* engine;
    QSignalSpy results;
    QSignalSpy errors;

    explicit Spies(SDOExpeditedClient* e)
        : engine(e)
        , results(e, &SDOExpeditedClient::resultReceived)
        , errors(e, &SDOExpeditedClient::errorReceived)
    {
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
    UsdoServer* usdoServer = nullptr;
    SDOSegmentedClient* segmented = nullptr;
    SDOBlockClient* block = nullptr;

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster init;
        TestBus::usePrivatePort();
        QtWarningTrap::install();
        masterBus = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        deviceBus = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        device = new SimDevice(Node, deviceBus);
        od.addDefaultEntries(Node, device);
        server = new SdoServer(device, &od);
        usdoServer = new UsdoServer(device, &od);
        QCOMPARE(masterBus->open(), CAN::Ok);
        QCOMPARE(deviceBus->open(), CAN::Ok);
        scheduler = new CanScheduler(masterBus);
        scheduler->connectToAdapter(true);
        segmented = new SDOSegmentedClient(0x580 + Node, 0x600 + Node, scheduler);
        block = new SDOBlockClient(0x580 + Node, 0x600 + Node, scheduler);
        // Asked until both receive sockets are bound and the server answers.
        Spies spies(segmented);
        QCOMPARE(segmented->setSdoTimeout(100), CAN::Ok);
        for (int i = 0; i < 50 && spies.results.isEmpty(); ++i) {
            QCOMPARE(segmented->read(0x1000, 0), CAN::Ok);
            QVERIFY(spies.wait(i + 1));
        }
        QVERIFY(!spies.results.isEmpty());
        QCOMPARE(segmented->setSdoTimeout(SDOExpeditedClient::DefaultTimeoutMs), CAN::Ok);
    }

    void cleanupTestCase()
    {
        delete segmented;
        delete block;
        masterBus->close();
        deviceBus->close();
        delete scheduler;
        delete usdoServer;
        delete server;
        delete device;
        delete masterBus;
        delete deviceBus;
    }

    void cleanup()
    {
        const QStringList warnings = QtWarningTrap::take();
        QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join('\n')));
    }

    // Values into the domain and back, byte-exact: sizes at the edges of a
    // segment (7 bytes), of the expedited answer a server gives for up to 4
    // bytes and of a block (127 segments), and 64 KiB with the progress.
    void roundTrip_data()
    {
        QTest::addColumn<bool>("inBlocks");
        QTest::addColumn<int>("size");
        for (int size : {0, 1, 4, 5, 7, 8, 14, 889, 890, 1778, 65536}) {
            QTest::addRow("segmented, %d bytes", size) << false << size;
            QTest::addRow("block, %d bytes", size) << true << size;
        }
    }
    void roundTrip()
    {
        QFETCH(bool, inBlocks);
        QFETCH(int, size);
        const QByteArray value = randomBytes(size, quint32(size) + inBlocks);
        QVERIFY(od.setValue(0x2002, 0, QByteArrayLiteral("not empty yet")));
        Spies spies(inBlocks ? static_cast<SDOExpeditedClient*>(block) : segmented);
        QSignalSpy progress(spies.engine, SIGNAL(progress(quint8)));
        QList<int> oneToHundred; // every change of the percentage, once
        while (oneToHundred.size() < 100)
            oneToHundred.append(oneToHundred.size() + 1);
        for (const bool write : {true, false}) {
            if (size == 0 && !write)
                break;
            progress.clear();
            QCOMPARE(write ? (inBlocks ? block->write(0x2002, 0, value) : segmented->write(0x2002, 0, value))
                           : (inBlocks ? block->read(0x2002, 0) : segmented->read(0x2002, 0)),
                     CAN::Ok);
            const int n = spies.outcomes() + 1;
            QVERIFY(spies.wait(n));
            QCOMPARE(spies.errors.count(), 0);
            QCOMPARE(emitted(spies.results, n - 1), (QVariantList{0x2002, 0, write ? QVariant(0) : QVariant(value)}));
            QVERIFY(od.value(0x2002, 0) == value);
            const QList<int> percent = firstArguments(progress);
            if (size == 65536 && !inBlocks)
                QCOMPARE(percent, oneToHundred);
            if (size == 65536 && inBlocks) // one per confirmed block (74 blocks of 127), then 100 at the end
                QVERIFY(percent.size() >= 73 && std::is_sorted(percent.begin(), percent.end()) && percent.last() == 100);
        }
        QVERIFY(!spies.engine->isBusy());
    }

    // SDOClient over USDO (CAN FD, plain and routed) gives what it gives over
    // classic SDO: writes by one are read back by the other; a missing
    // object is aborted with the USDO code.
    void usdoLikeCan_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("sub");      // of 2000h; 0: 2005h, the string; 0x30: missing
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("routed");
        QTest::newRow("u8") << int(CAN::UNSIGNED8) << 0x0A << QVariant(0xC3u) << false;
        QTest::newRow("i16") << int(CAN::INTEGER16) << 0x03 << QVariant(-1234) << false;
        QTest::newRow("i24, routed") << int(CAN::INTEGER24) << 0x04 << QVariant(-70001) << true;
        QTest::newRow("u32, routed") << int(CAN::UNSIGNED32) << 0x0D << QVariant(0xCAFEF00Du) << true;
        QTest::newRow("r32") << int(CAN::REAL32) << 0x12 << QVariant(-0.75f) << false;
        QTest::newRow("short string (write)") << int(CAN::VISIBLE_STRING) << 0 << QVariant(QByteArray("usdo text")) << false;
        QTest::newRow("missing object") << int(CAN::UNSIGNED32) << 0x30 << QVariant() << false;
    }
    void usdoLikeCan()
    {
        QFETCH(int, type);
        QFETCH(int, sub);
        QFETCH(QVariant, value);
        QFETCH(bool, routed);
        const auto t = CAN::CANopenDataType(type);
        const quint16 index = sub == 0 ? 0x2005 : sub == 0x30 ? 0x3000 : 0x2000;
        SDOClient client(0x580 + Node, 0x600 + Node, scheduler);
        QSignalSpy results(&client, &SDOClient::resultReceived);
        QSignalSpy errors(&client, &SDOClient::errorReceived);
        const auto run = [&](bool usdo, bool write) {
            client.activateUSDO(usdo, 0x29);
            if (usdo && routed)
                client.setRouting(1, Node); // the device answers as gateway and target
            const int before = results.count() + errors.count();
            const CAN::RetType r = write ? client.write(index, quint8(sub), t, value) : client.read(index, quint8(sub), t);
            client.setRouting(0, 0);
            client.activateUSDO(false, 0x29);
            if (r != CAN::Ok)
                return QVariant(QStringLiteral("refused %1").arg(int(r)));
            if (!QTest::qWaitFor([&] { return results.count() + errors.count() > before; }, Outcome))
                return QVariant(QStringLiteral("no outcome"));
            return errors.count() ? QVariant(errors.last().at(2).toUInt()) : results.last().at(2).value<QVariant>();
        };
        if (sub == 0x30) {
            QCOMPARE(run(true, false), QVariant(0x33u)); // object does not exist
            return;
        }
        QCOMPARE(run(true, true), value); // written over USDO,
        const QVariant overCan = run(false, false); // read back over CAN,
        if (t == CAN::VISIBLE_STRING) {
            QCOMPARE(overCan.toByteArray(), value.toByteArray());
            return; // (strings are read over USDO segmented only, not part of this build)
        }
        QCOMPARE(overCan, value);
        QCOMPARE(run(true, false), value); // and over USDO
    }

    // The separate process: 64 KiB both ways, a server abort, and the
    // time-out once the process is gone.
    void cosimProcess()
    {
        QProcess cosim;
        cosim.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        cosim.start(QStringLiteral(COSIM_PATH), {"--node", QString::number(CosimNode), "--port",
                                                 QString::number(masterBus->busPort()), "--heartbeat", "0",
                                                 "--no-console"});
        QVERIFY(cosim.waitForStarted(10000));
        SDOSegmentedClient seg(0x580 + CosimNode, 0x600 + CosimNode, scheduler);
        SDOBlockClient blk(0x580 + CosimNode, 0x600 + CosimNode, scheduler);
        Spies segSpies(&seg), blkSpies(&blk);
        QCOMPARE(seg.setSdoTimeout(200), CAN::Ok);
        for (int i = 0; i < 100 && segSpies.results.isEmpty(); ++i) { // asked until the process is up
            QCOMPARE(seg.read(0x1018, 4), CAN::Ok);
            QVERIFY(segSpies.wait(i + 1));
        }
        QCOMPARE(segSpies.results.value(0).value(2).value<QVariant>().toByteArray(),
                 QByteArray::fromHex("0900005d")); // serial number 0x5D000009
        QCOMPARE(seg.setSdoTimeout(SDOExpeditedClient::DefaultTimeoutMs), CAN::Ok);
        segSpies.results.clear();
        segSpies.errors.clear();

        const QByteArray value = randomBytes(65536, 9);
        QCOMPARE(blk.write(0x2002, 0, value), CAN::Ok);
        QVERIFY(blkSpies.wait(1));
        QCOMPARE(seg.read(0x2002, 0), CAN::Ok);
        QVERIFY(segSpies.wait(1));
        QVERIFY(segSpies.results.value(0).value(2).value<QVariant>().toByteArray() == value);
        QCOMPARE(seg.write(0x2003, 0, QByteArray("abcd")), CAN::Ok); // read-only entry
        QVERIFY(segSpies.wait(2));
        QCOMPARE(segSpies.errors.value(0).value(2).toUInt(), 0x06010002u);

        cosim.kill();
        QVERIFY(cosim.waitForFinished(10000));
        QCOMPARE(blk.setSdoTimeout(200), CAN::Ok);
        QCOMPARE(blk.read(0x2002, 0), CAN::Ok);
        QVERIFY(blkSpies.wait(2));
        QCOMPARE(blkSpies.errors.value(0).value(2).toUInt(), 0x05040000u);
    }
};

QTEST_GUILESS_MAIN(tst_SDOEndToEnd)
#include "tst_sdoendtoend.moc"
