// codemo: a guided tour of the library on the virtual CAN bus, next to a
// simulated device (cosim) started by scripts/demo.sh. Each step shows one
// part of the public interface and explains what happens.
#include "canopenmasterclass.h"
#include "cinterfacestep.h"
#include "democanadapter.h"
#include "democontext.h"
#include "emcystep.h"
#include "gatewaystep.h"
#include "heartbeatstep.h"
#include "lssstep.h"
#include "nmtstep.h"
#include "openbusstep.h"
#include "pdostep.h"
#include "sdostep.h"
#include "supervisionstep.h"
#include "signalwatcher.h"
#include "toollogging.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <memory>
#include <vector>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("codemo"));
    CanopenMaster master; // registers the frame types for queued connections

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Demo of the CANopen master library against a simulated device."));
    parser.addHelpOption();
    QCommandLineOption portOpt({QStringLiteral("p"), QStringLiteral("port")},
                               QStringLiteral("Virtual bus UDP port (default: $CANOPEN_VBUS_PORT or 45674)."), QStringLiteral("port"));
    QCommandLineOption nodeOpt({QStringLiteral("n"), QStringLiteral("node")},
                               QStringLiteral("The device's node-ID (default 5)."), QStringLiteral("id"), QStringLiteral("5"));
    QCommandLineOption waitOpt(QStringLiteral("wait"),
                               QStringLiteral("How long to wait for the device's first frame, in ms (default 5000)."),
                               QStringLiteral("ms"), QStringLiteral("5000"));
    QCommandLineOption beatsOpt(QStringLiteral("heartbeats"),
                                QStringLiteral("Heartbeats to show after the first frame (default 4)."),
                                QStringLiteral("count"), QStringLiteral("4"));
    QCommandLineOption consoleOpt(QStringLiteral("device-console"),
                                  QStringLiteral("A named pipe to the device's stdin console (cosim commands such as "
                                                 "\"heartbeat 0\"); the supervision and EMCY steps need it."),
                                  QStringLiteral("path"));
    QCommandLineOption gatewayOpt(QStringLiteral("gateway-port"),
                                  QStringLiteral("TCP port of cogateway on 127.0.0.1 (the gateway step needs it)."),
                                  QStringLiteral("port"));
    const QCommandLineOption verboseOpt = ToolLogging::verboseOption();
    parser.addOptions({portOpt, nodeOpt, waitOpt, beatsOpt, consoleOpt, gatewayOpt, verboseOpt});
    parser.process(app);
    ToolLogging::install(parser.isSet(verboseOpt));

    DemoContext context;
    bool ok = true;
    const uint node = parser.value(nodeOpt).toUInt(&ok);
    if (!ok || node < 1 || node > 127) {
        qCritical("codemo: node-ID must be 1..127");
        return 2;
    }
    context.nodeId = quint8(node);
    context.busPort = DemoCanAdapter(QString()).busPort(); // environment or default
    if (parser.isSet(portOpt)) {
        const uint port = parser.value(portOpt).toUInt(&ok);
        if (!ok || port == 0 || port > 65535) {
            qCritical("codemo: bad port");
            return 2;
        }
        context.busPort = quint16(port);
    }
    context.bootWaitMs = qMax(100, parser.value(waitOpt).toInt());
    context.heartbeatsToShow = qBound(1, parser.value(beatsOpt).toInt(), 100);
    context.deviceConsole = parser.value(consoleOpt);
    if (parser.isSet(gatewayOpt)) {
        const uint port = parser.value(gatewayOpt).toUInt(&ok);
        if (!ok || port == 0 || port > 65535) {
            qCritical("codemo: bad gateway port");
            return 2;
        }
        context.gatewayPort = quint16(port);
    }

    SignalWatcher* watcher = SignalWatcher::quitOnTermination(&app);
    QObject::connect(watcher, &SignalWatcher::signalReceived, []() { DemoContext::setInterrupted(); });

    std::vector<std::unique_ptr<DemoStep>> steps;
    steps.push_back(std::make_unique<OpenBusStep>());
    steps.push_back(std::make_unique<HeartbeatStep>());
    steps.push_back(std::make_unique<CInterfaceStep>());
    steps.push_back(std::make_unique<NmtStep>());
    steps.push_back(std::make_unique<SupervisionStep>());
    steps.push_back(std::make_unique<EmcyStep>());
    steps.push_back(std::make_unique<PdoStep>());
    steps.push_back(std::make_unique<SdoStep>());
    steps.push_back(std::make_unique<GatewayStep>());
    steps.push_back(std::make_unique<LssStep>());

    context.say(QStringLiteral("CANopen master library demo\n"
                               "===========================\n"
                               "A simulated CANopen device (cosim, node %1) runs in another process. This\n"
                               "program and the device meet on the virtual CAN bus: UDP datagrams on this\n"
                               "machine's loopback network, port %2.")
                    .arg(context.nodeId)
                    .arg(context.busPort));
    int number = 0;
    for (const auto& step : steps) {
        context.heading(++number, step->title());
        if (!step->run(context)) {
            context.say(DemoContext::interrupted() ? QStringLiteral("\nInterrupted.")
                                                   : QStringLiteral("\nThe demo stopped at step %1.").arg(number));
            return 1;
        }
    }
    context.say(QStringLiteral("\nDone: the adapters are closed (close(), ca_destroy()) as the program ends."));
    return 0;
}
