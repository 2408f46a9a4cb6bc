#ifndef KVASERCANADAPTER_H
#define KVASERCANADAPTER_H

#include "serialbuscanadapter.h"

// Kvaser interfaces through their SocketCAN drivers (kvaser_usb, kvaser_pci, kvaser_pciefd).
class CANOPENMASTER_EXPORT KvaserCanAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    // interfaceName: a name of getInterfaceList().
    explicit KvaserCanAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
    // True for a CAN FD interface (MTU 72).
    static bool isInterfaceFd(const QString& interfaceName);
};

#endif
