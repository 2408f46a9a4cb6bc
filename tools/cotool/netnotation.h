#ifndef NETNOTATION_H
#define NETNOTATION_H

#include "cantypes.h"
#include "emcyconsumer.h"
#include "nmtnetwork.h"
#include "nmtslave.h"

#include <QString>
#include <QVariant>
#include <QVector>

// Parsing and formatting for the network commands of cotool (nmt, monitor,
// sync, emcy, pdo). Pure functions, no state; each parser returns false and
// sets *error (if given) to a message naming the problem.
//
//   NMT command   start | stop | preop | reset-node | reset-comm
//   node          1..127 in decimal; 0 means all nodes where a command allows it
//   node list     5   5,6   1-3,7   (decimal, ranges inclusive)
//   COB-ID        hexadecimal, 0x optional: 185, 0x185; 11-bit (at most 7FF)
//   period        a number with unit us or ms (10ms, 500us); ms without a unit
//   PDO mapping   comma-separated types in frame order, little-endian:
//                   u8 u16 u32 (unsigned), i8 i16 i32 (signed), e.g. u16,i32
//                 at most 8 bytes in all
class NetNotation
{
public:
    static bool parseNmtCommand(const QString& text, NMTNetwork::NmtCommands& command, QString* error = nullptr);
    // The name parseNmtCommand reads for a command ("reset-node").
    static QString nmtCommandName(NMTNetwork::NmtCommands command);

    // A node-ID 1..127, or 0 too when allowAll is set.
    static bool parseNodeId(const QString& text, bool allowAll, quint8& node, QString* error = nullptr);
    // Node-IDs 1..127, sorted, each once.
    static bool parseNodeList(const QString& text, QVector<quint8>& nodes, QString* error = nullptr);

    static bool parseCobId(const QString& text, quint32& cobId, QString* error = nullptr);

    // A period in microseconds, 1 us .. 65535 ms.
    static bool parsePeriodUs(const QString& text, quint32& us, QString* error = nullptr);

    static bool parseMapping(const QString& text, QVector<CAN::CANopenDataType>& mapping, QString* error = nullptr);
    // "u16", "i32", ...; "?" for a type the mapping cannot hold.
    static QString typeName(CAN::CANopenDataType type);
    // "u16=4660 i8=-1"
    static QString formatPdoValues(const QVector<CAN::CANopenDataType>& mapping, const QVector<QVariant>& values);

    // The enumerator names: "PreOperational", "Lost", ...
    static QString stateName(NMTSlave::NmtState state);
    static QString supervisionName(NMTSlave::HeartbeatGuardingState state);

    // What the error code means, from its class (CiA 301 emergency error
    // codes): the exact text for the common communication codes, else the
    // class and sub-class ("current, device output side").
    static QString emcyDescription(quint16 errorCode);
    // "EMCY 8110  register 11  data 01 02 03 04 05  (CAN overrun, objects lost)"
    static QString formatEmcy(const EMCYConsumer::EMCYData& data);

    // "12.345" seconds with milliseconds, for event lines.
    static QString seconds(qint64 ms);
};

#endif
