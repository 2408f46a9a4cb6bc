#include "lssstep.h"

#include "canscheduler.h"
#include "cansender.h"
#include "democontext.h"
#include "lssmaster.h"

#include <QElapsedTimer>
#include <QSet>

namespace {
using M = LSSMaster;

struct Result {
    bool arrived = false;
    M::LssResult result = M::LssTimeout;
    QVariant value;
};

QString hex(quint32 v)
{
    return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0'));
}
} // namespace

QString LssStep::title() const
{
    return QStringLiteral("find devices without node-ID and give them one (LSS)");
}

bool LssStep::run(DemoContext& c)
{
    c.say(QStringLiteral("  A second cosim process simulates three devices that have no node-ID yet: they\n"
                         "  send nothing and only answer LSS (requests 0x7E5, answers 0x7E4). LSSMaster's fast\n"
                         "  scan finds the one with the lowest identity bit by bit; it is then in\n"
                         "  configuration mode alone, takes a node-ID and stores it, and boots with it once\n"
                         "  switched back to waiting mode. Every outcome arrives through lssResult.\n"));
    M master(c.scheduler);
    const quint16 stepMs = 10; // scan step: the virtual bus answers within it, also on a busy machine
    QList<Result> results;
    M::LssAction awaited = M::LssNoAction;
    QObject::connect(&master, &M::lssResult, &master, [&](M::LssAction a, M::LssResult r, QVariant v) {
        if (a == awaited)
            results.append(Result{true, r, v});
    });
    const auto wait = [&](M::LssAction action, const std::function<CAN::RetType()>& start) {
        results.clear();
        awaited = action;
        if (start() != CAN::Ok)
            return Result();
        c.waitUntil([&]() { return !results.isEmpty(); }, 60000);
        return results.isEmpty() ? Result() : results.takeFirst();
    };

    // Boot-ups and heartbeats of the new nodes.
    QSet<quint32> booted, beating;
    QObject receiver;
    QList<CanSender*> senders;
    for (quint32 node : {10u, 11u, 12u}) {
        CanSender* s = c.scheduler->registerCanId(0x700 + node);
        senders << s;
        QObject::connect(s, qOverload<CAN::CanRxMessage>(&CanSender::received), &receiver,
                         [&, node](CAN::CanRxMessage rx) {
                             if (rx.message.length >= 1 && rx.message.data[0] == 0)
                                 booted.insert(node);
                             else if (booted.contains(node))
                                 beating.insert(node);
                         });
    }

    int found = 0;
    for (quint8 node = 10; node <= 13; ++node) {
        QElapsedTimer t;
        t.start();
        master.setTimeout(stepMs);
        const Result scan = wait(M::LssFastScan, [&]() { return master.fastScan(0, 0, 0, 0); });
        if (scan.result != M::LssSuccess) {
            c.say(QStringLiteral("    %1  fast scan: no answer to the opening request (lssResult %2, %3): no\n"
                                 "              unconfigured device left")
                      .arg(c.now()).arg(int(scan.result)).arg(scan.value.toInt()));
            break;
        }
        quint32 v = 0, p = 0, r = 0, s = 0;
        master.getFastScanValues(&v, &p, &r, &s);
        c.say(QStringLiteral("    %1  fast scan found vendor %2 product %3 revision %4 serial %5 in %6 ms")
                  .arg(c.now(), hex(v), hex(p), hex(r), hex(s)).arg(t.elapsed()));
        master.setTimeout(500);
        const Result set = wait(M::LssConfigureNodeId, [&]() { return master.configureNodeId(node); });
        const Result stored = wait(M::LssStoreConfiguration, [&]() { return master.storeConfiguration(); });
        master.switchModeGlobal(M::LssWaitingState);
        c.say(QStringLiteral("    %1  configureNodeId(%2): %3, storeConfiguration(): %4, switchModeGlobal(waiting)")
                  .arg(c.now()).arg(node)
                  .arg(set.result == M::LssSuccess ? QStringLiteral("confirmed") : QStringLiteral("FAILED"),
                       stored.result == M::LssSuccess ? QStringLiteral("confirmed") : QStringLiteral("FAILED")));
        if (set.result != M::LssSuccess)
            return false;
        ++found;
    }
    const bool allUp = c.waitUntil([&]() { return beating.size() == 3; }, 5000);
    QStringList up;
    for (quint32 n : {10u, 11u, 12u})
        up << QStringLiteral("%1%2").arg(n).arg(beating.contains(n) ? QStringLiteral(" (boot-up, heartbeat)") : QStringLiteral(" (silent)"));
    c.say(QStringLiteral("    %1  on the bus now: node %2").arg(c.now(), up.join(QStringLiteral(", node "))));

    // Classical scan: identify-remote-slave queries over halving ranges.
    c.say(QStringLiteral("\n  classicalScan(vendor, product, revisions 0x10000..0x10000, serials 0x5D000100..0x5D0001FF):\n"
                         "  every answered range is split in two, the silent ones are dropped."));
    master.setTimeout(10);
    results.clear();
    awaited = M::LssClassicalScan;
    QElapsedTimer t;
    t.start();
    if (master.classicalScan(0xABC, 0xC051, 0x10000, 0x10000, 0x5D000100, 0x5D0001FF) != CAN::Ok)
        return false;
    int classicalFound = 0;
    for (bool end = false; !end;) {
        if (!c.waitUntil([&]() { return !results.isEmpty(); }, 30000))
            return false;
        const Result r = results.takeFirst();
        const QStringList id = r.value.toStringList();
        end = r.result != M::LssSuccess || id.value(0).toUInt() == 0xFFFFFFFFu;
        if (!end) {
            ++classicalFound;
            c.say(QStringLiteral("    %1  found serial %2").arg(c.now(), hex(id.value(3).toUInt())));
        }
    }
    c.say(QStringLiteral("    %1  classical scan done in %2 ms: %3 devices").arg(c.now()).arg(t.elapsed()).arg(classicalFound));
    for (CanSender* s : senders)
        c.scheduler->unregisterCan(s);
    return found == 3 && allUp && classicalFound == 3;
}
