#include "gatewaystep.h"

#include "canscheduler.h"
#include "cia309adapter.h"
#include "democontext.h"
#include "sdoclient.h"
#include "sdorequest.h"

QString GatewayStep::title() const
{
    return QStringLiteral("read through a CiA 309-3 gateway (cogateway)");
}

bool GatewayStep::run(DemoContext& c)
{
    if (c.gatewayPort == 0) {
        c.say(QStringLiteral("  No gateway given (--gateway-port); scripts/demo.sh starts cogateway for this step."));
        return true;
    }
    c.say(QStringLiteral("  cogateway listens on 127.0.0.1:%1 and carries CiA 309-3 request lines out on the\n"
                         "  virtual bus with this library. Here the library is its client: CiA309Adapter\n"
                         "  (adapter type 20) instead of a CAN adapter, and SDOClient, unchanged, sends the\n"
                         "  gateway's text lines instead of SDO frames.\n")
              .arg(c.gatewayPort));
    CiA309Adapter adapter(QStringLiteral("cogateway"));
    adapter.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
    adapter.setCanAdapterOption(AbstractCanAdapter::GatewayPort, c.gatewayPort);
    if (adapter.open() != CAN::Ok) {
        c.say(QStringLiteral("    cannot connect to cogateway on port %1").arg(c.gatewayPort));
        return false;
    }
    QObject::connect(&adapter, &AbstractCanAdapter::newCiA309RequestSent, &adapter, [&c](const QString& line) {
        c.say(QStringLiteral("    %1  -> %2").arg(c.now(), line.trimmed()));
    });
    QObject::connect(&adapter, &AbstractCanAdapter::newCiA309Response, &adapter, [&c](const QString& text) {
        for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            c.say(QStringLiteral("    %1  <- %2").arg(c.now(), line.trimmed()));
    });
    CanScheduler scheduler(&adapter);
    SDOClient client(0x580u + c.nodeId, 0x600u + c.nodeId, &scheduler);
    SdoRequest r(client);
    bool ok = r.read(0x1018, 1, CAN::UNSIGNED32);
    if (ok)
        c.say(QStringLiteral("              vendor-ID 0x%1, as over CAN").arg(r.value.toUInt(), 8, 16, QLatin1Char('0')));
    ok = ok && r.read(0x1008, 0, CAN::VISIBLE_STRING);
    if (ok)
        c.say(QStringLiteral("              device name \"%1\"").arg(r.value.toString()));
    if (!r.read(0x3000, 0, CAN::UNSIGNED32))
        c.say(QStringLiteral("              %1").arg(r.failure()));
    adapter.close();
    return ok;
}
