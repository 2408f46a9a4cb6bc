#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "lsscia309service.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>
#include <functional>

using M = LSSMaster;
using Request = std::function<CAN::RetType(LSSCiA309Service&)>;
Q_DECLARE_METATYPE(Request)

class tst_LSSCiA309Service : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    // Command line, answer (sent while the command waits; "%1" is the
    // request's sequence number) and return code.
    void commands_data()
    {
        QTest::addColumn<Request>("request");
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("answer"); // empty: none
        QTest::addColumn<int>("code");
        const auto r = [](Request f) { return f; };
        QTest::newRow("switch global, OK") << r([](LSSCiA309Service& s) { return s.switchModeGlobal(M::LssGlobalState(3)); })
                                           << "lss_switch_glob 1" << "[%1] OK" << 0;
        QTest::newRow("store, error") << r([](LSSCiA309Service& s) { return s.storeConfiguration(); }) << "lss_store"
                                      << "[%1] ERROR:102" << 5;
        QTest::newRow("set node, lower-case ok") << r([](LSSCiA309Service& s) { return s.configureNodeId(10); })
                                                 << "lss_set_node 10" << "[%1] ok" << 0;
        QTest::newRow("switch selective, hex without zeros")
            << r([](LSSCiA309Service& s) { return s.switchModeSelective(0xABC, 0xC051, 0x10000, 0x5D000005); })
            << "lss_switch_sel 0xabc 0xc051 0x10000 0x5d000005" << "[%1]   OK" << 0;
        QTest::newRow("answer without OK") << r([](LSSCiA309Service& s) { return s.activateBitTiming(200); })
                                           << "lss_activate_bitrate 200" << "[%1] 12" << 5;
        QTest::newRow("another request's answer: time-out")
            << r([](LSSCiA309Service& s) { return s.configureBitTiming(12, 10); }) << "lss_conf_bitrate 0x12 0xa"
            << "[99] OK" << 5;
        QTest::newRow("identity: vendor in decimal, no wait")
            << r([](LSSCiA309Service& s) { return s.classicalScan(2748, 0xC051, 0, 0xFF, 1, 0x10); })
            << "lss_identity 2748 0xc051 0x0 0xff 0x1 0x10" << "" << 0;
        QTest::newRow("inquire node-ID, spelled so") << r([](LSSCiA309Service& s) { return s.inquireNodeId(); })
                                                     << "lss_get_node_node" << "" << 0;
        QTest::newRow("identify non-configured") << r([](LSSCiA309Service& s) { return s.identifyNonConfigSlaves(); })
                                                 << "lss_ident_nonconf" << "" << 0;
        QTest::newRow("fast scan not offered") << r([](LSSCiA309Service& s) { return s.fastScan(0, 0, 0, 0, false); })
                                               << "" << "" << 5;
    }
    void commands()
    {
        QFETCH(Request, request);
        QFETCH(QString, line);
        QFETCH(QString, answer);
        QFETCH(int, code);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        CanScheduler scheduler(&adapter);
        LSSCiA309Service service(&scheduler);
        QSignalSpy results(&service, &LSSService::lssResult);
        qint16 first = -1;
        adapter.sendCiA309Request(QStringLiteral("r 1 0x1000 0 u32"), first); // numbers move on
        adapter.clearWritten();
        if (!answer.isEmpty()) {
            QTimer::singleShot(20, &adapter, [&]() {
                Q_EMIT adapter.newCiA309Response(QStringLiteral("[%1] OK").arg(first)); // an earlier request's
                Q_EMIT adapter.newCiA309Response(answer.arg(first + 1));
            });
        }
        QElapsedTimer t;
        t.start();
        QCOMPARE(int(request(service)), code);
        QCOMPARE(adapter.requests(), line.isEmpty() ? QStringList{} : QStringList{line});
        if (answer.contains("[99]"))
            QVERIFY(t.elapsed() >= 900); // waited out the second
        QCOMPARE(results.count(), 0);
    }

    void noSchedulerAndLateAnswers()
    {
        LSSCiA309Service alone;
        QCOMPARE(alone.storeConfiguration(), CAN::Error);
        QCOMPARE(alone.inquireNodeId(), CAN::Error);
        // An answer after the time-out changes nothing for the next command.
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        CanScheduler scheduler(&adapter);
        LSSCiA309Service service(&scheduler);
        QCOMPARE(service.storeConfiguration(), CAN::Error); // nobody answers sequence 0
        QTimer::singleShot(20, &adapter, [&]() {
            Q_EMIT adapter.newCiA309Response(QStringLiteral("[0] OK")); // late
            Q_EMIT adapter.newCiA309Response(QStringLiteral("[1] OK"));
        });
        QCOMPARE(service.storeConfiguration(), CAN::Ok);
    }
};

QTEST_MAIN(tst_LSSCiA309Service)
#include "tst_lsscia309service.moc"
