#include "democanadapter.h"
#include "canopenmasterclass.h"
#include "objectdictionary.h"
#include "recordingcanadapter.h"
#include "sdoabortcodes.h"
#include "sdoserver.h"
#include "simdevice.h"
#include "testbus.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>

namespace {

constexpr quint8 Node = 5;
constexpr quint32 RequestId = 0x600 + Node;
constexpr quint32 AnswerId = 0x580 + Node;

QByteArray hex(const QString& text)
{
    return QByteArray::fromHex(text.toLatin1());
}

QString hexOf(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex(' '));
}

CAN::CanRxMessage rxFrame(quint32 id, const QByteArray& data)
{
    CAN::CanRxMessage rx;
    rx.message.id = id;
    rx.message.length = quint8(qMin(data.size(), 64));
    std::memcpy(rx.message.data, data.constData(), rx.message.length);
    return rx;
}

QByteArray pattern(int size, quint32 seed)
{
    QByteArray out(size, '\0');
    QRandomGenerator gen(seed);
    for (int i = 0; i < size; ++i)
        out[i] = char(gen.generate());
    return out;
}

// A device with the default dictionary and its SDO server, on a recording adapter.
struct Rig {
    RecordingCanAdapter adapter;
    SimDevice device{Node, &adapter};
    ObjectDictionary od;
    SdoServer server{&device, &od};

    Rig() { od.addDefaultEntries(Node, &device); }

    // Injects one request (any length) and returns the answers' data bytes.
    // Every answer must be an eight-byte frame on 0x580 + node.
    QVector<QByteArray> exchange(const QByteArray& request)
    {
        adapter.clearWritten();
        adapter.inject(rxFrame(RequestId, request));
        QVector<QByteArray> answers;
        for (const CAN::CanMessage& m : adapter.written()) {
            if (m.id != AnswerId || m.length != 8 || m.extended || m.rtr)
                answers.append(QByteArrayLiteral("bad frame: id ") + QByteArray::number(m.id, 16));
            else
                answers.append(frameData(m));
        }
        adapter.clearWritten();
        return answers;
    }
};

// How a test client reaches the server: sends one request and returns the
// answers it caused (waiting for `expected` of them where that takes time).
using Transport = std::function<QVector<QByteArray>(const QByteArray& request, int expected)>;

// A minimal SDO client for long transfers; returns "" or what went wrong.
class RawClient
{
public:
    explicit RawClient(Transport transport) : mTransport(std::move(transport)) {}

    QString segmentedDownload(quint16 index, quint8 sub, const QByteArray& value)
    {
        QString err;
        if (!expect(frame(0x21, index, sub, quint32(value.size())), mux(0x60, index, sub), err))
            return err;
        bool toggle = false;
        int offset = 0;
        do {
            const int count = qMin(7, value.size() - offset);
            const bool last = offset + count >= value.size();
            QByteArray seg(8, '\0');
            seg[0] = char((toggle ? 0x10 : 0) | ((7 - count) << 1) | (last ? 1 : 0));
            std::memcpy(seg.data() + 1, value.constData() + offset, size_t(count));
            QByteArray answer(8, '\0');
            answer[0] = char(0x20 | (toggle ? 0x10 : 0));
            if (!expect(seg, answer, err))
                return err;
            offset += count;
            toggle = !toggle;
        } while (offset < value.size());
        return QString();
    }

    QString segmentedUpload(quint16 index, quint8 sub, QByteArray& out)
    {
        out.clear();
        const QVector<QByteArray> a = mTransport(frame(0x40, index, sub, 0), 1);
        if (a.size() != 1 || a[0].mid(1, 3) != frame(0, index, sub, 0).mid(1, 3))
            return QStringLiteral("initiate answered with %1").arg(dump(a));
        if ((quint8(a[0][0]) & 0xF3) == 0x43) { // expedited, size indicated
            out = a[0].mid(4, 4 - ((quint8(a[0][0]) >> 2) & 3));
            return QString();
        }
        if (quint8(a[0][0]) != 0x41)
            return QStringLiteral("initiate answered with %1").arg(dump(a));
        const int size = int(le32(a[0], 4));
        bool toggle = false;
        for (;;) {
            const QVector<QByteArray> s = mTransport(frame(quint8(0x60 | (toggle ? 0x10 : 0)), 0, 0, 0), 1);
            if (s.size() != 1 || (quint8(s[0][0]) & 0xF0) != (toggle ? 0x10 : 0x00))
                return QStringLiteral("segment request answered with %1").arg(dump(s));
            const int count = 7 - ((quint8(s[0][0]) >> 1) & 7);
            out += s[0].mid(1, count);
            if (s[0].mid(1 + count) != QByteArray(7 - count, '\0'))
                return QStringLiteral("padding not zero in %1").arg(hexOf(s[0]));
            if (quint8(s[0][0]) & 1)
                break;
            toggle = !toggle;
        }
        return out.size() == size ? QString() : QStringLiteral("got %1 of %2 bytes").arg(out.size()).arg(size);
    }

    // Block download as the library's client does it (no CRC), or with a CRC.
    QString blockDownload(quint16 index, quint8 sub, const QByteArray& value, bool crc)
    {
        const QVector<QByteArray> a = mTransport(frame(crc ? 0xC6 : 0xC2, index, sub, quint32(value.size())), 1);
        if (a.size() != 1 || (quint8(a[0][0]) & 0xFB) != 0xA0 || a[0].mid(1, 3) != frame(0, index, sub, 0).mid(1, 3))
            return QStringLiteral("initiate answered with %1").arg(dump(a));
        int blockSize = quint8(a[0][4]);
        int offset = 0;
        bool done = false;
        while (!done) {
            int seq = 1;
            for (; seq <= blockSize; ++seq) {
                const int count = qMin(7, value.size() - offset);
                done = offset + count >= value.size();
                QByteArray seg(8, '\0');
                seg[0] = char(seq | (done ? 0x80 : 0));
                std::memcpy(seg.data() + 1, value.constData() + offset, size_t(qMax(0, count)));
                offset += 7;
                const bool confirmExpected = done || seq == blockSize;
                const QVector<QByteArray> c = mTransport(seg, confirmExpected ? 1 : 0);
                if (!confirmExpected) {
                    if (!c.isEmpty())
                        return QStringLiteral("segment %1 answered with %2").arg(seq).arg(dump(c));
                    continue;
                }
                if (c.size() != 1 || quint8(c[0][0]) != 0xA2 || quint8(c[0][1]) != seq || c[0].mid(3) != QByteArray(5, '\0'))
                    return QStringLiteral("sub-block ending with %1 confirmed with %2").arg(seq).arg(dump(c));
                blockSize = quint8(c[0][2]);
                break;
            }
        }
        const int unused = offset - value.size();
        QByteArray end(8, '\0');
        end[0] = char(0xC1 | (unused << 2));
        if (crc) {
            const quint16 sum = SdoServer::crc16(reinterpret_cast<const quint8*>(value.constData()), size_t(value.size()));
            end[1] = char(sum);
            end[2] = char(sum >> 8);
        }
        QString err;
        expect(end, hex(QStringLiteral("a1 00 00 00 00 00 00 00")), err);
        return err;
    }

