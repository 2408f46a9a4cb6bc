#include "testbus.h"

#include <QByteArray>
#include <QUdpSocket>

namespace TestBus {

quint16 usePrivatePort()
{
    // Let the kernel pick a free port, then give it back: nobody else on the
    // machine uses it for a virtual bus, so tests never meet a running demo.
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::AnyIPv4), quint16(0));
    const quint16 port = probe.localPort();
    qputenv("CANOPEN_VBUS_PORT", QByteArray::number(port));
    return port;
}

} // namespace TestBus
