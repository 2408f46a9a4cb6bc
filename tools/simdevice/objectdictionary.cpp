#include "objectdictionary.h"

#include "sdoabortcodes.h"
#include "simdevice.h"

#include <QTextStream>
#include <cstring>

namespace {

// Little-endian bytes of the low `size` bytes of `v`.
QByteArray le(quint64 v, int size)
{
    QByteArray out(size, '\0');
    for (int i = 0; i < size; ++i)
        out[i] = char(v >> (8 * i));
    return out;
}

template <typename T>
QByteArray floatBytes(T v)
{
    QByteArray out(int(sizeof v), '\0');
    std::memcpy(out.data(), &v, sizeof v);
    return out;
}

} // namespace

quint32 ObjectDictionary::typeSize(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::BOOLEAN:
    case CAN::INTEGER8:
    case CAN::UNSIGNED8:
        return 1;
    case CAN::INTEGER16:
    case CAN::UNSIGNED16:
        return 2;
    case CAN::INTEGER24:
    case CAN::UNSIGNED24:
        return 3;
    case CAN::INTEGER32:
    case CAN::UNSIGNED32:
    case CAN::REAL32:
        return 4;
    case CAN::INTEGER40:
    case CAN::UNSIGNED40:
        return 5;
    case CAN::INTEGER48:
    case CAN::UNSIGNED48:
    case CAN::TIME_OF_DAY:
    case CAN::TIME_DIFFERENCE:
        return 6;
    case CAN::INTEGER56:
    case CAN::UNSIGNED56:
        return 7;
    case CAN::INTEGER64:
    case CAN::UNSIGNED64:
    case CAN::REAL64:
        return 8;
    case CAN::VISIBLE_STRING:
    case CAN::OCTET_STRING:
    case CAN::UNICODE_STRING:
    case CAN::DOMAIN:
        return 0;
    }
    return 0;
}

const char* ObjectDictionary::typeName(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::BOOLEAN: return "BOOLEAN";
    case CAN::INTEGER8: return "INTEGER8";
    case CAN::INTEGER16: return "INTEGER16";
    case CAN::INTEGER32: return "INTEGER32";
    case CAN::UNSIGNED8: return "UNSIGNED8";
    case CAN::UNSIGNED16: return "UNSIGNED16";
    case CAN::UNSIGNED32: return "UNSIGNED32";
    case CAN::REAL32: return "REAL32";
    case CAN::VISIBLE_STRING: return "VISIBLE_STRING";
    case CAN::OCTET_STRING: return "OCTET_STRING";
    case CAN::UNICODE_STRING: return "UNICODE_STRING";
    case CAN::TIME_OF_DAY: return "TIME_OF_DAY";
    case CAN::TIME_DIFFERENCE: return "TIME_DIFFERENCE";
    case CAN::DOMAIN: return "DOMAIN";
    case CAN::INTEGER24: return "INTEGER24";
    case CAN::REAL64: return "REAL64";
    case CAN::INTEGER40: return "INTEGER40";
    case CAN::INTEGER48: return "INTEGER48";
    case CAN::INTEGER56: return "INTEGER56";
    case CAN::INTEGER64: return "INTEGER64";
    case CAN::UNSIGNED24: return "UNSIGNED24";
    case CAN::UNSIGNED40: return "UNSIGNED40";
    case CAN::UNSIGNED48: return "UNSIGNED48";
    case CAN::UNSIGNED56: return "UNSIGNED56";
    case CAN::UNSIGNED64: return "UNSIGNED64";
    }
    return "?";
}

const char* ObjectDictionary::accessName(Access access)
{
    switch (access) {
    case ReadOnly: return "ro";
    case WriteOnly: return "wo";
    case ReadWrite: return "rw";
    case Const: return "const";
    }
    return "?";
}

bool ObjectDictionary::add(Entry entry)
{
    const quint32 fixed = typeSize(entry.type);
    if (fixed != 0 && entry.value.size() != fixed)
        return false;
    if (fixed == 0 && entry.value.size() > entry.maxSize)
        entry.maxSize = quint32(entry.value.size());
    std::lock_guard<std::mutex> guard(mLock);
    return mEntries.emplace(key(entry.index, entry.subIndex), std::move(entry)).second;
}

bool ObjectDictionary::add(quint16 index, quint8 subIndex, CAN::CANopenDataType type, Access access,
                           const QByteArray& value, const char* name, quint32 maxSize)
{
    Entry e;
    e.index = index;
    e.subIndex = subIndex;
    e.type = type;
    e.access = access;
    e.value.assign(value.constBegin(), value.constEnd());
    e.maxSize = maxSize;
    e.name = name;
    return add(std::move(e));
}

