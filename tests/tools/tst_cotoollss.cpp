// End to end: cotool lss against unconfigured simulated devices (cosim) on a
// private virtual bus, with the frames checked on the test's own adapter.
#include "recordingcanadapter.h"
#include "toolprocess.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);
const QString kA = QStringLiteral("0xabc:0xc051:0x10000:0x5d000101");
const QString kB = QStringLiteral("0xabc:0xc051:0x10000:0x5d000077"); // lower: found first
} // namespace

class tst_CotoolLss : public QObject
{
    Q_OBJECT
private:
    std::unique_ptr<ToolProcess> startDevices(const QStringList& args)
    {
        auto p = std::make_unique<ToolProcess>(kCosim, QStringList{"--quiet", "--no-console", "--heartbeat", "100"} + args);
        if (!p->waitUntilBound(mBus->port))
            qWarning("cosim did not start: %s", qPrintable(p->err()));
        return p;
    }
    ToolProcess::Result lss(const QStringList& args) { return ToolProcess::run(kCotool, QStringList{"lss"} + args); }

private Q_SLOTS:
    void initTestCase()
    {
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
    }
    void init() { mBus->frames.clear(); }

    // Two unconfigured devices: found one after the other, given 10 and 11,
    // stored; they boot; nothing unconfigured is left; a classical scan finds
    // both; restarted, they come back with their stored node-IDs.
    void scanConfiguresAndStores()
    {
        QTemporaryDir dir;
        const QString store = dir.filePath("lss.store");
        auto devices = startDevices({"--identity", kA + "," + kB, "--lss-store", store});
        QTest::qWait(50);
        QVERIFY2(mBus->frames.count() == 0, qPrintable(FrameCollector::describe(mBus->frames.frames().value(0).message))); // silent while unconfigured
        const ToolProcess::Result r = lss({"scan", "--start", "10", "--step", "10"});
        QCOMPARE(r.exitCode, 0);
        const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 3);
        QCOMPARE(lines[0], "found vendor 0x00000abc product 0x0000c051 revision 0x00010000 serial 0x5d000077: node-ID 10, stored");
        QCOMPARE(lines[1], "found vendor 0x00000abc product 0x0000c051 revision 0x00010000 serial 0x5d000101: node-ID 11, stored");
        QVERIFY(lines[2].startsWith("2 devices configured"));
        QVERIFY(!r.err.contains('\r')); // no progress line when not on a terminal
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x70A) && mBus->frames.find(0x70B), 3000);
        QCOMPARE(lss({"identify"}).out, "0 unconfigured devices answered\n");

        const ToolProcess::Result c = lss({"classical", "0xabc", "0xc051", "0x10000", "0x10000", "0x5d000000", "0x5d0001ff", "--timeout", "20"});
        QCOMPARE(c.exitCode, 0);
        QVERIFY2(c.out.contains("serial 0x5d000077\n") && c.out.contains("serial 0x5d000101\n"), qPrintable(c.out));
        QVERIFY(c.out.contains("classical scan done: 2 found"));

        devices.reset();
        mBus->frames.clear();
        devices = startDevices({"--identity", kA + "," + kB, "--lss-store", store});
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x70A) && mBus->frames.find(0x70B), 3000);
    }

    // One configured device: selected by its identity, asked for its
    // node-ID, given another one, which it takes when it leaves configuration mode.
    void selectInquireAndRenumber()
    {
        auto device = startDevices({"--node", "7", "--identity", kA});
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x707), 3000);
        QCOMPARE(lss({"switch", "selective", "0xabc", "0xc051", "0x10000", "0x5d000101"}).exitCode, 0);
        QCOMPARE(lss({"inquire"}).out, "node-ID 7\n");
        QCOMPARE(lss({"bitrate", "4", "--activate", "20"}).exitCode, 0);
        QCOMPARE(lss({"bitrate", "1"}).exitCode, 1); // 800 kbit/s: not offered by the device
        QCOMPARE(lss({"set-node", "20"}).exitCode, 0);
        mBus->frames.clear();
        QCOMPARE(lss({"switch", "global", "waiting"}).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x714), 3000);
        QCOMPARE(lss({"inquire", "--timeout", "50"}).exitCode, 1); // nobody in configuration mode
    }

    void badArguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("no action") << QStringList{};
        QTest::newRow("unknown action") << QStringList{"frob"};
        QTest::newRow("node-ID 128") << QStringList{"set-node", "128"};
        QTest::newRow("classical, one number") << QStringList{"classical", "1"};
        QTest::newRow("switch global maybe") << QStringList{"switch", "global", "maybe"};
        QTest::newRow("step 0") << QStringList{"scan", "--step", "0"};
    }
    void badArguments()
    {
        QFETCH(QStringList, args);
        const ToolProcess::Result r = lss(args);
        QCOMPARE(r.exitCode, 2);
        QVERIFY(!r.err.isEmpty());
    }

private:
    std::unique_ptr<WatchedBus> mBus;
};

QTEST_MAIN(tst_CotoolLss)
#include "tst_cotoollss.moc"
