#include "adapterscommand.h"

#include "canadapterfactory.h"
#include "serialbuscanadapter.h"

#include <QCommandLineParser>

int AdaptersCommand::run(const QCommandLineParser& parser, const ToolOptions&)
{
    if (!parser.positionalArguments().isEmpty())
        return usageError(QStringLiteral("adapters takes no arguments"));
    out(QStringLiteral("Adapter types (-a TYPE -i INTERFACE):"));
    for (const auto& entry : CanAdapterFactory::getImplementedAdapters()) {
        const CanAdapterFactory::CanAdapterType type = entry.second;
        AbstractCanAdapter* probe = CanAdapterFactory::createCanAdapter(type, QString());
        const bool built = probe != nullptr;
        delete probe;
        const QStringList names = CanAdapterFactory::getInterfaceList(type);
        out(QStringLiteral("  %1  %2%3").arg(int(type), 2).arg(entry.first, -42)
                .arg(!built ? QStringLiteral("(not in this build)")
                            : names.isEmpty() ? QStringLiteral("(no interface found)") : names.join(QStringLiteral(", "))));
    }
    out(QStringLiteral("CAN plugins (-a PLUGIN -i INTERFACE):"));
    for (const QString& plugin : SerialBusCanAdapter::plugins()) {
        const QStringList names = SerialBusCanAdapter::interfaces(plugin);
        out(QStringLiteral("  %1%2").arg(plugin, -12)
                .arg(names.isEmpty() ? QStringLiteral("(no interface found)") : names.join(QStringLiteral(", "))));
    }
    return Success;
}
