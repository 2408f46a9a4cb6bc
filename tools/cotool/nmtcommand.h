#ifndef NMTCOMMAND_H
#define NMTCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool nmt COMMAND [NODE]: one NMT command to one node (NMTSlave) or to
// all (NMTNetwork, node 0 or none). Through a gateway the command line is
// sent instead and the gateway's answer printed.
class NmtCommand : public Command
{
public:
    NmtCommand();

    QString name() const override { return QStringLiteral("nmt"); }
    QString summary() const override { return QStringLiteral("Send an NMT command (start, stop, preop, reset-node, reset-comm)."); }
    bool acceptsGateway() const override { return true; }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

    // How long to wait for the gateway's answer.
    static constexpr int GatewayAnswerMs = 1000;
};

#endif
