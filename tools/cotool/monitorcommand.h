#ifndef MONITORCOMMAND_H
#define MONITORCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool monitor NODES: the NMT state of one or more nodes and, with
// --heartbeat or --guard, their supervision, one line per event as
// NMTSlave reports it (NodeStateChanged, HeartbeatGuardingStateChanged).
class MonitorCommand : public Command
{
public:
    MonitorCommand();

    QString name() const override { return QStringLiteral("monitor"); }
    QString summary() const override { return QStringLiteral("Print NMT state changes and heartbeat/guarding events of nodes."); }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mHeartbeatOption;
    QCommandLineOption mGuardOption;
    QCommandLineOption mLifeOption;
    QCommandLineOption mCountOption;
    QCommandLineOption mDurationOption;
};

#endif
