#ifndef PDOCOMMAND_H
#define PDOCOMMAND_H

#include "command.h"

#include <QCommandLineOption>

// cotool pdo COBID --map TYPES: decodes every frame on a PDO's COB-ID with
// RPDO and prints the values, one line per frame.
class PdoCommand : public Command
{
public:
    PdoCommand();

    QString name() const override { return QStringLiteral("pdo"); }
    QString summary() const override { return QStringLiteral("Decode a PDO by a mapping such as --map u16,i32."); }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

private:
    QCommandLineOption mMapOption;
    QCommandLineOption mCountOption;
    QCommandLineOption mDurationOption;
};

#endif
