#ifndef EMSCPCCANADAPTER_H
#define EMSCPCCANADAPTER_H

#include "serialbuscanadapter.h"

// EMS Dr. Thomas Wünsche interfaces (CPC-USB, CPC-PCI, ...) through their SocketCAN drivers (ems_usb, ems_pci).
class CANOPENMASTER_EXPORT EmsCpcCanAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    // interfaceName: a name of getInterfaceList().
    explicit EmsCpcCanAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
};

#endif
