#ifndef OBJECTDICTIONARY_H
#define OBJECTDICTIONARY_H

#include "cantypes.h"

#include <QByteArray>
#include <QString>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class SimDevice;

// The simulated device's object dictionary: entries addressed by index and
// sub-index, each with a CANopen data type, an access type and its value
// bytes (little-endian, as they travel in SDO frames).
//
// Thread-safe: the SDO server reads and writes from the adapter's receive
// thread while tests or the device itself may use it from other threads.
// Values are copied in and out as plain bytes under the lock.
//
// The read and write operations answer an SDO abort code (0 on success), so a
// server can pass them straight to the client.
class ObjectDictionary
{
public:
    enum Access : quint8 { ReadOnly, WriteOnly, ReadWrite, Const };

    // Called outside the dictionary's lock, so they may use the dictionary.
    // A read hook supplies the value instead of the stored one; a write hook
    // sees the new value before it is stored and may refuse it with an abort code.
    using ReadHook = std::function<std::vector<quint8>()>;
    using WriteHook = std::function<quint32(const std::vector<quint8>& value)>;

    struct Entry {
        quint16 index = 0;
        quint8 subIndex = 0;
        CAN::CANopenDataType type = CAN::DOMAIN;
        Access access = ReadWrite;
        std::vector<quint8> value;
        // Longest value accepted by a write of a string or domain; ignored
        // for fixed-size types, whose values always have the type's size.
        quint32 maxSize = 0;
        std::string name;
        ReadHook onRead;
        WriteHook onWrite;
    };

    // What a server needs to know before a transfer starts.
    struct Info {
        CAN::CANopenDataType type = CAN::DOMAIN;
        Access access = ReadWrite;
        quint32 fixedSize = 0; // 0: variable-size type
        quint32 maxSize = 0;   // largest value a write may carry
    };

    ObjectDictionary() = default;
    ObjectDictionary(const ObjectDictionary&) = delete;
    ObjectDictionary& operator=(const ObjectDictionary&) = delete;

    // Adds an entry; false if it exists already or its value does not fit its type.
    bool add(Entry entry);
    // Shorthand for entries without hooks.
    bool add(quint16 index, quint8 subIndex, CAN::CANopenDataType type, Access access,
             const QByteArray& value, const char* name, quint32 maxSize = 0);
    // Installs hooks on an existing entry.
    bool setHooks(quint16 index, quint8 subIndex, ReadHook onRead, WriteHook onWrite);

    // The simulated device's standard contents (see listing()). With a
    // device, 1017h reads and writes that device's heartbeat producer time.
    void addDefaultEntries(quint8 nodeId, SimDevice* device = nullptr);

    // Abort code for a missing entry: object or sub-index does not exist.
    quint32 lookup(quint16 index, quint8 subIndex, Info& info) const;
    // SDO read: value bytes, or an abort code (missing, write-only).
    quint32 read(quint16 index, quint8 subIndex, std::vector<quint8>& out) const;
    // Can a write of `size` bytes (negative: not yet known) start? Checks
    // existence, access and length.
    quint32 checkWrite(quint16 index, quint8 subIndex, qint64 size) const;
    // SDO write with every check, then the entry's write hook.
    quint32 write(quint16 index, quint8 subIndex, const quint8* data, quint32 size);

    // Device side: value without access checks or hooks; empty if missing.
    QByteArray value(quint16 index, quint8 subIndex) const;
    // Device side: stores a value without access checks or hooks (the length
    // rules still apply); false if the entry is missing or the length is wrong.
    bool setValue(quint16 index, quint8 subIndex, const QByteArray& value);

    bool contains(quint16 index, quint8 subIndex) const;
    int entryCount() const;
    // A human-readable table of every entry (index, sub-index, type, access, size, name).
    QString listing() const;

    // Size in bytes of a fixed-size type; 0 for strings and domains.
    static quint32 typeSize(CAN::CANopenDataType type);
    static const char* typeName(CAN::CANopenDataType type);
    static const char* accessName(Access access);

private:
    static quint32 key(quint16 index, quint8 subIndex) { return (quint32(index) << 8) | subIndex; }
    // Under mLock: the entry or nullptr with the abort code in `code`.
    const Entry* find(quint16 index, quint8 subIndex, quint32& code) const;
    static quint32 lengthCode(const Entry& e, qint64 size);

    mutable std::mutex mLock;
    std::map<quint32, Entry> mEntries;
};

#endif
