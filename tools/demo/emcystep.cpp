#include "emcystep.h"

#include "democontext.h"
#include "emcyconsumer.h"

QString EmcyStep::title() const
{
    return QStringLiteral("an emergency from the device");
}

bool EmcyStep::run(DemoContext& c)
{
    const quint32 cobId = 0x80u + c.nodeId;
    EMCYConsumer consumer(cobId, c.scheduler);
    c.say(QStringLiteral("  EMCYConsumer(0x%1, scheduler) decodes the node's EMCY frames (error code, error\n"
                         "  register, 5 manufacturer bytes) and emits newEmcyData:\n")
              .arg(QString::number(cobId, 16).toUpper()));
    int received = 0;
    QObject::connect(&consumer, &EMCYConsumer::newEmcyData, [&c, &received](EMCYConsumer::EMCYData d) {
        ++received;
        QString bytes;
        for (quint8 b : d.manufacturerData)
            bytes += QStringLiteral(" %1").arg(b, 2, 16, QLatin1Char('0')).toUpper();
        c.say(QStringLiteral("    %1  newEmcyData: error code %2, register %3, manufacturer bytes%4")
                  .arg(c.now())
                  .arg(QStringLiteral("%1").arg(d.errorCode, 4, 16, QLatin1Char('0')).toUpper())
                  .arg(QStringLiteral("%1").arg(d.errorRegister, 2, 16, QLatin1Char('0')).toUpper())
                  .arg(bytes));
    });
    if (!c.tellDevice(QStringLiteral("emcy 8110 11 01 02 03 04 05")))
        return true;
    c.waitUntil([&received]() { return received >= 1; }, 3000);
    c.tellDevice(QStringLiteral("emcy clear"));
    if (!c.waitUntil([&received]() { return received >= 2; }, 3000)) {
        c.say(QStringLiteral("    the emergencies did not arrive within 3 s"));
        return false;
    }
    c.say(QStringLiteral("\n  8110 is \"CAN overrun\" in the communication class (81xx); register 11 has the\n"
                         "  generic and communication error bits. Error code 0000 says the error is gone.\n"
                         "  (cotool emcy prints the same, with a description of the error code.)"));
    return true;
}
