// End-to-end tests of the cotool program over the real virtual bus, on a
// private port: frames it sends are checked byte by byte on a second adapter,
// frames put on the bus are checked in its dump output.
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "recordingcanadapter.h"
#include "testbus.h"

#include <QProcess>
#include <QtTest>
#include <csignal>

namespace {
struct Result {
    int exitCode = -1;
    QString out;
    QString err;
};

Result runCotool(const QStringList& args, int timeoutMs = 15000)
{
    QProcess p;
    p.start(QStringLiteral(COTOOL_PATH), args);
    Result r;
    if (!p.waitForStarted(timeoutMs) || !p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        r.err = QStringLiteral("cotool did not finish");
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

// "id ext rtr fd brs esi [len] hex" of a received frame.
QString describe(const CAN::CanMessage& m)
{
    QString s = QString::number(m.id, 16).toUpper();
    s += m.extended ? QStringLiteral(" ext") : QStringLiteral(" std");
    if (m.rtr)
        s += QStringLiteral(" rtr");
    if (m.fd)
        s += QStringLiteral(" fd");
    if (m.brs)
        s += QStringLiteral(" brs");
    if (m.esi)
        s += QStringLiteral(" esi");
    s += QStringLiteral(" [%1]").arg(m.length);
    if (m.length && !m.rtr)
        s += QLatin1Char(' ') + QString::fromLatin1(frameData(m).toHex().toUpper());
    return s;
}

// A dump process whose output is gathered as it comes.
class DumpProcess : public QObject
{
public:
    explicit DumpProcess(const QStringList& args)
    {
        connect(&process, &QProcess::readyReadStandardOutput, this, [this]() { out += process.readAllStandardOutput(); });
        process.start(QStringLiteral(COTOOL_PATH), QStringList{QStringLiteral("dump")} + args);
    }
    ~DumpProcess() override
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
    }
    QStringList lines() const { return QString::fromLatin1(out).split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    // Sends a probe frame (7FF) and tells whether dump has printed one:
    // then its socket is bound and it sees everything sent afterwards.
    bool probe(AbstractCanAdapter& sender)
    {
        CAN::CanMessage m = makeFrame(0x7FF, {});
        sender.write(&m);
        return out.contains(")  7FF");
    }
    QProcess process;
    QByteArray out;
};
} // namespace

class tst_Cotool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        // Two distinct private buses: the environment names the first, the
        // second is reached only with --port.
        do {
            mOtherPort = TestBus::usePrivatePort();
            mPort = TestBus::usePrivatePort();
        } while (mPort == mOtherPort);
    }