bool ObjectDictionary::setHooks(quint16 index, quint8 subIndex, ReadHook onRead, WriteHook onWrite)
{
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mEntries.find(key(index, subIndex));
    if (it == mEntries.end())
        return false;
    it->second.onRead = std::move(onRead);
    it->second.onWrite = std::move(onWrite);
    return true;
}

const ObjectDictionary::Entry* ObjectDictionary::find(quint16 index, quint8 subIndex, quint32& code) const
{
    auto it = mEntries.lower_bound(key(index, 0));
    if (it == mEntries.end() || it->second.index != index) {
        code = SdoAbort::ObjectDoesNotExist;
        return nullptr;
    }
    it = mEntries.find(key(index, subIndex));
    if (it == mEntries.end()) {
        code = SdoAbort::SubIndexDoesNotExist;
        return nullptr;
    }
    code = SdoAbort::None;
    return &it->second;
}

quint32 ObjectDictionary::lengthCode(const Entry& e, qint64 size)
{
    if (size < 0)
        return SdoAbort::None;
    const quint32 fixed = typeSize(e.type);
    if (fixed != 0) {
        if (size > qint64(fixed))
            return SdoAbort::LengthTooHigh;
        if (size < qint64(fixed))
            return SdoAbort::LengthTooLow;
        return SdoAbort::None;
    }
    return size > qint64(e.maxSize) ? SdoAbort::LengthTooHigh : SdoAbort::None;
}

quint32 ObjectDictionary::lookup(quint16 index, quint8 subIndex, Info& info) const
{
    std::lock_guard<std::mutex> guard(mLock);
    quint32 code;
    const Entry* e = find(index, subIndex, code);
    if (!e)
        return code;
    info.type = e->type;
    info.access = e->access;
    info.fixedSize = typeSize(e->type);
    info.maxSize = info.fixedSize ? info.fixedSize : e->maxSize;
    return SdoAbort::None;
}

quint32 ObjectDictionary::read(quint16 index, quint8 subIndex, std::vector<quint8>& out) const
{
    ReadHook hook;
    {
        std::lock_guard<std::mutex> guard(mLock);
        quint32 code;
        const Entry* e = find(index, subIndex, code);
        if (!e)
            return code;
        if (e->access == WriteOnly)
            return SdoAbort::ReadOfWriteOnly;
        if (!e->onRead) {
            out = e->value;
            return SdoAbort::None;
        }
        hook = e->onRead;
    }
    out = hook();
    return SdoAbort::None;
}

quint32 ObjectDictionary::checkWrite(quint16 index, quint8 subIndex, qint64 size) const
{
    std::lock_guard<std::mutex> guard(mLock);
    quint32 code;
    const Entry* e = find(index, subIndex, code);
    if (!e)
        return code;
    if (e->access == ReadOnly || e->access == Const)
        return SdoAbort::WriteOfReadOnly;
    return lengthCode(*e, size);
}

quint32 ObjectDictionary::write(quint16 index, quint8 subIndex, const quint8* data, quint32 size)
{
    std::vector<quint8> value;
    if (size != 0)
        value.assign(data, data + size);
    WriteHook hook;
    {
        std::lock_guard<std::mutex> guard(mLock);
        quint32 code;
        const Entry* e = find(index, subIndex, code);
        if (!e)
            return code;
        if (e->access == ReadOnly || e->access == Const)
            return SdoAbort::WriteOfReadOnly;
        if ((code = lengthCode(*e, size)) != SdoAbort::None)
            return code;
        // BOOLEAN holds 0 (false) or 1 (true) only.
        if (e->type == CAN::BOOLEAN && value[0] > 1)
            return SdoAbort::ValueRangeExceeded;
        hook = e->onWrite;
    }
    if (hook) {
        const quint32 code = hook(value);
        if (code != SdoAbort::None)
            return code;
    }
    std::lock_guard<std::mutex> guard(mLock);
    // Entries are never removed, so the one found above is still there.
    mEntries.find(key(index, subIndex))->second.value = std::move(value);
    return SdoAbort::None;
}

QByteArray ObjectDictionary::value(quint16 index, quint8 subIndex) const
{
    std::vector<quint8> bytes;
    ReadHook hook;
    {
        std::lock_guard<std::mutex> guard(mLock);
        quint32 code;
        const Entry* e = find(index, subIndex, code);
        if (!e)
            return QByteArray();
        if (e->onRead)
            hook = e->onRead;
        else
            bytes = e->value;
    }
    if (hook)
        bytes = hook();
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), int(bytes.size()));
}

