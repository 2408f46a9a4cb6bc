#ifndef TOOLOPTIONS_H
#define TOOLOPTIONS_H

#include <QCommandLineOption>
#include <QString>

class AbstractCanAdapter;
class QCommandLineParser;

// The options every tool command understands: which adapter to use, how
// to reach the bus and -v (the library's debug messages too). Commands that can work through a CiA 309-3 gateway also
// take --gateway host:port.
class ToolOptions
{
public:
    static constexpr int DefaultAdapterType = 6; // the virtual bus
    static constexpr quint16 DefaultBitrate = 500;
    static constexpr int GatewayAdapterType = 20;

    ToolOptions();

    // Adds the common options; --gateway is listed in the help only for
    // commands that accept it (others still recognise it, to refuse it clearly).
    void addTo(QCommandLineParser& parser, bool listGateway = true) const;
    // Reads and checks the parsed values (and sets up the message filter);
    // false with *error on a bad one.
    bool read(const QCommandLineParser& parser, QString* error);

    int adapterType() const { return mAdapterType; }
    // A QtSerialBus plugin given as adapter ("socketcan", "virtualcan", ...); empty for a type number.
    QString plugin() const { return mPlugin; }
    QString interfaceName() const { return mInterfaceName; }
    quint16 bitrate() const { return mBitrate; }
    quint16 busPort() const { return mBusPort; } // 0: the adapter's default
    bool hasGateway() const { return !mGatewayHost.isEmpty(); }
    QString gatewayHost() const { return mGatewayHost; }
    quint16 gatewayPort() const { return mGatewayPort; }

    // Creates and configures the adapter (not opened). Null with *error when
    // this build offers no adapter of the type.
    AbstractCanAdapter* createAdapter(QString* error) const;
    // A short description for messages, e.g. "virtual bus on UDP port 45674".
    static QString describe(AbstractCanAdapter* adapter);
    // Why open() failed, for the message of a tool.
    static QString openError(AbstractCanAdapter* adapter, int code);

private:
    QCommandLineOption mAdapterOption;
    QCommandLineOption mInterfaceOption;
    QCommandLineOption mBitrateOption;
    QCommandLineOption mPortOption;
    QCommandLineOption mGatewayOption;

    int mAdapterType = DefaultAdapterType;
    QString mPlugin;
    QString mInterfaceName;
    quint16 mBitrate = DefaultBitrate;
    quint16 mBusPort = 0;
    QString mGatewayHost;
    quint16 mGatewayPort = 0;
};

#endif
