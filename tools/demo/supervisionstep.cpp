#include "supervisionstep.h"

#include "democontext.h"
#include "nmtslave.h"

#include <QMetaEnum>

QString SupervisionStep::title() const
{
    return QStringLiteral("heartbeat supervision: Lost and Running");
}

bool SupervisionStep::run(DemoContext& c)
{
    const int consumerMs = 750;
    NMTSlave slave(c.nodeId, c.scheduler);
    c.say(QStringLiteral("  startHeartbeatMonitoring(%1): the device must send a heartbeat at least every\n"
                         "  %1 ms (it sends one every 500 ms). HeartbeatGuardingStateChanged reports Lost\n"
                         "  when it stops and Running when heartbeats come in time again:\n")
              .arg(consumerMs));
    NMTSlave::HeartbeatGuardingState supervision = NMTSlave::NotMonitored;
    QObject::connect(&slave, &NMTSlave::HeartbeatGuardingStateChanged,
                     [&c, &supervision](NMTSlave::HeartbeatGuardingState s) {
                         if (s != NMTSlave::Lost && s != NMTSlave::Running)
                             return; // the state reports of the first frame: shown in the NMT step
                         supervision = s;
                         c.say(QStringLiteral("    %1  HeartbeatGuardingStateChanged(%2)")
                                   .arg(c.now(), QLatin1String(QMetaEnum::fromType<NMTSlave::HeartbeatGuardingState>().valueToKey(s))));
                     });
    slave.startHeartbeatMonitoring(consumerMs);
    c.wait(1000); // supervised and fine
    if (!c.tellDevice(QStringLiteral("heartbeat 0")))
        return true; // nothing to show without the console; the demo goes on
    if (!c.waitUntil([&supervision]() { return supervision == NMTSlave::Lost; }, 5000)) {
        c.say(QStringLiteral("    no Lost within 5 s"));
        return false;
    }
    c.tellDevice(QStringLiteral("heartbeat 500"));
    if (!c.waitUntil([&supervision]() { return supervision == NMTSlave::Running; }, 5000)) {
        c.say(QStringLiteral("    no Running within 5 s"));
        return false;
    }
    c.say(QStringLiteral("\n  Lost comes %1 to %2 ms after the last heartbeat (the check runs every %1 ms);\n"
                         "  Running needs two heartbeats in a row within %1 ms by their time stamps.")
              .arg(consumerMs).arg(2 * consumerMs));
    return true;
}
