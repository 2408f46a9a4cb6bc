#include "heartbeatstep.h"

#include "canscheduler.h"
#include "cansender.h"
#include "democontext.h"

#include <QObject>

QString HeartbeatStep::title() const
{
    return QStringLiteral("watch the device's boot-up and heartbeat");
}

bool HeartbeatStep::run(DemoContext& c)
{
    const quint32 cobId = 0x700u + c.nodeId;
    CanSender* sender = c.scheduler->registerCanId(cobId);
    c.say(QStringLiteral("  registerCanId(0x%1) returned a CanSender. A CANopen node sends one byte\n"
                         "  on 0x700 + node-ID: 00 once when it boots, then its NMT state at every\n"
                         "  heartbeat (7F pre-operational, 05 operational, 04 stopped).")
              .arg(QString::number(cobId, 16).toUpper()));
    c.say(QStringLiteral("  Its received() signal is emitted in the adapter's thread and delivered to\n"
                         "  this (main) thread by a queued connection:\n"));

    QObject receiver;
    bool bootSeen = false;
    QObject::connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received), &receiver,
        [&c, &bootSeen](CAN::CanRxMessage rx) {
            const CAN::CanMessage& m = rx.message;
            if (m.length < 1)
                return;
            const quint8 state = m.data[0];
            QString line = QStringLiteral("    %1  id 0x%2 [%3] %4  node %5 ")
                               .arg(c.now())
                               .arg(QString::number(m.id, 16).toUpper())
                               .arg(m.length)
                               .arg(QStringLiteral("%1").arg(state, 2, 16, QLatin1Char('0')).toUpper())
                               .arg(m.id - 0x700);
            if (state == 0x00) {
                bootSeen = true;
                line += QStringLiteral("boot-up");
            } else {
                line += QStringLiteral("heartbeat: %1").arg(DemoContext::nmtStateName(state));
            }
            if (!c.heartbeats.isEmpty()) {
                const CAN::CanTimeStamp& a = rx.timeStamp;
                const CAN::CanTimeStamp& b = c.heartbeats.last().timeStamp;
                const qint64 gapMs = (qint64(a.seconds) - qint64(b.seconds)) * 1000 + a.microseconds / 1000 - b.microseconds / 1000;
                line += QStringLiteral("  (+%1 ms)").arg(gapMs);
            }
            c.heartbeats.append(rx);
            c.say(line);
        });

    const int wanted = c.heartbeatsToShow + 1;
    const bool first = c.waitUntil([&c]() { return !c.heartbeats.isEmpty(); }, c.bootWaitMs);
    if (!first) {
        c.say(QStringLiteral("    nothing from node %1 within %2 ms: is cosim running on UDP port %3?")
                  .arg(c.nodeId).arg(c.bootWaitMs).arg(c.busPort));
        c.scheduler->unregisterCan(sender);
        return false;
    }
    c.waitUntil([&c, wanted]() { return c.heartbeats.size() >= wanted; }, 10000);
    c.scheduler->unregisterCan(sender);
    c.say(QString());
    if (!bootSeen)
        c.say(QStringLiteral("  No boot-up frame: the device was already running when we started listening."));
    c.say(QStringLiteral("  %1 frames from node %2 arrived through CanScheduler -> CanSender -> slot.")
              .arg(c.heartbeats.size()).arg(c.nodeId));
    return !DemoContext::interrupted();
}
