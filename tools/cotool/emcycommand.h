#ifndef EMCYCOMMAND_H
#define EMCYCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool emcy [NODES]: prints the emergencies of some nodes or of all,
// decoded by EMCYConsumer (one per node), on CAN or from a gateway's
// emergency report lines.
class EmcyCommand : public Command
{
public:
    EmcyCommand();

    QString name() const override { return QStringLiteral("emcy"); }
    QString summary() const override { return QStringLiteral("Print decoded emergencies of some nodes or all."); }
    bool acceptsGateway() const override { return true; }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mCountOption;
    QCommandLineOption mDurationOption;
};

#endif
