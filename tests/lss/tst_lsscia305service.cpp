#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "lsscia305service.h"
#include "recordingcanadapter.h"

#include <QSignalSpy>
#include <QtTest>
#include <functional>

using M = LSSMaster;
using Request = std::function<CAN::RetType(LSSCiA305Service&)>;
Q_DECLARE_METATYPE(Request)

namespace {
struct Fixture {
    Fixture()
    {
        scheduler.connectToAdapter(true);
        service.setCanScheduler(&scheduler);
        service.setTimeout(40);
        service.setMessageGap(1);
    }
    // The reports as (action, result, value) lists.
    QList<QVariantList> reports() const
    {
        QList<QVariantList> out;
        for (const QVariantList& r : results)
            out << QVariantList{int(r[0].value<M::LssAction>()), int(r[1].value<M::LssResult>()), r[2]};
        return out;
    }
    RecordingCanAdapter adapter;
    CanScheduler scheduler{&adapter};
    LSSCiA305Service service;
    QSignalSpy results{&service, &LSSService::lssResult};
};
} // namespace

class tst_LSSCiA305Service : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void cleanup() { CANopenService::activateCANopenFD(false); }

    // Each request's frame (classic and with CANopen FD on), then the
    // answer or its absence, and the report that follows.
    void requests_data()
    {
        QTest::addColumn<Request>("request");
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QByteArray>("fdFrame");
        QTest::addColumn<QByteArray>("answer"); // empty: none
        QTest::addColumn<QVariantList>("report"); // empty: none
        const auto r = [](Request f) { return f; };
        QTest::newRow("switch global, 7 means configuration")
            << r([](LSSCiA305Service& s) { return s.switchModeGlobal(M::LssGlobalState(7)); })
            << QByteArray("7e5:0401000000000000") << QByteArray("7e5:0401") << QByteArray() << QVariantList{};
        QTest::newRow("configure node-ID 10, confirmed")
            << r([](LSSCiA305Service& s) { return s.configureNodeId(10); }) << QByteArray("7e5:110a000000000000")
            << QByteArray("7e5:110a") << QByteArray("11 00 00 00 00 00 00 00")
            << QVariantList{M::LssConfigureNodeId, M::LssSuccess, 0};
        QTest::newRow("configure node-ID, slave error 1")
            << r([](LSSCiA305Service& s) { return s.configureNodeId(200); }) << QByteArray("7e5:11c8000000000000")
            << QByteArray("7e5:11c8") << QByteArray("11 01 07 00 00 00 00 00")
            << QVariantList{M::LssConfigureNodeId, M::LssError, 1};
        QTest::newRow("configure bit timing, 8 bytes also with FD")
            << r([](LSSCiA305Service& s) { return s.configureBitTiming(0, 4); }) << QByteArray("7e5:1300040000000000")
            << QByteArray("7e5:1300040000000000") << QByteArray("13 00 00 00 00 00 00 00")
            << QVariantList{M::LssConfigureBitTiming, M::LssSuccess, 0};
        QTest::newRow("activate bit timing ends by time-out")
            << r([](LSSCiA305Service& s) { return s.activateBitTiming(0x1234); })
            << QByteArray("7e5:1534120000000000") << QByteArray("7e5:153412") << QByteArray()
            << QVariantList{M::LssActivateBitTiming, M::LssTimeout, 0};
        QTest::newRow("store, confirmed")
            << r([](LSSCiA305Service& s) { return s.storeConfiguration(); }) << QByteArray("7e5:1700000000000000")
            << QByteArray("7e5:17") << QByteArray("17 00 00 00 00 00 00 00")
            << QVariantList{M::LssStoreConfiguration, M::LssSuccess, 0};
        QTest::newRow("store, short answer ignored: time-out")
            << r([](LSSCiA305Service& s) { return s.storeConfiguration(); }) << QByteArray("7e5:1700000000000000")
            << QByteArray("7e5:17") << QByteArray("17 00 00")
            << QVariantList{M::LssStoreConfiguration, M::LssTimeout, 0};
        QTest::newRow("inquire node-ID")
            << r([](LSSCiA305Service& s) { return s.inquireNodeId(); }) << QByteArray("7e5:5e00000000000000")
            << QByteArray("7e5:5e") << QByteArray("5e 0b 00 00 00 00 00 00")
            << QVariantList{M::LssInquireNodeId, M::LssSuccess, 11};
        QTest::newRow("inquire node-ID, other answer ignored")
            << r([](LSSCiA305Service& s) { return s.inquireNodeId(); }) << QByteArray("7e5:5e00000000000000")
            << QByteArray("7e5:5e") << QByteArray("11 00 00 00 00 00 00 00")
            << QVariantList{M::LssInquireNodeId, M::LssTimeout, 0};
        QTest::newRow("identify non-configured, each answer reported")
            << r([](LSSCiA305Service& s) { return s.identifyNonConfigSlaves(); }) << QByteArray("7e5:4c00000000000000")
            << QByteArray("7e5:4c") << QByteArray("50 00 00 00 00 00 00 00")
            << QVariantList{M::LssIdentifyNonConfigSlaves, M::LssSuccess, 0};
    }
    void requests()
    {
        QFETCH(Request, request);
        QFETCH(QByteArray, frame);
        QFETCH(QByteArray, fdFrame);
        QFETCH(QByteArray, answer);
        QFETCH(QVariantList, report);
        for (bool fd : {false, true}) {
            CANopenService::activateCANopenFD(fd);
            Fixture f;
            QCOMPARE(request(f.service), CAN::Ok);
            QCOMPARE(f.adapter.writtenHex(), QList<QByteArray>{fd ? fdFrame : frame});
            QCOMPARE(f.adapter.lastWritten().fd, false);
            if (!answer.isEmpty()) {
                f.adapter.injectHex(0x7E4, answer.constData());
                if (answer.startsWith("50")) // several slaves: one report each
                    f.adapter.injectHex(0x7E4, answer.constData());
            }
            if (report.isEmpty()) {
                QTest::qWait(60);
                QCOMPARE(f.results.count(), 0);
                QCOMPARE(f.service.getCurrentAction(), 0u); // unconfirmed: idle at once
                continue;
            }
            QTRY_VERIFY_WITH_TIMEOUT(!f.results.isEmpty(), 2000);
            QCOMPARE(f.reports().first(), report);
            if (report[0] == M::LssIdentifyNonConfigSlaves)
                QCOMPARE(f.results.count(), 2);
            QCOMPARE(f.service.getCurrentAction(), 0u);
            QTest::qWait(60); // nothing more: no late time-out
            QCOMPARE(f.results.count(), report[0] == M::LssIdentifyNonConfigSlaves ? 2 : 1);
        }
    }

    void busyAndRefusedWrites()
    {
        Fixture f;
        QCOMPARE(f.service.inquireNodeId(), CAN::Ok);
        QCOMPARE(f.service.configureNodeId(3), CAN::Busy);
        QCOMPARE(f.service.switchModeGlobal(M::LssWaitingState), CAN::Busy);
        QCOMPARE(f.adapter.writtenCount(), 1);
        f.adapter.injectHex(0x7E4, "5e 07 00 00 00 00 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(f.results.count(), 1, 2000);
        // A refused write: its code, idle again, no report.
        f.adapter.failWrites(CAN::TxQueueFull);
        QCOMPARE(f.service.storeConfiguration(), CAN::TxQueueFull);
        QCOMPARE(f.service.getCurrentAction(), 0u);
        QTest::qWait(60);
        QCOMPARE(f.results.count(), 1);
    }

    void switchSelective()
    {
        CANopenService::activateCANopenFD(true); // still four 8-byte frames
        Fixture f;
        QCOMPARE(f.service.switchModeSelective(0xABC, 0xC051, 0x10000, 0x5D000005), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(f.adapter.writtenCount(), 4, 2000);
        QCOMPARE(f.adapter.writtenHex(), (QList<QByteArray>{"7e5:40bc0a0000000000", "7e5:4151c00000000000",
                                                            "7e5:4200000100000000", "7e5:430500005d000000"}));
        f.adapter.injectHex(0x7E4, "44 00 00 00 00 00 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(f.results.count(), 1, 2000);
        QCOMPARE(f.reports().first(), (QVariantList{M::LssSwitchModeSelective, M::LssSuccess, 0}));
        // A later frame that cannot be sent ends the sequence with an error report.
        QCOMPARE(f.service.switchModeSelective(1, 2, 3, 4), CAN::Ok);
        f.adapter.failWrites(CAN::Error);
        QTRY_COMPARE_WITH_TIMEOUT(f.results.count(), 2, 2000);
        QCOMPARE(f.reports().last(), (QVariantList{M::LssSwitchModeSelective, M::LssError, 0}));
        // Without an adapter the service stays busy for good.
        LSSCiA305Service alone;
        QCOMPARE(alone.switchModeSelective(1, 2, 3, 4), CAN::Error);
        QCOMPARE(alone.inquireNodeId(), CAN::Busy);
    }

    // Scans hosted by the service: results, time-out information, abort.
    void scans()
    {
        Fixture f;
        f.service.setTimeout(5);
        QCOMPARE(f.service.fastScan(0, 0, 0, 0, false), CAN::Ok);
        QCOMPARE(f.service.classicalScan(1, 2), CAN::Busy);
        QTRY_COMPARE_WITH_TIMEOUT(f.results.count(), 1, 2000); // nobody answers
        QCOMPARE(f.reports().first(), (QVariantList{M::LssFastScan, M::LssTimeout, 0}));
        quint32 vendor = 1, serial = 1;
        QCOMPARE(f.service.getFastScanValues(&vendor, nullptr, nullptr, &serial), CAN::Ok);
        QCOMPARE(vendor, 0u);

        f.service.setTimeout(1000);
        QCOMPARE(f.service.abortClassicalScan(), CAN::Busy); // no classical scan yet
        QCOMPARE(f.service.classicalScan(0xABC, 0xC051, 5, 5, 9, 9), CAN::Ok);
        f.adapter.injectHex(0x7E4, "4f 00 00 00 00 00 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(f.results.count(), 2, 3000);
        QCOMPARE(f.reports().at(1), (QVariantList{M::LssClassicalScan, M::LssSuccess,
                                                  QStringList{"2748", "49233", "5", "9"}}));
        QCOMPARE(f.service.getCurrentAction(), quint32(M::LssClassicalScan)); // until the end mark
        QCOMPARE(f.service.abortClassicalScan(), CAN::Ok);
        QCOMPARE(f.reports().last(), (QVariantList{M::LssClassicalScan, M::LssTimeout, 0}));
        QCOMPARE(f.service.getCurrentAction(), 0u);
    }
};

QTEST_MAIN(tst_LSSCiA305Service)
#include "tst_lsscia305service.moc"
