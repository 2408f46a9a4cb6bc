// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "objectdictionary.h"
#include "sdoserver.h"
#include "simconsole.h"
#include "signalwatcher.h"
#include "simdevice.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"
#include "toollogging.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

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
    QCommandLineOption delayOpt(QStringLiteral("delay"), QStringLiteral("Wait this long before booting, in ms (default 0)."), QStringLiteral("ms"), QStringLiteral("0"));
    QCommandLineOption quietOpt({QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("Print nothing except errors."));
    const QCommandLineOption verboseOpt = ToolLogging::verboseOption();
    parser.addOptions({delayOpt, quietOpt, verboseOpt});
    parser.process(app);
    ToolLogging::install(parser.isSet(verboseOpt));

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
    const uint delay = parser.value(delayOpt).toUInt(&ok);
    if (!ok || delay > 3600000) {
        err << "cosim: delay must be 0..3600000 ms, got '" << parser.value(delayOpt) << "'\n";
        return 2;
    }
    const bool quiet = parser.isSet(quietOpt);
    DemoCanAdapter adapter(QStringLiteral("Talvik Virtual"));
    if (parser.isSet(portOpt) && !adapter.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, parser.value(portOpt))) {
        err << "cosim: bad port '" << parser.value(portOpt) << "'\n";
        return 2;
    }

    // SIGINT/SIGTERM end the event loop through a self-pipe (quitting from
    // inside a signal handler is not async-signal-safe).
    SignalWatcher* watcher = SignalWatcher::quitOnTermination(&app);
    int stopSignal = 0;
    QObject::connect(watcher, &SignalWatcher::signalReceived, [&stopSignal](int s) { stopSignal = s; });

    ObjectDictionary od; // outlives the device and its SDO server
    SimDevice device(quint8(node), &adapter);
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
    if (!quiet)
        err << "cosim: node " << node << " on the virtual bus, UDP port " << adapter.busPort()
            << ", heartbeat " << hb << " ms" << (delay ? QStringLiteral(", boot-up in %1 ms").arg(delay) : QString())
            << Qt::endl;
    // The heartbeat time is set only now: set earlier, the producer would
    // already send (state 00) while the boot-up is still delayed.
    const bool operational = parser.isSet(operationalOpt);
    QTimer::singleShot(int(delay), &device, [&device, &nmt, hb, quiet, operational, &err]() {
        device.setHeartbeatTime(quint16(hb));
        device.start();
        if (operational)
            nmt.execute(SimNmtSlave::Start);
        if (!quiet)
            err << "cosim: boot-up sent, now " << (operational ? "operational" : "pre-operational") << Qt::endl;
    });
    if (!parser.isSet(noConsoleOpt))
        console.attachStdin();

    const int rc = app.exec();
    adapter.close();
    if (!quiet)
        err << "cosim: stopped" << (stopSignal ? QStringLiteral(" by signal %1").arg(stopSignal) : QString()) << Qt::endl;
    return rc;
}