bool ObjectDictionary::setValue(quint16 index, quint8 subIndex, const QByteArray& value)
{
    std::lock_guard<std::mutex> guard(mLock);
    auto it = mEntries.find(key(index, subIndex));
    if (it == mEntries.end() || lengthCode(it->second, value.size()) != SdoAbort::None)
        return false;
    it->second.value.assign(value.constBegin(), value.constEnd());
    return true;
}

bool ObjectDictionary::contains(quint16 index, quint8 subIndex) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mEntries.count(key(index, subIndex)) != 0;
}

int ObjectDictionary::entryCount() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return int(mEntries.size());
}

namespace {

// The value of an entry as the listing shows it.
QString displayValue(const ObjectDictionary::Entry& e)
{
    const std::vector<quint8>& v = e.value;
    quint64 raw = 0;
    for (size_t i = 0; i < v.size() && i < 8; ++i)
        raw |= quint64(v[i]) << (8 * i);
    const int bits = int(v.size()) * 8;
    switch (e.type) {
    case CAN::BOOLEAN:
        return QString::number(raw);
    case CAN::INTEGER8:
    case CAN::INTEGER16:
    case CAN::INTEGER24:
    case CAN::INTEGER32:
    case CAN::INTEGER40:
    case CAN::INTEGER48:
    case CAN::INTEGER56:
    case CAN::INTEGER64:
        // sign-extend from the type's width
        return QString::number(bits < 64 ? qint64(raw << (64 - bits)) >> (64 - bits) : qint64(raw));
    case CAN::REAL32: {
        float f;
        std::memcpy(&f, v.data(), sizeof f);
        return QString::number(double(f));
    }
    case CAN::REAL64: {
        double d;
        std::memcpy(&d, v.data(), sizeof d);
        return QString::number(d);
    }
    case CAN::VISIBLE_STRING: {
        QString text = QString::fromLatin1(reinterpret_cast<const char*>(v.data()), int(v.size()));
        text.replace(QLatin1Char('\n'), QLatin1Char(' '));
        if (text.size() > 24)
            text = text.left(21) + QStringLiteral("...");
        return QLatin1Char('"') + text + QLatin1Char('"');
    }
    case CAN::OCTET_STRING:
    case CAN::UNICODE_STRING:
    case CAN::DOMAIN:
        return QStringLiteral("(%1 bytes)").arg(v.size());
    default:
        return QStringLiteral("0x") + QString::number(raw, 16).toUpper().rightJustified(int(v.size()) * 2, QLatin1Char('0'));
    }
}

} // namespace

QString ObjectDictionary::listing() const
{
    const auto hex = [](uint v, int width) { return QString::number(v, 16).toUpper().rightJustified(width, QLatin1Char('0')); };
    QString text;
    QTextStream out(&text);
    out << "Index Sub Type            Access Size    Value                      Name\n";
    std::lock_guard<std::mutex> guard(mLock);
    for (const auto& item : mEntries) {
        const Entry& e = item.second;
        const quint32 fixed = typeSize(e.type);
        const bool writable = e.access == WriteOnly || e.access == ReadWrite;
        const QString size = fixed ? QString::number(fixed)
            : writable             ? QStringLiteral("<=%1").arg(e.maxSize)
                                   : QString::number(e.value.size());
        const QString value = e.access == WriteOnly ? QStringLiteral("-") : displayValue(e);
        out << hex(e.index, 4) << "h " << hex(e.subIndex, 2) << "h " << QString::fromLatin1(typeName(e.type)).leftJustified(15)
            << ' ' << QString::fromLatin1(accessName(e.access)).leftJustified(6) << ' ' << size.leftJustified(7) << ' '
            << value.leftJustified(26) << ' ' << QString::fromStdString(e.name) << '\n';
    }
    out.flush();
    return text;
}

