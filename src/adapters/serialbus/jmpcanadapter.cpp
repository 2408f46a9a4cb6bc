#include "jmpcanadapter.h"

#include "socketcaninterfaces.h"

JmpCanAdapter::JmpCanAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("socketcan"), SocketCanInterfaces::socketName(interfaceName), parent)
{
}

QStringList JmpCanAdapter::getInterfaceList()
{
    return SocketCanInterfaces::names(SocketCanInterfaces::Janz, SocketCanInterfaces::Plain);
}
