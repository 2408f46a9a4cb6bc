#include "framenotation.h"

#include <QtTest>


class tst_FrameNotation : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void parsesTheUsualNotation_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<uint>("id");
        QTest::addColumn<bool>("extended");
        QTest::addColumn<bool>("rtr");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<bool>("brs");
        QTest::addColumn<bool>("esi");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("canonical");

        const QByteArray none;
        QTest::newRow("11-bit, 4 bytes") << "123#DEADBEEF" << 0x123u << false << false << false << false << false << 4 << QByteArray::fromHex("DEADBEEF") << "123#DEADBEEF";
        QTest::newRow("lower case, blanks around") << "  7ff#0a0b \n" << 0x7FFu << false << false << false << false << false << 2 << QByteArray::fromHex("0A0B") << "7FF#0A0B";
        QTest::newRow("no data") << "000#" << 0u << false << false << false << false << false << 0 << none << "000#";
        QTest::newRow("8 bytes with separators") << "181#11.22.33.44.55.66.77.88" << 0x181u << false << false << false << false << false << 8 << QByteArray::fromHex("1122334455667788") << "181#1122334455667788";
        QTest::newRow("separators between some bytes only") << "181#1122.33" << 0x181u << false << false << false << false << false << 3 << QByteArray::fromHex("112233") << "181#112233";
        QTest::newRow("29-bit") << "12345678#01" << 0x12345678u << true << false << false << false << false << 1 << QByteArray::fromHex("01") << "12345678#01";
        QTest::newRow("29-bit with small value stays extended") << "00000123#" << 0x123u << true << false << false << false << false << 0 << none << "00000123#";
        QTest::newRow("29-bit maximum") << "1FFFFFFF#" << 0x1FFFFFFFu << true << false << false << false << false << 0 << none << "1FFFFFFF#";
        QTest::newRow("remote") << "123#R" << 0x123u << false << true << false << false << false << 0 << none << "123#R";
        QTest::newRow("remote, lower-case r, length 8") << "705#r8" << 0x705u << false << true << false << false << false << 8 << none << "705#R8";
        QTest::newRow("remote 29-bit with length") << "1ABCDEF0#R3" << 0x1ABCDEF0u << true << true << false << false << false << 3 << none << "1ABCDEF0#R3";
        QTest::newRow("FD, no flags, 8 bytes") << "123##00102030405060708" << 0x123u << false << false << true << false << false << 8 << QByteArray::fromHex("0102030405060708") << "123##00102030405060708";
        QTest::newRow("FD with BRS, 12 bytes") << "123##1000102030405060708090A0B" << 0x123u << false << false << true << true << false << 12 << QByteArray::fromHex("000102030405060708090A0B") << "123##1000102030405060708090A0B";
        QTest::newRow("FD with ESI") << "123##2AA" << 0x123u << false << false << true << false << true << 1 << QByteArray::fromHex("AA") << "123##2AA";
        QTest::newRow("FD with BRS and ESI, no data") << "123##3" << 0x123u << false << false << true << true << true << 0 << none << "123##3";
        QTest::newRow("FD flags bits 2 and 3 ignored") << "123##DAA" << 0x123u << false << false << true << true << false << 1 << QByteArray::fromHex("AA") << "123##1AA";
        QTest::newRow("FD 29-bit, 64 bytes") << "1FFFFFFF##1" + QString(128, QLatin1Char('5')) << 0x1FFFFFFFu << true << false << true << true << false << 64 << QByteArray(64, char(0x55)) << "1FFFFFFF##1" + QString(128, QLatin1Char('5'));
        QTest::newRow("FD 48 bytes with separators") << "100##0" + QStringList(QVector<QString>(48, QStringLiteral("EE")).toList()).join(QLatin1Char('.')) << 0x100u << false << false << true << false << false << 48 << QByteArray(48, char(0xEE)) << "100##0" + QString(96, QLatin1Char('E'));
    }
    void parsesTheUsualNotation()
    {
        QFETCH(QString, text);
        QFETCH(uint, id);
        QFETCH(bool, extended);
        QFETCH(bool, rtr);
        QFETCH(bool, fd);
        QFETCH(bool, brs);
        QFETCH(bool, esi);
        QFETCH(int, length);
        QFETCH(QByteArray, data);
        QFETCH(QString, canonical);

        CAN::CanMessage m;
        QString error;
        QVERIFY2(FrameNotation::parse(text, m, &error), qPrintable(error));
        QCOMPARE(m.id, quint32(id));
        QCOMPARE(m.extended, extended);
        QCOMPARE(m.rtr, rtr);
        QCOMPARE(m.fd, fd);
        QCOMPARE(m.brs, brs);
        QCOMPARE(m.esi, esi);
        QCOMPARE(int(m.length), length);
        QCOMPARE(QByteArray(reinterpret_cast<const char*>(m.data), data.size()), data);
        for (int i = data.size(); i < 64; ++i)
            QCOMPARE(int(m.data[i]), 0); // the rest stays zero
        QCOMPARE(int(m.tail[0] | m.tail[1]), 0);
        QCOMPARE(FrameNotation::format(m), canonical);
    }

    void refusesMalformedFrames_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("errorPart");
        QTest::newRow("empty") << "" << "no '#'";
        QTest::newRow("no hash") << "123DEADBEEF" << "no '#'";
        QTest::newRow("no identifier") << "#11" << "3 hex digits";
        QTest::newRow("2-digit identifier") << "12#11" << "3 hex digits";
        QTest::newRow("4-digit identifier") << "1234#11" << "3 hex digits";
        QTest::newRow("9-digit identifier") << "123456789#11" << "3 hex digits";
        QTest::newRow("identifier not hex") << "12G#11" << "not hexadecimal";
        QTest::newRow("identifier with blank") << "1 3#11" << "not hexadecimal";
        QTest::newRow("11-bit above 7FF") << "800#" << "above 7FF";
        QTest::newRow("29-bit above 1FFFFFFF") << "20000000#" << "above 1FFFFFFF";
        QTest::newRow("odd digits") << "123#ABC" << "odd number";
        QTest::newRow("one digit") << "123#A" << "odd number";
        QTest::newRow("not hex in data") << "123#GG" << "not a hex digit";
        QTest::newRow("blank in data") << "123#11 22" << "not a hex digit";
        QTest::newRow("9 classic bytes") << "123#112233445566778899" << "at most 8";
        QTest::newRow("dot inside a byte") << "123#1.122" << "misplaced '.'";
        QTest::newRow("leading dot") << "123#.1122" << "misplaced '.'";
        QTest::newRow("trailing dot") << "123#1122." << "misplaced '.'";
        QTest::newRow("double dot") << "123#11..22" << "misplaced '.'";
        QTest::newRow("remote with data") << "123#RDEAD" << "length digit";
        QTest::newRow("remote length 9") << "123#R9" << "length digit";
        QTest::newRow("FD without flags") << "123##" << "flags digit";
        QTest::newRow("FD flags not hex") << "123##X11" << "flags digit";
        QTest::newRow("FD length 9") << "123##1112233445566778899" << "no valid CAN FD length";
        QTest::newRow("FD length 13") << "123##0" + QString(26, QLatin1Char('1')) << "no valid CAN FD length";
        QTest::newRow("FD length 63") << "123##0" + QString(126, QLatin1Char('1')) << "no valid CAN FD length";
        QTest::newRow("FD 65 bytes") << "123##0" + QString(130, QLatin1Char('1')) << "at most 64";
        QTest::newRow("FD remote") << "123##1R" << "not a hex digit";
    }
    void refusesMalformedFrames()
    {
        QFETCH(QString, text);
        QFETCH(QString, errorPart);
        CAN::CanMessage m;
        m.id = 0x42; // must stay untouched
        QString error;
        QVERIFY(!FrameNotation::parse(text, m, &error));
        QVERIFY2(error.contains(errorPart), qPrintable(error));
        QCOMPARE(m.id, 0x42u);
        QVERIFY(FrameNotation::parse(QStringLiteral("123#"), m)); // error pointer is optional
        QVERIFY(!FrameNotation::parse(text, m));
    }

    void validFdLengths()
    {
        QList<int> valid;
        for (int n = 0; n <= 70; ++n) {
            if (FrameNotation::isValidFdLength(n))
                valid << n;
        }
        QCOMPARE(valid, (QList<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64}));
    }

    void dumpLine_data()
    {
        QTest::addColumn<CAN::CanRxMessage>("frame");
        QTest::addColumn<QString>("line");
        auto rx = [](quint32 seconds, qint32 micros, const char* notation) {
            CAN::CanRxMessage r;
            r.timeStamp.seconds = seconds;
            r.timeStamp.microseconds = micros;
            FrameNotation::parse(QString::fromLatin1(notation), r.message);
            return r;
        };
        QTest::newRow("heartbeat") << rx(12, 345, "705#7F") << "(12.000345)  705                   [1]  7F";
        QTest::newRow("no data") << rx(0, 0, "000#") << "(0.000000)  000                   [0]";
        QTest::newRow("extended") << rx(1, 999999, "1ABCDEF0#0102") << "(1.999999)  1ABCDEF0  EXT         [2]  01 02";
        QTest::newRow("remote shows no data") << rx(3, 5, "701#R1") << "(3.000005)  701       RTR         [1]";
        QTest::newRow("FD with flags")
            << rx(4, 10, "123##3000102030405060708090A0B")
            << "(4.000010)  123       FD BRS ESI [12]  00 01 02 03 04 05 06 07 08 09 0A 0B";
        CAN::CanRxMessage echo = rx(5, 0, "181#01");
        echo.echo = true;
        QTest::newRow("echo") << echo << "(5.000000)  181       ECHO        [1]  01";
        CAN::CanRxMessage foreign = rx(6, 0, "181#01");
        foreign.message.length = 200; // never more than 64 bytes shown
        const QString sixtyFour = QStringLiteral("01") + QString(QStringLiteral(" 00")).repeated(63);
        QTest::newRow("length beyond 64") << foreign << "(6.000000)  181                  [200]  " + sixtyFour;
    }
    void dumpLine()
    {
        QFETCH(CAN::CanRxMessage, frame);
        QFETCH(QString, line);
        QCOMPARE(FrameNotation::dumpLine(frame), line);
    }
};

QTEST_APPLESS_MAIN(tst_FrameNotation)
#include "tst_framenotation.moc"
