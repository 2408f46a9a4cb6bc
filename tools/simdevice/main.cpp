// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "simdevice.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <csignal>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("cosim"));
    CanopenMaster master;

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Simulated CANopen device on the virtual CAN bus."));
    parser.addHelpOption();
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")}, QStringLiteral("Node-ID 1..127 (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption hbOpt(QStringLiteral("heartbeat"), QStringLiteral("Heartbeat producer time in ms, 0 for none (default 1000)."), QStringLiteral("ms"), QStringLiteral("1000"));
    QCommandLineOption portOpt(QStringLiteral("port"), QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    parser.addOptions({nodeOpt, hbOpt, portOpt});
    parser.process(app);

    QTextStream err(stderr);
    bool ok = false;
    const uint node = parser.value(nodeOpt).toUInt(&ok);
    if (!ok || node < 1 || node > 127) {
        err << "cosim: node-ID must be 1..127, got '" << parser.value(nodeOpt) << "'\n";
        return 2;
    }
    const uint hb = parser.value(hbOpt).toUInt(&ok);
    if (!ok || hb > 65535) {
        err << "cosim: heartbeat time must be 0..65535 ms, got '" << parser.value(hbOpt) << "'\n";
        return 2;
    }
    DemoCanAdapter adapter(QStringLiteral("Talvik Virtual"));
    if (parser.isSet(portOpt) && !adapter.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, parser.value(portOpt))) {
        err << "cosim: bad port '" << parser.value(portOpt) << "'\n";
        return 2;
    }

    SimDevice device(quint8(node), &adapter);
    device.setHeartbeatTime(quint16(hb));
    adapter.open();
    device.start();

    std::signal(SIGINT, [](int) { QCoreApplication::quit(); });
    std::signal(SIGTERM, [](int) { QCoreApplication::quit(); });
    const int rc = app.exec();
    adapter.close();
    return rc;
}
