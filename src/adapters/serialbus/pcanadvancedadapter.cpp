#include "pcanadvancedadapter.h"

#include "socketcaninterfaces.h"

PCANAdvancedAdapter::PCANAdvancedAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("socketcan"), SocketCanInterfaces::socketName(interfaceName), parent)
{
}

QStringList PCANAdvancedAdapter::getInterfaceList()
{
    return SocketCanInterfaces::names(SocketCanInterfaces::Peak, SocketCanInterfaces::NetNumber);
}

bool PCANAdvancedAdapter::isNetFd(quint8 net)
{
    for (const SocketCanInterfaces::Interface& i : SocketCanInterfaces::ofMaker(SocketCanInterfaces::Peak)) {
        if (quint8(i.index) == net)
            return i.fd;
    }
    return false;
}
