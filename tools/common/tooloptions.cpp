#include "tooloptions.h"

#include "abstractcanadapter.h"
#include "canadapterfactory.h"
#include "democanadapter.h"
#include "serialbuscanadapter.h"
#include "toollogging.h"

#include <QCommandLineParser>

ToolOptions::ToolOptions()
    : mAdapterOption({QStringLiteral("a"), QStringLiteral("adapter")},
                     QStringLiteral("Adapter type number (default 6, the virtual bus), or a QtSerialBus plugin "
                                    "(socketcan, peakcan, virtualcan, ...; see cotool adapters)."),
                     QStringLiteral("type"))
    , mInterfaceOption({QStringLiteral("i"), QStringLiteral("interface")},
                       QStringLiteral("Interface name (default: the adapter type's first interface)."), QStringLiteral("name"))
    , mBitrateOption({QStringLiteral("b"), QStringLiteral("bitrate")},
                     QStringLiteral("Nominal bit rate in kbit/s (default 500)."), QStringLiteral("kbit"))
    , mPortOption({QStringLiteral("p"), QStringLiteral("port")},
                  QStringLiteral("Virtual bus UDP port (default: $%1, else %2).")
                      .arg(QLatin1String(DemoCanAdapter::PortEnvironmentVariable))
                      .arg(DemoCanAdapter::DefaultPort),
                  QStringLiteral("port"))
    , mGatewayOption(QStringLiteral("gateway"),
                     QStringLiteral("Work through a CiA 309-3 gateway at host:port (commands that support it)."),
                     QStringLiteral("host:port"))
{
}

void ToolOptions::addTo(QCommandLineParser& parser, bool listGateway) const
{
    parser.addOptions({mAdapterOption, mInterfaceOption, mBitrateOption, mPortOption, ToolLogging::verboseOption()});
    QCommandLineOption gateway = mGatewayOption;
    if (!listGateway)
        gateway.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOption(gateway);
}

bool ToolOptions::read(const QCommandLineParser& parser, QString* error)
{
    auto bad = [error](const QString& message) {
        *error = message;
        return false;
    };
    bool ok = true;
    if (parser.isSet(mGatewayOption)) {
        const QString value = parser.value(mGatewayOption);
        const int colon = value.lastIndexOf(QLatin1Char(':'));
        const uint port = colon > 0 ? value.mid(colon + 1).toUInt(&ok) : 0;
        if (colon <= 0 || !ok || port == 0 || port > 65535)
            return bad(QStringLiteral("--gateway wants host:port, got '%1'").arg(value));
        mGatewayHost = value.left(colon);
        mGatewayPort = quint16(port);
        mAdapterType = GatewayAdapterType;
    }
    if (parser.isSet(mAdapterOption)) {
        const QString value = parser.value(mAdapterOption);
        const uint type = value.toUInt(&ok);
        if (!ok && SerialBusCanAdapter::plugins().contains(value)) {
            mPlugin = value;
        } else if (!ok || type > 255) {
            return bad(QStringLiteral("--adapter wants an adapter type number or a CAN plugin (%1), got '%2'")
                           .arg(SerialBusCanAdapter::plugins().join(QStringLiteral(", ")), value));
        } else {
            mAdapterType = int(type);
        }
    }
    if (parser.isSet(mBitrateOption)) {
        const uint kbit = parser.value(mBitrateOption).toUInt(&ok);
        if (!ok || kbit == 0 || kbit > 65535)
            return bad(QStringLiteral("--bitrate wants kbit/s 1..65535, got '%1'").arg(parser.value(mBitrateOption)));
        mBitrate = quint16(kbit);
    }
    if (parser.isSet(mPortOption)) {
        const uint port = parser.value(mPortOption).toUInt(&ok);
        if (!ok || port == 0 || port > 65535)
            return bad(QStringLiteral("--port wants a UDP port 1..65535, got '%1'").arg(parser.value(mPortOption)));
        mBusPort = quint16(port);
    }
    ToolLogging::install(parser.isSet(QStringLiteral("verbose")));
    mInterfaceName = parser.value(mInterfaceOption);
    if (mInterfaceName.isEmpty() && !mPlugin.isEmpty()) {
        const QStringList names = SerialBusCanAdapter::interfaces(mPlugin);
        if (names.isEmpty())
            return bad(QStringLiteral("plugin %1 sees no interface: give one with -i").arg(mPlugin));
        mInterfaceName = names.first();
    } else if (mInterfaceName.isEmpty()) {
        const QStringList names = CanAdapterFactory::getInterfaceList(CanAdapterFactory::CanAdapterType(mAdapterType));
        if (!names.isEmpty())
            mInterfaceName = names.first();
    }
    return true;
}

AbstractCanAdapter* ToolOptions::createAdapter(QString* error) const
{
    AbstractCanAdapter* adapter =
        !mPlugin.isEmpty() && !hasGateway()
            ? new SerialBusCanAdapter(mPlugin, mInterfaceName)
            : CanAdapterFactory::createCanAdapter(CanAdapterFactory::CanAdapterType(mAdapterType), mInterfaceName);
    if (!adapter) {
        *error = QStringLiteral("adapter type %1 is not available in this build").arg(mAdapterType);
        return nullptr;
    }
    adapter->setBitrate(mBitrate);
    if (mBusPort)
        adapter->setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, mBusPort);
    if (hasGateway()) {
        adapter->setCanAdapterOption(AbstractCanAdapter::GatewayHost, mGatewayHost);
        adapter->setCanAdapterOption(AbstractCanAdapter::GatewayPort, mGatewayPort);
    }
    return adapter;
}

QString ToolOptions::describe(AbstractCanAdapter* adapter)
{
    if (auto* virtualBus = qobject_cast<DemoCanAdapter*>(adapter))
        return QStringLiteral("virtual bus on UDP port %1").arg(virtualBus->busPort());
    if (auto* serialBus = qobject_cast<SerialBusCanAdapter*>(adapter))
        return QStringLiteral("%1 interface %2").arg(serialBus->plugin(), serialBus->interfaceName());
    return QStringLiteral("adapter %1").arg(QString::fromLatin1(adapter->metaObject()->className()));
}

QString ToolOptions::openError(AbstractCanAdapter* adapter, int code)
{
    if (auto* serialBus = qobject_cast<SerialBusCanAdapter*>(adapter))
        return QStringLiteral("could not open %1").arg(serialBus->errorString());
    return QStringLiteral("could not open the adapter (error %1)").arg(code);
}
