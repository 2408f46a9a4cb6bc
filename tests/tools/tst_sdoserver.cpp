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
    // Injects one request (any length); the answers.
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
        return answers();
    }
    // The frames written since the last call, each an eight-byte frame on 0x580 + node.
    QStringList answers()
    {
        QStringList out;
        for (const CAN::CanMessage& m : adapter.written())
            out << (m.id == 0x580u + Node && m.length == 8 && !m.extended && !m.rtr ? hexOf(frameData(m)) : QStringLiteral("bad frame"));
        adapter.clearWritten();
        return out;
    }
};
} // namespace

class tst_SdoServer : public QObject
{
    Q_OBJECT
private:
    // server: "block size 3", "no CRC", "no time-out" (else 127, CRC, 40 ms)
    static void row(const char* name, const QStringList& steps, const QString& entry = QString(), const QString& value = QString(),
                    const QString& server = QString())
    {
        QTest::newRow(name) << steps << server << entry << value;
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    // Each step is "request > answer | answer ..." ("request >" for no
    // answer; "~" as the request: the client stalls until the server's
    // time-out); the entry "iiii/ss", if given, must hold the value at the end.
    void conversation_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("server");
        QTest::addColumn<QString>("entry");
        QTest::addColumn<QString>("value");
        // Expedited downloads: how the size bits choose the bytes taken.
        row("BOOLEAN without size takes one byte", {"22 00 20 01 00 ff ff ff > 60 00 20 01 00 00 00 00"}, "2000/01", "00");
        row("UNSIGNED8 0x1FF keeps the low byte", {"2f 00 20 0a ff 01 00 00 > 60 00 20 0a 00 00 00 00"}, "2000/0a", "ff");
        row("string without size takes four bytes", {"22 05 20 00 61 62 63 64 > 60 05 20 00 00 00 00 00"}, "2005/00", "61 62 63 64");
        row("one byte into UNSIGNED16", {"2f 00 20 0b 01 00 00 00 > 80 00 20 0b 13 00 07 06"}, "2000/0b", "ef be");
        row("no size into INTEGER64", {"22 00 20 09 01 02 03 04 > 80 00 20 09 13 00 07 06"});
        row("BOOLEAN 2", {"2f 00 20 01 02 00 00 00 > 80 00 20 01 30 00 09 06"}, "2000/01", "01");

        // Requests the server refuses with an abort frame.
        row("write: const", {"2f 00 20 00 05 00 00 00 > 80 00 20 00 02 00 01 06"});
        row("segmented write: read-only string", {"21 01 20 00 0a 00 00 00 > 80 01 20 00 02 00 01 06"});
        row("segmented write: size too high", {"21 00 20 0b 03 00 00 00 > 80 00 20 0b 12 00 07 06"});
        row("segmented write: size too low", {"21 00 20 0d 02 00 00 00 > 80 00 20 0d 13 00 07 06"});
        row("segmented write: domain over 64 KiB", {"21 02 20 00 01 00 01 00 > 80 02 20 00 12 00 07 06"});
        row("block read: block size 0 or 128", {"a4 01 20 00 00 00 00 00 > 80 01 20 00 02 00 04 05",
                                                "a4 01 20 00 80 00 00 00 > 80 01 20 00 02 00 04 05"});
        row("unknown command specifier", {"e0 00 20 01 00 00 00 00 > 80 00 20 01 01 00 04 05"});
        row("download segment while idle", {"00 41 42 43 44 45 46 47 > 80 41 42 43 01 00 04 05"});
        row("abort while idle is not answered", {"80 00 20 01 00 00 00 05 >"});
        row("short frame", {"40 00 20 > 80 00 20 00 00 00 00 08"});

        // Segmented transfers: toggles, sizes, interruptions.
        const char* init10 = "21 05 20 00 0a 00 00 00 > 60 05 20 00 00 00 00 00";
        const char* name = "2005/00";
        const char* cosim = "63 6f 73 69 6d"; // its value until a download completes
        row("download: second segment not toggled", {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00",
                                                     "09 48 49 4a 00 00 00 00 > 80 05 20 00 00 00 03 05"}, name, cosim);
        row("download: more than announced", {"21 05 20 00 05 00 00 00 > 60 05 20 00 00 00 00 00",
                                              "00 41 42 43 44 45 46 47 > 80 05 20 00 10 00 07 06"}, name, cosim);
        row("download: less than announced", {init10, "07 41 42 43 44 00 00 00 > 80 05 20 00 10 00 07 06"}, name, cosim);
        row("download without size", {"20 05 20 00 00 00 00 00 > 60 05 20 00 00 00 00 00",
                                      "0b 61 62 00 00 00 00 00 > 20 00 00 00 00 00 00 00"}, name, "61 62");
        row("download without size, over the entry's size", {"20 00 20 0b 00 00 00 00 > 60 00 20 0b 00 00 00 00",
                                                              "00 01 02 03 04 05 06 07 > 80 00 20 0b 12 00 07 06"}, "2000/0b", "ef be");
        row("a new request replaces an unfinished one", {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00",
                                                         "40 03 20 00 00 00 00 00 > 43 03 20 00 78 56 34 12"}, name, cosim);
        row("short frame inside a download", {init10, "00 41 42 > 80 05 20 00 00 00 00 08"}, name, cosim);
        row("upload: toggle repeated", {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
                                        "60 00 00 00 00 00 00 00 > 80 08 10 00 00 00 03 05"});
        row("download segment in an upload", {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00",
                                                  "00 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
        row("segment request during a download", {init10, "60 00 00 00 00 00 00 00 > 80 05 20 00 01 00 04 05"});

        // Block transfers (the library's client uses neither CRC nor transfers without size): sequence
        // numbers, CRC, repetition, protocol switch.
        const char* init3 = "c2 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00";
        const char* initCrc3 = "c6 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00";
        const char* seg3 = "81 61 62 63 00 00 00 00 > a2 01 7f 00 00 00 00 00";
        const char* ended = "a1 00 00 00 00 00 00 00";
        row("download with a correct CRC", {initCrc3, seg3, QStringLiteral("d1 d6 9d 00 00 00 00 00 > ") + ended}, name, "61 62 63");
        row("download with a wrong CRC", {initCrc3, seg3, "d1 d7 9d 00 00 00 00 00 > 80 05 20 00 04 00 04 05"}, name, cosim);
        row("download: server without CRC ignores the client's", {"c6 05 20 00 03 00 00 00 > a0 05 20 00 7f 00 00 00", seg3,
                                                                  QStringLiteral("d1 00 00 00 00 00 00 00 > ") + ended}, name, "61 62 63", "no CRC");
        row("download without size", {"c0 05 20 00 00 00 00 00 > a4 05 20 00 7f 00 00 00", seg3,
                                      QStringLiteral("d1 00 00 00 00 00 00 00 > ") + ended}, name, "61 62 63");
        row("download: end frame disagrees with the size", {init3, seg3, "c9 00 00 00 00 00 00 00 > 80 05 20 00 10 00 07 06"}, name, cosim);
        row("download: sequence number over the block size", {"c2 05 20 00 0e 00 00 00 > a4 05 20 00 03 00 00 00",
                                                              "04 41 42 43 44 45 46 47 > 80 05 20 00 03 00 04 05"}, {}, {}, "block size 3");
        row("download: lost segment repeated in the next sub-block",
            {"c2 05 20 00 0e 00 00 00 > a4 05 20 00 03 00 00 00", "01 41 42 43 44 45 46 47 >", "03 00 00 00 00 00 00 00 > a2 01 03 00 00 00 00 00",
             "81 48 49 4a 4b 4c 4d 4e > a2 01 03 00 00 00 00 00", QStringLiteral("c1 00 00 00 00 00 00 00 > ") + ended},
            name, "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e", "block size 3");
        row("download: more than announced", {init3, "01 61 62 63 00 00 00 00 >", "82 64 00 00 00 00 00 00 > 80 05 20 00 10 00 07 06"});
        const char* nameInit = "a4 08 10 00 7f 00 00 00 > c6 08 10 00 16 00 00 00";
        const char* nameBlock = "a3 00 00 00 00 00 00 00 > 01 63 6f 73 69 6d 20 73 | 02 69 6d 75 6c 61 74 65 "
                                "| 03 64 20 64 65 76 69 63 | 84 65 00 00 00 00 00 00";
        const char* firstTwo = "a3 00 00 00 00 00 00 00 > 01 63 6f 73 69 6d 20 73 | 02 69 6d 75 6c 61 74 65";
        const QString end = ended + QStringLiteral(" >");
        row("upload: no CRC when the server has none", {"a4 08 10 00 7f 00 00 00 > c2 08 10 00 16 00 00 00", nameBlock,
                                                        "a2 04 7f 00 00 00 00 00 > d9 00 00 00 00 00 00 00", end}, {}, {}, "no CRC");
        row("upload with the client's block size, repeating what was not confirmed",
            {"a4 08 10 00 02 00 00 00 > c6 08 10 00 16 00 00 00", firstTwo,
             "a2 01 03 00 00 00 00 00 > 01 69 6d 75 6c 61 74 65 | 02 64 20 64 65 76 69 63 | 83 65 00 00 00 00 00 00",
             "a2 03 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00", end});
        row("upload: last segment not confirmed is sent again", {nameInit, nameBlock, "a2 03 7f 00 00 00 00 00 > 81 65 00 00 00 00 00 00",
                                                                 "a2 01 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00", end});
        row("upload: confirmation of more than was sent", {nameInit, nameBlock, "a2 05 7f 00 00 00 00 00 > 80 08 10 00 03 00 04 05"});
        row("upload: confirmation asks for block size 0", {"a4 08 10 00 02 00 00 00 > c6 08 10 00 16 00 00 00", firstTwo,
                                                           "a2 02 00 00 00 00 00 00 > 80 08 10 00 02 00 04 05"});
        row("upload: protocol switch to expedited", {"a4 03 20 00 7f 04 00 00 > 43 03 20 00 78 56 34 12"});
        row("upload: protocol switch to segmented", {"a4 08 10 00 7f 16 00 00 > 41 08 10 00 16 00 00 00",
                                                     "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73", "80 08 10 00 00 00 00 05 >"});
        row("upload: value longer than the switch threshold", {"a4 08 10 00 7f 15 00 00 > c6 08 10 00 16 00 00 00", "80 08 10 00 00 00 00 05 >"});
        row("upload: wrong request instead of the end confirmation", {nameInit, nameBlock, "a2 04 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00",
                                                                      "a3 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});

        // A stalled transfer ends with one abort frame (time-out), none while idle or with the time-out off.
        row("stalled segmented download", {init10, "~ > 80 05 20 00 00 00 04 05", "~ >"}, name, cosim);
        row("stalled block download", {init3, "~ > 80 05 20 00 00 00 04 05"});
        row("stalled block upload", {nameInit, "~ > 80 08 10 00 00 00 04 05"});
        row("time-out off", {init10, "~ >", "80 05 20 00 00 00 04 05 >"}, {}, {}, "no time-out");
        row("idle after an expedited read", {"40 03 20 00 00 00 00 00 > 43 03 20 00 78 56 34 12", "~ >"});
    }
    void conversation()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, server);
        QFETCH(QString, entry);
        QFETCH(QString, value);
        Rig rig;
        QVERIFY(rig.server.setBlockSize(server.contains("block size 3") ? 3 : 127));
        rig.server.setCrcSupported(!server.contains("no CRC"));
        rig.server.setTimeout(server.contains("no time-out") ? 0 : 40);
        for (const QString& step : steps) {
            const QStringList parts = step.split(QLatin1Char('>'));
            const bool stall = parts[0].trimmed() == QLatin1String("~");
            QStringList expected;
            for (const QString& a : parts.value(1).split(QLatin1Char('|'), Qt::SkipEmptyParts))
                expected << hexOf(hex(a));
            if (stall) // a frame within the time-out, or none
                QCOMPARE(QTest::qWaitFor([&rig]() { return rig.adapter.writtenCount() > 0; }, expected.isEmpty() ? 150 : 3000), !expected.isEmpty());
            QCOMPARE((stall ? rig.answers() : rig.exchange(hex(parts[0]))).join(" | ") + QStringLiteral("  after ") + parts[0].trimmed(),
                     expected.join(" | ") + QStringLiteral("  after ") + parts[0].trimmed());
        }
        QCOMPARE(rig.server.state(), SdoServer::Idle);
        if (!entry.isEmpty())
            QCOMPARE(hexOf(rig.od.value(quint16(entry.left(4).toUInt(nullptr, 16)), quint8(entry.mid(5).toUInt(nullptr, 16)))),
                     hexOf(hex(value)));
    }

    // Whatever arrives, the server answers only with well-formed frames;
    // frames not meant for it (another node, its own answers, 29-bit, remote)
    // get no answer and go on to the device's other handlers; a normal
    // request is served afterwards.
    void garbageNeverHurts()
    {
        Rig rig;
        rig.server.setBlockSize(4);
        int passedOn = 0, notForIt = 0;
        rig.device.addHandler([&passedOn](const CAN::CanRxMessage&) { return ++passedOn > 0; });
        QRandomGenerator gen(20240501);
        const char* starts[] = {"21 05 20 00 0a 00 00 00", "40 01 20 00 00 00 00 00", "c2 02 20 00 40 00 00 00",
                                "a4 01 20 00 05 00 00 00", "a3 00 00 00 00 00 00 00"};
        for (int i = 0; i < 3000; ++i) {
            QByteArray f = hex(QLatin1String(starts[gen.bounded(5)]));
            if (gen.bounded(4) != 0) {
                f.resize(int(gen.bounded(9)));
                for (char& c : f)
                    c = char(gen.bounded(256));
            }
            const int kind = int(gen.bounded(12)); // 0..3: not for the server
            notForIt += kind < 4 ? 1 : 0;
            const QStringList answers = rig.exchange(f, kind == 0 ? 0x606 : kind == 1 ? 0x585 : RequestId, kind == 2, kind == 3);
            QVERIFY(kind < 4 ? answers.isEmpty() : !answers.contains(QStringLiteral("bad frame")));
        }
        rig.exchange(hex(QStringLiteral("80 00 00 00 00 00 00 00")));
        QCOMPARE(rig.exchange(hex(QStringLiteral("40 03 20 00 00 00 00 00"))), QStringList{"43 03 20 00 78 56 34 12"});
        QCOMPARE(passedOn, notForIt);
    }
};

QTEST_GUILESS_MAIN(tst_SdoServer)
#include "tst_sdoserver.moc"
