// End to end: the expedited, segmented and block SDO engines over the real
// virtual bus (private port) against the simulated device: its SDO server and
// object dictionary in this process on a second adapter, and the cosim
// program in a process of its own.

#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "objectdictionary.h"
#include "qtwarningtrap.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"
#include "sdoserver.h"
#include "simdevice.h"
#include "testbus.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>
#include "sdoenginefixture.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>

namespace {

constexpr quint8 Node = 5;       // the in-process device with its SDO server
constexpr quint8 MuteNode = 6;   // an in-process device without SDO server
constexpr quint8 CosimNode = 9;  // the cosim process
constexpr int Outcome = 20000;   // upper bound for an outcome that is due (sanitizer builds are slow)
constexpr quint32 Timeout = 0x05040000;

enum Op { ExpeditedRead, ExpeditedWrite, SegmentedRead, SegmentedWrite, BlockRead, BlockWrite };

qint64 steadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

QByteArray randomBytes(int size, quint32 seed)
{
    QByteArray out(size, '\0');
    QRandomGenerator gen(seed);
    for (int i = 0; i < size; ++i)
        out[i] = char(gen.generate());
    return out;
}

QByteArray le(quint64 v, int size)
{
    QByteArray out(size, '\0');
    for (int i = 0; i < size; ++i)
        out[i] = char(v >> (8 * i));
    return out;
}

// The device's long read-only string (2001h), written out here on its own.
QByteArray deviceLongString()
{
    QByteArray text;
    for (int line = 1; line <= 8; ++line)
        text += "Line " + QByteArray::number(line) + " of the long read-only string of the simulated device.\n";
    return text;
}


QByteArray listText(const QList<int>& values)
{
    QByteArray out;
    for (int v : values)
        out += QByteArray::number(v) + ' ';
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
        switch (op) {
        case ExpeditedRead:
        case ExpeditedWrite:
            return &expedited;
        case SegmentedRead:
        case SegmentedWrite:
            return &segmented;
        default:
            return &block;
        }
    }

    // Starts one transfer; `value` is the written value (bytes for the
    // segmented and block engines).
    CAN::RetType start(Op op, quint16 index, quint8 sub, CAN::CANopenDataType type = CAN::UNSIGNED32,
                       const QVariant& value = QVariant())
    {
        switch (op) {
        case ExpeditedRead:
            return expedited.read(index, sub, type);
        case ExpeditedWrite:
            return expedited.write(index, sub, type, value);
        case SegmentedRead:
            return segmented.read(index, sub);
        case SegmentedWrite:
            return segmented.write(index, sub, value.toByteArray());
        case BlockRead:
            return block.read(index, sub);
        case BlockWrite:
            return block.write(index, sub, value.toByteArray());
        }
        return CAN::Error;
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
        if (auto* s = qobject_cast<SDOSegmentedClient*>(engine))
            progress = std::make_unique<QSignalSpy>(s, &SDOSegmentedClient::progress);
        else if (auto* b = qobject_cast<SDOBlockClient*>(engine))
            progress = std::make_unique<QSignalSpy>(b, &SDOBlockClient::progress);
    }
    int outcomes() const { return results.count() + errors.count(); }

