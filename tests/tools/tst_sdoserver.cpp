// The simulated device's SDO server as a client sees it: the answer frames
// to requests, byte by byte, where the library's engines (tests/sdo, end to
// end against this server) never go: requests without size, wrong toggles,
// sequence numbers and CRCs, frames out of turn, client aborts and stalls.
#include "canopenmasterclass.h"
#include "objectdictionary.h"
#include "recordingcanadapter.h"
#include "sdoserver.h"
#include "simdevice.h"

#include <QRandomGenerator>
#include <QtTest>
#include <cstring>

namespace {
constexpr quint8 Node = 5;
constexpr quint32 RequestId = 0x600 + Node;

QByteArray hex(const QString& text) { return QByteArray::fromHex(text.toLatin1()); }
QString hexOf(const QByteArray& bytes) { return QString::fromLatin1(bytes.toHex(' ')); }

// A device with the default dictionary and its SDO server, on a recording adapter.
struct Rig {
    RecordingCanAdapter adapter;
    SimDevice device{Node, &adapter};
    ObjectDictionary od;
    SdoServer server{&device, &od};

    Rig() { od.addDefaultEntries(Node, &device); }
    // Injects one request (any length); the answers, each an eight-byte frame on 0x580 + node.
    QStringList exchange(const QByteArray& request, quint32 id = RequestId, bool extended = false, bool rtr = false)
    {
        adapter.clearWritten();
        CAN::CanRxMessage rx;
        rx.message.id = id;
        rx.message.extended = extended;
        rx.message.rtr = rtr;
        rx.message.length = quint8(qMin(request.size(), 8));
        std::memcpy(rx.message.data, request.constData(), rx.message.length);
        adapter.inject(rx);
        QStringList answers;
        for (const CAN::CanMessage& m : adapter.written())
            answers << (m.id == 0x580u + Node && m.length == 8 && !m.extended && !m.rtr ? hexOf(frameData(m)) : QStringLiteral("bad frame"));
        adapter.clearWritten();
        return answers;
    }
};
} // namespace

