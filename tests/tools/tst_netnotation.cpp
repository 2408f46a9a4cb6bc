// The notations of cotool's network commands: what each parser accepts and
// refuses. (The printed forms are checked end to end in tst_cotoolnet.)
#include "netnotation.h"

#include <QtTest>

class tst_NetNotation : public QObject
{
    Q_OBJECT
private:
    // What a parser made of the text, as one string; "refused" on failure
    // (after checking that the message names the text).
    static QString parsed(const QString& kind, const QString& text)
    {
        QString error, got;
        bool ok = false;
        if (kind.startsWith(QLatin1String("node"))) {
            quint8 node = 0;
            ok = NetNotation::parseNodeId(text, kind == QLatin1String("node or 0"), node, &error);
            got = QString::number(node);
        } else if (kind == QLatin1String("list")) {
            QVector<quint8> nodes;
            ok = NetNotation::parseNodeList(text, nodes, &error);
            for (quint8 n : nodes)
                got += QString::number(n) + QLatin1Char(' ');
            got = got.trimmed();
        } else if (kind == QLatin1String("cob")) {
            quint32 cob = 0;
            ok = NetNotation::parseCobId(text, cob, &error);
            got = QString::number(cob, 16);
        } else if (kind == QLatin1String("period")) {
            quint32 us = 0;
            ok = NetNotation::parsePeriodUs(text, us, &error);
            got = QString::number(us);
        } else if (kind == QLatin1String("map")) {
            QVector<CAN::CANopenDataType> map;
            ok = NetNotation::parseMapping(text, map, &error);
            for (CAN::CANopenDataType t : map)
                got += NetNotation::typeName(t) + QLatin1Char(' ');
            got = got.trimmed();
        } else if (kind == QLatin1String("emcy")) {
            return NetNotation::emcyDescription(quint16(text.toUInt(nullptr, 16)));
        }
        if (ok)
            return got;
        return error.isEmpty() || (!text.trimmed().isEmpty() && !error.contains(text.trimmed()))
                   ? QStringLiteral("refused without naming the text: ") + error
                   : QStringLiteral("refused");
    }

private Q_SLOTS:
    void parsers_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("result");
        const struct {
            const char* kind;
            const char* text;
            const char* result;
        } rows[] = {
            {"node", "1", "1"}, {"node", "127", "127"}, {"node", "0", "refused"}, {"node or 0", "0", "0"},
            {"node or 0", "128", "refused"}, {"node", "0x05", "refused"},
            {"list", "7,5,5,6", "5 6 7"}, {"list", "10,1-2", "1 2 10"}, {"list", "4-4", "4"}, {"list", "124-127", "124 125 126 127"},
            {"list", "3-1", "refused"}, {"list", "0,5", "refused"}, {"list", "120-128", "refused"}, {"list", "5,,6", "refused"},
            {"cob", "185", "185"}, {"cob", "0X1a5", "1a5"}, {"cob", "7FF", "7ff"}, {"cob", "800", "refused"},
            {"cob", "18G", "refused"}, {"cob", "0x", "refused"},
            {"period", "10ms", "10000"}, {"period", "500us", "500"}, {"period", "25", "25000"}, {"period", "65535ms", "65535000"},
            {"period", "65536ms", "refused"}, {"period", "65535001us", "refused"}, {"period", "0ms", "refused"},
            {"period", "1s", "refused"}, {"period", "1.5ms", "refused"},
            {"map", "u8,i8,u16,i16", "u8 i8 u16 i16"}, {"map", "U32, i32", "u32 i32"}, {"map", "u32,u32,u8", "refused"},
            {"map", "u64", "refused"}, {"map", "u8,,u8", "refused"},
            // The description falls back from the sub-class to the class.
            {"emcy", "2310", "current, device output side"}, {"emcy", "2510", "current"},
            {"emcy", "FF42", "device specific"}, {"emcy", "A000", "reserved error code class"},
        };
        for (const auto& r : rows)
            QTest::addRow("%s '%s'", r.kind, r.text) << r.kind << r.text << r.result;
    }
    void parsers()
    {
        QFETCH(QString, kind);
        QFETCH(QString, text);
        QFETCH(QString, result);
        QCOMPARE(parsed(kind, text), result);
    }
};

QTEST_MAIN(tst_NetNotation)
#include "tst_netnotation.moc"
