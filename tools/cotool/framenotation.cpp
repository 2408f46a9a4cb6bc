#include "framenotation.h"

#include <QStringList>
#include <cstring>

namespace {
int hexValue(QChar c)
{
    const ushort u = c.unicode();
    if (u >= '0' && u <= '9')
        return u - '0';
    if (u >= 'a' && u <= 'f')
        return u - 'a' + 10;
    if (u >= 'A' && u <= 'F')
        return u - 'A' + 10;
    return -1;
}

bool fail(QString* error, const QString& message)
{
    if (error)
        *error = message;
    return false;
}

// Data bytes in hex, '.' allowed between two bytes only.
bool parseData(const QString& text, quint8* data, int maxBytes, int& length, QString* error)
{
    length = 0;
    int pendingNibble = -1;
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('.')) {
            if (pendingNibble >= 0 || length == 0 || i + 1 == text.size() || text.at(i + 1) == QLatin1Char('.'))
                return fail(error, QStringLiteral("misplaced '.' in data '%1': it may only separate two bytes").arg(text));
            continue;
        }
        const int v = hexValue(c);
        if (v < 0)
            return fail(error, QStringLiteral("'%1' in data '%2' is not a hex digit").arg(c).arg(text));
        if (pendingNibble < 0) {
            pendingNibble = v;
            continue;
        }
        if (length == 64)
            return fail(error, QStringLiteral("more than 64 data bytes: a CAN FD frame carries at most 64"));
        data[length++] = quint8(pendingNibble << 4 | v);
        pendingNibble = -1;
    }
    if (pendingNibble >= 0)
        return fail(error, QStringLiteral("odd number of hex digits in data '%1'").arg(text));
    if (length > maxBytes)
        return fail(error, maxBytes == 8
                               ? QStringLiteral("%1 data bytes: a classic CAN frame carries at most 8 (write ## for CAN FD)").arg(length)
                               : QStringLiteral("%1 data bytes: a CAN FD frame carries at most 64").arg(length));
    return true;
}
} // namespace

bool FrameNotation::isValidFdLength(int length)
{
    switch (length) {
    case 0: case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8:
    case 12: case 16: case 20: case 24: case 32: case 48: case 64:
        return true;
    default:
        return false;
    }
}

bool FrameNotation::parse(const QString& input, CAN::CanMessage& frame, QString* error)
{
    const QString text = input.trimmed();
    const int hash = text.indexOf(QLatin1Char('#'));
    if (hash < 0)
        return fail(error, QStringLiteral("'%1' has no '#' between identifier and data").arg(text));

    CAN::CanMessage m;
    const QString idText = text.left(hash);
    if (idText.size() != 3 && idText.size() != 8)
        return fail(error, QStringLiteral("identifier '%1' must have 3 hex digits (11-bit) or 8 (29-bit)").arg(idText));
    for (QChar c : idText) {
        if (hexValue(c) < 0)
            return fail(error, QStringLiteral("identifier '%1' is not hexadecimal").arg(idText));
    }
    m.id = idText.toUInt(nullptr, 16);
    m.extended = idText.size() == 8;
    if (!m.extended && m.id > 0x7FF)
        return fail(error, QStringLiteral("11-bit identifier %1 is above 7FF").arg(idText));
    if (m.extended && m.id > 0x1FFFFFFF)
        return fail(error, QStringLiteral("29-bit identifier %1 is above 1FFFFFFF").arg(idText));

    QString rest = text.mid(hash + 1);
    int length = 0;
    if (rest.startsWith(QLatin1Char('#'))) {
        // CAN FD: flags digit, then data.
        if (rest.size() < 2 || hexValue(rest.at(1)) < 0)
            return fail(error, QStringLiteral("'%1': a hex flags digit must follow '##'").arg(text));
        const int flags = hexValue(rest.at(1));
        if (!parseData(rest.mid(2), m.data, 64, length, error))
            return false;
        if (!isValidFdLength(length))
            return fail(error, QStringLiteral("%1 data bytes is no valid CAN FD length (0..8, 12, 16, 20, 24, 32, 48 or 64)").arg(length));
        m.fd = true;
        m.brs = flags & 1;
        m.esi = flags & 2;
    } else if (rest.startsWith(QLatin1Char('R')) || rest.startsWith(QLatin1Char('r'))) {
        // Remote frame, optionally with the requested length.
        const QString len = rest.mid(1);
        if (!len.isEmpty()) {
            if (len.size() != 1 || len.at(0) < QLatin1Char('0') || len.at(0) > QLatin1Char('8'))
                return fail(error, QStringLiteral("'%1': a remote frame takes one length digit 0..8 after R").arg(text));
            length = len.at(0).unicode() - '0';
        }
        m.rtr = true;
    } else if (!parseData(rest, m.data, 8, length, error)) {
        return false;
    }
    m.length = quint8(length);
    frame = m;
    return true;
}

QString FrameNotation::format(const CAN::CanMessage& frame)
{
    QString s = frame.extended ? QStringLiteral("%1").arg(frame.id, 8, 16, QLatin1Char('0'))
                               : QStringLiteral("%1").arg(frame.id, 3, 16, QLatin1Char('0'));
    s += QLatin1Char('#');
    if (frame.rtr && !frame.fd) {
        s += QLatin1Char('R');
        if (frame.length > 0)
            s += QString::number(frame.length);
        return s.toUpper();
    }
    if (frame.fd)
        s += QStringLiteral("#%1").arg((frame.brs ? 1 : 0) | (frame.esi ? 2 : 0));
    const int n = qMin<int>(frame.length, 64);
    s += QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(frame.data), n).toHex());
    return s.toUpper();
}

QString FrameNotation::dumpLine(const CAN::CanRxMessage& rx)
{
    const CAN::CanMessage& m = rx.message;
    QStringList flags;
    if (m.extended)
        flags << QStringLiteral("EXT");
    if (m.rtr)
        flags << QStringLiteral("RTR");
    if (m.fd)
        flags << QStringLiteral("FD");
    if (m.brs)
        flags << QStringLiteral("BRS");
    if (m.esi)
        flags << QStringLiteral("ESI");
    if (rx.echo)
        flags << QStringLiteral("ECHO");

    const QString id = m.extended ? QStringLiteral("%1").arg(m.id, 8, 16, QLatin1Char('0'))
                                  : QStringLiteral("%1").arg(m.id, 3, 16, QLatin1Char('0'));
    QString line = QStringLiteral("(%1.%2)  %3  %4 %5")
                       .arg(rx.timeStamp.seconds)
                       .arg(rx.timeStamp.microseconds, 6, 10, QLatin1Char('0'))
                       .arg(id.toUpper(), -8)
                       .arg(flags.join(QLatin1Char(' ')), -10)
                       .arg(QStringLiteral("[%1]").arg(m.length), 4);
    if (!m.rtr) {
        const int n = qMin<int>(m.length, 64);
        if (n > 0)
            line += QStringLiteral("  ") + QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(m.data), n).toHex(' ').toUpper());
    }
    return line;
}
