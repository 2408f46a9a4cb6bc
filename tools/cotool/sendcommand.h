#ifndef SENDCOMMAND_H
#define SENDCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool send FRAME...: writes frames given in the usual notation
// (see FrameNotation) and returns once they have all left.
class SendCommand : public Command
{
public:
    SendCommand();

    QString name() const override { return QStringLiteral("send"); }
    QString summary() const override { return QStringLiteral("Send frames given as 123#DEADBEEF, 12345678#.., 123#R, 123##1..."); }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mGapOption;
};

#endif
