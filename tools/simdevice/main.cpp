// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "objectdictionary.h"
#include "sdoserver.h"
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
        "\n"
        "Its SDO server answers expedited, segmented and block transfers; --list-od prints "
        "the object dictionary.\n"
        "\n") + SimConsole::helpText());
    parser.addHelpOption();
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")}, QStringLiteral("Node-ID 1..127 (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption hbOpt(QStringLiteral("heartbeat"), QStringLiteral("Heartbeat producer time in ms, 0 for none (default 1000)."), QStringLiteral("ms"), QStringLiteral("1000"));
    QCommandLineOption portOpt(QStringLiteral("port"), QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    QCommandLineOption operationalOpt(QStringLiteral("operational"), QStringLiteral("Enter operational by itself after the boot-up."));
    QCommandLineOption noConsoleOpt(QStringLiteral("no-console"), QStringLiteral("Do not read commands from stdin."));
    parser.addOptions({nodeOpt, hbOpt, portOpt, operationalOpt, noConsoleOpt});

    QCommandLineOption listOdOpt(QStringLiteral("list-od"), QStringLiteral("Print the object dictionary and exit."));
    QCommandLineOption noSdoOpt(QStringLiteral("no-sdo"), QStringLiteral("Run without the SDO server."));
    QCommandLineOption sdoBlockOpt(QStringLiteral("sdo-block-size"), QStringLiteral("Segments per block offered in SDO block downloads, 1..127 (default 127)."), QStringLiteral("n"), QStringLiteral("127"));
    QCommandLineOption sdoTimeoutOpt(QStringLiteral("sdo-timeout"), QStringLiteral("Abort a stalled SDO transfer after this many ms, 0 for never (default 3000)."), QStringLiteral("ms"), QString::number(SdoServer::DefaultTimeoutMs));
    QCommandLineOption sdoNoCrcOpt(QStringLiteral("sdo-no-crc"), QStringLiteral("Do not announce CRC support in SDO block transfers."));
    parser.addOptions({listOdOpt, noSdoOpt, sdoBlockOpt, sdoTimeoutOpt, sdoNoCrcOpt});
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
    const uint sdoBlock = parser.value(sdoBlockOpt).toUInt(&ok);
    if (!ok || sdoBlock < 1 || sdoBlock > 127) {
        err << "cosim: SDO block size must be 1..127, got '" << parser.value(sdoBlockOpt) << "'\n";
        return 2;
    }
    const int sdoTimeout = parser.value(sdoTimeoutOpt).toInt(&ok);
    if (!ok || sdoTimeout < 0) {
        err << "cosim: SDO time-out must be 0 or more ms, got '" << parser.value(sdoTimeoutOpt) << "'\n";
        return 2;
    }
    if (parser.isSet(listOdOpt)) {
        ObjectDictionary od;
        od.addDefaultEntries(quint8(node));
        QTextStream(stdout) << "Object dictionary of node " << node << " (SDO requests on 0x"
                            << QString::number(0x600 + node, 16).toUpper() << ", answers on 0x"
                            << QString::number(0x580 + node, 16).toUpper() << "):\n"
                            << od.listing();
        return 0;
    }
    DemoCanAdapter adapter(QStringLiteral("Talvik Virtual"));
    if (parser.isSet(portOpt) && !adapter.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, parser.value(portOpt))) {
        err << "cosim: bad port '" << parser.value(portOpt) << "'\n";
        return 2;
    }

    ObjectDictionary od; // outlives the device and its SDO server
    SimDevice device(quint8(node), &adapter);
    device.setHeartbeatTime(quint16(hb));
    od.addDefaultEntries(device.nodeId(), &device);
    SdoServer* sdo = nullptr; // a child of the device
    if (!parser.isSet(noSdoOpt)) {
        sdo = new SdoServer(&device, &od, &device);
        sdo->setBlockSize(quint8(sdoBlock));
        sdo->setTimeout(sdoTimeout);
        sdo->setCrcSupported(!parser.isSet(sdoNoCrcOpt));
    }
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
