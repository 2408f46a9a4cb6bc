// End-to-end tests of the cotool program over the real virtual bus, on a
// private port: frames it sends are checked on a second adapter, frames put
// on the bus are checked in its dump output.
#include "recordingcanadapter.h"
#include "toolprocess.h"

#include <QtTest>
#include <csignal>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
}

class tst_Cotool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        // Two distinct private buses: the environment names mBus's, the other
        // is reached only with --port.
        do {
            mOtherPort = TestBus::usePrivatePort();
            mBus = std::make_unique<WatchedBus>();
        } while (mBus->port == mOtherPort);
        QVERIFY(mBus->opened);
    }
    void init() { mBus->frames.clear(); }

    void sendPutsFramesOnTheWire_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("29-bit, no data") << QStringList{"send", "1ABCDEF0#"} << QStringList{"1ABCDEF0 ext [0]"};
        QTest::newRow("remote with length") << QStringList{"send", "705#R1"} << QStringList{"705 rtr [1]"};
        QTest::newRow("FD with BRS, 12 bytes") << QStringList{"send", "123##1000102030405060708090A0B"}
                                               << QStringList{"123 fd brs [12] 000102030405060708090A0B"};
        QTest::newRow("several, in order, with a gap") << QStringList{"send", "--gap", "5", "101#01", "00000103#03"}
                                                       << QStringList{"101 [1] 01", "103 ext [1] 03"};
        QTest::newRow("common options before the command")
            << QStringList{"--adapter", "6", "--bitrate", "250", "send", "7FF#FF"} << QStringList{"7FF [1] FF"};
        QStringList many{"send"}, manyFrames;
        for (int i = 0; i < 1000; ++i) {
            many << QStringLiteral("200#%1").arg(i, 4, 16, QLatin1Char('0')).toUpper();
            manyFrames << QStringLiteral("200 [2] %1").arg(i, 4, 16, QLatin1Char('0')).toUpper();
        }
        QTest::newRow("1000 frames, none lost") << many << manyFrames;
    }
    void sendPutsFramesOnTheWire()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, expected);
        const ToolProcess::Result r = ToolProcess::run(kCotool, args);
        QCOMPARE(r.exitCode, 0);
        QCOMPARE(r.err, QString());
        // cotool returns only after its frames left.
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.count(), expected.size(), 5000);
        QStringList got;
        for (const CAN::CanRxMessage& rx : mBus->frames.frames())
            got << FrameCollector::describe(rx.message);
        QCOMPARE(got, expected);
    }

    void portOptionChoosesTheBus()
    {
        DemoCanAdapter otherBus(QStringLiteral("v"));
        QVERIFY(otherBus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, mOtherPort));
        FrameCollector onOtherBus(&otherBus);
        QCOMPARE(otherBus.open(), CAN::Ok);
        QCOMPARE(ToolProcess::run(kCotool, {"send", "--port", QString::number(mOtherPort), "321#01"}).exitCode, 0);
        QCOMPARE(ToolProcess::run(kCotool, {"send", "321#02"}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(onOtherBus.count(), 1, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(mBus->frames.count(), 1, 2000);
        QCOMPARE(int(onOtherBus.frames().at(0).message.data[0]), 1);
        QCOMPARE(int(mBus->frames.frames().at(0).message.data[0]), 2);
        otherBus.close();
    }

    // What dump prints of the frames put on the bus once it listens, and how it ends.
    void dump_data()
    {
        QTest::addColumn<QStringList>("args"); // empty: it runs until Ctrl-C
        QTest::addColumn<QStringList>("frames");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("lines"); // after the time stamp
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("every frame, until Ctrl-C")
            << QStringList{} << QStringList{"123#DEADBEEF", "1ABCDEF0#0102", "701#R1", "123##1000102030405060708090A0B", "000#"} << 0
            << QStringList{"123                   [4]  DE AD BE EF", "1ABCDEF0  EXT         [2]  01 02", "701       RTR         [1]",
                           "123       FD BRS     [12]  00 01 02 03 04 05 06 07 08 09 0A 0B", "000                   [0]"}
            << "";
        const QString line = QStringLiteral("7FF                   [0]");
        QTest::newRow("count reached") << QStringList{"--count", "3"} << QStringList{"7FF#", "7FF#", "7FF#", "7FF#", "7FF#"} << 0 << QStringList{line, line, line} << "";
        QTest::newRow("silence ends it") << QStringList{"--timeout", "300"} << QStringList() << 0 << QStringList() << "";
        QTest::newRow("duration ends it") << QStringList{"--duration", "300"} << QStringList() << 0 << QStringList() << "";
        QTest::newRow("count not reached in time") << QStringList{"-n", "5", "-t", "300"} << QStringList() << 1 << QStringList() << "0 of 5 frames";
    }
    void dump()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, frames);
        QFETCH(int, exitCode);
        QFETCH(QStringList, lines);
        QFETCH(QString, errorPart);
        ToolProcess dump(kCotool, QStringList{"dump"} + args);
        QVERIFY(dump.waitUntilBound(mBus->port));
        if (!frames.isEmpty())
            QCOMPARE(ToolProcess::run(kCotool, QStringList{"send"} + frames).exitCode, 0);
        if (args.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(dump.outLines().size(), lines.size(), 5000);
            ::kill(pid_t(dump.pid()), SIGINT); // Ctrl-C ends it cleanly
        }
        QCOMPARE(dump.finish(), exitCode);
        QStringList got;
        const QRegularExpression stamp(QStringLiteral("^\\(\\d+\\.\\d{6}\\)  "));
        for (const QString& line : dump.outLines()) {
            QVERIFY2(stamp.match(line).hasMatch(), qPrintable(line));
            got << line.mid(line.indexOf(QLatin1String(")  ")) + 3);
        }
        QCOMPARE(got, lines);
        QVERIFY2(dump.err().contains(errorPart), qPrintable(dump.err()));
    }

    // The library's debug lines (here of a refused gateway connection) only
    // with -v; the tool's own message always.
    // A CAN plugin as adapter: dump and send on QtSerialBus's virtualcan
    // (its bus is one TCP port for the machine: CTest runs its users one at a time).
    void pluginAsAdapter()
    {
        ToolProcess dump(kCotool, {"dump", "-a", "virtualcan", "-i", "can1", "--count", "2", "--duration", "10000"});
        QTest::qWait(500); // its device connects (and starts the plugin's bus)
        const ToolProcess::Result send = ToolProcess::run(kCotool, {"send", "-a", "virtualcan", "-i", "can1", "123#11", "12345678#2233"});
        QVERIFY2(send.exitCode == 0, qPrintable(send.err));
        QCOMPARE(dump.finish(10000), 0);
        QStringList frames = dump.outLines();
        for (QString& line : frames)
            line = line.section(')', 1); // after the time stamp
        QCOMPARE(frames, (QStringList{"  123                   [1]  11", "  12345678  EXT         [2]  22 33"}));
        const ToolProcess::Result bad = ToolProcess::run(kCotool, {"send", "-a", "socketcan", "-i", "nosuchcan7", "123#11"});
        QCOMPARE(bad.exitCode, 1);
        QVERIFY2(bad.err.contains("could not open socketcan nosuchcan7"), qPrintable(bad.err));
    }

    void libraryDebugOnlyWhenVerbose()
    {
        for (bool verbose : {false, true}) {
            const QStringList args{"nmt", "--gateway", "127.0.0.1:1", "start", "5"};
            const ToolProcess::Result r = ToolProcess::run(kCotool, verbose ? args + QStringList{"-v"} : args);
            QCOMPARE(r.exitCode, 1);
            QCOMPARE(r.out, QString());
            QVERIFY2(r.err.contains("could not connect to the gateway"), qPrintable(r.err));
            QVERIFY2(r.err.contains("socketStateChanged") == verbose, qPrintable(r.err));
        }
    }

    // Bad arguments exit with 2 and a message on stderr, nothing sent; help exits with 0 and the usage text.
    void commandLine_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("part"); // of the message or the usage text
        const struct {
            QStringList args;
            const char* error;
        } rows[] = {
            {{}, "no command given"}, {{"frobnicate"}, "unknown command 'frobnicate'"}, {{"dump", "--colour"}, "colour"}, {{"send"}, "no frame given"},
            {{"send", "1234#00"}, "identifier '1234'"}, {{"send", "123#00", "123#0"}, "bad frame '123#0'"}, // checked before the first goes out
            {{"send", "--gap", "-1", "123#00"}, "--gap"}, {{"send", "--port", "0", "123#00"}, "--port"}, {{"dump", "123#00"}, "unexpected argument"},
            {{"dump", "--adapter", "virtual"}, "--adapter"}, {{"dump", "--gateway", "localhost"}, "host:port"}, {{"dump", "--count", "0"}, "--count"},
            {{"send", "--gateway", "localhost:7000", "123#00"}, "not supported"}, {{"nmt"}, "no NMT command given"},
            {{"nmt", "go", "5"}, "unknown NMT command 'go'"}, {{"nmt", "start", "128"}, "0 (all nodes) or 1..127"},
            {{"nmt", "start", "5", "6"}, "unexpected argument '6'"}, {{"monitor"}, "no node given"}, {{"monitor", "3-1"}, "bad node list '3-1'"},
            {{"monitor", "5", "--life-factor", "3"}, "goes with --guard"}, {{"monitor", "5", "--heartbeat", "100", "--guard", "100"}, "exclude each other"},
            {{"monitor", "5", "--heartbeat", "70000"}, "--heartbeat wants a number 1..65535"}, {{"sync"}, "no period given"},
            {{"sync", "--period", "1500us"}, "no multiple of 1000"}, {{"sync", "--period", "10", "--overflow", "241"}, "--overflow wants 2..240"},
            {{"sync", "--period", "10", "--cob-id", "800"}, "0..7FF"}, {{"emcy", "0"}, "bad node list"}, {{"pdo", "--map", "u8"}, "no COB-ID given"},
            {{"pdo", "185"}, "no mapping given"}, {{"pdo", "185", "--map", "u32,u32,u8"}, "at most 8"}, {{"pdo", "185", "--map", "u16,float"}, "'float'"},
        };
        for (const auto& r : rows)
            QTest::addRow("%s", qPrintable(r.args.join(' '))) << r.args << 2 << QString::fromLatin1(r.error);
        QTest::newRow("--help lists commands") << QStringList{"--help"} << 0 << "  pdo ";
        QTest::newRow("help command") << QStringList{"help", "pdo"} << 0 << "u8, u16, u32";
    }
    void commandLine()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exitCode);
        QFETCH(QString, part);
        const ToolProcess::Result r = ToolProcess::run(kCotool, args);
        QCOMPARE(r.exitCode, exitCode);
        QVERIFY2(exitCode ? r.out.isEmpty() && r.err.contains(part) : r.out.startsWith("Usage: cotool") && r.out.contains(part),
                 qPrintable(r.err + r.out));
        QTest::qWait(30);
        QCOMPARE(mBus->frames.count(), 0);
    }

private:
    std::unique_ptr<WatchedBus> mBus;
    quint16 mOtherPort = 0;
};

QTEST_MAIN(tst_Cotool)
#include "tst_cotool.moc"
