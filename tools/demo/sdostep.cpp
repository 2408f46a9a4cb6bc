#include "sdostep.h"

#include "democontext.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"

#include <QElapsedTimer>

namespace {
// The outcome of one transfer, collected from an engine's signals.
struct Outcome {
    bool done = false;
    bool ok = false;
    QVariant value;
    quint32 abortCode = 0;
};

template<typename Engine>
void watch(Engine* engine, Outcome& out)
{
    QObject::connect(engine, &Engine::resultReceived, [&out](quint16, quint8, QVariant v) {
        out = {true, true, v, 0};
    });
    QObject::connect(engine, &Engine::errorReceived, [&out](quint16, quint8, quint32 code) {
        out = {true, false, QVariant(), code};
    });
}

QString hex(quint64 v, int width)
{
    return QStringLiteral("%1").arg(v, width, 16, QLatin1Char('0')).toUpper();
}
} // namespace

QString SdoStep::title() const
{
    return QStringLiteral("read and write the device's object dictionary by SDO");
}

bool SdoStep::run(DemoContext& c)
{
    const quint32 rx = 0x580u + c.nodeId, tx = 0x600u + c.nodeId;
    c.say(QStringLiteral("  Requests go to 0x%1, answers come on 0x%2. Each engine handles the answers in\n"
                         "  the adapter's receive thread and reports resultReceived/errorReceived here.\n")
              .arg(QString::number(tx, 16).toUpper(), QString::number(rx, 16).toUpper()));

    Outcome out;
    auto transfer = [&c, &out](const std::function<CAN::RetType()>& start) {
        out = Outcome();
        const CAN::RetType r = start();
        if (r != CAN::Ok)
            return out = {true, false, QVariant(), 0xFFFFFFFF}, false;
        return c.waitUntil([&out]() { return out.done; }, 5000) && out.ok;
    };

    // Expedited: up to four bytes in one request and one answer.
    SDOExpeditedClient expedited(rx, tx, c.scheduler);
    watch(&expedited, out);
    const struct { quint16 idx; quint8 sub; const char* what; } identity[] = {
        {0x1018, 1, "vendor-ID"}, {0x1018, 2, "product code"}, {0x1018, 4, "serial number"}};
    for (const auto& e : identity) {
        if (!transfer([&]() { return expedited.read(e.idx, e.sub, CAN::UNSIGNED32); })) {
            c.say(QStringLiteral("    read %1h sub %2 failed (abort code %3)").arg(hex(e.idx, 4)).arg(e.sub).arg(hex(out.abortCode, 8)));
            return false;
        }
        c.say(QStringLiteral("    %1  expedited read %2h sub %3 (%4) = 0x%5")
                  .arg(c.now(), hex(e.idx, 4)).arg(e.sub).arg(QLatin1String(e.what), hex(out.value.toULongLong(), 8)));
    }
    if (transfer([&]() { return expedited.write(0x1017, 0, CAN::UNSIGNED16, 250); })
        && transfer([&]() { return expedited.read(0x1017, 0, CAN::UNSIGNED16); }))
        c.say(QStringLiteral("    %1  expedited write 1017h (heartbeat time) = 250, read back %2 ms")
                  .arg(c.now()).arg(out.value.toUInt()));
    if (!transfer([&]() { return expedited.read(0x3000, 0, CAN::UNSIGNED32); }) && out.done)
        c.say(QStringLiteral("    %1  read 3000h: the device aborts with 0x%2 (object does not exist)")
                  .arg(c.now(), hex(out.abortCode, 8)));
    transfer([&]() { return expedited.write(0x1017, 0, CAN::UNSIGNED16, 500); });

    // Segmented: any length, 7 bytes per segment.
    SDOSegmentedClient segmented(rx, tx, c.scheduler);
    watch(&segmented, out);
    if (transfer([&]() { return segmented.read(0x1008, 0); }))
        c.say(QStringLiteral("    %1  segmented read 1008h (device name) = \"%2\"")
                  .arg(c.now(), QString::fromLatin1(out.value.toByteArray())));

    // Block: 64 KiB into the device's domain entry and back, byte-exact.
    SDOBlockClient block(rx, tx, c.scheduler);
    watch(&block, out);
    QByteArray data(65536, '\0');
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 7 + (i >> 8)) & 0xFF);
    QElapsedTimer t;
    t.start();
    if (!transfer([&]() { return block.write(0x2002, 0, data); })) {
        c.say(QStringLiteral("    block download failed (abort code %1)").arg(hex(out.abortCode, 8)));
        return false;
    }
    const qint64 downMs = qMax<qint64>(1, t.elapsed());
    t.restart();
    if (!transfer([&]() { return block.read(0x2002, 0); })) {
        c.say(QStringLiteral("    block upload failed (abort code %1)").arg(hex(out.abortCode, 8)));
        return false;
    }
    const qint64 upMs = qMax<qint64>(1, t.elapsed());
    const bool same = out.value.toByteArray() == data;
    c.say(QStringLiteral("    %1  block download of 64 KiB to 2002h in %2 ms (%3 KB/s), block upload back in\n"
                         "              %4 ms (%5 KB/s): %6")
              .arg(c.now()).arg(downMs).arg(65536 / downMs).arg(upMs).arg(65536 / upMs)
              .arg(same ? QStringLiteral("byte-exact") : QStringLiteral("DIFFERENT")));
    c.say(QStringLiteral("\n  (cotool has no SDO command yet; cosim --list-od prints the whole dictionary.)"));
    return same;
}
