#ifndef SDOVALUETEXT_H
#define SDOVALUETEXT_H

#include "cantypes.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

// Object dictionary values as the tools write and show them. SDO over CAN
// moves the types longer than four bytes as their little-endian bytes,
// USDO and gateways as numbers.
class SdoValueText
{
public:
    // The value of a command-line text for a type: numbers as QVariant, or
    // little-endian bytes for the types longer than four bytes when `asBytes`;
    // false with *error when it does not fit.
    static bool parseValue(CAN::CANopenDataType type, const QString& text, bool asBytes, QVariant& value,
                           QString* error);
    // A value as a person reads it: "1234 (0x000004d2)", text, or
    // "N bytes: 00 01 ..." for domains.
    static QString formatValue(CAN::CANopenDataType type, const QVariant& value);
    // A value that came as little-endian bytes (types longer than four
    // bytes over CAN) as a number; other values unchanged.
    static QVariant numberFromBytes(CAN::CANopenDataType type, const QVariant& value);
    // Size in bytes of a numeric type, 0 for strings and domains.
    static int typeSize(CAN::CANopenDataType type);
};

#endif
