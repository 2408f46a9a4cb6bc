#include "kvasercanadapter.h"

#include "socketcaninterfaces.h"

KvaserCanAdapter::KvaserCanAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("socketcan"), SocketCanInterfaces::socketName(interfaceName), parent)
{
}

QStringList KvaserCanAdapter::getInterfaceList()
{
    return SocketCanInterfaces::names(SocketCanInterfaces::Kvaser, SocketCanInterfaces::Plain);
}

bool KvaserCanAdapter::isInterfaceFd(const QString& interfaceName)
{
    return SocketCanInterfaces::find(SocketCanInterfaces::socketName(interfaceName)).fd;
}
