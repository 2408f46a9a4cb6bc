// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "simconsole.h"
#include "simdevice.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"

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
    parser.setApplicationDescription(QStringLiteral(
        "Simulated CANopen device on the virtual CAN bus.\n"
        "\n"
        "At start it sends its boot-up frame (0x700+id) and enters pre-operational. It follows\n"
        "NMT commands (0x000, node-ID or 0 for all), answers node guarding (remote frame on\n"
        "0x700+id: state byte with toggle bit, starting at 0 after a reset), produces heartbeats,\n"
        "sends emergencies on 0x80+id and, while operational, one TPDO per SYNC (0x080):\n"
        "  TPDO 0x180+id, 6 bytes:\n"
        "    bytes 0-1  UNSIGNED16  counter, 1 at the first TPDO after start or reset, +1 each\n"
        "    bytes 2-5  INTEGER32   -1000 x counter\n"
        "\n") + SimConsole::helpText());
    parser.addHelpOption();
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")}, QStringLiteral("Node-ID 1..127 (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption hbOpt(QStringLiteral("heartbeat"), QStringLiteral("Heartbeat producer time in ms, 0 for none (default 1000)."), QStringLiteral("ms"), QStringLiteral("1000"));
    QCommandLineOption portOpt(QStringLiteral("port"), QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    QCommandLineOption operationalOpt(QStringLiteral("operational"), QStringLiteral("Enter operational by itself after the boot-up."));
    QCommandLineOption noConsoleOpt(QStringLiteral("no-console"), QStringLiteral("Do not read commands from stdin."));
    parser.addOptions({nodeOpt, hbOpt, portOpt, operationalOpt, noConsoleOpt});
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
    SimNmtSlave nmt(&device);
    SimEmcyProducer emcy(&device);
    SimTpdo tpdo(&device);
    SimConsole console(&device, &nmt, &emcy, &tpdo);
    QObject::connect(&console, &SimConsole::quitRequested, &app, &QCoreApplication::quit, Qt::QueuedConnection);
    adapter.open();
    device.start();
    if (parser.isSet(operationalOpt))
        nmt.execute(SimNmtSlave::Start);
    if (!parser.isSet(noConsoleOpt))
        console.attachStdin();

    std::signal(SIGINT, [](int) { QCoreApplication::quit(); });
    std::signal(SIGTERM, [](int) { QCoreApplication::quit(); });
    const int rc = app.exec();
    adapter.close();
    return rc;
}
