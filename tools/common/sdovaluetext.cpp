#include "sdovaluetext.h"

#include <climits>
#include <cstring>

namespace {
bool isSigned(CAN::CANopenDataType t)
{
    switch (t) {
    case CAN::INTEGER8: case CAN::INTEGER16: case CAN::INTEGER24: case CAN::INTEGER32:
    case CAN::INTEGER40: case CAN::INTEGER48: case CAN::INTEGER56: case CAN::INTEGER64:
        return true;
    default:
        return false;
    }
}

bool isReal(CAN::CANopenDataType t)
{
    return t == CAN::REAL32 || t == CAN::REAL64;
}

bool isBytes(CAN::CANopenDataType t)
{
    return t == CAN::VISIBLE_STRING || t == CAN::OCTET_STRING || t == CAN::DOMAIN || t == CAN::UNICODE_STRING;
}

// Little-endian bytes of a value of `size` bytes.
QByteArray leBytes(quint64 raw, int size)
{
    QByteArray b(size, '\0');
    for (int i = 0; i < size; ++i)
        b[i] = char(raw >> (8 * i));
    return b;
}

// The value of little-endian bytes, sign-extended for signed types.
QVariant fromLeBytes(CAN::CANopenDataType type, const QByteArray& bytes)
{
    quint64 raw = 0;
    for (int i = 0; i < bytes.size() && i < 8; ++i)
        raw |= quint64(quint8(bytes[i])) << (8 * i);
    if (type == CAN::REAL64) {
        double d;
        std::memcpy(&d, &raw, sizeof d);
        return d;
    }
    const int bits = 8 * int(bytes.size());
    if (isSigned(type) && bits > 0 && bits < 64 && (raw >> (bits - 1)) & 1)
        raw |= ~quint64(0) << bits;
    return isSigned(type) ? QVariant(qlonglong(raw)) : QVariant(qulonglong(raw));
}
} // namespace

int SdoValueText::typeSize(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::BOOLEAN: case CAN::INTEGER8: case CAN::UNSIGNED8: return 1;
    case CAN::INTEGER16: case CAN::UNSIGNED16: return 2;
    case CAN::INTEGER24: case CAN::UNSIGNED24: return 3;
    case CAN::INTEGER32: case CAN::UNSIGNED32: case CAN::REAL32: return 4;
    case CAN::INTEGER40: case CAN::UNSIGNED40: return 5;
    case CAN::INTEGER48: case CAN::UNSIGNED48: return 6;
    case CAN::INTEGER56: case CAN::UNSIGNED56: case CAN::TIME_OF_DAY: case CAN::TIME_DIFFERENCE: return 7;
    case CAN::INTEGER64: case CAN::UNSIGNED64: case CAN::REAL64: return 8;
    default: return 0;
    }
}

bool SdoValueText::parseValue(CAN::CANopenDataType type, const QString& text, bool asBytes, QVariant& value,
                            QString* error)
{
    const int size = typeSize(type);
    if (isBytes(type) || size == 0) {
        value = text.toUtf8();
        return true;
    }
    bool ok = false;
    if (isReal(type)) {
        const double d = text.toDouble(&ok);
        if (!ok) {
            *error = QStringLiteral("'%1' is not a number").arg(text);
            return false;
        }
        if (type == CAN::REAL32) {
            value = float(d);
            return true;
        }
        quint64 raw;
        std::memcpy(&raw, &d, sizeof raw);
        value = asBytes ? QVariant(leBytes(raw, 8)) : QVariant(d);
        return true;
    }
    const int bits = 8 * size;
    if (isSigned(type)) {
        const qlonglong v = text.toLongLong(&ok, 0);
        const qlonglong low = bits == 64 ? LLONG_MIN : -(qlonglong(1) << (bits - 1));
        const qlonglong high = bits == 64 ? LLONG_MAX : (qlonglong(1) << (bits - 1)) - 1;
        if (!ok || v < low || v > high) {
            *error = QStringLiteral("'%1' is not a %2-bit signed number").arg(text).arg(bits);
            return false;
        }
        value = size > 4 ? (asBytes ? QVariant(leBytes(quint64(v), size)) : QVariant(v)) : QVariant(int(v));
        return true;
    }
    const qulonglong v = type == CAN::BOOLEAN && (text == QLatin1String("true") || text == QLatin1String("false"))
                             ? (ok = true, qulonglong(text == QLatin1String("true")))
                             : text.toULongLong(&ok, 0);
    const qulonglong high = type == CAN::BOOLEAN ? 1 : bits == 64 ? ULLONG_MAX : (qulonglong(1) << bits) - 1;
    if (!ok || v > high || text.startsWith(QLatin1Char('-'))) {
        *error = QStringLiteral("'%1' is not a %2").arg(text, type == CAN::BOOLEAN ? QStringLiteral("boolean (0 or 1)")
                                                                                  : QStringLiteral("%1-bit unsigned number").arg(bits));
        return false;
    }
    value = size > 4 ? (asBytes ? QVariant(leBytes(v, size)) : QVariant(v)) : QVariant(uint(v));
    return true;
}

QString SdoValueText::formatValue(CAN::CANopenDataType type, const QVariant& value)
{
    if (type == CAN::VISIBLE_STRING || type == CAN::UNICODE_STRING)
        return value.toString();
    const int size = typeSize(type);
    if (isBytes(type) || size == 0) {
        const QByteArray b = value.toByteArray();
        QString preview = QString::fromLatin1(b.left(16).toHex(' '));
        if (b.size() > 16)
            preview += QStringLiteral(" ...");
        return QStringLiteral("%1 byte%2%3%4").arg(b.size()).arg(b.size() == 1 ? "" : "s")
            .arg(b.isEmpty() ? QString() : QStringLiteral(": ")).arg(preview);
    }
    // Over CAN the types longer than four bytes come as their bytes.
    const QVariant v = numberFromBytes(type, value);
    if (isReal(type))
        return QString::number(v.toDouble(), 'g', type == CAN::REAL32 ? 7 : 16);
    const quint64 mask = size >= 8 ? ~quint64(0) : (quint64(1) << (8 * size)) - 1;
    const quint64 raw = isSigned(type) ? quint64(v.toLongLong()) : v.toULongLong();
    const QString dec = isSigned(type) ? QString::number(v.toLongLong()) : QString::number(raw & mask);
    return QStringLiteral("%1 (0x%2)").arg(dec, QString::number(raw & mask, 16).rightJustified(2 * size, QLatin1Char('0')));
}

QVariant SdoValueText::numberFromBytes(CAN::CANopenDataType type, const QVariant& value)
{
    if (value.userType() != QMetaType::QByteArray || isBytes(type) || typeSize(type) == 0)
        return value;
    return fromLeBytes(type, value.toByteArray());
}
