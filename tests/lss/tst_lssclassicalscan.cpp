#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "lssclassicalscan.h"
#include "recordingcanadapter.h"
#include "simlssslave.h"

#include <QSignalSpy>
#include <QtTest>

using Identity = SimLssSlave::Identity;
using Range = LSSClassicalScan::Range;
Q_DECLARE_METATYPE(QList<Identity>)

namespace {
Identity id(quint32 r, quint32 s)
{
    Identity i;
    i.vendorId = 0xABC;
    i.productCode = 0xC051;
    i.revisionNumber = r;
    i.serialNumber = s;
    return i;
}

// Runs a classical scan query by query against simulated slaves, ending each
// query by hand instead of by the timer; returns the reports of nodeFound.
QList<QVariantList> runScan(LSSClassicalScan& scan, RecordingCanAdapter& adapter, QList<SimLssSlave>& slaves,
                            int* queries)
{
    QSignalSpy found(&scan, &LSSClassicalScan::nodeFound);
    scan.setTimeout(60000);
    scan.sendNextMessage();
    int seen = 0;
    *queries = 0;
    while (scan.isRunning() && *queries < 10000) {
        if (adapter.writtenCount() != seen + 6)
            break;
        ++*queries;
        bool answered = false;
        for (; seen < adapter.writtenCount(); ++seen) {
            for (SimLssSlave& s : slaves)
                answered = !s.handle(adapter.writtenAt(seen)).isEmpty() || answered;
        }
        if (answered) // several slaves answering: the engine counts the first
            scan.handleCanMessage(makeRxFrame(0x7E4, {0x4F, 0, 0, 0, 0, 0, 0, 0}));
        scan.timeout();
        QCoreApplication::processEvents(); // the next query is scheduled, not sent at once
    }
    QList<QVariantList> reports;
    for (const QVariantList& args : found)
        reports << args;
    return reports;
}

QVariantList report(const Identity& i)
{
    return {i.vendorId, i.productCode, i.revisionNumber, i.serialNumber};
}
} // namespace

class tst_LSSClassicalScan : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void queryFramesAndSplits()
    {
        const QVector<CAN::CanMessage> f = LSSClassicalScan::queryFrames(0xABC, 0xC051, Range{1, 2, 3, 0xFFFFFFFF});
        QCOMPARE(f.size(), 6);
        QCOMPARE(frameHex(f[0]), QByteArray("7e5:46bc0a0000000000"));
        QCOMPARE(frameHex(f[5]), QByteArray("7e5:4bffffffff000000"));
        // An even difference gives halves that share a value.
        const QVector<Range> halves = LSSClassicalScan::split(Range{0, 2, 5, 5});
        QCOMPARE(halves.size(), 2);
        QCOMPARE(halves[0].revisionHigh, 1u);
        QCOMPARE(halves[1].revisionLow, 1u);
        QCOMPARE(LSSClassicalScan::split(Range{7, 7, 0, 1})[1].serialLow, 1u);
    }

    // Every slave in the range is reported, then the end mark; a slave on a
    // value shared by two halves is reported twice.
    void scan_data()
    {
        QTest::addColumn<QList<Identity>>("slaves");
        QTest::addColumn<QVector<quint32>>("range"); // empty: the full range
        QTest::addColumn<QList<int>>("reported");    // slave indices, in report order
        QTest::addColumn<int>("queries");            // -1: not checked
        QTest::newRow("no slave: one query") << QList<Identity>{} << QVector<quint32>{} << QList<int>{} << 1;
        QTest::newRow("one slave, full range: 32 + 32 splits")
            << QList<Identity>{id(0x00010000, 0x5D000005)} << QVector<quint32>{} << QList<int>{0} << 1 + 2 * 64;
        QTest::newRow("two slaves and one outside the range")
            << QList<Identity>{id(3, 10), id(1, 12), id(9, 10)} << QVector<quint32>{0, 3, 8, 15} << QList<int>{1, 0}
            << -1;
        QTest::newRow("single identity, present") << QList<Identity>{id(4, 4)} << QVector<quint32>{4, 4, 4, 4}
                                                  << QList<int>{0} << 1;
        QTest::newRow("single identity, absent") << QList<Identity>{id(4, 5)} << QVector<quint32>{4, 4, 4, 4}
                                                 << QList<int>{} << 1;
        QTest::newRow("overlapping halves: twice") << QList<Identity>{id(1, 0)} << QVector<quint32>{0, 2, 0, 0}
                                                   << QList<int>{0, 0} << -1;
    }
    void scan()
    {
        QFETCH(QList<Identity>, slaves);
        QFETCH(QVector<quint32>, range);
        QFETCH(QList<int>, reported);
        QFETCH(int, queries);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        QList<SimLssSlave> sims;
        for (const Identity& i : slaves)
            sims.append(SimLssSlave(i, 5));
        LSSClassicalScan scan(0xABC, 0xC051, &scheduler);
        if (!range.isEmpty())
            scan.setRange(0xABC, 0xC051, range[0], range[1], range[2], range[3]);
        QSignalSpy progress(&scan, &LSSClassicalScan::scanProgress);
        int done = 0;
        const QList<QVariantList> reports = runScan(scan, adapter, sims, &done);
        QList<QVariantList> expected;
        for (int i : reported)
            expected << report(slaves[i]);
        expected << QVariantList{0xFFFFFFFFu, 0u, 0u, 0u}; // the end mark
        QCOMPARE(reports, expected);
        if (queries >= 0)
            QCOMPARE(done, queries);
        for (const QVariantList& p : progress)
            QCOMPARE(p.at(0).toInt(), 0); // never advanced
    }

    void endMarkAndAbort()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        // Vendor-ID and product code 0xFFFFFFFF end the scan before any frame.
        LSSClassicalScan marked(0xFFFFFFFF, 0xFFFFFFFF, &scheduler);
        QSignalSpy found(&marked, &LSSClassicalScan::nodeFound);
        marked.sendNextMessage();
        QCOMPARE(adapter.writtenCount(), 0);
        QCOMPARE(found.count(), 1);
        // An abort ends a running scan with noResponseTimeout(0), and nothing more is sent.
        LSSClassicalScan scan(1, 2, &scheduler);
        QSignalSpy failed(&scan, &LSSClassicalScan::noResponseTimeout);
        scan.setTimeout(5);
        scan.sendNextMessage();
        scan.abort();
        QTest::qWait(30);
        QCOMPARE(failed.count(), 1);
        QCOMPARE(adapter.writtenCount(), 6);
        // A failed write ends the scan the same way.
        adapter.failWrites(CAN::Error);
        LSSClassicalScan refused(1, 2, &scheduler);
        QSignalSpy refusedFailed(&refused, &LSSClassicalScan::noResponseTimeout);
        refused.sendNextMessage();
        QCOMPARE(refusedFailed.count(), 1);
        QVERIFY(!refused.isRunning());
    }
};

QTEST_MAIN(tst_LSSClassicalScan)
#include "tst_lssclassicalscan.moc"
