#include "nmtstep.h"

#include "democontext.h"
#include "nmtslave.h"

#include <QMetaEnum>

QString NmtStep::title() const
{
    return QStringLiteral("boot, start and stop the device by NMT");
}

bool NmtStep::run(DemoContext& c)
{
    NMTSlave slave(c.nodeId, c.scheduler);
    c.say(QStringLiteral("  NMTSlave(%1, scheduler) is the master's view of node %1: it sends NMT commands\n"
                         "  addressed to it (frame 000: command, node-ID) and reports the state it reads\n"
                         "  from the node's boot-up and heartbeat frames with NodeStateChanged:\n")
              .arg(c.nodeId));
    NMTSlave::NmtState state = NMTSlave::Unknown;
    QObject::connect(&slave, &NMTSlave::NodeStateChanged, [&c, &state](NMTSlave::NmtState s) {
        state = s;
        c.say(QStringLiteral("    %1  NodeStateChanged(%2)")
                  .arg(c.now(), QLatin1String(QMetaEnum::fromType<NMTSlave::NmtState>().valueToKey(s))));
    });
    struct Action {
        const char* call;
        CAN::RetType (NMTSlave::*send)();
        NMTSlave::NmtState until;
    };
    const Action actions[] = {
        {"resetApplication()", &NMTSlave::resetApplication, NMTSlave::PreOperational},
        {"startNode()", &NMTSlave::startNode, NMTSlave::Operational},
        {"stopNode()", &NMTSlave::stopNode, NMTSlave::Stopped},
        {"startNode()", &NMTSlave::startNode, NMTSlave::Operational},
    };
    for (const Action& a : actions) {
        const CAN::RetType r = (slave.*a.send)();
        c.say(QStringLiteral("    %1  %2 = %3").arg(c.now(), QLatin1String(a.call)).arg(int(r)));
        if (!c.waitUntil([&state, &a]() { return state == a.until; }, 3000)) {
            c.say(QStringLiteral("    the device did not report %1 within 3 s")
                      .arg(QLatin1String(QMetaEnum::fromType<NMTSlave::NmtState>().valueToKey(a.until))));
            return false;
        }
    }
    c.say(QStringLiteral("\n  A reset makes the device boot again (BootUp), then it is pre-operational; each\n"
                         "  further state shows with its next heartbeat. The device stays operational."));
    return true;
}