    // Runs the event loop until `n` outcomes have arrived (returning as soon
    // as they have) or `ms` have passed; true when there are exactly `n`.
    bool wait(int n, int ms = Outcome)
    {
        if (outcomes() < n) {
            QEventLoop loop;
            const auto check = [&] {
                if (outcomes() >= n)
                    loop.quit();
            };
            // Connected after the spies, so they have counted when this runs.
            QObject::connect(engine, &SDOExpeditedClient::resultReceived, &loop, check);
            QObject::connect(engine, &SDOExpeditedClient::errorReceived, &loop, check);
            QTimer::singleShot(ms, &loop, &QEventLoop::quit);
            loop.exec();
        }
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
    SimDevice* muteDevice = nullptr; // no SDO server
    SdoServer* server = nullptr;
    FrameCollector* deviceFrames = nullptr; // what reaches the device's adapter
    Engines* engines = nullptr;

    // Requests to node 5 after this many are swallowed before the server sees
    // them (-1: none): a device that stops answering in mid-transfer.
    std::atomic<int> muteAfter{-1};
    std::atomic<int> requestsSeen{0};
    std::atomic<qint64> mutedAtMs{0};

    void muteAfterRequests(int n)
    {
        requestsSeen.store(0);
        mutedAtMs.store(0);
        muteAfter.store(n);
    }

    // A further request on every engine of node 5 is accepted and served.
    void checkEnginesServeAgain()
    {
        Engines& e = *engines;
        QVERIFY(!e.expedited.isBusy());
        QVERIFY(!e.segmented.isBusy());
        QVERIFY(!e.block.isBusy());
        const QVariant serial(uint(0x5D000000u | Node)); // 1018h:04
        for (Op op : {ExpeditedRead, SegmentedRead, BlockRead}) {
            SDOExpeditedClient* engine = e.engineFor(op);
            Spies spies(engine);
            QCOMPARE(e.start(op, 0x1018, 4, CAN::UNSIGNED32), CAN::Ok);
            QVERIFY(spies.wait(1));
            QCOMPARE(spies.errors.count(), 0);
            const QVariant v = spies.results.at(0).at(2);
            if (op == ExpeditedRead)
                QCOMPARE(v, serial);
            else
                QCOMPARE(v.toByteArray(), le(serial.toUInt(), 4));
            QVERIFY(!engine->isBusy());
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
        muteDevice = new SimDevice(MuteNode, deviceBus);
        // Registered before the server's handler, so it sees requests first.
        device->addHandler([this](const CAN::CanRxMessage& frame) {
            if (frame.message.id != 0x600u + Node)
                return false;
            const int limit = muteAfter.load();
            if (limit < 0 || requestsSeen.fetch_add(1) < limit)
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
        QCOMPARE(engines->expedited.setSdoTimeout(SDOExpeditedClient::DefaultTimeoutMs), CAN::Ok);
    }

    void cleanupTestCase()
    {
        delete engines;
        masterBus->close();
        deviceBus->close();
        delete scheduler;
        delete deviceFrames;
        delete server;
        delete muteDevice;
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

    // ---------------------------------------------------------------- numeric types

    // Write a value, find its bytes in the dictionary, read it back.
    void expeditedRoundTrip_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("sub"); // of 2000h, the entry of that type
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<QVariant>("readBack");

        QTest::newRow("BOOLEAN") << int(CAN::BOOLEAN) << 1 << QVariant(false) << le(0, 1) << QVariant(int(0));
        QTest::newRow("INTEGER8") << int(CAN::INTEGER8) << 2 << QVariant(-5) << le(0xFB, 1) << QVariant(int(-5));
        QTest::newRow("INTEGER16") << int(CAN::INTEGER16) << 3 << QVariant(-12345) << le(0xCFC7, 2)
                                   << QVariant(int(-12345));
        QTest::newRow("INTEGER24") << int(CAN::INTEGER24) << 4 << QVariant(-8388608) << le(0x800000, 3)
                                   << QVariant(int(-8388608));
        QTest::newRow("INTEGER32") << int(CAN::INTEGER32) << 5 << QVariant(-123456789) << le(0xF8A432EB, 4)
                                   << QVariant(int(-123456789));
        QTest::newRow("UNSIGNED8") << int(CAN::UNSIGNED8) << 10 << QVariant(0x5A) << le(0x5A, 1) << QVariant(int(0x5A));
        QTest::newRow("UNSIGNED16") << int(CAN::UNSIGNED16) << 11 << QVariant(0xFEDC) << le(0xFEDC, 2)
                                    << QVariant(int(0xFEDC));
        QTest::newRow("UNSIGNED24") << int(CAN::UNSIGNED24) << 12 << QVariant(0xABCDEF) << le(0xABCDEF, 3)
                                    << QVariant(uint(0xABCDEF));
        QTest::newRow("UNSIGNED32") << int(CAN::UNSIGNED32) << 13 << QVariant(0xFEDCBA98u) << le(0xFEDCBA98u, 4)
                                    << QVariant(uint(0xFEDCBA98u));
        QTest::newRow("REAL32") << int(CAN::REAL32) << 18 << QVariant(-3.75f) << le(0xC0700000u, 4)
                                << QVariant(float(-3.75f));
    }
    void expeditedRoundTrip()
    {
        QFETCH(int, type);
        QFETCH(int, sub);
        QFETCH(QVariant, value);
        QFETCH(QByteArray, stored);
        QFETCH(QVariant, readBack);
        const auto t = CAN::CANopenDataType(type);
        Spies spies(&engines->expedited);

        QCOMPARE(engines->expedited.write(0x2000, quint8(sub), t, value), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(spies.results.at(0).at(1).toUInt(), uint(sub));
        QCOMPARE(spies.results.at(0).at(2), value); // the written value is echoed
        QCOMPARE(od.value(0x2000, quint8(sub)), stored);

        QCOMPARE(engines->expedited.read(0x2000, quint8(sub), t), CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.count(), 0);
        const QVariant got = spies.results.at(1).at(2);
        QCOMPARE(got.userType(), readBack.userType());
        QCOMPARE(got, readBack);
        QVERIFY(!engines->expedited.isBusy());
    }

    // The numeric types longer than four bytes travel segmented or in blocks.
    void longNumericRoundTrip_data()
    {
        QTest::addColumn<bool>("block");
        QTest::addColumn<int>("sub");
        QTest::addColumn<QByteArray>("value");
        const struct {
            const char* name;
            int sub;
            QByteArray value;
        } rows[] = {
            {"INTEGER40", 6, le(0xFEDCBA9876ull, 5)},       {"INTEGER48", 7, le(0x800000000001ull, 6)},
            {"INTEGER56", 8, le(0x7F665544332211ull, 7)},   {"INTEGER64", 9, le(0x8000000000000000ull, 8)},
            {"UNSIGNED40", 14, le(0x0504030201ull, 5)},     {"UNSIGNED48", 15, le(0xFFFFFFFFFFFFull, 6)},
            {"UNSIGNED56", 16, le(0x01000000000001ull, 7)}, {"UNSIGNED64", 17, le(0x0123456789ABCDEFull, 8)},
            {"REAL64", 19, le(0x400921FB54442D18ull, 8)}, // pi
        };
        for (const auto& r : rows) {
            QTest::addRow("%s segmented", r.name) << false << r.sub << r.value;
            QTest::addRow("%s block", r.name) << true << r.sub << r.value;
        }
    }
    void longNumericRoundTrip()
    {
        QFETCH(bool, block);
        QFETCH(int, sub);
        QFETCH(QByteArray, value);
        const Op write = block ? BlockWrite : SegmentedWrite;
        Spies spies(engines->engineFor(write));
        QCOMPARE(engines->start(write, 0x2000, quint8(sub), CAN::DOMAIN, value), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(od.value(0x2000, quint8(sub)), value);
        QCOMPARE(engines->start(block ? BlockRead : SegmentedRead, 0x2000, quint8(sub)), CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(1).at(2).toByteArray(), value);
    }

    // ---------------------------------------------------------------- long values

    void longString_data()
    {
        QTest::addColumn<bool>("block");
        QTest::newRow("segmented") << false;
        QTest::newRow("block") << true;
    }
    void longString()
    {
        QFETCH(bool, block);
        const QByteArray text = deviceLongString();
        QCOMPARE(od.value(0x2001, 0), text);
        SDOExpeditedClient* engine = engines->engineFor(block ? BlockRead : SegmentedRead);
        Spies spies(engine);

        QCOMPARE(engines->start(block ? BlockRead : SegmentedRead, 0x2001, 0), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(0).at(0).toUInt(), 0x2001u);
        QCOMPARE(spies.results.at(0).at(2).toByteArray(), text);
        QList<int> percent = firstArguments(*spies.progress);
        QVERIFY(!percent.isEmpty());
        QVERIFY2(std::is_sorted(percent.begin(), percent.end()), listText(percent).constData());
        QCOMPARE(percent.last(), 100);

        // Down again into the domain, where it fits.
        spies.progress->clear();
        QVERIFY(od.setValue(0x2002, 0, QByteArray()));
        QCOMPARE(engines->start(block ? BlockWrite : SegmentedWrite, 0x2002, 0, CAN::VISIBLE_STRING, text), CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(od.value(0x2002, 0), text);
        percent = firstArguments(*spies.progress);
        QVERIFY(!percent.isEmpty());
        QVERIFY2(std::is_sorted(percent.begin(), percent.end()), listText(percent).constData());
        QCOMPARE(percent.last(), 100); // 70 segments of 7 bytes end at 490 of 488 bytes: 100 %
        QVERIFY(!engine->isBusy());
    }

    // 64 KiB both ways, byte-exact, with the progress on the way.
    void domain64KiB_data()
    {
        QTest::addColumn<bool>("block");
        QTest::newRow("segmented") << false;
        QTest::newRow("block") << true;
    }
    void domain64KiB()
    {
        QFETCH(bool, block);
        const QByteArray value = randomBytes(65536, block ? 64 : 46);
        QVERIFY(od.setValue(0x2002, 0, QByteArray()));
        SDOExpeditedClient* engine = engines->engineFor(block ? BlockWrite : SegmentedWrite);
        Spies spies(engine);
        // 9363 segments; blocks of 127 (the server's offer) make 74 blocks.
        QList<int> oneToHundred;
        for (int p = 1; p <= 100; ++p)
            oneToHundred.append(p);

        QCOMPARE(engines->start(block ? BlockWrite : SegmentedWrite, 0x2002, 0, CAN::DOMAIN, value), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(0).at(0).toUInt(), 0x2002u);
        QCOMPARE(spies.results.at(0).at(2), QVariant(int(0)));
        QVERIFY(od.value(0x2002, 0) == value);
        QList<int> percent = firstArguments(*spies.progress);
        if (block) {
            // One per confirmed block, then 100 at the end.
            QVERIFY2(percent.size() >= 73 && std::is_sorted(percent.begin(), percent.end()),
                     listText(percent).constData());
            QCOMPARE(percent.last(), 100);
        } else {
            QCOMPARE(percent, oneToHundred); // every change of the percentage, once
        }

        spies.progress->clear();
        QCOMPARE(engines->start(block ? BlockRead : SegmentedRead, 0x2002, 0), CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.count(), 0);
        QVERIFY(spies.results.at(1).at(2).toByteArray() == value);
        percent = firstArguments(*spies.progress);
        if (block) {
            QVERIFY2(percent.size() >= 74 && std::is_sorted(percent.begin(), percent.end()),
                     listText(percent).constData());
            QCOMPARE(percent.last(), 100);
        } else {
            QCOMPARE(percent, oneToHundred);
        }
        QVERIFY(!engine->isBusy());
    }

    // Sizes at the edges of a segment (7 bytes), of the expedited answer a
    // server gives for up to 4 bytes, and of a block (127 segments).
    void edgeSizes_data()
    {
        QTest::addColumn<bool>("block");
        QTest::addColumn<int>("size");
        for (int size : {1, 4, 5, 6, 7, 8, 14, 888, 889, 890, 1778}) {
            QTest::addRow("segmented, %d bytes", size) << false << size;
            QTest::addRow("block, %d bytes", size) << true << size;
        }
    }
    void edgeSizes()
    {
        QFETCH(bool, block);
        QFETCH(int, size);
        const QByteArray value = randomBytes(size, quint32(size));
        Spies spies(engines->engineFor(block ? BlockWrite : SegmentedWrite));
        QCOMPARE(engines->start(block ? BlockWrite : SegmentedWrite, 0x2002, 0, CAN::DOMAIN, value), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QVERIFY(od.value(0x2002, 0) == value);
        QCOMPARE(engines->start(block ? BlockRead : SegmentedRead, 0x2002, 0), CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(1).at(2).toByteArray(), value);
    }

    // An empty value replaces the stored one.
    void emptyDownload_data()
    {
        QTest::addColumn<bool>("block");
        QTest::newRow("segmented") << false;
        QTest::newRow("block") << true;
    }
    void emptyDownload()
    {
        QFETCH(bool, block);
        QVERIFY(od.setValue(0x2005, 0, QByteArrayLiteral("not empty yet")));
        Spies spies(engines->engineFor(block ? BlockWrite : SegmentedWrite));
        QCOMPARE(engines->start(block ? BlockWrite : SegmentedWrite, 0x2005, 0, CAN::VISIBLE_STRING, QByteArray()),
                 CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 0);
        QCOMPARE(spies.results.at(0).at(2), QVariant(int(0)));
        QCOMPARE(od.value(0x2005, 0), QByteArray());
        checkEnginesServeAgain();
    }

    // ---------------------------------------------------------------- aborts

    void serverAborts_data()
    {
        QTest::addColumn<int>("op");
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("sub");
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<quint32>("code");

        const QVariant four = QByteArray(4, '\x11');
        const struct {
            const char* name;
            Op op;
        } ops[] = {{"expedited read", ExpeditedRead},  {"expedited write", ExpeditedWrite},
                   {"segmented read", SegmentedRead},  {"segmented write", SegmentedWrite},
                   {"block read", BlockRead},          {"block write", BlockWrite}};
        for (const auto& o : ops) {
            const bool write = o.op == ExpeditedWrite || o.op == SegmentedWrite || o.op == BlockWrite;
            const QVariant v = o.op == ExpeditedWrite ? QVariant(7) : four;
            QTest::addRow("unknown index, %s", o.name) << int(o.op) << 0x3000 << 0 << int(CAN::UNSIGNED32) << v
                                                       << quint32(0x06020000);
            QTest::addRow("unknown sub-index, %s", o.name) << int(o.op) << 0x2000 << 0x40 << int(CAN::UNSIGNED32) << v
                                                           << quint32(0x06090011);
            if (write)
                QTest::addRow("write of read-only, %s", o.name) << int(o.op) << 0x2003 << 0 << int(CAN::UNSIGNED32)
                                                                << v << quint32(0x06010002);
            else
                QTest::addRow("read of write-only, %s", o.name) << int(o.op) << 0x2004 << 0 << int(CAN::UNSIGNED32)
                                                                << QVariant() << quint32(0x06010001);
        }
        QTest::newRow("write of a constant string, segmented") << int(SegmentedWrite) << 0x1008 << 0
                                                               << int(CAN::VISIBLE_STRING) << QVariant(QByteArray("x"))
                                                               << quint32(0x06010002);
        // Wrong lengths.
        QTest::newRow("two bytes into INTEGER32, expedited") << int(ExpeditedWrite) << 0x2000 << 5 << int(CAN::INTEGER16)
                                                             << QVariant(1) << quint32(0x06070013);
        QTest::newRow("four bytes into UNSIGNED8, expedited") << int(ExpeditedWrite) << 0x2000 << 10
                                                              << int(CAN::UNSIGNED32) << QVariant(1) << quint32(0x06070012);
        QTest::newRow("three bytes into UNSIGNED32, segmented") << int(SegmentedWrite) << 0x2000 << 13 << 0
                                                                << QVariant(QByteArray(3, 'a')) << quint32(0x06070013);
        QTest::newRow("256 bytes into a 255-byte string, segmented")
            << int(SegmentedWrite) << 0x2005 << 0 << 0 << QVariant(QByteArray(256, 'a')) << quint32(0x06070012);
        QTest::newRow("256 bytes into a 255-byte string, block")
            << int(BlockWrite) << 0x2005 << 0 << 0 << QVariant(QByteArray(256, 'a')) << quint32(0x06070012);
        QTest::newRow("64 KiB + 1 into the domain, block")
            << int(BlockWrite) << 0x2002 << 0 << 0 << QVariant(QByteArray(65537, 'a')) << quint32(0x06070012);
        // A BOOLEAN holds 0 or 1.
        QTest::newRow("BOOLEAN 2, expedited") << int(ExpeditedWrite) << 0x2000 << 1 << int(CAN::BOOLEAN) << QVariant(2)
                                              << quint32(0x06090030);
        // The server offers the long string segmented: the expedited engine gives up.
        QTest::newRow("long string, expedited read") << int(ExpeditedRead) << 0x2001 << 0 << int(CAN::UNSIGNED32)
                                                     << QVariant() << quint32(0x08000000);
    }
    void serverAborts()
    {
        QFETCH(int, op);
        QFETCH(int, index);
        QFETCH(int, sub);
        QFETCH(int, type);
        QFETCH(QVariant, value);
        QFETCH(quint32, code);
        const QByteArray before = od.value(quint16(index), quint8(sub));
        SDOExpeditedClient* engine = engines->engineFor(Op(op));
        Spies spies(engine);
        QCOMPARE(engines->start(Op(op), quint16(index), quint8(sub), CAN::CANopenDataType(type), value), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.results.count(), 0);
        QCOMPARE(spies.errors.at(0).at(0).toUInt(), uint(index));
        QCOMPARE(spies.errors.at(0).at(1).toUInt(), uint(sub));
        QCOMPARE(spies.errors.at(0).at(2).toUInt(), code);
        QCOMPARE(od.value(quint16(index), quint8(sub)), before); // nothing was stored
        // An abort ends the server's side too. (The expedited engine leaves a
        // segmented offer without a word; the next request replaces it.)
        if (code != 0x08000000)
            QCOMPARE(server->state(), SdoServer::Idle);
        checkEnginesServeAgain();
        QCOMPARE(spies.errors.count(), 1);
    }

    // ---------------------------------------------------------------- time-outs

    // A device without SDO server: every transfer ends with 0x05040000 after
    // the time-out, and the engine tells the device with an abort frame.
    void noServer_data()
    {
        QTest::addColumn<int>("op");
        QTest::newRow("expedited read") << int(ExpeditedRead);
        QTest::newRow("expedited write") << int(ExpeditedWrite);
        QTest::newRow("segmented read") << int(SegmentedRead);
        QTest::newRow("segmented write") << int(SegmentedWrite);
        QTest::newRow("block read") << int(BlockRead);
        QTest::newRow("block write") << int(BlockWrite);
    }
    void noServer()
    {
        QFETCH(int, op);
        constexpr quint32 timeoutMs = 200;
        Engines silent(MuteNode, scheduler);
        QVERIFY(silent.setTimeout(timeoutMs));
        SDOExpeditedClient* engine = silent.engineFor(Op(op));
        Spies spies(engine);
        deviceFrames->clear();
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(silent.start(Op(op), 0x2000, 13, CAN::UNSIGNED32, Op(op) == ExpeditedWrite ? QVariant(1)
                                                                                            : QVariant(QByteArray(40, 'x'))),
                 CAN::Ok);
        QVERIFY(engine->isBusy());
        QVERIFY(spies.wait(1));
        const qint64 elapsed = clock.elapsed();
        QCOMPARE(spies.errors.count(), 1);
        QCOMPARE(spies.errors.at(0).at(0).toUInt(), 0x2000u);
        QCOMPARE(spies.errors.at(0).at(1).toUInt(), 13u);
        QCOMPARE(spies.errors.at(0).at(2).toUInt(), Timeout);
        QVERIFY2(elapsed >= qint64(timeoutMs), qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed < qint64(timeoutMs) + 1500, qPrintable(QString::number(elapsed))); // not the 2 s default
        // The initiate request, then the abort: 80 00 20 0D 00 00 04 05.
        QVector<CAN::CanRxMessage> frames;
        const auto requests = [&] {
            frames.clear();
            for (const CAN::CanRxMessage& rx : deviceFrames->frames())
                if (rx.message.id == 0x600u + MuteNode)
                    frames.append(rx);
            return frames.size();
        };
        const QByteArray abortFrame = QByteArray::fromHex("8000200d00000405");
        const auto data = [&](int i) { return QByteArray(reinterpret_cast<const char*>(frames.at(i).message.data), 8); };
        QTRY_VERIFY_WITH_TIMEOUT(requests() >= 2, Outcome);
        QCOMPARE(frames.size(), 2);
        QCOMPARE(frames.at(1).message.length, quint8(8));
        QCOMPARE(data(1), abortFrame);
        QVERIFY(!engine->isBusy());
        // Another request is accepted; it ends the same way.
        QCOMPARE(silent.start(Op(op), 0x2000, 13, CAN::UNSIGNED32, Op(op) == ExpeditedWrite ? QVariant(1)
                                                                                            : QVariant(QByteArray(40, 'x'))),
                 CAN::Ok);
        QVERIFY(spies.wait(2));
        QCOMPARE(spies.errors.at(1).at(2).toUInt(), Timeout);
        QVERIFY(!engine->isBusy());
        QTRY_VERIFY_WITH_TIMEOUT(requests() >= 4, Outcome); // nothing left in flight for the next case
        QCOMPARE(frames.size(), 4);
        QCOMPARE(data(2), data(0));
        QCOMPARE(data(3), abortFrame);
    }

    // The device falls silent in mid-transfer: the transfer ends with
    // 0x05040000 within the time-out after the last answer.
    void deviceStopsAnswering_data()
    {
        QTest::addColumn<int>("op");
        QTest::addColumn<int>("answered"); // requests the server still sees
        QTest::newRow("segmented read") << int(SegmentedRead) << 20;
        QTest::newRow("segmented write") << int(SegmentedWrite) << 20;
        QTest::newRow("block read") << int(BlockRead) << 2;   // initiate, start; the first confirmation is lost
        QTest::newRow("block write") << int(BlockWrite) << 60; // inside the first block
    }
    void deviceStopsAnswering()
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
        SDOExpeditedClient* engine = engines->engineFor(Op(op));
        Spies spies(engine);
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome); // counting starts with our initiate
        muteAfterRequests(answered);
        QCOMPARE(engines->start(Op(op), 0x2002, 0, CAN::DOMAIN, randomBytes(65536, 4)), CAN::Ok);
        QVERIFY(spies.wait(1));
        const qint64 endedMs = steadyMs();
        QCOMPARE(spies.errors.count(), 1);
        QCOMPARE(spies.errors.at(0).at(0).toUInt(), 0x2002u);
        QCOMPARE(spies.errors.at(0).at(2).toUInt(), Timeout);
        QVERIFY(mutedAtMs.load() != 0);
        QVERIFY2(endedMs - mutedAtMs.load() < qint64(timeoutMs) + 1500,
                 qPrintable(QString::number(endedMs - mutedAtMs.load())));
        if (Op(op) == SegmentedRead) {
            const int got = engines->segmented.getCurrentlyReceivedData().size();
            QVERIFY2(got > 0 && got < 65536, qPrintable(QString::number(got)));
        } else if (Op(op) == BlockRead) {
            QCOMPARE(engines->block.getCurrentlyReceivedData().size(), 127 * 7); // one block, then silence
        }
        QVERIFY(od.value(0x2002, 0) == value); // an unfinished download stores nothing
        QVERIFY(!engine->isBusy());

        // Answering again: the server's own time-out has ended its side (its
        // abort reaches an idle engine and is ignored); then all is served.
        muteAfter.store(-1);
        QTRY_COMPARE_WITH_TIMEOUT(server->state(), SdoServer::Idle, Outcome);
        checkEnginesServeAgain();
        QCOMPARE(spies.errors.count(), 1);
    }

    // A local abort in mid-transfer: reported with its code, the server told.
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
        SDOExpeditedClient* engine = engines->engineFor(Op(op));
        Spies spies(engine);
        // Aborted at the first progress report, from inside its signal.
        QObject context; // ends the connection with this scope
        int aborts = 0;
        const auto abortOnce = [&] {
            if (aborts++ == 0)
                QCOMPARE(engine->abort(0x08000020), CAN::Ok);
        };
        if (auto* s = qobject_cast<SDOSegmentedClient*>(engine))
            connect(s, &SDOSegmentedClient::progress, &context, abortOnce);
        else
            connect(static_cast<SDOBlockClient*>(engine), &SDOBlockClient::progress, &context, abortOnce);
        QCOMPARE(engines->start(Op(op), 0x2002, 0, CAN::DOMAIN, randomBytes(65536, 6)), CAN::Ok);
        QVERIFY(spies.wait(1));
        QCOMPARE(spies.errors.count(), 1);
        QCOMPARE(spies.errors.at(0).at(0).toUInt(), 0x2002u);
        QCOMPARE(spies.errors.at(0).at(2).toUInt(), 0x08000020u);
        QVERIFY(!engine->isBusy());
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
        cosim.start(QStringLiteral(COSIM_PATH),
                    {QStringLiteral("--node"), QString::number(CosimNode), QStringLiteral("--port"),
                     QString::number(masterBus->busPort()), QStringLiteral("--heartbeat"), QStringLiteral("0"),
                     QStringLiteral("--no-console")});
        QVERIFY(cosim.waitForStarted(10000));
        Engines remote(CosimNode, scheduler);
        QVERIFY(remote.setTimeout(200));
        Spies exp(&remote.expedited);
        // Asked until the process is up.
        for (int i = 0; i < 100 && exp.results.isEmpty(); ++i) {
            QCOMPARE(remote.expedited.read(0x1018, 4, CAN::UNSIGNED32), CAN::Ok);
            QVERIFY(exp.wait(i + 1));
        }
        QVERIFY(!exp.results.isEmpty());
        QCOMPARE(exp.results.last().at(2), QVariant(uint(0x5D000000u | CosimNode)));
        QVERIFY(remote.setTimeout(SDOExpeditedClient::DefaultTimeoutMs));
        exp.results.clear();
        exp.errors.clear(); // the time-outs while the process started

        // 64 KiB both ways, in blocks and in segments.
        const QByteArray value = randomBytes(65536, 9);
        Spies blk(&remote.block);
        QCOMPARE(remote.block.write(0x2002, 0, value), CAN::Ok);
        QVERIFY(blk.wait(1));
        QCOMPARE(blk.errors.count(), 0);
        Spies seg(&remote.segmented);
        QCOMPARE(remote.segmented.read(0x2002, 0), CAN::Ok);
        QVERIFY(seg.wait(1));
        QCOMPARE(seg.errors.count(), 0);
        QVERIFY(seg.results.at(0).at(2).toByteArray() == value);
        QByteArray reversed = value;
        std::reverse(reversed.begin(), reversed.end());
        QCOMPARE(remote.segmented.write(0x2002, 0, reversed), CAN::Ok);
        QVERIFY(seg.wait(2));
        QCOMPARE(seg.errors.count(), 0);
        QCOMPARE(remote.block.read(0x2002, 0), CAN::Ok);
        QVERIFY(blk.wait(2));
        QCOMPARE(blk.errors.count(), 0);
        QVERIFY(blk.results.at(1).at(2).toByteArray() == reversed);
        // A server abort from the process.
        QCOMPARE(remote.expedited.write(0x2003, 0, CAN::UNSIGNED32, 1), CAN::Ok);
        QVERIFY(exp.wait(1));
        QCOMPARE(exp.errors.count(), 1);
        QCOMPARE(exp.errors.at(0).at(2).toUInt(), 0x06010002u);

        // The process dies in mid-upload: the time-out ends the transfer.
        QVERIFY(remote.setTimeout(300));
        connect(&remote.segmented, &SDOSegmentedClient::progress, this, [&cosim](quint8 percent) {
            if (percent >= 5 && cosim.state() == QProcess::Running)
                cosim.kill();
        });
        QCOMPARE(remote.segmented.read(0x2002, 0), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(cosim.state(), QProcess::NotRunning, Outcome);
        QVERIFY(seg.wait(3));
        QCOMPARE(seg.errors.count(), 1);
        QCOMPARE(seg.errors.at(0).at(2).toUInt(), Timeout);
        QVERIFY(!remote.segmented.isBusy());
        // Nobody answers any more, yet every engine takes the next request.
        QCOMPARE(remote.block.read(0x2002, 0), CAN::Ok);
        QVERIFY(blk.wait(3));
        QCOMPARE(blk.errors.at(0).at(2).toUInt(), Timeout);
        QVERIFY(!remote.block.isBusy());
    }
};

QTEST_GUILESS_MAIN(tst_SDOEndToEnd)
#include "tst_sdoendtoend.moc"
