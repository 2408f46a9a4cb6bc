#include "netnotation.h"

#include <QMetaEnum>
#include <QStringList>
#include <algorithm>

namespace {
bool fail(QString* error, const QString& message)
{
    if (error)
        *error = message;
    return false;
}

// A plain decimal number (digits only, no sign), within max.
bool decimal(const QString& text, uint max, uint& value)
{
    if (text.isEmpty() || text.size() > 9)
        return false;
    for (QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
    }
    value = text.toUInt();
    return value <= max;
}

struct TypeEntry {
    const char* name;
    CAN::CANopenDataType type;
};
const TypeEntry kTypes[] = {
    {"u8", CAN::UNSIGNED8}, {"u16", CAN::UNSIGNED16}, {"u32", CAN::UNSIGNED32},
    {"i8", CAN::INTEGER8},  {"i16", CAN::INTEGER16},  {"i32", CAN::INTEGER32},
};

int typeBytes(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::UNSIGNED8: case CAN::INTEGER8: return 1;
    case CAN::UNSIGNED16: case CAN::INTEGER16: return 2;
    case CAN::UNSIGNED32: case CAN::INTEGER32: return 4;
    default: return 0;
    }
}
} // namespace

bool NetNotation::parseNmtCommand(const QString& text, NMTNetwork::NmtCommands& command, QString* error)
{
    const NMTNetwork::NmtCommands all[] = {NMTNetwork::Start, NMTNetwork::Stop, NMTNetwork::EnterPreoperational,
                                           NMTNetwork::ResetNode, NMTNetwork::ResetCommunication};
    for (NMTNetwork::NmtCommands c : all) {
        if (text == nmtCommandName(c)) {
            command = c;
            return true;
        }
    }
    return fail(error, QStringLiteral("unknown NMT command '%1' (start, stop, preop, reset-node or reset-comm)").arg(text));
}

QString NetNotation::nmtCommandName(NMTNetwork::NmtCommands command)
{
    switch (command) {
    case NMTNetwork::Start: return QStringLiteral("start");
    case NMTNetwork::Stop: return QStringLiteral("stop");
    case NMTNetwork::EnterPreoperational: return QStringLiteral("preop");
    case NMTNetwork::ResetNode: return QStringLiteral("reset-node");
    case NMTNetwork::ResetCommunication: return QStringLiteral("reset-comm");
    }
    return QString::number(int(command));
}

bool NetNotation::parseNodeId(const QString& text, bool allowAll, quint8& node, QString* error)
{
    uint value = 0;
    if (!decimal(text, 127, value) || (value == 0 && !allowAll))
        return fail(error, allowAll ? QStringLiteral("node-ID must be 0 (all nodes) or 1..127, got '%1'").arg(text)
                                    : QStringLiteral("node-ID must be 1..127, got '%1'").arg(text));
    node = quint8(value);
    return true;
}

bool NetNotation::parseNodeList(const QString& text, QVector<quint8>& nodes, QString* error)
{
    QVector<quint8> result;
    const QStringList parts = text.split(QLatin1Char(','));
    for (const QString& part : parts) {
        const int dash = part.indexOf(QLatin1Char('-'));
        uint first = 0, last = 0;
        const bool ok = dash < 0 ? decimal(part, 127, first) && (last = first, true)
                                 : decimal(part.left(dash), 127, first) && decimal(part.mid(dash + 1), 127, last);
        if (!ok || first == 0 || last < first)
            return fail(error, QStringLiteral("bad node list '%1': use node-IDs 1..127 such as 5, 5,6 or 1-3").arg(text));
        for (uint n = first; n <= last; ++n) {
            if (!result.contains(quint8(n)))
                result.append(quint8(n));
        }
    }
    std::sort(result.begin(), result.end());
    nodes = result;
    return true;
}

