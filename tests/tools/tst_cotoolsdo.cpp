// End to end: cotool sdo against the simulated device (cosim) on a private
// virtual bus: values of several types written and read back as a person
// reads them, a 64 KiB domain through files, aborts with their texts, bad
// arguments. Its gateway form is tested in tst_cotoolgateway.
#include "toolprocess.h"

#include <QTemporaryDir>
#include <QtTest>
#include <memory>

namespace {
const QString kCotool = QStringLiteral(COTOOL_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);
} // namespace

class tst_CotoolSdo : public QObject
{
    Q_OBJECT
private:
    ToolProcess::Result sdo(const QStringList& args) { return ToolProcess::run(kCotool, QStringList{"sdo"} + args); }

private Q_SLOTS:
    void initTestCase()
    {
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
        mDevice = std::make_unique<ToolProcess>(kCosim, QStringList{"--quiet", "--no-console", "--heartbeat", "0"});
        QVERIFY(mDevice->waitUntilBound(mBus->port));
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x705), 5000); // booted
    }

    // A write (if any), then a read: its output line or its error and exit code.
    void values_data()
    {
        QTest::addColumn<QStringList>("write");
        QTest::addColumn<QStringList>("read");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output"); // stdout of the read, or the end of stderr
        QTest::newRow("u32, identity") << QStringList{} << QStringList{"5", "1018", "1", "u32"} << 0
                                       << "node 5 1018h sub 01h: 2748 (0x00000abc)";
        QTest::newRow("i16 negative") << QStringList{"5", "2000", "3", "i16", "-300"} << QStringList{"5", "0x2000", "3", "i16"}
                                      << 0 << "node 5 2000h sub 03h: -300 (0xfed4)";
        QTest::newRow("i64 as bytes over CAN") << QStringList{"5", "2000", "9", "i64", "-1234567890123"}
                                               << QStringList{"5", "2000", "9", "i64"} << 0
                                               << "node 5 2000h sub 09h: -1234567890123 (0xfffffee08e04fb35)";
        QTest::newRow("u8 hex") << QStringList{"5", "2000", "a", "u8", "0x7f"} << QStringList{"5", "2000", "0a", "u8"} << 0
                                << "node 5 2000h sub 0Ah: 127 (0x7f)";
        QTest::newRow("r32") << QStringList{"5", "2000", "12", "r32", "2.5"} << QStringList{"5", "2000", "12", "r32"} << 0
                             << "node 5 2000h sub 12h: 2.5";
        QTest::newRow("string with blanks") << QStringList{"5", "2005", "0", "vs", "hello world"}
                                            << QStringList{"5", "2005", "0", "vs"} << 0 << "node 5 2005h sub 00h: hello world";
        QTest::newRow("missing object") << QStringList{} << QStringList{"5", "3000", "0", "u32"} << 1
                                        << "SDO abort 0x06020000: Object does not exist";
        QTest::newRow("read-only object") << QStringList{"5", "1018", "1", "u32", "1"} << QStringList{} << 1
                                          << "SDO abort 0x06010002: Attempt to write a read only object";
    }
    void values()
    {
        QFETCH(QStringList, write);
        QFETCH(QStringList, read);
        QFETCH(int, exitCode);
        QFETCH(QString, output);
        ToolProcess::Result r;
        if (!write.isEmpty()) {
            r = sdo(QStringList{"write"} + write);
            if (read.isEmpty()) {
                QCOMPARE(r.exitCode, exitCode);
                QVERIFY2(r.err.trimmed().endsWith(output), qPrintable(r.err));
                return;
            }
            QVERIFY2(r.exitCode == 0, qPrintable(r.err));
        }
        r = sdo(QStringList{"read"} + read);
        QCOMPARE(r.exitCode, exitCode);
        if (exitCode == 0)
            QCOMPARE(r.out, output + '\n');
        else
            QVERIFY2(r.err.trimmed().endsWith(output), qPrintable(r.err));
    }

    // 64 KiB from a file by block transfer and back into a file, byte-exact;
    // no progress bar when not on a terminal.
    void domainThroughFiles()
    {
        QTemporaryDir dir;
        QByteArray data(65536, '\0');
        for (int i = 0; i < data.size(); ++i)
            data[i] = char((i * 31) >> 3);
        QFile in(dir.filePath("in.bin"));
        QVERIFY(in.open(QIODevice::WriteOnly) && in.write(data) == data.size());
        in.close();
        const ToolProcess::Result w = sdo({"write", "5", "2002", "0", "d", "@" + in.fileName(), "--block"});
        QVERIFY2(w.exitCode == 0, qPrintable(w.err));
        QVERIFY(w.out.startsWith("node 5 2002h sub 00h written: 65536 bytes: 00 03 07 0b"));
        const ToolProcess::Result r = sdo({"read", "5", "2002", "0", "d", "--block", "-o", dir.filePath("out.bin")});
        QVERIFY2(r.exitCode == 0, qPrintable(r.err));
        QFile out(dir.filePath("out.bin"));
        QVERIFY(out.open(QIODevice::ReadOnly));
        QCOMPARE(out.readAll(), data);
        QVERIFY(!w.err.contains('\r') && !r.err.contains('\r'));
    }

    void badArguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("nothing") << QStringList{};
        QTest::newRow("node 0") << QStringList{"read", "0", "1018", "1", "u32"};
        QTest::newRow("unknown type") << QStringList{"read", "5", "1018", "1", "x32"};
        QTest::newRow("index too big") << QStringList{"read", "5", "10180", "1", "u32"};
        QTest::newRow("value too big") << QStringList{"write", "5", "2000", "3", "i16", "40000"};
        QTest::newRow("no value") << QStringList{"write", "5", "2000", "3", "i16"};
        QTest::newRow("bad routing") << QStringList{"read", "5", "1018", "1", "u32", "--routing", "0:5"};
        QTest::newRow("missing file") << QStringList{"write", "5", "2002", "0", "d", "@/nonexistent/x"};
    }
    void badArguments()
    {
        QFETCH(QStringList, args);
        const ToolProcess::Result r = sdo(args);
        QCOMPARE(r.exitCode, 2);
        QVERIFY(!r.err.isEmpty());
    }

private:
    std::unique_ptr<WatchedBus> mBus;
    std::unique_ptr<ToolProcess> mDevice;
};

QTEST_MAIN(tst_CotoolSdo)
#include "tst_cotoolsdo.moc"
