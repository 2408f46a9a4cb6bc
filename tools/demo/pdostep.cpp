#include "pdostep.h"

#include "democontext.h"
#include "rpdo.h"
#include "syncproducer.h"

#include <QStringList>

QString PdoStep::title() const
{
    return QStringLiteral("SYNC in, PDO out: values decoded by RPDO");
}

bool PdoStep::run(DemoContext& c)
{
    const quint32 cobId = 0x180u + c.nodeId;
    const int wanted = 5;
    RPDO pdo(cobId, {CAN::UNSIGNED16, CAN::INTEGER32}, c.scheduler);
    SYNCProducer sync(0x80, 100000, 0, c.scheduler); // every 100 ms, no counter byte
    c.say(QStringLiteral("  SYNCProducer(0x80, 100000 us) sends a SYNC every 100 ms from its own timer\n"
                         "  thread. The operational device answers each with TPDO 0x%1: a UNSIGNED16\n"
                         "  counter and an INTEGER32 of -1000 x counter. RPDO(0x%1, {UNSIGNED16,\n"
                         "  INTEGER32}) cuts each frame into these values and emits newPDOData:\n")
              .arg(QString::number(cobId, 16).toUpper()));
    int received = 0;
    QObject::connect(&pdo, &RPDO::newPDOData, [&c, &received, wanted](QVector<QVariant> values) {
        if (++received > wanted)
            return;
        QStringList texts;
        for (const QVariant& v : values)
            texts << v.toString();
        c.say(QStringLiteral("    %1  newPDOData(%2)").arg(c.now(), texts.join(QStringLiteral(", "))));
    });
    int syncs = 0;
    QObject::connect(&sync, &SYNCProducer::syncEvent, &pdo, [&syncs]() { ++syncs; }); // queued from the timer thread
    sync.start();
    const bool all = c.waitUntil([&received, wanted]() { return received >= wanted; }, 5000);
    sync.stop();
    c.wait(50); // the last syncEvent() on its way
    if (!all) {
        c.say(QStringLiteral("    only %1 PDOs within 5 s").arg(received));
        return false;
    }
    c.say(QStringLiteral("\n  %1 SYNCs sent (syncEvent), %2 PDOs decoded; sync.stop() ends the SYNCs.")
              .arg(syncs).arg(received));
    return true;
}