bool NetNotation::parseCobId(const QString& text, quint32& cobId, QString* error)
{
    QString digits = text;
    if (digits.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        digits = digits.mid(2);
    bool ok = !digits.isEmpty() && digits.size() <= 3;
    const uint value = ok ? digits.toUInt(&ok, 16) : 0;
    if (!ok || value > 0x7FF)
        return fail(error, QStringLiteral("COB-ID must be hexadecimal 0..7FF (0x optional), got '%1'").arg(text));
    cobId = value;
    return true;
}

bool NetNotation::parsePeriodUs(const QString& text, quint32& us, QString* error)
{
    QString number = text;
    uint scale = 1000;
    if (number.endsWith(QLatin1String("us"))) {
        number.chop(2);
        scale = 1;
    } else if (number.endsWith(QLatin1String("ms"))) {
        number.chop(2);
    }
    uint value = 0;
    if (!decimal(number, 65535u * 1000u / scale, value) || value == 0)
        return fail(error, QStringLiteral("period must be a positive number with unit us or ms (up to 65535ms), got '%1'").arg(text));
    us = value * scale;
    return true;
}

bool NetNotation::parseMapping(const QString& text, QVector<CAN::CANopenDataType>& mapping, QString* error)
{
    QVector<CAN::CANopenDataType> result;
    int bytes = 0;
    for (const QString& part : text.split(QLatin1Char(','))) {
        const QString name = part.trimmed().toLower();
        const TypeEntry* found = nullptr;
        for (const TypeEntry& e : kTypes) {
            if (name == QLatin1String(e.name))
                found = &e;
        }
        if (!found)
            return fail(error, QStringLiteral("'%1' in mapping '%2' is no PDO type (u8, u16, u32, i8, i16, i32)").arg(part, text));
        result.append(found->type);
        bytes += typeBytes(found->type);
    }
    if (bytes > 8)
        return fail(error, QStringLiteral("mapping '%1' needs %2 bytes: a PDO carries at most 8").arg(text).arg(bytes));
    mapping = result;
    return true;
}

QString NetNotation::typeName(CAN::CANopenDataType type)
{
    for (const TypeEntry& e : kTypes) {
        if (e.type == type)
            return QLatin1String(e.name);
    }
    return QStringLiteral("?");
}

QString NetNotation::formatPdoValues(const QVector<CAN::CANopenDataType>& mapping, const QVector<QVariant>& values)
{
    QStringList parts;
    for (int i = 0; i < values.size(); ++i)
        parts << QStringLiteral("%1=%2").arg(typeName(mapping.value(i)), values.at(i).toString());
    return parts.join(QLatin1Char(' '));
}

QString NetNotation::stateName(NMTSlave::NmtState state)
{
    const char* key = QMetaEnum::fromType<NMTSlave::NmtState>().valueToKey(state);
    return key ? QLatin1String(key) : QString::number(int(state));
}

QString NetNotation::supervisionName(NMTSlave::HeartbeatGuardingState state)
{
    const char* key = QMetaEnum::fromType<NMTSlave::HeartbeatGuardingState>().valueToKey(state);
    return key ? QLatin1String(key) : QString::number(int(state));
}

QString NetNotation::emcyDescription(quint16 code)
{
    // Codes with a meaning of their own (CiA 301 emergency error codes).
    switch (code) {
    case 0x0000: return QStringLiteral("error reset or no error");
    case 0x8110: return QStringLiteral("CAN overrun, objects lost");
    case 0x8120: return QStringLiteral("CAN in error passive mode");
    case 0x8130: return QStringLiteral("life guard or heartbeat error");
    case 0x8140: return QStringLiteral("recovered from bus off");
    case 0x8150: return QStringLiteral("CAN-ID collision");
    case 0x8210: return QStringLiteral("PDO not processed due to length error");
    case 0x8220: return QStringLiteral("PDO length exceeded");
    case 0x8240: return QStringLiteral("unexpected SYNC data length");
    case 0x8250: return QStringLiteral("RPDO time-out");
    default: break;
    }
    // Otherwise the class (high nibble) and, where defined, the sub-class
    // (second nibble).
    const int sub = (code >> 8) & 0x0F;
    switch (code >> 12) {
    case 0x0: return QStringLiteral("error reset or no error");
    case 0x1: return QStringLiteral("generic error");
    case 0x2: {
        const char* where[] = {"current", "current, device input side", "current inside the device", "current, device output side"};
        return QLatin1String(sub < 4 ? where[sub] : "current");
    }
    case 0x3: {
        const char* where[] = {"voltage", "mains voltage", "voltage inside the device", "output voltage"};
        return QLatin1String(sub < 4 ? where[sub] : "voltage");
    }
    case 0x4: {
        const char* where[] = {"temperature", "ambient temperature", "device temperature"};
        return QLatin1String(sub < 3 ? where[sub] : "temperature");
    }
    case 0x5: return QStringLiteral("device hardware");
    case 0x6: {
        const char* where[] = {"device software", "internal software", "user software", "data set"};
        return QLatin1String(sub < 4 ? where[sub] : "device software");
    }
    case 0x7: return QStringLiteral("additional modules");
    case 0x8: {
        if (sub == 1)
            return QStringLiteral("monitoring: communication");
        if (sub == 2)
            return QStringLiteral("monitoring: protocol error");
        return QStringLiteral("monitoring");
    }
    case 0x9: return QStringLiteral("external error");
    case 0xF: return (code >> 8) == 0xFF ? QStringLiteral("device specific") : QStringLiteral("additional functions");
    default: return QStringLiteral("reserved error code class");
    }
}

QString NetNotation::formatEmcy(const EMCYConsumer::EMCYData& d)
{
    QStringList bytes;
    for (quint8 b : d.manufacturerData)
        bytes << QStringLiteral("%1").arg(b, 2, 16, QLatin1Char('0')).toUpper();
    return QStringLiteral("EMCY %1  register %2  data %3  (%4)")
        .arg(QStringLiteral("%1").arg(d.errorCode, 4, 16, QLatin1Char('0')).toUpper())
        .arg(QStringLiteral("%1").arg(d.errorRegister, 2, 16, QLatin1Char('0')).toUpper())
        .arg(bytes.join(QLatin1Char(' ')))
        .arg(emcyDescription(d.errorCode));
}

QString NetNotation::seconds(qint64 ms)
{
    return QStringLiteral("%1.%2").arg(ms / 1000, 3).arg(ms % 1000, 3, 10, QLatin1Char('0'));
}
