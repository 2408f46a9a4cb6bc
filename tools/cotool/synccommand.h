#ifndef SYNCCOMMAND_H
#define SYNCCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool sync --period P: produces SYNC with SYNCProducer, optionally with
// the counter byte, until a count, a duration or Ctrl-C.
class SyncCommand : public Command
{
public:
    SyncCommand();

    QString name() const override { return QStringLiteral("sync"); }
    QString summary() const override { return QStringLiteral("Produce SYNC at a period, optionally with counter."); }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mPeriodOption;
    QCommandLineOption mOverflowOption;
    QCommandLineOption mCobIdOption;
    QCommandLineOption mCountOption;
    QCommandLineOption mDurationOption;
};

#endif
