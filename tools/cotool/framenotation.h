#ifndef FRAMENOTATION_H
#define FRAMENOTATION_H

#include "cantypes.h"

#include <QString>

// The usual text notation of CAN frames, as typed on command lines and
// printed by dump. Pure functions, no state.
//
//   123#DEADBEEF      11-bit identifier: exactly 3 hex digits, at most 7FF
//   12345678#0102     29-bit identifier: exactly 8 hex digits, at most 1FFFFFFF
//   123#              no data
//   123#R  123#R4     remote frame, optionally with the requested length 0..8
//   123##1DEADBEEF    CAN FD frame; the hex digit after ## holds the flags:
//                     bit 0 = BRS (bit-rate switch), bit 1 = ESI; bits 2 and 3
//                     are accepted and ignored (other tools use them for the
//                     FD format bit, which ## already says)
//   123#11.22.33      '.' may separate two data bytes
//
// Lengths: a classic frame carries 0..8 bytes. A CAN FD frame must carry a
// valid FD length (0..8, 12, 16, 20, 24, 32, 48 or 64 bytes): any other count
// is refused rather than padded, so that what is typed is exactly what goes
// on the wire.
class FrameNotation
{
public:
    // Parses one frame. On failure returns false, leaves `frame` untouched
    // and sets *error (if given) to a message naming the problem.
    static bool parse(const QString& text, CAN::CanMessage& frame, QString* error = nullptr);

    // The canonical notation of a frame (upper-case hex, no separators).
    static QString format(const CAN::CanMessage& frame);

    // One line of dump output, like candump:
    //   (seconds.microseconds)  identifier  flags  [length]  data bytes
    // e.g. "(12.000345)  705                   [1]  7F". The identifier is
    // padded to 8 columns and the flags (EXT RTR FD BRS ESI ECHO) to 10, so
    // that the columns line up for the common cases.
    static QString dumpLine(const CAN::CanRxMessage& frame);

    static bool isValidFdLength(int length);
};

#endif
