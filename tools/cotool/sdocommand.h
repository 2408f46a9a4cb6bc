#ifndef SDOCOMMAND_H
#define SDOCOMMAND_H

#include "command.h"
#include "cantypes.h"

#include <QByteArray>
#include <QCommandLineOption>
#include <QString>
#include <QVariant>

// cotool sdo read NODE INDEX SUB TYPE | write NODE INDEX SUB TYPE VALUE:
// one object dictionary entry through SDOClient, over CAN (expedited,
// segmented, or block with --block), USDO with --usdo, or a CiA 309-3
// gateway with --gateway. Types are the gateway's names (u8, i16, r32, vs,
// d, ...); VALUE @file takes a domain from a file, -o FILE saves one.
class SdoCommand : public Command
{
public:
    SdoCommand();

    QString name() const override { return QStringLiteral("sdo"); }
    QString summary() const override { return QStringLiteral("Read or write an object dictionary entry (SDO, USDO, gateway)."); }
    bool acceptsGateway() const override { return true; }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

    // The value of a command-line text for a type: numbers as QVariant, or
    // little-endian bytes for the types longer than four bytes when `asBytes`
    // (SDO over CAN moves those as bytes); false with *error when it does not fit.
    static bool parseValue(CAN::CANopenDataType type, const QString& text, bool asBytes, QVariant& value,
                           QString* error);
    // A value as a person reads it: "1234 (0x000004d2)", text, or
    // "N bytes: 00 01 ..." for domains.
    static QString formatValue(CAN::CANopenDataType type, const QVariant& value);
    // Size in bytes of a numeric type, 0 for strings and domains.
    static int typeSize(CAN::CANopenDataType type);

private:
    QCommandLineOption mOutputOption;
    QCommandLineOption mUsdoOption;
    QCommandLineOption mBlockOption;
    QCommandLineOption mRoutingOption;
    QCommandLineOption mTimeoutOption;
};

#endif
