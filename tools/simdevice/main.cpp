// cosim: a simulated CANopen device on the virtual bus.
#include "canadapterfactory.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "signalwatcher.h"
#include "simdevice.h"

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
    parser.setApplicationDescription(QStringLiteral("Simulated CANopen device on the virtual CAN bus."));
    parser.addHelpOption();
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")}, QStringLiteral("Node-ID 1..127 (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption hbOpt(QStringLiteral("heartbeat"), QStringLiteral("Heartbeat producer time in ms, 0 for none (default 1000)."), QStringLiteral("ms"), QStringLiteral("1000"));
    QCommandLineOption portOpt(QStringLiteral("port"), QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    QCommandLineOption delayOpt(QStringLiteral("delay"), QStringLiteral("Wait this long before booting, in ms (default 0)."), QStringLiteral("ms"), QStringLiteral("0"));
    QCommandLineOption quietOpt({QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("Print nothing except errors."));
    parser.addOptions({nodeOpt, hbOpt, portOpt, delayOpt, quietOpt});
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

    SimDevice device(quint8(node), &adapter);
    adapter.open();
    if (!quiet)
        err << "cosim: node " << node << " on the virtual bus, UDP port " << adapter.busPort()
            << ", heartbeat " << hb << " ms" << (delay ? QStringLiteral(", boot-up in %1 ms").arg(delay) : QString())
            << Qt::endl;
    // The heartbeat time is set only now: set earlier, the producer would
    // already send (state 00) while the boot-up is still delayed.
    QTimer::singleShot(int(delay), &device, [&device, hb, quiet, &err]() {
        device.setHeartbeatTime(quint16(hb));
        device.start();
        if (!quiet)
            err << "cosim: boot-up sent, now pre-operational" << Qt::endl;
    });

    const int rc = app.exec();
    adapter.close();
    if (!quiet)
        err << "cosim: stopped" << (stopSignal ? QStringLiteral(" by signal %1").arg(stopSignal) : QString()) << Qt::endl;
    return rc;
}
