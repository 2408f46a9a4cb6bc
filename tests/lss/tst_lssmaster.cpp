#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "lsscia305service.h"
#include "lsscia309service.h"
#include "lssmaster.h"
#include "recordingcanadapter.h"

#include <QSignalSpy>
#include <QtTest>

using M = LSSMaster;

class tst_LSSMaster : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void withoutSchedulerNothingIsSupported()
    {
        LSSMaster master;
        QSignalSpy results(&master, &LSSMaster::lssResult);
        quint32 v = 7;
        const QList<CAN::RetType> codes{
            master.switchModeGlobal(M::LssConfigurationState), master.storeConfiguration(), master.configureNodeId(3),
            master.identifyNonConfigSlaves(), master.switchModeSelective(1, 2, 3, 4), master.fastScan(0, 0, 0, 0),
            master.classicalScan(1, 2), master.classicalScan(1, 2, 0, 1, 0, 1), master.abortClassicalScan(),
            master.getFastScanValues(&v, nullptr, nullptr, nullptr), master.activateBitTiming(1),
            master.inquireNodeId(), master.configureBitTiming(0, 1)};
        for (CAN::RetType c : codes)
            QCOMPARE(c, CAN::Error);
        QCOMPARE(v, 7u);
        QCOMPARE(results.count(), 0);
    }

    // The service follows the adapter; its time-out is 1234 ms whatever was
    // set before, the message gap is kept; results are relayed unchanged.
    void serviceByAdapter_data()
    {
        QTest::addColumn<bool>("gateway");
        QTest::newRow("CAN") << false;
        QTest::newRow("gateway") << true;
    }
    void serviceByAdapter()
    {
        QFETCH(bool, gateway);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, gateway);
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        LSSMaster master;
        master.setTimeout(50);
        master.setMessageGap(9);
        master.setCanScheduler(&scheduler);
        QVERIFY(gateway ? qobject_cast<LSSCiA309Service*>(master.service()) != nullptr
                        : qobject_cast<LSSCiA305Service*>(master.service()) != nullptr);
        QCOMPARE(master.service()->getTimeout(), quint16(1234));
        QCOMPARE(master.service()->getScanTimeout(), quint16(1234));
        QCOMPARE(master.service()->getMessageGap(), quint16(9));
        QSignalSpy results(&master, &LSSMaster::lssResult);
        QCOMPARE(master.switchModeGlobal(M::LssWaitingState), gateway ? CAN::Error : CAN::Ok); // no gateway answer
        if (gateway) {
            QCOMPARE(adapter.requests(), QStringList{"lss_switch_glob 0"});
            return;
        }
        QCOMPARE(master.inquireNodeId(), CAN::Ok);
        adapter.injectHex(0x7E4, "5e 0c 00 00 00 00 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(results.count(), 1, 2000);
        QCOMPARE(results.at(0).at(0).value<M::LssAction>(), M::LssInquireNodeId);
        QCOMPARE(results.at(0).at(1).value<M::LssResult>(), M::LssSuccess);
        QCOMPARE(results.at(0).at(2).toInt(), 12);
        // A second scheduler replaces the service; the old one's answers no longer count.
        master.setCanScheduler(&scheduler);
        QCOMPARE(master.inquireNodeId(), CAN::Ok);
        adapter.injectHex(0x7E4, "5e 0d 00 00 00 00 00 00");
        QTRY_COMPARE_WITH_TIMEOUT(results.count(), 2, 2000);
        QTest::qWait(20);
        QCOMPARE(results.count(), 2);
    }
};

QTEST_MAIN(tst_LSSMaster)
#include "tst_lssmaster.moc"
