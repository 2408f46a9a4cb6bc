#ifndef CANTYPES_H
#define CANTYPES_H

// Plain value types passed between adapters, the dispatcher and the services.
// Their layout is part of the binary interface (datagrams of the virtual bus,
// external users sizing buffers), so every size and offset is pinned below.

#include <QMetaType>
#include <cstddef>
#include <cstdint>

namespace CAN {

// Transmit frame. Every field has a zero default, so `CanMessage m;` is the
// value-initialised record that producers start from (tail bytes included).
struct CanMessage {
    quint32 id = 0;          // 11- or 29-bit identifier, no flag bits
    quint8 length = 0;       // byte count 0..64, not the DLC code
    quint8 data[64] = {};    // bytes beyond length are zero
    bool rtr = false;
    bool extended = false;
    bool fd = false;
    bool esi = false;
    bool brs = false;
    quint8 tail[2] = {};     // alignment tail, always zero
};

struct CanTimeStamp {
    quint32 seconds = 0;
    qint32 microseconds = 0; // 0..999999
};

// Received frame: time stamp, the frame itself, and the transmit-acknowledge mark.
struct CanRxMessage {
    CanTimeStamp timeStamp;
    CanMessage message;
    bool echo = false;
    quint8 padding[3] = {};
    quint32 reserved = 0;
};

enum CanState : qint32 {
    Stopped = 0,
    ErrorActive = 1,
    ErrorPassive = 2,
    BusOff = 3,
    Closed = 4
};

enum RetType : qint32 {
    Ok = 0,
    Busy = 1,
    NotSupported = 2,
    InvalidValue = 3,
    Error = 5,
    TxQueueFull = 6,
    NotReady = 7
};

// CiA 301 data type codes (14 and 23 are unused there too).
enum CANopenDataType : qint32 {
    BOOLEAN = 1,
    INTEGER8 = 2,
    INTEGER16 = 3,
    INTEGER32 = 4,
    UNSIGNED8 = 5,
    UNSIGNED16 = 6,
    UNSIGNED32 = 7,
    REAL32 = 8,
    VISIBLE_STRING = 9,
    OCTET_STRING = 10,
    UNICODE_STRING = 11,
    TIME_OF_DAY = 12,
    TIME_DIFFERENCE = 13,
    DOMAIN = 15,
    INTEGER24 = 16,
    REAL64 = 17,
    INTEGER40 = 18,
    INTEGER48 = 19,
    INTEGER56 = 20,
    INTEGER64 = 21,
    UNSIGNED24 = 22,
    UNSIGNED40 = 24,
    UNSIGNED48 = 25,
    UNSIGNED56 = 26,
    UNSIGNED64 = 27
};

static_assert(sizeof(CanMessage) == 76, "CanMessage is 76 bytes");
static_assert(alignof(CanMessage) == 4, "CanMessage is 4-byte aligned");
static_assert(offsetof(CanMessage, id) == 0, "");
static_assert(offsetof(CanMessage, length) == 4, "");
static_assert(offsetof(CanMessage, data) == 5, "");
static_assert(offsetof(CanMessage, rtr) == 69, "");
static_assert(offsetof(CanMessage, extended) == 70, "");
static_assert(offsetof(CanMessage, fd) == 71, "");
static_assert(offsetof(CanMessage, esi) == 72, "");
static_assert(offsetof(CanMessage, brs) == 73, "");
static_assert(offsetof(CanMessage, tail) == 74, "");
static_assert(sizeof(bool) == 1, "flags are single bytes");
static_assert(sizeof(CanTimeStamp) == 8, "CanTimeStamp is 8 bytes");
static_assert(offsetof(CanTimeStamp, microseconds) == 4, "");
static_assert(sizeof(CanRxMessage) == 92, "CanRxMessage is 92 bytes");
static_assert(offsetof(CanRxMessage, timeStamp) == 0, "");
static_assert(offsetof(CanRxMessage, message) == 8, "");
static_assert(offsetof(CanRxMessage, echo) == 84, "");
static_assert(offsetof(CanRxMessage, reserved) == 88, "");
static_assert(sizeof(CanState) == 4 && sizeof(RetType) == 4 && sizeof(CANopenDataType) == 4, "32-bit enums");

} // namespace CAN

Q_DECLARE_METATYPE(CAN::CanMessage)
Q_DECLARE_METATYPE(CAN::CanRxMessage)
Q_DECLARE_METATYPE(CAN::CanState)
Q_DECLARE_METATYPE(CAN::RetType)
Q_DECLARE_METATYPE(CAN::CanMessage*)
Q_DECLARE_METATYPE(CAN::CanRxMessage*)

#endif
