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
        ok("11-bit", "123#DEADBEEF", "123 [4] DEADBEEF");
        ok("lower case, blanks around", "  7ff#0a0b \n", "7FF [2] 0A0B", "7FF#0A0B");
        ok("no data", "000#", "0 [0]");
        ok("separators", "181#1122.33.44.55.66.77.88", "181 [8] 1122334455667788", "181#1122334455667788");
        ok("29-bit, small value stays extended", "00000123#01", "123 ext [1] 01");
        ok("29-bit maximum", "1FFFFFFF#", "1FFFFFFF ext [0]");
        ok("remote, lower-case r, length 8", "705#r8", "705 rtr [8]", "705#R8");
        ok("remote 29-bit", "1ABCDEF0#R3", "1ABCDEF0 ext rtr [3]");
        ok("FD with BRS, 12 bytes", "123##1000102030405060708090A0B", "123 fd brs [12] 000102030405060708090A0B");
        ok("FD with BRS and ESI, no data", "123##3", "123 fd brs esi [0]");
        ok("FD flag bits 2 and 3 ignored", "123##EAA", "123 fd esi [1] AA", "123##2AA");
        ok("FD 29-bit, 64 bytes", "1FFFFFFF##0" + QString(128, '5'), qPrintable("1FFFFFFF ext fd [64] " + QString(128, '5')));
        // Refused: the text and part of the message.
        const QString refused[][2] = {
            {"", "no '#'"}, {"12#11", "3 hex digits"}, {"12G#11", "not hexadecimal"}, {"800#", "above 7FF"},
            {"20000000#", "above 1FFFFFFF"}, {"123#ABC", "odd number"}, {"123#11 22", "not a hex digit"},
            {"123#112233445566778899", "at most 8"}, {"123#1.122", "misplaced '.'"}, {"123#1122.", "misplaced '.'"},
            {"123#11..22", "misplaced '.'"}, {"123#RDEAD", "length digit"}, {"123#R9", "length digit"}, {"123##", "flags digit"},
            {"123##1112233445566778899", "no valid CAN FD length"}, {"123##0" + QString(130, '1'), "at most 64"},
            {"123##1R", "not a hex digit"}};
        for (const auto& r : refused)
            QTest::addRow("refused: '%s'", qPrintable(r[0].left(30))) << r[0] << "error: " + r[1] << QString();
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

    // (The plain forms are checked end to end in tst_cotool.)
    void dumpLine_data()
    {
        QTest::addColumn<QString>("frame");
        QTest::addColumn<bool>("echo");
        QTest::addColumn<int>("length"); // a foreign length, or -1
        QTest::addColumn<QString>("line");
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
