// cogateway: a CiA 309-3 ASCII gateway on a TCP port, built on the library:
// request lines from any number of clients are carried out on the chosen
// adapter (the virtual bus by default) with the library's SDO, NMT and LSS
// services, and answered with the gateway's answer lines.
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "gatewaybackend.h"
#include "gatewayserver.h"
#include "signalwatcher.h"
#include "toolbus.h"
#include "toollogging.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("cogateway"));
    CanopenMaster master;

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "CiA 309-3 ASCII gateway: request lines on a TCP port, carried out on the bus.\n"
        "\n"
        "Requests (each on one line, ended by LF or CR LF; numbers decimal or 0x-hex):\n"
        "  [seq] [net] node r INDEX SUB TYPE           read (TYPE: b, i8..i64, u8..u64, r32, vs, os, d)\n"
        "  [seq] [net] node w INDEX SUB TYPE VALUE     write (vs may be quoted, os and d in base64)\n"
        "  [seq] [net] node start|stop|preop|reset node|reset comm   NMT (node 0: all nodes)\n"
        "  [seq] set sdo_timeout MS\n"
        "  [seq] lss_switch_glob 0|1, lss_switch_sel V P R S, lss_set_node ID, lss_store,\n"
        "        lss_conf_bitrate TABLE INDEX, lss_activate_bitrate DELAY, lss_get_node,\n"
        "        lss_ident_nonconf, lss_identity V P REVLOW REVHIGH SERLOW SERHIGH\n"
        "  [seq] help\n"
        "Answers: [seq] OK, [seq] VALUE, [seq] ERROR:0x<SDO abort code> #text, [seq] ERROR:<code> #text."));
    parser.addHelpOption();
    QCommandLineOption listenOpt({QStringLiteral("l"), QStringLiteral("listen")},
                                 QStringLiteral("TCP port to listen on (default 5555; 0 picks a free one)."),
                                 QStringLiteral("port"), QStringLiteral("5555"));
    QCommandLineOption addressOpt(QStringLiteral("address"),
                                  QStringLiteral("Address to listen on (default 127.0.0.1; 0.0.0.0 for all)."),
                                  QStringLiteral("ip"), QStringLiteral("127.0.0.1"));
    parser.addOptions({listenOpt, addressOpt});
    ToolOptions common;
    common.addTo(parser, false);
    parser.process(app);
    QTextStream err(stderr);
    QString error;
    if (!common.read(parser, &error)) {
        err << "cogateway: " << error << "\n";
        return 2;
    }
    if (common.hasGateway()) {
        err << "cogateway: --gateway makes no sense here: this is the gateway\n";
        return 2;
    }
    bool ok = false;
    const uint port = parser.value(listenOpt).toUInt(&ok);
    if (!ok || port > 65535) {
        err << "cogateway: --listen wants a port 0..65535, got '" << parser.value(listenOpt) << "'\n";
        return 2;
    }
    const QHostAddress address(parser.value(addressOpt));
    if (address.isNull()) {
        err << "cogateway: --address wants an IP address, got '" << parser.value(addressOpt) << "'\n";
        return 2;
    }

    ToolBus bus;
    if (!bus.open(common, &error)) {
        err << "cogateway: " << error << "\n";
        return 1;
    }
    GatewayBackend backend(bus.scheduler());
    GatewayServer server(&backend);
    if (!server.listen(address, quint16(port))) {
        err << "cogateway: cannot listen on " << address.toString() << ":" << port << ": " << server.errorString() << "\n";
        return 1;
    }
    QTextStream(stdout) << "cogateway: listening on " << address.toString() << ":" << server.port() << ", "
                        << ToolOptions::describe(bus.adapter()) << Qt::endl;
    SignalWatcher::quitOnTermination(&app);
    return app.exec();
}
