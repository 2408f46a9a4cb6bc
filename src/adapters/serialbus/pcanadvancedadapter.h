#ifndef PCANADVANCEDADAPTER_H
#define PCANADVANCEDADAPTER_H

#include "serialbuscanadapter.h"

// PEAK-System interfaces through their SocketCAN drivers (peak_usb, peak_pci, peak_pciefd); listed as "can0 net 3", the kernel interface index standing for the net.
class CANOPENMASTER_EXPORT PCANAdvancedAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    // interfaceName: a name of getInterfaceList().
    explicit PCANAdvancedAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
    // True when the interface of this net (kernel interface index, low 8 bits) is a CAN FD one.
    static bool isNetFd(quint8 net);
};

#endif
