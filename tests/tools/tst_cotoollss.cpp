// End to end: cotool lss against unconfigured simulated devices (cosim) on a
// private virtual bus, with the frames checked on the test's own adapter.
#include "recordingcanadapter.h"
#include "toolprocess.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);
const QString kA = QStringLiteral("0xabc:0xc051:0x10000:0x5d000101");
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

    // Two unconfigured devices of random identities (one vendor and product,
    // revisions and serial numbers of their own; the seed is printed, and
    // LSS_TEST_SEED repeats a run): found in the order of their identities,
    // given 10 and 11, stored; they boot; nothing unconfigured is left; a
    // classical scan finds each; restarted, they keep their node-IDs.
    void scanConfiguresAndStores()
    {
        const quint32 seed = qEnvironmentVariableIsSet("LSS_TEST_SEED") ? quint32(qEnvironmentVariableIntValue("LSS_TEST_SEED"))
                                                                         : QRandomGenerator::global()->generate();
        qInfo("identity seed %u", seed);
        QRandomGenerator random(seed);
        const quint32 vendor = random.generate(), product = random.generate();
        QList<QPair<quint32, quint32>> ids; // revision, serial
        while (ids.size() < 2) {
            const QPair<quint32, quint32> id(random.generate(), random.generate());
            if (!ids.contains(id))
                ids << id;
        }
        const auto hex = [](quint32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); };
        QStringList identities;
        for (const auto& id : ids)
            identities << QStringList{hex(vendor), hex(product), hex(id.first), hex(id.second)}.join(':');
        std::sort(ids.begin(), ids.end());

        QTemporaryDir dir;
        const QString store = dir.filePath("lss.store");
        auto devices = startDevices({"--identity", identities.join(','), "--lss-store", store});
        QTest::qWait(50);
        QCOMPARE(mBus->frames.count(), 0); // silent while unconfigured
        const ToolProcess::Result r = lss({"scan", "--start", "10", "--step", "10"});
        QVERIFY2(r.exitCode == 0, qPrintable(r.err));
        const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 3);
        for (int i = 0; i < 2; ++i)
            QCOMPARE(lines[i], QStringLiteral("found vendor %1 product %2 revision %3 serial %4: node-ID %5, stored")
                                   .arg(hex(vendor), hex(product), hex(ids[i].first), hex(ids[i].second)).arg(10 + i));
        QVERIFY(lines[2].startsWith("2 devices configured"));
        QVERIFY(!r.err.contains('\r')); // no progress line when not on a terminal
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x70A) && mBus->frames.find(0x70B), 3000);
        QCOMPARE(lss({"identify"}).out, "0 unconfigured devices answered\n");

        // A classical scan of each one's identity: one query, answered.
        for (const auto& id : ids) {
            const ToolProcess::Result c = lss({"classical", hex(vendor), hex(product), hex(id.first), hex(id.first),
                                               hex(id.second), hex(id.second), "--timeout", "200"});
            QCOMPARE(c.exitCode, 0);
            QVERIFY2(c.out.contains(QStringLiteral("serial %1\n").arg(hex(id.second))), qPrintable(c.out));
            QVERIFY(c.out.contains("classical scan done: 1 found"));
        }

        devices.reset();
        mBus->frames.clear();
        devices = startDevices({"--identity", identities.join(','), "--lss-store", store});
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
