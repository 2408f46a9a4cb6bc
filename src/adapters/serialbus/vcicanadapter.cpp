#include "vcicanadapter.h"

#include "socketcaninterfaces.h"

VciCanAdapter::VciCanAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("socketcan"), SocketCanInterfaces::socketName(interfaceName), parent)
{
}

QStringList VciCanAdapter::getInterfaceList()
{
    return SocketCanInterfaces::names(SocketCanInterfaces::Ixxat, SocketCanInterfaces::FdSuffix);
}