    // Block upload with the client's block size; every segment is confirmed.
    QString blockUpload(quint16 index, quint8 sub, int blockSize, bool crc, QByteArray& out)
    {
        out.clear();
        QByteArray init = frame(crc ? 0xA4 : 0xA0, index, sub, quint32(blockSize));
        const QVector<QByteArray> a = mTransport(init, 1);
        if (a.size() != 1 || (quint8(a[0][0]) & 0xFB) != 0xC2 || a[0].mid(1, 3) != init.mid(1, 3))
            return QStringLiteral("initiate answered with %1").arg(dump(a));
        const bool bothCrc = crc && (quint8(a[0][0]) & 0x04);
        const int size = int(le32(a[0], 4));
        QByteArray request = hex(QStringLiteral("a3 00 00 00 00 00 00 00"));
        int received = 0;
        for (;;) {
            const int segments = qMin(blockSize, qMax(1, (size - received + 6) / 7));
            const QVector<QByteArray> s = mTransport(request, segments);
            if (s.size() != segments)
                return QStringLiteral("expected %1 segments, got %2").arg(segments).arg(dump(s));
            bool last = false;
            for (int i = 0; i < segments; ++i) {
                if ((quint8(s[i][0]) & 0x7F) != i + 1)
                    return QStringLiteral("segment %1 numbered %2").arg(i + 1).arg(hexOf(s[i]));
                last = quint8(s[i][0]) & 0x80;
                if (last != (i == segments - 1 && received + 7 * segments >= size))
                    return QStringLiteral("last-segment flag wrong in %1").arg(hexOf(s[i]));
                out += s[i].mid(1);
            }
            received += 7 * segments;
            request = frame(0xA2, 0, 0, 0);
            request[1] = char(segments);
            request[2] = char(blockSize);
            if (last)
                break;
        }
        const QVector<QByteArray> e = mTransport(request, 1);
        if (e.size() != 1 || (quint8(e[0][0]) & 0xE3) != 0xC1 || e[0].mid(3) != QByteArray(5, '\0'))
            return QStringLiteral("end frame %1").arg(dump(e));
        const int unused = (quint8(e[0][0]) >> 2) & 7;
        if (out.size() - unused != size)
            return QStringLiteral("end frame says %1 unused bytes, data %2, size %3").arg(unused).arg(out.size()).arg(size);
        out.chop(unused);
        const quint16 sum = bothCrc ? SdoServer::crc16(reinterpret_cast<const quint8*>(out.constData()), size_t(out.size())) : 0;
        if (quint8(e[0][1]) != quint8(sum) || quint8(e[0][2]) != quint8(sum >> 8))
            return QStringLiteral("end frame CRC %1, expected %2").arg(hexOf(e[0].mid(1, 2))).arg(sum, 4, 16, QLatin1Char('0'));
        const QVector<QByteArray> none = mTransport(hex(QStringLiteral("a1 00 00 00 00 00 00 00")), 0);
        return none.isEmpty() ? QString() : QStringLiteral("end confirmation answered with %1").arg(dump(none));
    }

    static QByteArray frame(quint8 command, quint16 index, quint8 sub, quint32 value)
    {
        const CAN::CanMessage m = SdoServer::multiplexedFrame(0, command, index, sub, value);
        return frameData(m);
    }

private:
    static QByteArray mux(quint8 command, quint16 index, quint8 sub) { return frame(command, index, sub, 0); }
    static quint32 le32(const QByteArray& b, int at)
    {
        return quint8(b[at]) | (quint8(b[at + 1]) << 8) | (quint8(b[at + 2]) << 16) | (quint32(quint8(b[at + 3])) << 24);
    }
    static QString dump(const QVector<QByteArray>& answers)
    {
        QStringList parts;
        for (const QByteArray& a : answers)
            parts << hexOf(a);
        return QStringLiteral("[%1]").arg(parts.join(QStringLiteral(" | ")));
    }
    bool expect(const QByteArray& request, const QByteArray& answer, QString& err)
    {
        const QVector<QByteArray> a = mTransport(request, 1);
        if (a.size() == 1 && a[0] == answer)
            return true;
        err = QStringLiteral("%1 answered with %2, expected %3").arg(hexOf(request), dump(a), hexOf(answer));
        return false;
    }

    Transport mTransport;
};

Transport rigTransport(Rig& rig)
{
    return [&rig](const QByteArray& request, int) { return rig.exchange(request); };
}

// Collects the server's answers from the virtual bus in the adapter's thread.
class AnswerSink : public QObject
{
    Q_OBJECT
public:
    explicit AnswerSink(AbstractCanAdapter* a)
    {
        connect(a, &AbstractCanAdapter::newCanMessage, this, &AnswerSink::take, Qt::DirectConnection);
    }
    int count()
    {
        std::lock_guard<CanMutex> g(mLock);
        return mAnswers.size();
    }
    QVector<QByteArray> takeAll()
    {
        std::lock_guard<CanMutex> g(mLock);
        QVector<QByteArray> out;
        for (const CAN::CanMessage& m : mAnswers)
            out.append(frameData(m));
        mAnswers.clear();
        return out;
    }
public Q_SLOTS:
    void take(CAN::CanRxMessage* m)
    {
        if (m->message.id != AnswerId || m->echo)
            return;
        std::lock_guard<CanMutex> g(mLock);
        mAnswers.append(m->message);
    }

private:
    CanMutex mLock;
    QVector<CAN::CanMessage> mAnswers;
};

