#ifndef SDOCOMMAND_H
#define SDOCOMMAND_H

#include "command.h"
#include <QCommandLineOption>
#include <QString>

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

private:
    QCommandLineOption mOutputOption;
    QCommandLineOption mUsdoOption;
    QCommandLineOption mBlockOption;
    QCommandLineOption mRoutingOption;
    QCommandLineOption mTimeoutOption;
};

#endif
