#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "lssfastscan.h"
#include "recordingcanadapter.h"
#include "simlssslave.h"

#include <QSignalSpy>
#include <QRandomGenerator>
#include <QtTest>
#include <tuple>

using Identity = SimLssSlave::Identity;
Q_DECLARE_METATYPE(QList<Identity>)

namespace {
// Runs a fast scan step by step against simulated slaves: each request goes
// to every slave; an answered step is evaluated after one timer period, an
// unanswered one after four (the engine's timer is driven by hand).
struct ScanBench {
    RecordingCanAdapter adapter;
    CanScheduler scheduler{&adapter};
    QList<SimLssSlave> slaves;
    int requests = 0;

    // Drives the engine until it ends or `limit` requests went out; true if it ended.
    bool run(LSSFastScan& scan, QSignalSpy& found, QSignalSpy& failed, int limit = 1000)
    {
        scan.setScanTimeout(60000); // only the hand-driven periods count
        scan.sendNextMessage();
        while (found.isEmpty() && failed.isEmpty() && requests < limit) {
            if (adapter.writtenCount() != requests + 1)
                return false; // no request and no end
            const CAN::CanMessage request = adapter.writtenAt(requests++);
            bool answered = false;
            for (SimLssSlave& s : slaves)
                answered = !s.handle(request).isEmpty() || answered;
            if (answered)
                scan.handleCanMessage(makeRxFrame(0x7E4, {0x4F, 0, 0, 0, 0, 0, 0, 0}));
            for (int period = 0; period < (answered ? 1 : 4); ++period) {
                if (adapter.writtenCount() != requests)
                    return false; // a request before its step was evaluated
                scan.timeout();
            }
        }
        return !found.isEmpty() || !failed.isEmpty();
    }
};

Identity id(quint32 v, quint32 p, quint32 r, quint32 s)
{
    Identity i;
    i.vendorId = v;
    i.productCode = p;
    i.revisionNumber = r;
    i.serialNumber = s;
    return i;
}
} // namespace

