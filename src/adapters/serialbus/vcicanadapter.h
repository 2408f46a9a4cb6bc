#ifndef VCICANADAPTER_H
#define VCICANADAPTER_H

#include "serialbuscanadapter.h"

// HMS Ixxat interfaces through their SocketCAN drivers (ixxat_usb, ...); an FD interface is listed as "can0 CAN-FD".
class CANOPENMASTER_EXPORT VciCanAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    // interfaceName: a name of getInterfaceList().
    explicit VciCanAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
};

#endif
