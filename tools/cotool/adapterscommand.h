#ifndef ADAPTERSCOMMAND_H
#define ADAPTERSCOMMAND_H

#include "command.h"

// cotool adapters: the adapter factory's types with the interfaces each sees,
// then the QtSerialBus plugins with theirs (usable as -a PLUGIN -i NAME).
class AdaptersCommand : public Command
{
public:
    QString name() const override { return QStringLiteral("adapters"); }
    QString summary() const override { return QStringLiteral("List adapter types, CAN plugins and their interfaces."); }
    void addOptions(QCommandLineParser&) override {}
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;
};

#endif
