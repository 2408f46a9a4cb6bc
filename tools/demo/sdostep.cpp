#include "sdostep.h"

#include "democontext.h"
#include "sdoclient.h"
#include "sdorequest.h"

#include <QtEndian>

namespace {
QString hex(quint64 v, int width)
{
    return QStringLiteral("0x") + QString::number(v, 16).toUpper().rightJustified(width, QLatin1Char('0'));
}

QString entry(quint16 idx, quint8 sub)
{
    return QStringLiteral("%1h/%2")
        .arg(QString::number(idx, 16).toUpper().rightJustified(4, QLatin1Char('0')),
             QString::number(sub, 16).toUpper().rightJustified(2, QLatin1Char('0')));
}

QByteArray pattern(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + (i >> 8)) & 0xFF);
    return data;
}
} // namespace

QString SdoStep::title() const
{
    return QStringLiteral("read and write the device's object dictionary through SDOClient");
}

bool SdoStep::run(DemoContext& c)
{
    const quint32 rx = 0x580u + c.nodeId, tx = 0x600u + c.nodeId;
    c.say(QStringLiteral("  SDOClient(0x%1, 0x%2, scheduler): read(index, sub, type) and write(index, sub, type,\n"
                         "  value) return at once; the client picks the transfer (expedited up to 4 bytes,\n"
                         "  segmented for strings and long values, block when switched on) and reports\n"
                         "  resultReceived or errorReceived.\n")
              .arg(QString::number(rx, 16).toUpper(), QString::number(tx, 16).toUpper()));

    SDOClient client(rx, tx, c.scheduler);
    SdoRequest r(client);

    // Identity and name.
    const struct { quint8 sub; const char* what; } identity[] = {
        {1, "vendor-ID"}, {2, "product code"}, {3, "revision"}, {4, "serial number"}};
    for (const auto& e : identity) {
        if (!r.read(0x1018, e.sub, CAN::UNSIGNED32)) {
            c.say(QStringLiteral("    read %1 failed: %2").arg(entry(0x1018, e.sub), r.failure()));
            return false;
        }
        c.say(QStringLiteral("    %1  read %2 UNSIGNED32 (%3) = %4   [%5, %6 ms]")
                  .arg(c.now(), entry(0x1018, e.sub), QLatin1String(e.what), hex(r.value.toUInt(), 8), r.kindName())
                  .arg(r.ms, 0, 'f', 2));
    }
    if (r.read(0x1008, 0, CAN::VISIBLE_STRING))
        c.say(QStringLiteral("    %1  read %2 VISIBLE_STRING (device name) = \"%3\"   [%4]")
                  .arg(c.now(), entry(0x1008, 0), r.value.toString(), r.kindName()));

    // Typed writes, each read back.
    c.say(QString());
    const struct { quint8 sub; CAN::CANopenDataType type; const char* name; QVariant value; } typed[] = {
        {0x01, CAN::BOOLEAN, "BOOLEAN", QVariant(false)},
        {0x03, CAN::INTEGER16, "INTEGER16", QVariant(-1234)},
        {0x0D, CAN::UNSIGNED32, "UNSIGNED32", QVariant(0xCAFEF00Du)},
        {0x12, CAN::REAL32, "REAL32", QVariant(3.25f)},
    };
    for (const auto& t : typed) {
        if (!r.write(0x2000, t.sub, t.type, t.value)) {
            c.say(QStringLiteral("    write %1 failed: %2").arg(entry(0x2000, t.sub), r.failure()));
            return false;
        }
        const QString how = r.kindName();
        if (!r.read(0x2000, t.sub, t.type)) {
            c.say(QStringLiteral("    read back %1 failed: %2").arg(entry(0x2000, t.sub), r.failure()));
            return false;
        }
        c.say(QStringLiteral("    %1  write %2 %3 = %4, read back %5   [%6]")
                  .arg(c.now(), entry(0x2000, t.sub), QLatin1String(t.name), t.value.toString(), r.value.toString(), how));
    }
    // Values longer than four bytes travel as their little-endian bytes.
    const qint64 big = -1234567890123LL;
    QByteArray bytes(8, '\0');
    qToLittleEndian(big, bytes.data());
    if (r.write(0x2000, 0x09, CAN::INTEGER64, bytes) && r.read(0x2000, 0x09, CAN::INTEGER64)
        && r.value.toByteArray().size() == 8)
        c.say(QStringLiteral("    %1  write %2 INTEGER64 = %3 as 8 bytes, read back %4   [%5]")
                  .arg(c.now(), entry(0x2000, 0x09)).arg(big)
                  .arg(qFromLittleEndian<qint64>(r.value.toByteArray().constData()))
                  .arg(r.kindName()));
    if (r.write(0x2005, 0, CAN::VISIBLE_STRING, QByteArray("written by codemo")) && r.read(0x2005, 0, CAN::VISIBLE_STRING))
        c.say(QStringLiteral("    %1  write %2 VISIBLE_STRING, read back \"%3\"   [%4]")
                  .arg(c.now(), entry(0x2005, 0), r.value.toString(), r.kindName()));

    // Aborts come with their text.
    c.say(QString());
    const struct { bool write; quint16 idx; } wrong[] = {{false, 0x3000}, {true, 0x2003}};
    for (const auto& w : wrong) {
        const bool ok = w.write ? r.write(w.idx, 0, CAN::UNSIGNED32, 1) : r.read(w.idx, 0, CAN::UNSIGNED32);
        c.say(QStringLiteral("    %1  %2 %3: %4")
                  .arg(c.now(), QLatin1String(w.write ? "write" : "read"), entry(w.idx, 0),
                       ok ? QStringLiteral("unexpectedly done") : r.failure()));
    }

    // 64 KiB by block transfer, with progress.
    c.say(QString());
    const bool blockBefore = SDOClient::mUseBlockTransfer;
    SDOClient::mUseBlockTransfer = true; // process-wide switch
    const QByteArray data = pattern(65536);
    int shown = -1;
    QString line;
    QObject::connect(&client, &SDOClient::progress, &client, [&](quint8 percent) {
        if (percent / 25 != shown / 25 || (percent == 100 && shown != 100)) {
            shown = percent;
            line += QStringLiteral(" %1%").arg(percent);
        }
    });
    const bool down = r.write(0x2002, 0, CAN::DOMAIN, data);
    const int downMs = qMax(1, int(r.ms));
    const QString downKind = r.kindName();
    c.say(QStringLiteral("    %1  write %2 DOMAIN of 64 KiB   [%3] progress:%4").arg(c.now(), entry(0x2002, 0), downKind, line));
    line.clear();
    shown = -1;
    const bool up = down && r.read(0x2002, 0, CAN::DOMAIN);
    const int upMs = qMax(1, int(r.ms));
    SDOClient::mUseBlockTransfer = blockBefore;
    if (!up) {
        c.say(QStringLiteral("    block transfer failed: %1").arg(r.failure()));
        return false;
    }
    const bool same = r.value.toByteArray() == data;
    c.say(QStringLiteral("    %1  read  %2 DOMAIN back   [%3] progress:%4\n"
                         "              down %5 ms (%6 KB/s), up %7 ms (%8 KB/s): %9")
              .arg(c.now(), entry(0x2002, 0), r.kindName(), line)
              .arg(downMs).arg(65536 / downMs).arg(upMs).arg(65536 / upMs)
              .arg(same ? QStringLiteral("byte-exact") : QStringLiteral("DIFFERENT")));
    r.write(0x2002, 0, CAN::DOMAIN, QByteArray()); // leave the domain empty again

    // USDO: the same entry in one CAN FD request and one answer.
    c.say(QString());
    client.activateUSDO(true, 0x29); // process-wide: every client now uses USDO (CAN FD)
    const bool usdo = r.read(0x1018, 1, CAN::UNSIGNED32);
    client.activateUSDO(false, 0x29);
    c.say(QStringLiteral("    %1  activateUSDO(true, 0x29), read %2 UNSIGNED32 = %3   [%4: request on 0x629,\n"
                         "              destination node in the frame, answer on 0x%5]")
              .arg(c.now(), entry(0x1018, 1), usdo ? hex(r.value.toUInt(), 8) : r.failure(), QStringLiteral("USDO"))
              .arg(QString::number(rx, 16).toUpper()));
    return same && usdo;
}
