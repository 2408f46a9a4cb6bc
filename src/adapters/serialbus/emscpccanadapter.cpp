#include "emscpccanadapter.h"

#include "socketcaninterfaces.h"

EmsCpcCanAdapter::EmsCpcCanAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("socketcan"), SocketCanInterfaces::socketName(interfaceName), parent)
{
}

QStringList EmsCpcCanAdapter::getInterfaceList()
{
    return SocketCanInterfaces::names(SocketCanInterfaces::Ems, SocketCanInterfaces::Plain);
}