class tst_SdoServer : public QObject
{
    Q_OBJECT
private:
    static void row(const char* name, const QStringList& steps, const QString& entry = QString(),
                    const QString& value = QString(), int blockSize = 127, bool crc = true)
    {
        QTest::newRow(name) << steps << blockSize << crc << entry << value;
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    // Each step is "request > answer | answer ..." ("request >" for no
    // answer); the entry "iiii/ss", if given, must hold the value at the end.
    void conversation_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<bool>("crc");
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QString>("value");
        // Expedited downloads: how the size bits choose the bytes taken.
        row("BOOLEAN without size takes one byte", {"22 00 20 01 00 ff ff ff > 60 00 20 01 00 00 00 00"}, "2000/01", "00");
        row("UNSIGNED8 0x1FF keeps the low byte", {"2f 00 20 0a ff 01 00 00 > 60 00 20 0a 00 00 00 00"}, "2000/0a", "ff");
        row("UNSIGNED16 without size", {"22 00 20 0b 34 12 ff ff > 60 00 20 0b 00 00 00 00"}, "2000/0b", "34 12");
        row("string without size takes four bytes", {"22 05 20 00 61 62 63 64 > 60 05 20 00 00 00 00 00"}, "2005/00", "61 62 63 64");
        row("one byte into UNSIGNED16", {"2f 00 20 0b 01 00 00 00 > 80 00 20 0b 13 00 07 06"}, "2000/0b", "ef be");
        row("no size into INTEGER64", {"22 00 20 09 01 02 03 04 > 80 00 20 09 13 00 07 06"});
        row("BOOLEAN 2", {"2f 00 20 01 02 00 00 00 > 80 00 20 01 30 00 09 06"}, "2000/01", "01");
        row("heartbeat time", {"2b 17 10 00 f4 01 00 00 > 60 17 10 00 00 00 00 00",
                               "40 17 10 00 00 00 00 00 > 4b 17 10 00 f4 01 00 00"}, "1017/00", "f4 01");

        // Requests the server refuses with an abort frame.
        row("write: const", {"2f 00 20 00 05 00 00 00 > 80 00 20 00 02 00 01 06"});
        row("segmented write: read-only string", {"21 01 20 00 0a 00 00 00 > 80 01 20 00 02 00 01 06"});
        row("segmented write: size too high", {"21 00 20 0b 03 00 00 00 > 80 00 20 0b 12 00 07 06"});
        row("segmented write: size too low", {"21 00 20 0d 02 00 00 00 > 80 00 20 0d 13 00 07 06"});
        row("segmented write: domain over 64 KiB", {"21 02 20 00 01 00 01 00 > 80 02 20 00 12 00 07 06"});
        row("block read: block size 0", {"a4 01 20 00 00 00 00 00 > 80 01 20 00 02 00 04 05"});
        row("block read: block size 128", {"a4 01 20 00 80 00 00 00 > 80 01 20 00 02 00 04 05"});
        row("unknown command specifier", {"e0 00 20 01 00 00 00 00 > 80 00 20 01 01 00 04 05"});
        row("segment request while idle", {"60 00 00 00 00 00 00 00 > 80 00 00 00 01 00 04 05"});
        row("download segment while idle", {"00 41 42 43 44 45 46 47 > 80 41 42 43 01 00 04 05"});
        row("abort while idle is not answered", {"80 00 20 01 00 00 00 05 >"});
        row("short frame", {"40 00 20 > 80 00 20 00 00 00 00 08"});
        row("empty frame", {" > 80 00 00 00 00 00 00 08"});

        // Segmented transfers: toggles, sizes, interruptions.
        const char* init10 = "21 05 20 00 0a 00 00 00 > 60 05 20 00 00 00 00 00";
        row("download: second segment not toggled",
            {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00", "09 48 49 4a 00 00 00 00 > 80 05 20 00 00 00 03 05"},
            "2005/00", "63 6f 73 69 6d");
        row("download: first segment toggled", {init10, "10 41 42 43 44 45 46 47 > 80 05 20 00 00 00 03 05"}, "2005/00",
            "63 6f 73 69 6d");
        row("download: more than announced", {"21 05 20 00 05 00 00 00 > 60 05 20 00 00 00 00 00",
                                              "00 41 42 43 44 45 46 47 > 80 05 20 00 10 00 07 06"},
            "2005/00", "63 6f 73 69 6d");
        row("download: less than announced", {init10, "07 41 42 43 44 00 00 00 > 80 05 20 00 10 00 07 06"}, "2005/00",
            "63 6f 73 69 6d");
        row("download without size",
            {"20 05 20 00 00 00 00 00 > 60 05 20 00 00 00 00 00", "0b 61 62 00 00 00 00 00 > 20 00 00 00 00 00 00 00"},
            "2005/00", "61 62");
        row("download without size, over the entry's size",
            {"20 00 20 0b 00 00 00 00 > 60 00 20 0b 00 00 00 00", "00 01 02 03 04 05 06 07 > 80 00 20 0b 12 00 07 06"},
            "2000/0b", "ef be");
        row("a new request replaces an unfinished one",
            {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00",
             "40 03 20 00 00 00 00 00 > 43 03 20 00 78 56 34 12"},
            "2005/00", "63 6f 73 69 6d");
        row("short frame inside a download", {init10, "00 41 42 > 80 05 20 00 00 00 00 08"}, "2005/00", "63 6f 73 69 6d");
        row("upload: first request toggled",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "70 00 00 00 00 00 00 00 > 80 08 10 00 00 00 03 05"});
        row("upload: toggle repeated",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
             "60 00 00 00 00 00 00 00 > 80 08 10 00 00 00 03 05"});
        row("download segment during an upload",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "00 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
        row("segment request during a download", {init10, "60 00 00 00 00 00 00 00 > 80 05 20 00 01 00 04 05"});

        // Block transfers: sequence numbers, CRC, repetition, protocol switch.
        const char* init3 = "c2 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00";
        const char* seg3 = "81 61 62 63 00 00 00 00 > a2 01 7f 00 00 00 00 00";
        row("download with a correct CRC",
            {"c6 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00", seg3, "d1 d6 9d 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2005/00", "61 62 63");
        row("download with a wrong CRC",
            {"c6 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00", seg3, "d1 d7 9d 00 00 00 00 00 > 80 05 20 00 04 00 04 05"},
            "2005/00", "63 6f 73 69 6d");
        row("download: server without CRC ignores the client's",
            {"c6 05 20 00 03 00 00 00 > a0 05 20 00 7f 00 00 00", seg3, "d1 00 00 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2005/00", "61 62 63", 127, false);
        row("download without size",
            {"c0 05 20 00 00 00 00 00 > a4 05 20 00 7f 00 00 00", seg3, "d1 00 00 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2005/00", "61 62 63");
        row("download: end frame disagrees with the size", {init3, seg3, "c9 00 00 00 00 00 00 00 > 80 05 20 00 10 00 07 06"},
            "2005/00", "63 6f 73 69 6d");
        row("download: sequence number 0", {init3, "00 61 62 63 00 00 00 00 > 80 05 20 00 03 00 04 05"});
        row("download: sequence number over the block size",
            {"c2 05 20 00 0e 00 00 00 > a4 05 20 00 03 00 00 00", "04 41 42 43 44 45 46 47 > 80 05 20 00 03 00 04 05"},
            QString(), QString(), 3);
        row("download: lost segment repeated in the next sub-block",
            {"c2 05 20 00 0e 00 00 00 > a4 05 20 00 03 00 00 00", "01 41 42 43 44 45 46 47 >",
             "03 00 00 00 00 00 00 00 > a2 01 03 00 00 00 00 00", "81 48 49 4a 4b 4c 4d 4e > a2 01 03 00 00 00 00 00",
             "c1 00 00 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2005/00", "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e", 3);
        row("download: more than announced",
            {init3, "01 61 62 63 00 00 00 00 >", "82 64 00 00 00 00 00 00 > 80 05 20 00 10 00 07 06"});
        const char* nameInit = "a4 08 10 00 7f 00 00 00 > c6 08 10 00 16 00 00 00";
        const char* nameBlock = "a3 00 00 00 00 00 00 00 > 01 63 6f 73 69 6d 20 73 | 02 69 6d 75 6c 61 74 65 "
                                "| 03 64 20 64 65 76 69 63 | 84 65 00 00 00 00 00 00";
        row("upload of the device name with CRC",
            {nameInit, nameBlock, "a2 04 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00", "a1 00 00 00 00 00 00 00 >"});
        row("upload: no CRC when the client has none",
            {"a0 08 10 00 7f 00 00 00 > c6 08 10 00 16 00 00 00", nameBlock, "a2 04 7f 00 00 00 00 00 > d9 00 00 00 00 00 00 00",
             "a1 00 00 00 00 00 00 00 >"});
        row("upload: no CRC when the server has none",
            {"a4 08 10 00 7f 00 00 00 > c2 08 10 00 16 00 00 00", nameBlock, "a2 04 7f 00 00 00 00 00 > d9 00 00 00 00 00 00 00",
             "a1 00 00 00 00 00 00 00 >"},
            QString(), QString(), 127, false);
        row("upload with the client's block size, repeating what was not confirmed",
            {"a4 08 10 00 02 00 00 00 > c6 08 10 00 16 00 00 00",
             "a3 00 00 00 00 00 00 00 > 01 63 6f 73 69 6d 20 73 | 02 69 6d 75 6c 61 74 65",
             "a2 01 03 00 00 00 00 00 > 01 69 6d 75 6c 61 74 65 | 02 64 20 64 65 76 69 63 | 83 65 00 00 00 00 00 00",
             "a2 03 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00", "a1 00 00 00 00 00 00 00 >"});
        row("upload: last segment not confirmed is sent again",
            {nameInit, nameBlock, "a2 03 7f 00 00 00 00 00 > 81 65 00 00 00 00 00 00",
             "a2 01 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00", "a1 00 00 00 00 00 00 00 >"});
        row("upload: confirmation of more than was sent", {nameInit, nameBlock, "a2 05 7f 00 00 00 00 00 > 80 08 10 00 03 00 04 05"});
        row("upload: confirmation asks for block size 0",
            {"a4 08 10 00 02 00 00 00 > c6 08 10 00 16 00 00 00",
             "a3 00 00 00 00 00 00 00 > 01 63 6f 73 69 6d 20 73 | 02 69 6d 75 6c 61 74 65",
             "a2 02 00 00 00 00 00 00 > 80 08 10 00 02 00 04 05"});
        row("upload: protocol switch to expedited", {"a4 03 20 00 7f 04 00 00 > 43 03 20 00 78 56 34 12"});
        row("upload: protocol switch to segmented",
            {"a4 08 10 00 7f 16 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
             "80 08 10 00 00 00 00 05 >"});
        row("upload: value longer than the switch threshold", {"a4 08 10 00 7f 15 00 00 > c6 08 10 00 16 00 00 00",
                                                               "80 08 10 00 00 00 00 05 >"});
        row("upload: wrong request instead of the end confirmation",
            {nameInit, nameBlock, "a2 04 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00",
             "a3 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
    }
    void conversation()
    {
        QFETCH(QStringList, steps);
        QFETCH(int, blockSize);
        QFETCH(bool, crc);
        QFETCH(QString, entry);
        QFETCH(QString, value);
        Rig rig;
        QVERIFY(rig.server.setBlockSize(quint8(blockSize)));
        rig.server.setCrcSupported(crc);
        for (const QString& step : steps) {
            const QStringList parts = step.split(QLatin1Char('>'));
            QStringList expected;
            for (const QString& a : parts.value(1).split(QLatin1Char('|'), Qt::SkipEmptyParts))
                expected << hexOf(hex(a));
            QCOMPARE(rig.exchange(hex(parts[0])).join(" | ") + QStringLiteral("  after ") + parts[0].trimmed(),
                     expected.join(" | ") + QStringLiteral("  after ") + parts[0].trimmed());
        }
        QCOMPARE(rig.server.state(), SdoServer::Idle);
        if (!entry.isEmpty())
            QCOMPARE(hexOf(rig.od.value(quint16(entry.left(4).toUInt(nullptr, 16)), quint8(entry.mid(5).toUInt(nullptr, 16)))),
                     hexOf(hex(value)));
    }

    // Whatever arrives, the server answers only with well-formed frames and
    // serves a normal request afterwards.
    void malformedFramesNeverHurt()
    {
        Rig rig;
        rig.server.setBlockSize(4);
        QRandomGenerator gen(20240501);
        const char* starts[] = {"21 05 20 00 0a 00 00 00", "40 01 20 00 00 00 00 00", "c2 02 20 00 40 00 00 00",
                                "a4 01 20 00 05 00 00 00", "a3 00 00 00 00 00 00 00"};
        for (int i = 0; i < 20000; ++i) {
            QByteArray f = hex(QLatin1String(starts[gen.bounded(5)]));
            if (gen.bounded(4) != 0) {
                f.resize(int(gen.bounded(9)));
                for (char& c : f)
                    c = char(gen.bounded(256));
            }
            QVERIFY(!rig.exchange(f).contains(QStringLiteral("bad frame")));
        }
        rig.exchange(hex(QStringLiteral("80 00 00 00 00 00 00 00")));
        QCOMPARE(rig.exchange(hex(QStringLiteral("40 03 20 00 00 00 00 00"))), QStringList{"43 03 20 00 78 56 34 12"});
    }

    // Frames not meant for the server go on to the device's other handlers.
    void otherFramesAreLeftToOtherHandlers()
    {
        Rig rig;
        int seen = 0;
        rig.device.addHandler([&seen](const CAN::CanRxMessage&) { return ++seen > 0; });
        const QByteArray read = hex(QStringLiteral("40 03 20 00 00 00 00 00"));
        QCOMPARE(rig.exchange(read, 0x606), QStringList()); // another node
        QCOMPARE(rig.exchange(read, 0x585), QStringList()); // its own answers
        QCOMPARE(rig.exchange(read, RequestId, true), QStringList()); // a 29-bit identifier
        QCOMPARE(rig.exchange(read, RequestId, false, true), QStringList()); // a remote frame
        QCOMPARE(seen, 4);
        QCOMPARE(rig.exchange(read).size(), 1);
        QCOMPARE(seen, 4);
    }

    // A stalled transfer ends with one abort frame (time-out), none while
    // idle or with the time-out off.
    void stalledTransferTimesOut_data()
    {
        QTest::addColumn<QString>("start");
        QTest::addColumn<int>("timeout");
        QTest::addColumn<QString>("abortFrame"); // empty: none
        QTest::newRow("segmented download") << "21 05 20 00 0a 00 00 00" << 40 << "80 05 20 00 00 00 04 05";
        QTest::newRow("block download") << "c2 02 20 00 40 00 00 00" << 40 << "80 02 20 00 00 00 04 05";
        QTest::newRow("block upload") << "a4 01 20 00 7f 00 00 00" << 40 << "80 01 20 00 00 00 04 05";
        QTest::newRow("time-out off") << "21 05 20 00 0a 00 00 00" << 0 << "";
        QTest::newRow("idle after an expedited read") << "40 03 20 00 00 00 00 00" << 20 << "";
    }
    void stalledTransferTimesOut()
    {
        QFETCH(QString, start);
        QFETCH(int, timeout);
        QFETCH(QString, abortFrame);
        Rig rig;
        rig.server.setTimeout(timeout);
        QCOMPARE(rig.exchange(hex(start)).size(), 1);
        if (!abortFrame.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(rig.adapter.writtenCount(), 1, 3000);
            QCOMPARE(hexOf(frameData(rig.adapter.lastWritten())), abortFrame);
            QCOMPARE(rig.server.state(), SdoServer::Idle);
        }
        QTest::qWait(100);
        QCOMPARE(rig.adapter.writtenCount(), abortFrame.isEmpty() ? 0 : 1);
    }
};

QTEST_GUILESS_MAIN(tst_SdoServer)
#include "tst_sdoserver.moc"
