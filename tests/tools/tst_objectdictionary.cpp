#include "objectdictionary.h"
#include "recordingcanadapter.h"
#include "sdoabortcodes.h"
#include "simdevice.h"

#include <QtTest>
#include <atomic>
#include <thread>

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

QByteArray bytesOf(const std::vector<quint8>& v)
{
    return QByteArray(reinterpret_cast<const char*>(v.data()), int(v.size()));
}

quint32 write(ObjectDictionary& od, quint16 index, quint8 sub, const QByteArray& value)
{
    return od.write(index, sub, reinterpret_cast<const quint8*>(value.constData()), quint32(value.size()));
}

} // namespace

class tst_ObjectDictionary : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void writeRules_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("sub");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<quint32>("code");

        QTest::newRow("UNSIGNED16, 2 bytes") << 0x2000 << 0x0B << hex("3412") << SdoAbort::None;
        QTest::newRow("UNSIGNED16, 1 byte") << 0x2000 << 0x0B << hex("34") << SdoAbort::LengthTooLow;
        QTest::newRow("UNSIGNED16, 3 bytes") << 0x2000 << 0x0B << hex("341200") << SdoAbort::LengthTooHigh;
        QTest::newRow("INTEGER56, 7 bytes") << 0x2000 << 0x08 << hex("01020304050607") << SdoAbort::None;
        QTest::newRow("REAL64, 4 bytes") << 0x2000 << 0x13 << hex("00000000") << SdoAbort::LengthTooLow;
        QTest::newRow("BOOLEAN true") << 0x2000 << 0x01 << hex("01") << SdoAbort::None;
        QTest::newRow("BOOLEAN 2") << 0x2000 << 0x01 << hex("02") << SdoAbort::ValueRangeExceeded;
        QTest::newRow("read-only") << 0x2003 << 0 << hex("00000000") << SdoAbort::WriteOfReadOnly;
        QTest::newRow("const sub-index 0") << 0x2000 << 0 << hex("13") << SdoAbort::WriteOfReadOnly;
        QTest::newRow("const device name") << 0x1008 << 0 << hex("41") << SdoAbort::WriteOfReadOnly;
        QTest::newRow("write-only") << 0x2004 << 0 << hex("01020304") << SdoAbort::None;
        QTest::newRow("no such object") << 0x3000 << 0 << hex("00") << SdoAbort::ObjectDoesNotExist;
        QTest::newRow("no such sub-index") << 0x1018 << 5 << hex("00000000") << SdoAbort::SubIndexDoesNotExist;
        QTest::newRow("string, 255 bytes") << 0x2005 << 0 << QByteArray(255, 'x') << SdoAbort::None;
        QTest::newRow("string, 256 bytes") << 0x2005 << 0 << QByteArray(256, 'x') << SdoAbort::LengthTooHigh;
        QTest::newRow("string, empty") << 0x2005 << 0 << QByteArray() << SdoAbort::None;
        QTest::newRow("domain, 64 KiB") << 0x2002 << 0 << QByteArray(65536, '\x5A') << SdoAbort::None;
        QTest::newRow("domain, 64 KiB + 1") << 0x2002 << 0 << QByteArray(65537, '\x5A') << SdoAbort::LengthTooHigh;
    }
    void writeRules()
    {
        QFETCH(int, index);
        QFETCH(int, sub);
        QFETCH(QByteArray, value);
        QFETCH(quint32, code);
        ObjectDictionary od;
        od.addDefaultEntries(5);
        const QByteArray before = od.value(quint16(index), quint8(sub));

        // Before a transfer only existence, access and length can be checked.
        QCOMPARE(od.checkWrite(quint16(index), quint8(sub), value.size()),
                 code == SdoAbort::ValueRangeExceeded ? SdoAbort::None : code);
        QCOMPARE(write(od, quint16(index), quint8(sub), value), code);
        QCOMPARE(od.value(quint16(index), quint8(sub)), code == SdoAbort::None ? value : before);
    }

    void readRules_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<int>("sub");
        QTest::addColumn<quint32>("code");
        QTest::addColumn<QByteArray>("value");
        QTest::newRow("read-only value") << 0x2003 << 0 << SdoAbort::None << hex("78563412");
        QTest::newRow("identity count") << 0x1018 << 0 << SdoAbort::None << hex("04");
        QTest::newRow("serial has the node-ID") << 0x1018 << 4 << SdoAbort::None << hex("2a00005d");
        QTest::newRow("SDO answer COB-ID") << 0x1200 << 2 << SdoAbort::None << hex("aa050000");
        QTest::newRow("write-only") << 0x2004 << 0 << SdoAbort::ReadOfWriteOnly << QByteArray();
        QTest::newRow("no such object") << 0x1019 << 0 << SdoAbort::ObjectDoesNotExist << QByteArray();
        QTest::newRow("no such sub-index") << 0x2000 << 0x14 << SdoAbort::SubIndexDoesNotExist << QByteArray();
    }
    void readRules()
    {
        QFETCH(int, index);
        QFETCH(int, sub);
        QFETCH(quint32, code);
        QFETCH(QByteArray, value);
        ObjectDictionary od;
        od.addDefaultEntries(42);
        std::vector<quint8> out;
        QCOMPARE(od.read(quint16(index), quint8(sub), out), code);
        QCOMPARE(bytesOf(out), value);
    }

    void highestSubIndexMatchesTestArea()
    {
        ObjectDictionary od;
        od.addDefaultEntries(5);
        const int highest = quint8(od.value(0x2000, 0).at(0));
        QCOMPARE(highest, 19);
        for (int sub = 1; sub <= highest; ++sub)
            QVERIFY2(od.contains(0x2000, quint8(sub)), qPrintable(QString::number(sub)));
        QVERIFY(!od.contains(0x2000, quint8(highest + 1)));
        QVERIFY(od.value(0x2001, 0).size() >= 200); // a long string, several hundred bytes
    }

    void heartbeatEntryIsTheDevices()
    {
        RecordingCanAdapter adapter;
        SimDevice device(7, &adapter);
        ObjectDictionary od;
        od.addDefaultEntries(device.nodeId(), &device);

        device.setHeartbeatTime(250);
        std::vector<quint8> out;
        QCOMPARE(od.read(0x1017, 0, out), SdoAbort::None);
        QCOMPARE(bytesOf(out), hex("fa00"));

        QCOMPARE(write(od, 0x1017, 0, hex("e803")), SdoAbort::None);
        QCOMPARE(device.heartbeatTime(), quint16(1000));
        QCOMPARE(write(od, 0x1017, 0, hex("e8")), SdoAbort::LengthTooLow);
        QCOMPARE(device.heartbeatTime(), quint16(1000));
    }

    void writeHookMayRefuseAndUseTheDictionary()
    {
        ObjectDictionary od;
        QVERIFY(od.add(0x2100, 0, CAN::UNSIGNED8, ObjectDictionary::ReadWrite, hex("01"), "limit"));
        QVERIFY(od.add(0x2101, 0, CAN::UNSIGNED8, ObjectDictionary::ReadWrite, hex("00"), "value"));
        // The hook reads another entry: hooks run outside the dictionary's lock.
        QVERIFY(od.setHooks(0x2101, 0, nullptr, [&od](const std::vector<quint8>& v) {
            return v[0] > quint8(od.value(0x2100, 0).at(0)) ? SdoAbort::ValueRangeExceeded : SdoAbort::None;
        }));
        QCOMPARE(write(od, 0x2101, 0, hex("01")), SdoAbort::None);
        QCOMPARE(write(od, 0x2101, 0, hex("02")), SdoAbort::ValueRangeExceeded);
        QCOMPARE(od.value(0x2101, 0), hex("01"));
        QVERIFY(!od.setHooks(0x2102, 0, nullptr, nullptr));
    }

    void addAndSetValueKeepTheLengthRules()
    {
        ObjectDictionary od;
        QVERIFY(od.add(0x2100, 1, CAN::UNSIGNED16, ObjectDictionary::ReadOnly, hex("0100"), "a"));
        QVERIFY(!od.add(0x2100, 1, CAN::UNSIGNED16, ObjectDictionary::ReadOnly, hex("0100"), "again"));
        QVERIFY(!od.add(0x2100, 2, CAN::UNSIGNED16, ObjectDictionary::ReadOnly, hex("01"), "short"));
        QVERIFY(od.add(0x2100, 3, CAN::OCTET_STRING, ObjectDictionary::ReadWrite, hex("010203"), "grows to its value"));
        QCOMPARE(od.entryCount(), 2);

        // The device itself may change read-only entries, never their length.
        QVERIFY(od.setValue(0x2100, 1, hex("ffff")));
        QCOMPARE(od.value(0x2100, 1), hex("ffff"));
        QVERIFY(!od.setValue(0x2100, 1, hex("ff")));
        QVERIFY(!od.setValue(0x2100, 9, hex("ffff")));
        QVERIFY(od.setValue(0x2100, 3, hex("0102")));
        QVERIFY(!od.setValue(0x2100, 3, hex("01020304")));
        QCOMPARE(od.checkWrite(0x2100, 3, -1), SdoAbort::None);
        QCOMPARE(od.checkWrite(0x2100, 1, -1), SdoAbort::WriteOfReadOnly);
    }

    void listingShowsEveryEntryOnce()
    {
        ObjectDictionary od;
        od.addDefaultEntries(5);
        const QStringList lines = od.listing().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), od.entryCount() + 1);
        QSet<QString> keys;
        const QRegularExpression row(QStringLiteral("^([0-9A-F]{4})h ([0-9A-F]{2})h (\\S+) +(ro|wo|rw|const) "));
        for (int i = 1; i < lines.size(); ++i) {
            const QRegularExpressionMatch m = row.match(lines[i]);
            QVERIFY2(m.hasMatch(), qPrintable(lines[i]));
            QVERIFY(od.contains(quint16(m.captured(1).toUInt(nullptr, 16)), quint8(m.captured(2).toUInt(nullptr, 16))));
            keys.insert(m.captured(1) + m.captured(2));
        }
        QCOMPARE(keys.size(), od.entryCount());
        QVERIFY(od.listing().contains(QStringLiteral("2004h 00h UNSIGNED32      wo")));
    }

    // A writer swaps whole 64 KiB values while another thread reads: every
    // read must see one value, never a mix.
    void concurrentReadsSeeWholeValues()
    {
        ObjectDictionary od;
        od.addDefaultEntries(5);
        const QByteArray a(65536, '\xAA'), b(65536, '\x55');
        QCOMPARE(write(od, 0x2002, 0, a), SdoAbort::None);
        std::atomic<bool> stop{false};
        std::atomic<int> torn{0};
        std::thread reader([&] {
            std::vector<quint8> v;
            while (!stop.load()) {
                if (od.read(0x2002, 0, v) != SdoAbort::None || v.size() != 65536 || v.front() != v.back())
                    torn.fetch_add(1);
            }
        });
        for (int i = 0; i < 200; ++i)
            write(od, 0x2002, 0, (i & 1) ? a : b);
        stop.store(true);
        reader.join();
        QCOMPARE(torn.load(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_ObjectDictionary)
#include "tst_objectdictionary.moc"