class tst_LSSFastScan : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void requestFrameLayout()
    {
        QCOMPARE(frameHex(LSSFastScan::requestFrame(0x12345678, 31, 2, 3)), QByteArray("7e5:51785634121f0203"));
    }

    // Search mode: the found identity, the request count (opening request,
    // then 32 bit requests and one confirmation per part) or the failure.
    void search_data()
    {
        QTest::addColumn<QList<Identity>>("slaves");
        QTest::addColumn<int>("found");    // index of the slave found, -1: none
        QTest::addColumn<int>("requests"); // -1: not checked
        const Identity a = id(0xABC, 0xC051, 0x00010000, 0x5D000005);
        QTest::newRow("empty bus: the opening request once") << QList<Identity>{} << -1 << 1;
        QTest::newRow("one slave") << QList<Identity>{a} << 0 << 1 + 4 * 33;
        QTest::newRow("all ones") << QList<Identity>{id(~0u, ~0u, ~0u, ~0u)} << 0 << 1 + 4 * 33;
        QTest::newRow("three slaves: the lowest identity")
            << QList<Identity>{id(0xABC, 0xC051, 1, 9), id(0xABC, 0xC051, 1, 7), id(0xABD, 0, 0, 0)} << 1 << -1;
        // Random identities (the seed is printed; LSS_TEST_SEED repeats a run).
        const quint32 seed = qEnvironmentVariableIsSet("LSS_TEST_SEED") ? quint32(qEnvironmentVariableIntValue("LSS_TEST_SEED"))
                                                                         : QRandomGenerator::global()->generate();
        qInfo("identity seed %u", seed);
        QRandomGenerator random(seed);
        QList<Identity> randomSlaves;
        int lowest = 0;
        for (int i = 0; i < 6; ++i) {
            // Shared leading parts now and then, so that the search must go deep.
            const quint32 vendor = i % 2 ? randomSlaves.value(0).vendorId : random.generate();
            randomSlaves << id(vendor, random.generate() & (i % 3 ? 0xFF : ~0u), random.generate(), random.generate());
            const auto key = [](const Identity& x) {
                return std::make_tuple(x.vendorId, x.productCode, x.revisionNumber, x.serialNumber);
            };
            if (key(randomSlaves.last()) < key(randomSlaves[lowest]))
                lowest = i;
        }
        QTest::newRow("six random slaves: the lowest identity") << randomSlaves << lowest << 1 + 4 * 33;
    }
    void search()
    {
        QFETCH(QList<Identity>, slaves);
        QFETCH(int, found);
        QFETCH(int, requests);
        ScanBench bench;
        for (const Identity& i : slaves)
            bench.slaves.append(SimLssSlave(i, SimLssSlave::Unconfigured));
        LSSFastScan scan(0, 0, 0, 0, &bench.scheduler);
        QSignalSpy foundSpy(&scan, &LSSFastScan::nodeFound);
        QSignalSpy failedSpy(&scan, &LSSFastScan::noResponseTimeout);
        QVERIFY(bench.run(scan, foundSpy, failedSpy));
        if (requests >= 0)
            QCOMPARE(bench.requests, requests);
        if (found < 0) {
            QCOMPARE(failedSpy.count(), 1);
            QCOMPARE(failedSpy.at(0).at(0).toUInt(), 0u);
            QCOMPARE(foundSpy.count(), 0);
            return;
        }
        const Identity& f = slaves[found];
        QCOMPARE(foundSpy.count(), 1);
        QCOMPARE(foundSpy.at(0), (QVariantList{f.vendorId, f.productCode, f.revisionNumber, f.serialNumber}));
        QCOMPARE(scan.serialNumber(), f.serialNumber);
        // The slave found, and only it, is now in configuration mode.
        for (int i = 0; i < bench.slaves.size(); ++i)
            QCOMPARE(bench.slaves[i].mode() == SimLssSlave::Mode::Configuration, i == found);
    }

    // Confirm-only mode: opening request and one confirmation per part; a
    // wrong part is reported by its number.
    void confirmOnly_data()
    {
        QTest::addColumn<int>("wrongPart"); // -1: all right
        QTest::newRow("right identity") << -1;
        QTest::newRow("wrong product code") << 1;
        QTest::newRow("wrong serial number") << 3;
    }
    void confirmOnly()
    {
        QFETCH(int, wrongPart);
        const Identity real = id(0xABC, 0xC051, 0x00010000, 0x5D000005);
        quint32 given[4] = {real.vendorId, real.productCode, real.revisionNumber, real.serialNumber};
        if (wrongPart >= 0)
            given[wrongPart] ^= 0x100;
        ScanBench bench;
        bench.slaves.append(SimLssSlave(real, SimLssSlave::Unconfigured));
        LSSFastScan scan(given[0], given[1], given[2], given[3], &bench.scheduler);
        scan.setIdentityKnown(true);
        QSignalSpy foundSpy(&scan, &LSSFastScan::nodeFound);
        QSignalSpy failedSpy(&scan, &LSSFastScan::noResponseTimeout);
        QVERIFY(bench.run(scan, foundSpy, failedSpy));
        if (wrongPart < 0) {
            QCOMPARE(bench.requests, 5);
            QCOMPARE(foundSpy.count(), 1);
            QCOMPARE(frameHex(bench.adapter.writtenAt(4)), QByteArray("7e5:510500005d000300"));
        } else {
            QCOMPARE(bench.requests, 2 + wrongPart);
            QCOMPARE(failedSpy.at(0).at(0).toInt(), wrongPart);
        }
    }

    // Start values fix leading bits: a 1 there stays 1 whatever the slaves answer.
    void startValueBitsStay()
    {
        ScanBench bench;
        bench.slaves.append(SimLssSlave(id(0x10, 1, 2, 3), SimLssSlave::Unconfigured));
        LSSFastScan scan(0x80000000, 0, 0, 0, &bench.scheduler);
        QSignalSpy foundSpy(&scan, &LSSFastScan::nodeFound);
        QSignalSpy failedSpy(&scan, &LSSFastScan::noResponseTimeout);
        QVERIFY(bench.run(scan, foundSpy, failedSpy));
        // The vendor search never matches, so its confirmation goes unanswered.
        QCOMPARE(failedSpy.count(), 1);
        QCOMPARE(failedSpy.at(0).at(0).toInt(), 0);
        QCOMPARE(bench.adapter.lastWritten().data[4] & 0x80, 0x80);
    }

    // A real timer: an unanswered opening request ends after four periods.
    void emptyBusWithItsOwnTimer()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        LSSFastScan scan(0, 0, 0, 0, &scheduler);
        scan.setScanTimeout(5);
        QSignalSpy failedSpy(&scan, &LSSFastScan::noResponseTimeout);
        scan.sendNextMessage();
        QTRY_COMPARE_WITH_TIMEOUT(failedSpy.count(), 1, 2000);
        QCOMPARE(adapter.writtenCount(), 1);
        QCOMPARE(frameHex(adapter.lastWritten()), QByteArray("7e5:5100000000800000"));
    }
};

QTEST_MAIN(tst_LSSFastScan)
#include "tst_lssfastscan.moc"
