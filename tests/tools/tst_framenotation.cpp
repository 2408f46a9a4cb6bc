#include "framecollector.h"
#include "framenotation.h"

#include <QtTest>

class tst_FrameNotation : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Every row is parsed; a good one must give the frame and format back to
    // the canonical notation, a bad one must be refused with a message naming
    // the problem and leave the frame untouched.
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("frame"); // FrameCollector::describe(), or "error: <part of the message>"
        QTest::addColumn<QString>("canonical"); // empty: the text itself
        auto ok = [](const char* name, const QString& text, const char* frame, const QString& canonical = QString()) {
            QTest::newRow(name) << text << QString::fromLatin1(frame) << (canonical.isEmpty() ? text : canonical);
        };
        auto bad = [](const char* name, const QString& text, const char* error) {
            QTest::newRow(name) << text << QStringLiteral("error: ") + QLatin1String(error) << QString();
        };
        ok("11-bit", "123#DEADBEEF", "123 [4] DEADBEEF");
        ok("lower case, blanks around", "  7ff#0a0b \n", "7FF [2] 0A0B", "7FF#0A0B");
        ok("no data", "000#", "0 [0]");
        ok("separators", "181#1122.33.44.55.66.77.88", "181 [8] 1122334455667788", "181#1122334455667788");
        ok("29-bit, small value stays extended", "00000123#01", "123 ext [1] 01");
        ok("29-bit maximum", "1FFFFFFF#", "1FFFFFFF ext [0]");
        ok("remote", "123#R", "123 rtr [0]");
        ok("remote, lower-case r, length 8", "705#r8", "705 rtr [8]", "705#R8");
        ok("remote 29-bit", "1ABCDEF0#R3", "1ABCDEF0 ext rtr [3]");
        ok("FD with BRS, 12 bytes", "123##1000102030405060708090A0B", "123 fd brs [12] 000102030405060708090A0B");
        ok("FD with BRS and ESI, no data", "123##3", "123 fd brs esi [0]");
        ok("FD flag bits 2 and 3 ignored", "123##EAA", "123 fd esi [1] AA", "123##2AA");
        ok("FD 29-bit, 64 bytes", "1FFFFFFF##0" + QString(128, '5'), qPrintable("1FFFFFFF ext fd [64] " + QString(128, '5')));
        bad("empty", "", "no '#'");
        bad("2-digit identifier", "12#11", "3 hex digits");
        bad("4-digit identifier", "1234#11", "3 hex digits");
        bad("identifier not hex", "12G#11", "not hexadecimal");
        bad("11-bit above 7FF", "800#", "above 7FF");
        bad("29-bit above 1FFFFFFF", "20000000#", "above 1FFFFFFF");
        bad("odd digits", "123#ABC", "odd number");
        bad("blank in data", "123#11 22", "not a hex digit");
        bad("9 classic bytes", "123#112233445566778899", "at most 8");
        bad("dot inside a byte", "123#1.122", "misplaced '.'");
        bad("trailing dot", "123#1122.", "misplaced '.'");
        bad("double dot", "123#11..22", "misplaced '.'");
        bad("remote with data", "123#RDEAD", "length digit");
        bad("remote length 9", "123#R9", "length digit");
        bad("FD without flags", "123##", "flags digit");
        bad("FD length 9", "123##1112233445566778899", "no valid CAN FD length");
        bad("FD length 63", "123##0" + QString(126, '1'), "no valid CAN FD length");
        bad("FD 65 bytes", "123##0" + QString(130, '1'), "at most 64");
        bad("FD remote", "123##1R", "not a hex digit");
    }
    void parse()
    {
        QFETCH(QString, text);
        QFETCH(QString, frame);
        QFETCH(QString, canonical);
        CAN::CanMessage m;
        m.id = 0x42;
        QString error;
        const bool parsed = FrameNotation::parse(text, m, &error);
        if (frame.startsWith(QLatin1String("error: "))) {
            QVERIFY2(!parsed, qPrintable(FrameCollector::describe(m)));
            QVERIFY2(error.contains(frame.mid(7)), qPrintable(error));
            QCOMPARE(m.id, 0x42u);
        } else {
            QVERIFY2(parsed, qPrintable(error));
            QCOMPARE(FrameCollector::describe(m), frame);
            QCOMPARE(FrameNotation::format(m), canonical);
        }
    }

    void dumpLine_data()
    {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<bool>("echo");
        QTest::addColumn<int>("length"); // a foreign length, or -1
        QTest::addColumn<QString>("line");
        QTest::newRow("heartbeat") << "705#7F" << false << -1 << "(12.000345)  705                   [1]  7F";
        QTest::newRow("extended") << "1ABCDEF0#0102" << false << -1 << "(12.000345)  1ABCDEF0  EXT         [2]  01 02";
        QTest::newRow("remote shows no data") << "701#R1" << false << -1 << "(12.000345)  701       RTR         [1]";
        QTest::newRow("FD with flags") << "123##3000102030405060708090A0B" << false << -1
                                       << "(12.000345)  123       FD BRS ESI [12]  00 01 02 03 04 05 06 07 08 09 0A 0B";
        QTest::newRow("echo") << "181#01" << true << -1 << "(12.000345)  181       ECHO        [1]  01";
        QTest::newRow("length beyond 64: 64 bytes shown") << "181#01" << false << 200
                                                          << "(12.000345)  181                  [200]  01" + QString(" 00").repeated(63);
    }
    void dumpLine()
    {
        QFETCH(QString, frame);
        QFETCH(bool, echo);
        QFETCH(int, length);
        QFETCH(QString, line);
        CAN::CanRxMessage rx;
        rx.timeStamp.seconds = 12;
        rx.timeStamp.microseconds = 345;
        rx.echo = echo;
        QVERIFY(FrameNotation::parse(frame, rx.message));
        if (length >= 0)
            rx.message.length = quint8(length);
        QCOMPARE(FrameNotation::dumpLine(rx), line);
    }
};

QTEST_APPLESS_MAIN(tst_FrameNotation)
#include "tst_framenotation.moc"
