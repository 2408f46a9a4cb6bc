#include "openbusstep.h"

#include "abstractcanadapter.h"
#include "canadapterfactory.h"
#include "canopenmaster_c.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "democontext.h"

QString OpenBusStep::title() const
{
    return QStringLiteral("open the virtual CAN adapter");
}

bool OpenBusStep::run(DemoContext& c)
{
    const QString name = CanAdapterFactory::getInterfaceList(CanAdapterFactory::Virtual).value(0);
    c.adapter = CanAdapterFactory::createCanAdapter(CanAdapterFactory::Virtual, name);
    if (!c.adapter) {
        c.say(QStringLiteral("  The factory made no virtual adapter."));
        return false;
    }
    c.adapter->setBitrate(500);
    c.adapter->setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, c.busPort);
    c.say(QStringLiteral("  CanAdapterFactory::createCanAdapter(6, \"%1\") made a %2.")
              .arg(name, QString::fromLatin1(c.adapter->metaObject()->className())));
    const CAN::RetType opened = c.adapter->open();
    c.say(QStringLiteral("  open() returned %1; the adapter's receive thread now listens on UDP port %2.")
              .arg(int(opened))
              .arg(c.adapter->getCanAdapterOption(AbstractCanAdapter::VirtualBusPort).toUInt()));
    if (opened != CAN::Ok)
        return false;

    c.scheduler = new CanScheduler(c.adapter);
    c.scheduler->connectToAdapter(true);
    c.say(QStringLiteral("  A CanScheduler now dispatches every received frame, by CAN-ID, to the\n"
                         "  CanSender objects registered for it."));

    // The C interface takes the port from the environment, like every
    // adapter without an explicit port option.
    qputenv(DemoCanAdapter::PortEnvironmentVariable, QByteArray::number(c.busPort));
    c.cHandle = ca_create(6, name.toLocal8Bit().constData(), 500);
    const int connected = c.cHandle >= 0 ? ca_connect(c.cHandle) : 0;
    c.say(QStringLiteral("  The C interface opened a second adapter on the same bus:\n"
                         "    ca_create(6, \"%1\", 500) = %2, ca_connect(%2) = %3 (1 means open).")
              .arg(name)
              .arg(c.cHandle)
              .arg(connected));
    return c.cHandle >= 0 && connected == 1;
}