    void sendPutsFramesOnTheWire_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("11-bit") << QStringList{"123#DEADBEEF"} << QStringList{"123 std [4] DEADBEEF"};
        QTest::newRow("no data") << QStringList{"000#"} << QStringList{"0 std [0]"};
        QTest::newRow("29-bit with separators") << QStringList{"1ABCDEF0#11.22.33"} << QStringList{"1ABCDEF0 ext [3] 112233"};
        QTest::newRow("remote with length") << QStringList{"705#R1"} << QStringList{"705 std rtr [1]"};
        QTest::newRow("FD with BRS, 12 bytes")
            << QStringList{"123##1000102030405060708090A0B"} << QStringList{"123 std fd brs [12] 000102030405060708090A0B"};
        // The virtual bus never passes ESI on.
        QTest::newRow("FD with ESI") << QStringList{"181##2AA"} << QStringList{"181 std fd [1] AA"};
        QTest::newRow("several, in order, with a gap")
            << QStringList{"--gap", "5", "101#01", "102#0202", "00000103#03"}
            << QStringList{"101 std [1] 01", "102 std [2] 0202", "103 ext [1] 03"};
        QTest::newRow("common options before the command")
            << QStringList{"--adapter", "6", "--bitrate", "250", "SEND-HERE", "7FF#FF"} << QStringList{"7FF std [1] FF"};
    }
    void sendPutsFramesOnTheWire()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, expected);
        const int at = args.indexOf(QStringLiteral("SEND-HERE"));
        if (at >= 0)
            args[at] = QStringLiteral("send");
        else
            args.prepend(QStringLiteral("send"));

        DemoCanAdapter bus(QStringLiteral("v"));
        FrameCollector collector(&bus);
        bus.open();
        QTest::qWait(20); // receive socket bound
        const Result r = runCotool(args);
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QString());
        // cotool returns only after its frames left.
        QTRY_COMPARE_WITH_TIMEOUT(collector.count(), expected.size(), 2000);
        QStringList got;
        for (const CAN::CanRxMessage& rx : collector.frames()) {
            got << describe(rx.message);
            QCOMPARE(rx.echo, false);
        }
        QCOMPARE(got, expected);
    }

    void sendLosesNoFrameOfALongList()
    {
        DemoCanAdapter bus(QStringLiteral("v"));
        FrameCollector collector(&bus);
        bus.open();
        QTest::qWait(20);
        QStringList args{QStringLiteral("send")};
        const int n = 1000;
        for (int i = 0; i < n; ++i)
            args << QStringLiteral("200#%1").arg(i, 4, 16, QLatin1Char('0'));
        QCOMPARE(runCotool(args).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(collector.count(), n, 5000);
        const auto frames = collector.frames();
        for (int i = 0; i < n; ++i)
            QCOMPARE(frames[i].message.data[0] << 8 | frames[i].message.data[1], i);
    }

    void portOptionChoosesTheBus()
    {
        DemoCanAdapter envBus(QStringLiteral("v"));
        FrameCollector onEnvBus(&envBus);
        DemoCanAdapter otherBus(QStringLiteral("v"));
        QVERIFY(otherBus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, mOtherPort));
        FrameCollector onOtherBus(&otherBus);
        envBus.open();
        otherBus.open();
        QTest::qWait(20);
        QCOMPARE(runCotool({"send", "--port", QString::number(mOtherPort), "321#01"}).exitCode, 0);
        QCOMPARE(runCotool({"send", "321#02"}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(onOtherBus.count(), 1, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(onEnvBus.count(), 1, 2000);
        QCOMPARE(int(onOtherBus.frames().at(0).message.data[0]), 1);
        QCOMPARE(int(onEnvBus.frames().at(0).message.data[0]), 2);
    }

    void badArgumentsExitWith2_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("no command") << QStringList{} << "no command given";
        QTest::newRow("unknown command") << QStringList{"frobnicate"} << "unknown command 'frobnicate'";
        QTest::newRow("unknown option") << QStringList{"dump", "--colour"} << "colour";
        QTest::newRow("send without frames") << QStringList{"send"} << "no frame given";
        QTest::newRow("odd digits") << QStringList{"send", "123#ABC"} << "odd number";
        QTest::newRow("9 classic bytes") << QStringList{"send", "123#112233445566778899"} << "at most 8";
        QTest::newRow("bad identifier") << QStringList{"send", "1234#00"} << "identifier '1234'";
        QTest::newRow("FD length 9") << QStringList{"send", "123##1112233445566778899"} << "no valid CAN FD length";
        // Every frame is checked before the first goes out.
        QTest::newRow("second frame bad, none sent") << QStringList{"send", "123#00", "123#0"} << "bad frame '123#0'";
        QTest::newRow("negative gap") << QStringList{"send", "--gap", "-1", "123#00"} << "--gap";
        QTest::newRow("port 0") << QStringList{"send", "--port", "0", "123#00"} << "--port";
        QTest::newRow("port too big") << QStringList{"dump", "--port", "70000"} << "--port";
        QTest::newRow("adapter not a number") << QStringList{"dump", "--adapter", "virtual"} << "--adapter";
        QTest::newRow("gateway without port") << QStringList{"dump", "--gateway", "localhost"} << "host:port";
        QTest::newRow("gateway where unsupported") << QStringList{"send", "--gateway", "localhost:7000", "123#00"} << "not supported";
        QTest::newRow("count zero") << QStringList{"dump", "--count", "0"} << "--count";
        QTest::newRow("timeout not a number") << QStringList{"dump", "--timeout", "soon"} << "--timeout";
        QTest::newRow("stray argument to dump") << QStringList{"dump", "123#00"} << "unexpected argument";
    }
    void badArgumentsExitWith2()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, errorPart);
        DemoCanAdapter bus(QStringLiteral("v"));
        FrameCollector collector(&bus);
        bus.open();
        QTest::qWait(20);
        const Result r = runCotool(args);
        QCOMPARE(r.exitCode, 2);
        QVERIFY2(r.err.contains(errorPart), qPrintable(r.err));
        QCOMPARE(r.out, QString());
        QTest::qWait(50);
        QCOMPARE(collector.count(), 0);
    }

    void helpExitsWith0_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("textPart");
        QTest::newRow("--help lists commands") << QStringList{"--help"} << "send ";
        QTest::newRow("help") << QStringList{"help"} << "dump ";
        QTest::newRow("command --help") << QStringList{"send", "--help"} << "--gap";
        QTest::newRow("help command") << QStringList{"help", "dump"} << "--count";
    }
    void helpExitsWith0()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, textPart);
        const Result r = runCotool(args);
        QCOMPARE(r.exitCode, 0);
        QVERIFY2(r.out.contains(textPart), qPrintable(r.out));
        QVERIFY(r.out.startsWith(QStringLiteral("Usage: cotool")));
    }

    void dumpPrintsEveryFrame()
    {
        DemoCanAdapter bus(QStringLiteral("v"));
        bus.open();
        DumpProcess dump({});
        QTRY_VERIFY_WITH_TIMEOUT(dump.probe(bus), 10000);
        const char* sent[] = {"123#DEADBEEF", "1ABCDEF0#0102", "701#R1", "123##1000102030405060708090A0B", "000#"};
        const char* expected[] = {
            "123                   [4]  DE AD BE EF",
            "1ABCDEF0  EXT         [2]  01 02",
            "701       RTR         [1]",
            "123       FD BRS     [12]  00 01 02 03 04 05 06 07 08 09 0A 0B",
            "000                   [0]",
        };
        for (const char* text : sent)
            QCOMPARE(runCotool({"send", QString::fromLatin1(text)}).exitCode, 0);
        QTRY_VERIFY_WITH_TIMEOUT(dump.out.contains("000                   [0]"), 5000);
        // Ctrl-C ends it cleanly.
        ::kill(pid_t(dump.process.processId()), SIGINT);
        QVERIFY(dump.process.waitForFinished(5000));
        QCOMPARE(dump.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(dump.process.exitCode(), 0);
        dump.out += dump.process.readAllStandardOutput();

        QStringList got;
        const QRegularExpression stamp(QStringLiteral("^\\(\\d+\\.\\d{6}\\)  "));
        for (const QString& line : dump.lines()) {
            QVERIFY2(stamp.match(line).hasMatch(), qPrintable(line));
            const QString rest = line.mid(line.indexOf(QLatin1String(")  ")) + 3);
            if (!rest.startsWith(QLatin1String("7FF")))
                got << rest;
        }
        QStringList want;
        for (const char* e : expected)
            want << QString::fromLatin1(e);
        QCOMPARE(got, want);
    }

    void dumpLimits_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<bool>("traffic");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<int>("lines");
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("count reached") << QStringList{"--count", "3"} << true << 0 << 3 << "";
        QTest::newRow("silence ends it") << QStringList{"--timeout", "300"} << false << 0 << 0 << "";
        QTest::newRow("duration ends it") << QStringList{"--duration", "300"} << false << 0 << 0 << "";
        QTest::newRow("count not reached in time") << QStringList{"-n", "5", "-t", "300"} << false << 1 << 0 << "0 of 5 frames";
    }
    void dumpLimits()
    {
        QFETCH(QStringList, args);
        QFETCH(bool, traffic);
        QFETCH(int, exitCode);
        QFETCH(int, lines);
        QFETCH(QString, errorPart);
        DemoCanAdapter bus(QStringLiteral("v"));
        bus.open();
        DumpProcess dump(args);
        QVERIFY(dump.process.waitForStarted(5000));
        QElapsedTimer t;
        t.start();
        while (dump.process.state() != QProcess::NotRunning && t.elapsed() < 15000) {
            if (traffic)
                dump.probe(bus);
            QTest::qWait(20);
        }
        QCOMPARE(dump.process.state(), QProcess::NotRunning);
        dump.out += dump.process.readAllStandardOutput();
        QCOMPARE(dump.process.exitCode(), exitCode);
        QCOMPARE(dump.lines().size(), lines);
        QVERIFY(QString::fromLocal8Bit(dump.process.readAllStandardError()).contains(errorPart));
    }

private:
    quint16 mPort = 0;
    quint16 mOtherPort = 0;
};

QTEST_MAIN(tst_Cotool)
#include "tst_cotool.moc"
