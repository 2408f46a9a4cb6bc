#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cia309adapter.h"
#include "fakegateway.h"
#include "lsscia309service.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>
#include <functional>

using M = LSSMaster;
using Request = std::function<CAN::RetType(LSSCiA309Service&)>;
Q_DECLARE_METATYPE(Request)

// The gateway LSS service against a local gateway over TCP: the line on the
// wire, the wait for the answer with the request's number, the return code.
class tst_LSSCiA309Service : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void commands_data()
    {
        QTest::addColumn<Request>("request");
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("answer"); // after "[n] "; empty: none; "[99] ...": another request's
        QTest::addColumn<int>("code");
        const auto r = [](Request f) { return f; };
        QTest::newRow("switch global, OK") << r([](LSSCiA309Service& s) { return s.switchModeGlobal(M::LssGlobalState(3)); })
                                           << "lss_switch_glob 1" << "OK" << 0;
        QTest::newRow("store, error") << r([](LSSCiA309Service& s) { return s.storeConfiguration(); }) << "lss_store"
                                      << "ERROR:102" << 5;
        QTest::newRow("set node, lower-case ok") << r([](LSSCiA309Service& s) { return s.configureNodeId(10); })
                                                 << "lss_set_node 10" << "ok" << 0;
        QTest::newRow("switch selective, hex without zeros")
            << r([](LSSCiA309Service& s) { return s.switchModeSelective(0xABC, 0xC051, 0x10000, 0x5D000005); })
            << "lss_switch_sel 0xabc 0xc051 0x10000 0x5d000005" << "  OK" << 0;
        QTest::newRow("answer without OK") << r([](LSSCiA309Service& s) { return s.activateBitTiming(200); })
                                           << "lss_activate_bitrate 200" << "12" << 5;
        QTest::newRow("another request's answer: time-out")
            << r([](LSSCiA309Service& s) { return s.configureBitTiming(12, 10); }) << "lss_conf_bitrate 0x12 0xa"
            << "[99] OK" << 5;
        QTest::newRow("no answer: time-out") << r([](LSSCiA309Service& s) { return s.storeConfiguration(); })
                                             << "lss_store" << "" << 5;
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
        FakeGateway gw;
        CiA309Adapter adapter(QStringLiteral("gw"));
        gw.configure(adapter);
        QVERIFY(adapter.open() == CAN::Ok && gw.waitForClient());
        CanScheduler scheduler(&adapter);
        LSSCiA309Service service(&scheduler);
        QSignalSpy results(&service, &LSSService::lssResult);
        const bool foreign = answer.startsWith('[');
        gw.answerWith(foreign || answer.isEmpty() ? QString() : answer);
        if (foreign)
            QTimer::singleShot(50, &gw, [&]() { gw.send(answer.toLatin1() + "\r\n"); });
        QElapsedTimer t;
        t.start();
        QCOMPARE(int(request(service)), code);
        if (!line.isEmpty()) {
            QVERIFY(gw.waitForLines(1));
            QCOMPARE(gw.lines(), QStringList{"[0] " + line});
        }
        if (code == 5 && !line.isEmpty())
            QVERIFY(t.elapsed() >= 900 || !answer.isEmpty()); // waited out the second when nothing fitted
        QCOMPARE(results.count(), 0);
        adapter.close();
    }

    void noSchedulerAndLateAnswers()
    {
        LSSCiA309Service alone;
        QCOMPARE(alone.storeConfiguration(), CAN::Error);
        QCOMPARE(alone.inquireNodeId(), CAN::Error);
        // An answer after the time-out changes nothing for the next command.
        FakeGateway gw;
        CiA309Adapter adapter(QStringLiteral("gw"));
        gw.configure(adapter);
        QVERIFY(adapter.open() == CAN::Ok && gw.waitForClient());
        CanScheduler scheduler(&adapter);
        LSSCiA309Service service(&scheduler);
        QCOMPARE(service.storeConfiguration(), CAN::Error); // nobody answers [0]
        QTimer::singleShot(20, &gw, [&]() { gw.send("[0] OK\r\n[1] OK\r\n"); }); // [0] late
        QCOMPARE(service.storeConfiguration(), CAN::Ok);
        adapter.close();
    }
};

QTEST_MAIN(tst_LSSCiA309Service)
#include "tst_lsscia309service.moc"
