// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "objectdictionary.h"
#include "sdoserver.h"
#include "simconsole.h"
#include "signalwatcher.h"
#include "simdevice.h"
#include "simnode.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"
#include "toollogging.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>
#include <QVector>
#include <memory>
#include <vector>

namespace {
bool parseNumber(const QString& text, quint32& value)
{
    bool ok = false;
    const qulonglong v = text.trimmed().toULongLong(&ok, 0);
    value = quint32(v);
    return ok && v <= 0xFFFFFFFFull;
}

bool parseIdentity(const QString& text, SimLssSlave::Identity& id)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    return parts.size() == 4 && parseNumber(parts[0], id.vendorId) && parseNumber(parts[1], id.productCode)
           && parseNumber(parts[2], id.revisionNumber) && parseNumber(parts[3], id.serialNumber);
}

// "1-127", "5,6,10-12": node-IDs 1..127, each once, in the given order.
bool parseNodeList(const QString& text, QVector<quint8>& nodes, QString* error)
{
    for (const QString& part : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QStringList range = part.split(QLatin1Char('-'));
        bool ok1 = false, ok2 = true;
        const uint from = range.value(0).toUInt(&ok1);
        const uint to = range.size() == 2 ? range.value(1).toUInt(&ok2) : from;
        if (range.size() > 2 || !ok1 || !ok2 || from < 1 || to > 127 || from > to) {
            *error = QStringLiteral("'%1' is not a node-ID or range within 1..127").arg(part);
            return false;
        }
        for (uint n = from; n <= to; ++n) {
            if (!nodes.contains(quint8(n)))
                nodes << quint8(n);
        }
    }
    if (nodes.isEmpty()) {
        *error = QStringLiteral("no node-ID given");
        return false;
    }
    return true;
}
} // namespace

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
        "Its SDO server answers expedited, segmented and block transfers, its USDO server\n"
        "(CAN FD) expedited uploads and downloads of up to 56 bytes, plain and routed; --list-od\n"
        "prints the object dictionary.\n"
        "\n"
        "Its LSS slave (requests on 0x7E5, answers on 0x7E4) switches between waiting and\n"
        "configuration mode, takes a node-ID and bit timing, stores them (--lss-store), answers\n"
        "identity and node-ID inquiries, identify requests and the fast scan. With --unconfigured\n"
        "devices start without node-ID: silent until LSS gives them one, then they boot with it.\n"
        "One process can simulate many devices (--nodes, --unconfigured); the console drives\n"
        "the first.\n"
        "\n") + SimConsole::helpText());
    parser.addHelpOption();
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")}, QStringLiteral("Node-ID 1..127 (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption hbOpt(QStringLiteral("heartbeat"), QStringLiteral("Heartbeat producer time in ms, 0 for none (default 1000)."), QStringLiteral("ms"), QStringLiteral("1000"));
    QCommandLineOption portOpt(QStringLiteral("port"), QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    QCommandLineOption operationalOpt(QStringLiteral("operational"), QStringLiteral("Enter operational by itself after the boot-up."));
    QCommandLineOption noConsoleOpt(QStringLiteral("no-console"), QStringLiteral("Do not read commands from stdin."));
    parser.addOptions({nodeOpt, hbOpt, portOpt, operationalOpt, noConsoleOpt});
    QCommandLineOption nodesOpt(QStringLiteral("nodes"), QStringLiteral("Several devices with these node-IDs, e.g. 1-127 or 5,6,10-12."), QStringLiteral("list"));
    QCommandLineOption unconfiguredOpt(QStringLiteral("unconfigured"), QStringLiteral("Devices without node-ID waiting for LSS (with --identity: one per identity; default 0)."), QStringLiteral("count"));
    QCommandLineOption identityOpt(QStringLiteral("identity"), QStringLiteral("LSS identities VENDOR:PRODUCT:REVISION:SERIAL (decimal or 0x-hex), comma-separated; for --unconfigured devices, or for --node."), QStringLiteral("list"));
    QCommandLineOption storeOpt(QStringLiteral("lss-store"), QStringLiteral("File that keeps configurations stored by LSS; a device found there starts with its stored node-ID."), QStringLiteral("file"));
    parser.addOptions({nodesOpt, unconfiguredOpt, identityOpt, storeOpt});

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
    // The devices: node-IDs first, then the unconfigured ones. Identities
    // without any node-ID option are unconfigured devices.
    const bool identitiesOnly = parser.isSet(identityOpt) && !parser.isSet(nodeOpt) && !parser.isSet(nodesOpt);
    QVector<quint8> nodes;
    if (parser.isSet(nodesOpt)) {
        QString error;
        if (!parseNodeList(parser.value(nodesOpt), nodes, &error)) {
            err << "cosim: --nodes: " << error << "\n";
            return 2;
        }
    } else if (parser.isSet(nodeOpt) || (!parser.isSet(unconfiguredOpt) && !identitiesOnly)) {
        nodes << quint8(node);
    }
    QVector<SimLssSlave::Identity> identities;
    if (parser.isSet(identityOpt)) {
        for (const QString& text : parser.value(identityOpt).split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            SimLssSlave::Identity id;
            if (!parseIdentity(text, id)) {
                err << "cosim: --identity wants VENDOR:PRODUCT:REVISION:SERIAL, got '" << text << "'\n";
                return 2;
            }
            identities << id;
        }
    }
    int unconfigured = 0;
    if (parser.isSet(unconfiguredOpt)) {
        unconfigured = parser.value(unconfiguredOpt).toInt(&ok);
        if (!ok || unconfigured < 0 || unconfigured > 1000) {
            err << "cosim: --unconfigured wants a count 0..1000, got '" << parser.value(unconfiguredOpt) << "'\n";
            return 2;
        }
    } else if (identitiesOnly) {
        unconfigured = identities.size();
    }
    if (nodes.size() == 1 && !identities.isEmpty() && unconfigured == 0 && identities.size() != 1) {
        err << "cosim: one device, one identity\n";
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

    SimNode::Config base;
    base.heartbeatMs = quint16(hb);
    base.operational = parser.isSet(operationalOpt);
    base.sdo = !parser.isSet(noSdoOpt);
    base.sdoBlockSize = quint8(sdoBlock);
    base.sdoTimeoutMs = sdoTimeout;
    base.sdoCrc = !parser.isSet(sdoNoCrcOpt);
    base.storeFile = parser.value(storeOpt);
    std::vector<std::unique_ptr<SimNode>> devices;
    for (quint8 n : nodes) {
        SimNode::Config c = base;
        c.nodeId = n;
        c.identity = nodes.size() == 1 && unconfigured == 0 && identities.size() == 1 ? identities.first()
                                                                                       : SimNode::defaultIdentity(n);
        devices.emplace_back(new SimNode(c, &adapter));
    }
    for (int i = 0; i < unconfigured; ++i) {
        SimNode::Config c = base;
        c.nodeId = SimLssSlave::Unconfigured;
        if (i < identities.size()) {
            c.identity = identities.at(i);
        } else {
            c.identity = SimNode::defaultIdentity(0);
            c.identity.serialNumber = 0x5D000100u + quint32(i + 1);
        }
        devices.emplace_back(new SimNode(c, &adapter));
    }
    if (devices.empty()) {
        err << "cosim: no device to simulate\n";
        return 2;
    }
    for (const auto& d : devices) {
        SimNode* dev = d.get();
        QObject::connect(dev, &SimNode::nodeIdChanged, [dev, quiet, &err](quint8 n) {
            if (!quiet)
                err << "cosim: device with serial number 0x" << QString::number(dev->identity().serialNumber, 16)
                    << (n == SimLssSlave::Unconfigured ? QStringLiteral(" has no node-ID now")
                                                       : QStringLiteral(" is node %1 now").arg(n))
                    << Qt::endl;
        });
    }
    SimNode& first = *devices.front();
    SimConsole console(first.device(), first.nmt(), first.emcy(), first.tpdo());
    QObject::connect(&console, &SimConsole::quitRequested, &app, &QCoreApplication::quit, Qt::QueuedConnection);
    adapter.open();
    if (!quiet) {
        if (devices.size() == 1 && first.nodeId() != SimLssSlave::Unconfigured)
            err << "cosim: node " << first.nodeId() << " on the virtual bus, UDP port " << adapter.busPort();
        else
            err << "cosim: " << devices.size() << " devices (" << (devices.size() - size_t(unconfigured))
                << " with node-ID, " << unconfigured << " waiting for LSS) on the virtual bus, UDP port "
                << adapter.busPort();
        err << ", heartbeat " << hb << " ms" << (delay ? QStringLiteral(", boot-up in %1 ms").arg(delay) : QString())
            << Qt::endl;
    }
    // The heartbeat time is set only at the start: set earlier, the producer
    // would already send (state 00) while the boot-up is still delayed.
    QTimer::singleShot(int(delay), &first, [&devices, quiet, &err]() {
        int booted = 0;
        for (const auto& d : devices) {
            d->start();
            booted += d->nodeId() != SimLssSlave::Unconfigured;
        }
        if (!quiet && booted)
            err << "cosim: boot-up sent, now "
                << (devices.front()->device()->nmtState() == SimDevice::Operational ? "operational" : "pre-operational")
                << Qt::endl;
    });
    if (!parser.isSet(noConsoleOpt))
        console.attachStdin();

    const int rc = app.exec();
    adapter.close();
    if (!quiet)
        err << "cosim: stopped" << (stopSignal ? QStringLiteral(" by signal %1").arg(stopSignal) : QString()) << Qt::endl;
    return rc;
}