void ObjectDictionary::addDefaultEntries(quint8 nodeId, SimDevice* device)
{
    add(0x1000, 0, CAN::UNSIGNED32, ReadOnly, le(0, 4), "Device type (no profile)");
    add(0x1001, 0, CAN::UNSIGNED8, ReadOnly, le(0, 1), "Error register");
    add(0x1008, 0, CAN::VISIBLE_STRING, Const, QByteArrayLiteral("cosim simulated device"), "Manufacturer device name");
    add(0x1017, 0, CAN::UNSIGNED16, ReadWrite, le(device ? device->heartbeatTime() : 1000, 2), "Producer heartbeat time (ms)");
    if (device) {
        setHooks(
            0x1017, 0,
            [device] { return std::vector<quint8>{quint8(device->heartbeatTime()), quint8(device->heartbeatTime() >> 8)}; },
            [device](const std::vector<quint8>& v) {
                device->setHeartbeatTime(quint16(v[0] | (v[1] << 8)));
                return SdoAbort::None;
            });
    }
    add(0x1018, 0, CAN::UNSIGNED8, Const, le(4, 1), "Identity: highest sub-index");
    add(0x1018, 1, CAN::UNSIGNED32, ReadOnly, le(0x00000ABC, 4), "Identity: vendor-ID");
    add(0x1018, 2, CAN::UNSIGNED32, ReadOnly, le(0x0000C051, 4), "Identity: product code");
    add(0x1018, 3, CAN::UNSIGNED32, ReadOnly, le(0x00010000, 4), "Identity: revision number");
    add(0x1018, 4, CAN::UNSIGNED32, ReadOnly, le(0x5D000000u | nodeId, 4), "Identity: serial number");
    add(0x1200, 0, CAN::UNSIGNED8, Const, le(2, 1), "SDO server: highest sub-index");
    add(0x1200, 1, CAN::UNSIGNED32, ReadOnly, le(0x600u + nodeId, 4), "SDO server: COB-ID client to server");
    add(0x1200, 2, CAN::UNSIGNED32, ReadOnly, le(0x580u + nodeId, 4), "SDO server: COB-ID server to client");

    // Test area: one writable entry of every numeric type.
    struct Numeric {
        CAN::CANopenDataType type;
        QByteArray value;
    };
    const Numeric numerics[] = {
        {CAN::BOOLEAN, le(1, 1)},
        {CAN::INTEGER8, le(quint64(-2), 1)},
        {CAN::INTEGER16, le(quint64(-300), 2)},
        {CAN::INTEGER24, le(quint64(-70000), 3)},
        {CAN::INTEGER32, le(quint64(-2000000000), 4)},
        {CAN::INTEGER40, le(quint64(-300000000000), 5)},
        {CAN::INTEGER48, le(quint64(-70000000000000), 6)},
        {CAN::INTEGER56, le(quint64(-20000000000000000), 7)},
        {CAN::INTEGER64, le(quint64(-5000000000000000000), 8)},
        {CAN::UNSIGNED8, le(0xA5, 1)},
        {CAN::UNSIGNED16, le(0xBEEF, 2)},
        {CAN::UNSIGNED24, le(0xC0FFEE, 3)},
        {CAN::UNSIGNED32, le(0xDEADBEEF, 4)},
        {CAN::UNSIGNED40, le(0x0102030405, 5)},
        {CAN::UNSIGNED48, le(0x0A0B0C0D0E0F, 6)},
        {CAN::UNSIGNED56, le(0x11223344556677, 7)},
        {CAN::UNSIGNED64, le(0x8877665544332211, 8)},
        {CAN::REAL32, floatBytes(1.5f)},
        {CAN::REAL64, floatBytes(-2.25)},
    };
    const quint8 count = quint8(sizeof numerics / sizeof numerics[0]);
    add(0x2000, 0, CAN::UNSIGNED8, Const, le(count, 1), "Test area: highest sub-index");
    for (quint8 sub = 1; sub <= count; ++sub) {
        const Numeric& n = numerics[sub - 1];
        const std::string name = std::string("Test area: ") + typeName(n.type);
        add(0x2000, sub, n.type, ReadWrite, n.value, name.c_str());
    }

    QByteArray text;
    for (int line = 1; line <= 8; ++line)
        text += QStringLiteral("Line %1 of the long read-only string of the simulated device.\n").arg(line).toLatin1();
    add(0x2001, 0, CAN::VISIBLE_STRING, ReadOnly, text, "Long read-only string");
    add(0x2002, 0, CAN::DOMAIN, ReadWrite, QByteArray(), "Domain, up to 64 KiB", 65536);
    add(0x2003, 0, CAN::UNSIGNED32, ReadOnly, le(0x12345678, 4), "Read-only value");
    add(0x2004, 0, CAN::UNSIGNED32, WriteOnly, le(0, 4), "Write-only value");
    add(0x2005, 0, CAN::VISIBLE_STRING, ReadWrite, QByteArrayLiteral("cosim"), "Writable string, up to 255 bytes", 255);
}