// Thread CPU time in nanoseconds.
qint64 threadCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

} // namespace

class tst_SdoServer : public QObject
{
    Q_OBJECT
private:
    // Each step is "request > answer | answer ..." ("request >" for no answer).
    void addConversationColumns()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<int>("blockSize");
        QTest::addColumn<bool>("crc");
        QTest::addColumn<QString>("entry");  // "iiii/ss" whose value is checked, or empty
        QTest::addColumn<QString>("value");  // its expected bytes
    }
    void runConversation()
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
            QCOMPARE(parts.size(), 2);
            QStringList expected;
            for (const QString& a : parts[1].split(QLatin1Char('|'), Qt::SkipEmptyParts)) {
                if (!a.trimmed().isEmpty())
                    expected << hexOf(hex(a));
            }
            QStringList got;
            for (const QByteArray& a : rig.exchange(hex(parts[0])))
                got << hexOf(a);
            QVERIFY2(got == expected, qPrintable(QStringLiteral("after %1\n   got: %2\nwanted: %3")
                                                     .arg(parts[0].trimmed(), got.join(QStringLiteral(" | ")),
                                                          expected.join(QStringLiteral(" | ")))));
        }
        QCOMPARE(rig.server.state(), SdoServer::Idle);
        if (!entry.isEmpty()) {
            const quint16 index = quint16(entry.left(4).toUInt(nullptr, 16));
            const quint8 sub = quint8(entry.mid(5).toUInt(nullptr, 16));
            QCOMPARE(hexOf(rig.od.value(index, sub)), hexOf(hex(value)));
        }
    }
    static void row(const char* name, const QStringList& steps, const QString& entry = QString(),
                    const QString& value = QString(), int blockSize = 127, bool crc = true)
    {
        QTest::newRow(name) << steps << blockSize << crc << entry << value;
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        TestBus::usePrivatePort();
    }

    void crcOfKnownData()
    {
        const QByteArray check("123456789");
        QCOMPARE(SdoServer::crc16(reinterpret_cast<const quint8*>(check.constData()), size_t(check.size())), quint16(0x31C3));
        // Computed in pieces, the CRC continues where it left off.
        quint16 crc = SdoServer::crc16(reinterpret_cast<const quint8*>(check.constData()), 4);
        crc = SdoServer::crc16(reinterpret_cast<const quint8*>(check.constData()) + 4, 5, crc);
        QCOMPARE(crc, quint16(0x31C3));
        QCOMPARE(SdoServer::crc16(nullptr, 0), quint16(0));
    }

    // Expedited write and read of every numeric type; the longer ones go segmented.
    void everyNumericType_data()
    {
        addConversationColumns();
        struct Short {
            const char* name;
            const char* sub;
            const char* writeCmd;
            const char* readCmd;
            const char* data;  // four bytes as sent
            const char* value; // the entry's bytes
        };
        const Short shorts[] = {
            {"BOOLEAN", "01", "2f", "4f", "00 00 00 00", "00"},
            {"INTEGER8", "02", "2f", "4f", "80 00 00 00", "80"},
            {"INTEGER16", "03", "2b", "4b", "fe 7f 00 00", "fe 7f"},
            {"INTEGER24", "04", "27", "47", "01 02 83 00", "01 02 83"},
            {"INTEGER32", "05", "23", "43", "78 56 34 92", "78 56 34 92"},
            {"UNSIGNED8", "0a", "2f", "4f", "5a 00 00 00", "5a"},
            {"UNSIGNED16", "0b", "2b", "4b", "34 12 00 00", "34 12"},
            {"UNSIGNED24", "0c", "27", "47", "56 34 12 00", "56 34 12"},
            {"UNSIGNED32", "0d", "23", "43", "ef cd ab 89", "ef cd ab 89"},
            {"REAL32", "12", "23", "43", "00 00 50 40", "00 00 50 40"},
        };
        for (const Short& s : shorts) {
            const QString sub = QLatin1String(s.sub);
            row(s.name,
                {QStringLiteral("%1 00 20 %2 %3 > 60 00 20 %2 00 00 00 00").arg(QLatin1String(s.writeCmd), sub, QLatin1String(s.data)),
                 QStringLiteral("40 00 20 %1 00 00 00 00 > %2 00 20 %1 %3").arg(sub, QLatin1String(s.readCmd), QLatin1String(s.data))},
                QStringLiteral("2000/") + sub, QLatin1String(s.value));
        }
        // 5 to 8 bytes: initiate with size, segments with n = unused bytes.
        row("INTEGER40",
            {"21 00 20 06 05 00 00 00 > 60 00 20 06 00 00 00 00", "05 01 02 03 04 85 00 00 > 20 00 00 00 00 00 00 00",
             "40 00 20 06 00 00 00 00 > 41 00 20 06 05 00 00 00", "60 00 00 00 00 00 00 00 > 05 01 02 03 04 85 00 00"},
            "2000/06", "01 02 03 04 85");
        row("INTEGER48",
            {"21 00 20 07 06 00 00 00 > 60 00 20 07 00 00 00 00", "03 01 02 03 04 05 86 00 > 20 00 00 00 00 00 00 00",
             "40 00 20 07 00 00 00 00 > 41 00 20 07 06 00 00 00", "60 00 00 00 00 00 00 00 > 03 01 02 03 04 05 86 00"},
            "2000/07", "01 02 03 04 05 86");
        row("INTEGER56",
            {"21 00 20 08 07 00 00 00 > 60 00 20 08 00 00 00 00", "01 01 02 03 04 05 06 87 > 20 00 00 00 00 00 00 00",
             "40 00 20 08 00 00 00 00 > 41 00 20 08 07 00 00 00", "60 00 00 00 00 00 00 00 > 01 01 02 03 04 05 06 87"},
            "2000/08", "01 02 03 04 05 06 87");
        row("INTEGER64",
            {"21 00 20 09 08 00 00 00 > 60 00 20 09 00 00 00 00", "00 01 02 03 04 05 06 07 > 20 00 00 00 00 00 00 00",
             "1d 88 00 00 00 00 00 00 > 30 00 00 00 00 00 00 00", "40 00 20 09 00 00 00 00 > 41 00 20 09 08 00 00 00",
             "60 00 00 00 00 00 00 00 > 00 01 02 03 04 05 06 07", "70 00 00 00 00 00 00 00 > 1d 88 00 00 00 00 00 00"},
            "2000/09", "01 02 03 04 05 06 07 88");
        row("UNSIGNED40",
            {"21 00 20 0e 05 00 00 00 > 60 00 20 0e 00 00 00 00", "05 11 22 33 44 55 00 00 > 20 00 00 00 00 00 00 00",
             "40 00 20 0e 00 00 00 00 > 41 00 20 0e 05 00 00 00", "60 00 00 00 00 00 00 00 > 05 11 22 33 44 55 00 00"},
            "2000/0e", "11 22 33 44 55");
        row("UNSIGNED48",
            {"21 00 20 0f 06 00 00 00 > 60 00 20 0f 00 00 00 00", "03 11 22 33 44 55 66 00 > 20 00 00 00 00 00 00 00",
             "40 00 20 0f 00 00 00 00 > 41 00 20 0f 06 00 00 00", "60 00 00 00 00 00 00 00 > 03 11 22 33 44 55 66 00"},
            "2000/0f", "11 22 33 44 55 66");
        row("UNSIGNED56",
            {"21 00 20 10 07 00 00 00 > 60 00 20 10 00 00 00 00", "01 11 22 33 44 55 66 77 > 20 00 00 00 00 00 00 00",
             "40 00 20 10 00 00 00 00 > 41 00 20 10 07 00 00 00", "60 00 00 00 00 00 00 00 > 01 11 22 33 44 55 66 77"},
            "2000/10", "11 22 33 44 55 66 77");
        row("UNSIGNED64",
            {"21 00 20 11 08 00 00 00 > 60 00 20 11 00 00 00 00", "00 f1 e2 d3 c4 b5 a6 97 > 20 00 00 00 00 00 00 00",
             "1d 88 00 00 00 00 00 00 > 30 00 00 00 00 00 00 00", "40 00 20 11 00 00 00 00 > 41 00 20 11 08 00 00 00",
             "60 00 00 00 00 00 00 00 > 00 f1 e2 d3 c4 b5 a6 97", "70 00 00 00 00 00 00 00 > 1d 88 00 00 00 00 00 00"},
            "2000/11", "f1 e2 d3 c4 b5 a6 97 88");
        row("REAL64",
            {"21 00 20 13 08 00 00 00 > 60 00 20 13 00 00 00 00", "00 55 55 55 55 55 55 55 > 20 00 00 00 00 00 00 00",
             "1d d5 00 00 00 00 00 00 > 30 00 00 00 00 00 00 00", "40 00 20 13 00 00 00 00 > 41 00 20 13 08 00 00 00",
             "60 00 00 00 00 00 00 00 > 00 55 55 55 55 55 55 55", "70 00 00 00 00 00 00 00 > 1d d5 00 00 00 00 00 00"},
            "2000/13", "55 55 55 55 55 55 55 d5");
    }
    void everyNumericType() { runConversation(); }

    // Expedited downloads: how the size bits choose the bytes taken.
    void expeditedDownloadSizes_data()
    {
        addConversationColumns();
        row("BOOLEAN without size takes one byte", {"22 00 20 01 00 ff ff ff > 60 00 20 01 00 00 00 00"}, "2000/01", "00");
        row("UNSIGNED8 0x1FF keeps the low byte", {"2f 00 20 0a ff 01 00 00 > 60 00 20 0a 00 00 00 00"}, "2000/0a", "ff");
        row("UNSIGNED16 without size", {"22 00 20 0b 34 12 ff ff > 60 00 20 0b 00 00 00 00"}, "2000/0b", "34 12");
        row("UNSIGNED32 without size", {"22 00 20 0d 01 02 03 04 > 60 00 20 0d 00 00 00 00"}, "2000/0d", "01 02 03 04");
        row("string without size takes four bytes", {"22 05 20 00 61 62 63 64 > 60 05 20 00 00 00 00 00"}, "2005/00", "61 62 63 64");
        row("string of two bytes", {"2b 05 20 00 68 69 00 00 > 60 05 20 00 00 00 00 00"}, "2005/00", "68 69");
        row("two bytes into UNSIGNED8", {"2b 00 20 0a 01 02 00 00 > 80 00 20 0a 12 00 07 06"}, "2000/0a", "a5");
        row("one byte into UNSIGNED16", {"2f 00 20 0b 01 00 00 00 > 80 00 20 0b 13 00 07 06"}, "2000/0b", "ef be");
        row("four bytes into INTEGER64", {"23 00 20 09 01 02 03 04 > 80 00 20 09 13 00 07 06"});
        row("no size into INTEGER64", {"22 00 20 09 01 02 03 04 > 80 00 20 09 13 00 07 06"});
        row("BOOLEAN 2", {"2f 00 20 01 02 00 00 00 > 80 00 20 01 30 00 09 06"}, "2000/01", "01");
        row("heartbeat time", {"2b 17 10 00 f4 01 00 00 > 60 17 10 00 00 00 00 00",
                               "40 17 10 00 00 00 00 00 > 4b 17 10 00 f4 01 00 00"}, "1017/00", "f4 01");
    }
    void expeditedDownloadSizes() { runConversation(); }

    // One request, one abort frame with the right multiplexer and code.
    void abortCodes_data()
    {
        addConversationColumns();
        row("read: no such object", {"40 00 30 00 00 00 00 00 > 80 00 30 00 00 00 02 06"});
        row("read: no such sub-index", {"40 18 10 05 00 00 00 00 > 80 18 10 05 11 00 09 06"});
        row("read: write-only", {"40 04 20 00 00 00 00 00 > 80 04 20 00 01 00 01 06"});
        row("write: read-only", {"23 03 20 00 01 02 03 04 > 80 03 20 00 02 00 01 06"}, "2003/00", "78 56 34 12");
        row("write: const", {"2f 00 20 00 05 00 00 00 > 80 00 20 00 02 00 01 06"});
        row("write: identity", {"23 18 10 01 01 00 00 00 > 80 18 10 01 02 00 01 06"});
        row("write: no such object", {"23 00 30 00 01 00 00 00 > 80 00 30 00 00 00 02 06"});
        row("segmented write: read-only string", {"21 01 20 00 0a 00 00 00 > 80 01 20 00 02 00 01 06"});
        row("segmented write: size too high", {"21 00 20 0b 03 00 00 00 > 80 00 20 0b 12 00 07 06"});
        row("segmented write: size too low", {"21 00 20 0d 02 00 00 00 > 80 00 20 0d 13 00 07 06"});
        row("segmented write: domain over 64 KiB", {"21 02 20 00 01 00 01 00 > 80 02 20 00 12 00 07 06"});
        row("segmented write: string over 255", {"21 05 20 00 00 01 00 00 > 80 05 20 00 12 00 07 06"});
        row("block write: no such object", {"c2 00 30 00 04 00 00 00 > 80 00 30 00 00 00 02 06"});
        row("block write: read-only", {"c2 03 20 00 04 00 00 00 > 80 03 20 00 02 00 01 06"});
        row("block write: domain over 64 KiB", {"c2 02 20 00 01 00 01 00 > 80 02 20 00 12 00 07 06"});
        row("block read: write-only", {"a4 04 20 00 7f 00 00 00 > 80 04 20 00 01 00 01 06"});
        row("block read: no such sub-index", {"a4 00 20 14 7f 00 00 00 > 80 00 20 14 11 00 09 06"});
        row("block read: block size 0", {"a4 01 20 00 00 00 00 00 > 80 01 20 00 02 00 04 05"});
        row("block read: block size 128", {"a4 01 20 00 80 00 00 00 > 80 01 20 00 02 00 04 05"});
        row("unknown command specifier", {"e0 00 20 01 00 00 00 00 > 80 00 20 01 01 00 04 05"});
        row("segment request while idle", {"60 00 00 00 00 00 00 00 > 80 00 00 00 01 00 04 05"});
        row("download segment while idle", {"00 41 42 43 44 45 46 47 > 80 41 42 43 01 00 04 05"});
        row("block start while idle", {"a3 00 00 00 00 00 00 00 > 80 00 00 00 01 00 04 05"});
        row("block end while idle", {"c1 00 00 00 00 00 00 00 > 80 00 00 00 01 00 04 05"});
        row("abort while idle is not answered", {"80 00 20 01 00 00 00 05 >"});
        row("short frame", {"40 00 20 > 80 00 20 00 00 00 00 08"});
        row("empty frame", {" > 80 00 00 00 00 00 00 08"});
    }
    void abortCodes() { runConversation(); }

    void segmentedTransfers_data()
    {
        addConversationColumns();
        const char* init10 = "21 05 20 00 0a 00 00 00 > 60 05 20 00 00 00 00 00";
        row("download of 10 bytes",
            {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00", "19 48 49 4a 00 00 00 00 > 30 00 00 00 00 00 00 00"},
            "2005/00", "41 42 43 44 45 46 47 48 49 4a");
        row("download of 7 bytes, one last segment",
            {"21 05 20 00 07 00 00 00 > 60 05 20 00 00 00 00 00", "01 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00"},
            "2005/00", "41 42 43 44 45 46 47");
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
        row("download without size, too short for the type",
            {"20 00 20 0d 00 00 00 00 > 60 00 20 0d 00 00 00 00", "0b 01 02 00 00 00 00 00 > 80 00 20 0d 13 00 07 06"},
            "2000/0d", "ef be ad de");
        row("download of nothing",
            {"21 05 20 00 00 00 00 00 > 60 05 20 00 00 00 00 00", "0f 00 00 00 00 00 00 00 > 20 00 00 00 00 00 00 00"},
            "2005/00", "");
        row("client abort ends a download",
            {init10, "80 05 20 00 00 00 00 05 >", "00 41 42 43 44 45 46 47 > 80 41 42 43 01 00 04 05"}, "2005/00",
            "63 6f 73 69 6d");
        row("a new request replaces an unfinished one",
            {init10, "00 41 42 43 44 45 46 47 > 20 00 00 00 00 00 00 00",
             "40 03 20 00 00 00 00 00 > 43 03 20 00 78 56 34 12"},
            "2005/00", "63 6f 73 69 6d");
        row("short frame inside a download", {init10, "00 41 42 > 80 05 20 00 00 00 00 08"}, "2005/00", "63 6f 73 69 6d");
        row("short abort inside a download", {init10, "80 05 > ", "00 41 42 43 44 45 46 47 > 80 41 42 43 01 00 04 05"});
        row("upload answers a read of 4 bytes expedited", {"40 18 10 02 00 00 00 00 > 43 18 10 02 51 c0 00 00"});
        row("upload of the device name",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
             "70 00 00 00 00 00 00 00 > 10 69 6d 75 6c 61 74 65", "60 00 00 00 00 00 00 00 > 00 64 20 64 65 76 69 63",
             "70 00 00 00 00 00 00 00 > 1d 65 00 00 00 00 00 00", "70 00 00 00 00 00 00 00 > 80 00 00 00 01 00 04 05"});
        row("upload: first request toggled",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "70 00 00 00 00 00 00 00 > 80 08 10 00 00 00 03 05"});
        row("upload: toggle repeated",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
             "60 00 00 00 00 00 00 00 > 80 08 10 00 00 00 03 05"});
        row("upload of an empty domain",
            {"40 02 20 00 00 00 00 00 > 41 02 20 00 00 00 00 00", "60 00 00 00 00 00 00 00 > 0f 00 00 00 00 00 00 00"});
        row("download segment during an upload",
            {"40 08 10 00 00 00 00 00 > 41 08 10 00 16 00 00 00", "00 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
        row("segment request during a download", {init10, "60 00 00 00 00 00 00 00 > 80 05 20 00 01 00 04 05"});
    }
    void segmentedTransfers() { runConversation(); }

    void blockTransfers_data()
    {
        addConversationColumns();
        const char* init3 = "c2 05 20 00 03 00 00 00 > a4 05 20 00 7f 00 00 00";
        const char* seg3 = "81 61 62 63 00 00 00 00 > a2 01 7f 00 00 00 00 00";
        row("download of 3 bytes, no CRC", {init3, seg3, "d1 00 00 00 00 00 00 00 > a1 00 00 00 00 00 00 00"}, "2005/00",
            "61 62 63");
        row("download: CRC ignored when the client has none", {init3, seg3, "d1 12 34 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2005/00", "61 62 63");
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
        row("download: client abort inside a sub-block", {init3, "80 05 20 00 00 00 00 05 >"}, "2005/00", "63 6f 73 69 6d");
        row("download: wrong request instead of the end", {init3, seg3, "60 00 00 00 00 00 00 00 > 80 05 20 00 01 00 04 05"});
        row("download: more than announced",
            {init3, "01 61 62 63 00 00 00 00 >", "82 64 00 00 00 00 00 00 > 80 05 20 00 10 00 07 06"});
        row("download of nothing",
            {"c2 02 20 00 00 00 00 00 > a4 02 20 00 7f 00 00 00", "81 00 00 00 00 00 00 00 > a2 01 7f 00 00 00 00 00",
             "dd 00 00 00 00 00 00 00 > a1 00 00 00 00 00 00 00"},
            "2002/00", "");

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
        row("upload of an empty domain",
            {"a4 02 20 00 7f 00 00 00 > c6 02 20 00 00 00 00 00", "a3 00 00 00 00 00 00 00 > 81 00 00 00 00 00 00 00",
             "a2 01 7f 00 00 00 00 00 > dd 00 00 00 00 00 00 00", "a1 00 00 00 00 00 00 00 >"});
        row("upload: protocol switch to expedited", {"a4 03 20 00 7f 04 00 00 > 43 03 20 00 78 56 34 12"});
        row("upload: protocol switch to segmented",
            {"a4 08 10 00 7f 16 00 00 > 41 08 10 00 16 00 00 00", "60 00 00 00 00 00 00 00 > 00 63 6f 73 69 6d 20 73",
             "80 08 10 00 00 00 00 05 >"});
        row("upload: value longer than the switch threshold", {"a4 08 10 00 7f 15 00 00 > c6 08 10 00 16 00 00 00",
                                                               "80 08 10 00 00 00 00 05 >"});
        row("upload: wrong request instead of the start", {nameInit, "60 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
        row("upload: client abort after a sub-block", {nameInit, nameBlock, "80 08 10 00 00 00 00 05 >"});
        row("upload: wrong request instead of the end confirmation",
            {nameInit, nameBlock, "a2 04 7f 00 00 00 00 00 > d9 25 8d 00 00 00 00 00",
             "a3 00 00 00 00 00 00 00 > 80 08 10 00 01 00 04 05"});
    }
    void blockTransfers() { runConversation(); }

    // Long values, byte-exact both ways, with every transfer kind.
    void longValuesByteExact_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("blockSize"); // server's (download) or client's (upload)
        QTest::addColumn<bool>("crc");
        QTest::newRow("segmented, 64 KiB") << "segmented" << 65536 << 127 << false;
        QTest::newRow("segmented, 9 bytes") << "segmented" << 9 << 127 << false;
        QTest::newRow("block, 64 KiB") << "block" << 65536 << 127 << false;
        QTest::newRow("block, 64 KiB, CRC") << "block" << 65536 << 127 << true;
        QTest::newRow("block, 64 KiB, block size 5") << "block" << 65536 << 5 << true;
        QTest::newRow("block, one full sub-block") << "block" << 127 * 7 << 127 << false;
        QTest::newRow("block, one sub-block and a byte") << "block" << 127 * 7 + 1 << 127 << true;
        QTest::newRow("block, 29 bytes") << "block" << 29 << 127 << false;
        QTest::newRow("block, 1 byte, block size 1") << "block" << 1 << 1 << true;
    }
    void longValuesByteExact()
    {
        QFETCH(QString, kind);
        QFETCH(int, size);
        QFETCH(int, blockSize);
        QFETCH(bool, crc);
        Rig rig;
        QVERIFY(rig.server.setBlockSize(quint8(blockSize)));
        RawClient client(rigTransport(rig));
        const QByteArray value = pattern(size, quint32(size));

        QString err = kind == QLatin1String("block") ? client.blockDownload(0x2002, 0, value, crc)
                                                     : client.segmentedDownload(0x2002, 0, value);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QVERIFY(rig.od.value(0x2002, 0) == value);

        QByteArray back;
        err = kind == QLatin1String("block") ? client.blockUpload(0x2002, 0, blockSize, crc, back)
                                             : client.segmentedUpload(0x2002, 0, back);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QCOMPARE(back.size(), value.size());
        QVERIFY(back == value);
        QCOMPARE(rig.server.state(), SdoServer::Idle);
        QCOMPARE(rig.server.completedTransfers(), 2u);
    }

    // Whatever arrives, the server answers only with well-formed frames and
    // can serve a normal request afterwards.
    void malformedFramesNeverHurt()
    {
        Rig rig;
        rig.server.setBlockSize(4);
        QRandomGenerator gen(20240501);
        // Start frames that lead into every state, mixed with random frames.
        const QByteArray starts[] = {hex(QStringLiteral("21 05 20 00 0a 00 00 00")), hex(QStringLiteral("40 01 20 00 00 00 00 00")),
                                     hex(QStringLiteral("c2 02 20 00 40 00 00 00")), hex(QStringLiteral("a4 01 20 00 05 00 00 00")),
                                     hex(QStringLiteral("a3 00 00 00 00 00 00 00"))};
        int answers = 0;
        for (int i = 0; i < 20000; ++i) {
            QByteArray f;
            if (gen.bounded(4) == 0) {
                f = starts[gen.bounded(5)];
            } else {
                f = QByteArray(int(gen.bounded(10)), '\0');
                for (char& c : f)
                    c = char(gen.bounded(256));
            }
            const QVector<QByteArray> a = rig.exchange(f);
            for (const QByteArray& x : a)
                QVERIFY2(x.size() == 8, x.constData());
            answers += a.size();
        }
        QVERIFY(answers > 0);
        rig.exchange(hex(QStringLiteral("80 00 00 00 00 00 00 00")));
        const QVector<QByteArray> a = rig.exchange(hex(QStringLiteral("40 03 20 00 00 00 00 00")));
        QCOMPARE(a.size(), 1);
        QCOMPARE(hexOf(a[0]), QStringLiteral("43 03 20 00 78 56 34 12"));
    }

    void otherFramesAreLeftToOtherHandlers_data()
    {
        QTest::addColumn<quint32>("id");
        QTest::addColumn<bool>("extended");
        QTest::addColumn<bool>("rtr");
        QTest::newRow("other node") << quint32(0x606) << false << false;
        QTest::newRow("own answer id") << AnswerId << false << false;
        QTest::newRow("29-bit identifier") << RequestId << true << false;
        QTest::newRow("remote frame") << RequestId << false << true;
    }
    void otherFramesAreLeftToOtherHandlers()
    {
        QFETCH(quint32, id);
        QFETCH(bool, extended);
        QFETCH(bool, rtr);
        Rig rig;
        int seen = 0;
        rig.device.addHandler([&seen](const CAN::CanRxMessage&) {
            ++seen;
            return true;
        });
        CAN::CanRxMessage rx = rxFrame(id, hex(QStringLiteral("40 03 20 00 00 00 00 00")));
        rx.message.extended = extended;
        rx.message.rtr = rtr;
        rig.adapter.inject(rx);
        QCOMPARE(rig.adapter.writtenCount(), 0);
        QCOMPARE(seen, 1);
        // Its own requests the server consumes.
        rig.adapter.inject(rxFrame(RequestId, hex(QStringLiteral("40 03 20 00 00 00 00 00"))));
        QCOMPARE(rig.adapter.writtenCount(), 1);
        QCOMPARE(seen, 1);
    }

    void serverGoneBeforeDevice()
    {
        RecordingCanAdapter adapter;
        SimDevice device(Node, &adapter);
        ObjectDictionary od;
        od.addDefaultEntries(Node);
        auto server = std::make_unique<SdoServer>(&device, &od);
        adapter.inject(rxFrame(RequestId, hex(QStringLiteral("40 03 20 00 00 00 00 00"))));
        QCOMPARE(adapter.writtenCount(), 1);
        server.reset();
        adapter.inject(rxFrame(RequestId, hex(QStringLiteral("40 03 20 00 00 00 00 00"))));
        QCOMPARE(adapter.writtenCount(), 1);
    }

    void stalledTransferTimesOut_data()
    {
        QTest::addColumn<QString>("start");
        QTest::addColumn<QString>("abortFrame");
        QTest::newRow("segmented download") << "21 05 20 00 0a 00 00 00" << "80 05 20 00 00 00 04 05";
        QTest::newRow("block download") << "c2 02 20 00 40 00 00 00" << "80 02 20 00 00 00 04 05";
        QTest::newRow("block upload") << "a4 01 20 00 7f 00 00 00" << "80 01 20 00 00 00 04 05";
    }
    void stalledTransferTimesOut()
    {
        QFETCH(QString, start);
        QFETCH(QString, abortFrame);
        Rig rig;
        rig.server.setTimeout(40);
        QCOMPARE(rig.exchange(hex(start)).size(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(rig.adapter.writtenCount(), 1, 3000);
        QCOMPARE(hexOf(frameData(rig.adapter.lastWritten())), abortFrame);
        QCOMPARE(rig.server.state(), SdoServer::Idle);
        // Nothing further: the watchdog aborts once.
        QTest::qWait(100);
        QCOMPARE(rig.adapter.writtenCount(), 1);
    }

    void noTimeOutWhenIdleOrDisabled()
    {
        Rig rig;
        rig.server.setTimeout(0);
        QCOMPARE(rig.exchange(hex(QStringLiteral("21 05 20 00 0a 00 00 00"))).size(), 1);
        QTest::qWait(60);
        QCOMPARE(rig.adapter.writtenCount(), 0);
        QCOMPARE(rig.server.state(), SdoServer::SegmentedDownload);
        rig.server.setTimeout(20);
        rig.exchange(hex(QStringLiteral("80 05 20 00 00 00 00 00")));
        QTest::qWait(80);
        QCOMPARE(rig.adapter.writtenCount(), 0);
    }

    // End to end over the virtual bus: the server answers in the device
    // adapter's receive thread while the test thread reads the dictionary.
    void overTheVirtualBus()
    {
        DemoCanAdapter clientBus(QStringLiteral("Talvik Virtual")), deviceBus(QStringLiteral("Talvik Virtual"));
        SimDevice device(Node, &deviceBus);
        ObjectDictionary od;
        od.addDefaultEntries(Node, &device);
        SdoServer server(&device, &od);
        server.setBlockSize(16);
        AnswerSink sink(&clientBus);
        QCOMPARE(clientBus.open(), CAN::Ok);
        QCOMPARE(deviceBus.open(), CAN::Ok);
        QTest::qWait(20);

        bool timedOut = false;
        RawClient client([&](const QByteArray& request, int expected) {
            CAN::CanMessage m = makeFrame(RequestId, {});
            m.length = 8;
            std::memcpy(m.data, request.constData(), 8);
            clientBus.write(&m);
            QElapsedTimer t;
            t.start();
            while (sink.count() < expected && !t.hasExpired(3000))
                QThread::usleep(50);
            timedOut = timedOut || sink.count() < expected;
            return sink.takeAll();
        });
        // Meanwhile another thread reads the entries the server works on.
        std::atomic<bool> stop{false};
        std::atomic<int> reads{0};
        std::thread reader([&] {
            while (!stop.load()) {
                std::vector<quint8> v;
                od.read(0x2002, 0, v);
                od.read(0x2001, 0, v);
                reads.fetch_add(1);
            }
        });
        struct Join { // also when a check below returns early
            std::atomic<bool>& stop;
            std::thread& thread;
            ~Join()
            {
                stop.store(true);
                if (thread.joinable())
                    thread.join();
            }
        } join{stop, reader};
        const QByteArray value = pattern(4000, 7);
        QString err = client.blockDownload(0x2002, 0, value, false);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QVERIFY(od.value(0x2002, 0) == value);
        QByteArray back;
        err = client.blockUpload(0x2002, 0, 127, true, back);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QVERIFY(back == value);
        err = client.segmentedUpload(0x2001, 0, back);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QCOMPARE(back, od.value(0x2001, 0));
        QVERIFY(!timedOut);
        QVERIFY(reads.load() > 0);
        clientBus.close();
        deviceBus.close();
    }

    // cosim runs the server with the options given, on by default.
    void cosimOptions()
    {
        const QString cosim = QStringLiteral(COSIM_PATH);
        QProcess list;
        list.start(cosim, {QStringLiteral("--list-od"), QStringLiteral("--node"), QStringLiteral("9")});
        QVERIFY(list.waitForFinished(10000));
        QCOMPARE(list.exitCode(), 0);
        const QString text = QString::fromLatin1(list.readAllStandardOutput());
        QVERIFY2(text.contains(QStringLiteral("0x609")), qPrintable(text));
        ObjectDictionary od;
        od.addDefaultEntries(9);
        QCOMPARE(text.count(QLatin1Char('\n')), od.entryCount() + 2);

        DemoCanAdapter clientBus(QStringLiteral("Talvik Virtual"));
        AnswerSink sink(&clientBus); // listens to node 5's answers
        QCOMPARE(clientBus.open(), CAN::Ok);
        for (bool withServer : {true, false}) {
            QProcess device;
            QStringList args{QStringLiteral("--heartbeat"), QStringLiteral("0"), QStringLiteral("--sdo-block-size"), QStringLiteral("9")};
            if (!withServer)
                args << QStringLiteral("--no-sdo");
            device.start(cosim, args);
            QVERIFY(device.waitForStarted(10000));
            // Asked until the device is up (or, without a server, for a while).
            QElapsedTimer t;
            t.start();
            CAN::CanMessage m = makeFrame(RequestId, {0xC2, 0x02, 0x20, 0x00, 0x10, 0x00, 0x00, 0x00});
            bool answered = false;
            while (!t.hasExpired(withServer ? 10000 : 500) && !answered) {
                clientBus.write(&m);
                QTest::qWait(50);
                answered = sink.count() > 0;
            }
            QCOMPARE(answered, withServer);
            if (withServer)
                QCOMPARE(hexOf(sink.takeAll().at(0)), QStringLiteral("a4 02 20 00 09 00 00 00"));
            device.terminate();
            QVERIFY(device.waitForFinished(10000));
        }
        clientBus.close();
    }

    // The server's CPU time for whole transfers, requests prepared in advance
    // and injected as the adapter's receive loop would (frame handler, server,
    // dictionary and the adapter's write included).
    void costPerTransfer_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<double>("budgetKBps"); // the rate the bus must reach
        QTest::newRow("block download 64 KiB") << "block download" << 500.0;
        QTest::newRow("block upload 64 KiB") << "block upload" << 500.0;
        QTest::newRow("segmented download 64 KiB") << "segmented download" << 85.0;
        QTest::newRow("segmented upload 64 KiB") << "segmented upload" << 85.0;
    }
    void costPerTransfer()
    {
        QFETCH(QString, kind);
        QFETCH(double, budgetKBps);
        Rig rig;
        const int size = 65536;
        const int segments = (size + 6) / 7;
        const QByteArray value = pattern(size, 99);
        QVERIFY(rig.od.setValue(0x2002, 0, value));
        QVector<CAN::CanRxMessage> requests;
        const auto add = [&](const QByteArray& b) { requests.append(rxFrame(RequestId, b)); };
        const auto data = [&](quint8 cmd, int seg) {
            QByteArray f(8, '\0');
            f[0] = char(cmd);
            const int count = qMin(7, size - seg * 7);
            std::memcpy(f.data() + 1, value.constData() + seg * 7, size_t(count));
            return f;
        };
        if (kind == QLatin1String("block download")) {
            add(RawClient::frame(0xC2, 0x2002, 0, size));
            for (int s = 0; s < segments; ++s)
                add(data(quint8((s % 127 + 1) | (s == segments - 1 ? 0x80 : 0)), s));
            add(hex(QStringLiteral("c1 00 00 00 00 00 00 00")) /* n patched below */);
            requests.last().message.data[0] = quint8(0xC1 | ((segments * 7 - size) << 2));
        } else if (kind == QLatin1String("block upload")) {
            add(RawClient::frame(0xA4, 0x2002, 0, 127));
            add(hex(QStringLiteral("a3 00 00 00 00 00 00 00")));
            for (int done = 0; done < segments; done += 127) {
                QByteArray c = hex(QStringLiteral("a2 00 7f 00 00 00 00 00"));
                c[1] = char(qMin(127, segments - done));
                add(c);
            }
            add(hex(QStringLiteral("a1 00 00 00 00 00 00 00")));
        } else if (kind == QLatin1String("segmented download")) {
            add(RawClient::frame(0x21, 0x2002, 0, size));
            for (int s = 0; s < segments; ++s) {
                const int count = qMin(7, size - s * 7);
                add(data(quint8(((s & 1) ? 0x10 : 0) | ((7 - count) << 1) | (s == segments - 1 ? 1 : 0)), s));
            }
        } else {
            add(RawClient::frame(0x40, 0x2002, 0, 0));
            for (int s = 0; s < segments; ++s)
                add(QByteArray(1, char((s & 1) ? 0x70 : 0x60)) + QByteArray(7, '\0'));
        }

        const int rounds = 5;
        qint64 best = std::numeric_limits<qint64>::max();
        for (int r = 0; r < rounds; ++r) {
            rig.adapter.clearWritten();
            const quint32 before = rig.server.completedTransfers();
            const qint64 t0 = threadCpuNs();
            for (const CAN::CanRxMessage& f : requests)
                rig.adapter.inject(f);
            best = qMin(best, threadCpuNs() - t0);
            QCOMPARE(rig.server.completedTransfers(), before + 1);
        }
        QVERIFY(rig.od.value(0x2002, 0) == value);
        const double ms = double(best) / 1e6;
        const double budgetMs = size / 1024.0 / budgetKBps * 1000.0;
        qInfo("%s: %.2f ms CPU per 64 KiB transfer (%d request frames, %.0f ns per frame); at %.0f KB/s the transfer takes %.0f ms",
              qPrintable(kind), ms, requests.size(), double(best) / requests.size(), budgetKBps, budgetMs);
#if !defined(CANOPEN_TSAN) && !defined(__SANITIZE_ADDRESS__)
        // Generous: a quarter of the transfer's time on the bus.
        QVERIFY2(ms < budgetMs / 4, qPrintable(QStringLiteral("%1 ms").arg(ms)));
#endif
    }
};

QTEST_GUILESS_MAIN(tst_SdoServer)
#include "tst_sdoserver.moc"
