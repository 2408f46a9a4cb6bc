#ifndef DUMPCOMMAND_H
#define DUMPCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool dump: prints every frame on the bus, one line each (candump style).
class DumpCommand : public Command
{
public:
    DumpCommand();

    QString name() const override { return QStringLiteral("dump"); }
    QString summary() const override { return QStringLiteral("Print every frame on the bus, one line each."); }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mCountOption;
    QCommandLineOption mTimeoutOption;
    QCommandLineOption mDurationOption;
};

#endif
