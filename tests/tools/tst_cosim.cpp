// End-to-end tests of the cosim program: it boots on a private virtual bus,
// produces its heartbeat, and ends cleanly on SIGINT and SIGTERM.
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "testbus.h"

#include <QProcess>
#include <QtTest>
#include <csignal>

class tst_Cosim : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        TestBus::usePrivatePort();
    }

    void bootsBeatsAndStopsOnSignal_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::addColumn<QStringList>("extraArgs");
        QTest::addColumn<QString>("stderrPart");
        QTest::newRow("SIGINT, quiet") << int(SIGINT) << QStringList{"--quiet"} << QString();
        QTest::newRow("SIGTERM, with log") << int(SIGTERM) << QStringList{} << "stopped by signal 15";
        // With a boot delay the first frame is still the boot-up: no
        // heartbeat may go out before it.
        QTest::newRow("SIGTERM, delayed boot") << int(SIGTERM) << QStringList{"--delay", "300", "-q"} << QString();
    }
    void bootsBeatsAndStopsOnSignal()
    {
        QFETCH(int, signalNumber);
        QFETCH(QStringList, extraArgs);
        QFETCH(QString, stderrPart);
        DemoCanAdapter bus(QStringLiteral("v"));
        FrameCollector collector(&bus);
        bus.open();
        QTest::qWait(20);

        QProcess cosim;
        cosim.start(QStringLiteral(COSIM_PATH), QStringList{"--node", "9", "--heartbeat", "50"} + extraArgs);
        QVERIFY(cosim.waitForStarted(5000));
        QTRY_VERIFY_WITH_TIMEOUT(collector.count(0x709) >= 3, 10000);
        const auto frames = collector.frames(0x709);
        QCOMPARE(int(frames[0].message.length), 1);
        QCOMPARE(int(frames[0].message.data[0]), 0x00); // boot-up
        for (int i = 1; i < frames.size(); ++i) {
            QCOMPARE(int(frames[i].message.length), 1);
            QCOMPARE(int(frames[i].message.data[0]), 0x7F); // pre-operational
        }

        ::kill(pid_t(cosim.processId()), signalNumber);
        QVERIFY(cosim.waitForFinished(5000));
        QCOMPARE(cosim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(cosim.exitCode(), 0);
        const QString err = QString::fromLocal8Bit(cosim.readAllStandardError());
        if (stderrPart.isEmpty())
            QCOMPARE(err, QString());
        else
            QVERIFY2(err.contains(stderrPart), qPrintable(err));
        // Nothing more once it has ended.
        const int after = collector.count();
        QTest::qWait(150);
        QCOMPARE(collector.count(), after);
    }

    void badArgumentsExitWith2_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("node 0") << QStringList{"--node", "0"} << "node-ID";
        QTest::newRow("node 128") << QStringList{"-n", "128"} << "node-ID";
        QTest::newRow("heartbeat not a number") << QStringList{"--heartbeat", "often"} << "heartbeat";
        QTest::newRow("port 0") << QStringList{"--port", "0"} << "port";
        QTest::newRow("negative delay") << QStringList{"--delay", "-5"} << "delay";
    }
    void badArgumentsExitWith2()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, errorPart);
        QProcess cosim;
        cosim.start(QStringLiteral(COSIM_PATH), args);
        QVERIFY(cosim.waitForFinished(10000));
        QCOMPARE(cosim.exitCode(), 2);
        QVERIFY(QString::fromLocal8Bit(cosim.readAllStandardError()).contains(errorPart));
    }
};

QTEST_MAIN(tst_Cosim)
#include "tst_cosim.moc"
