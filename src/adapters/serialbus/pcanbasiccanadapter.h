#ifndef PCANBASICCANADAPTER_H
#define PCANBASICCANADAPTER_H

#include "serialbuscanadapter.h"

// PEAK-System interfaces through PEAK's PCAN-Basic library (QtSerialBus's
// "peakcan" plugin; the library is loaded when the interface opens, and
// open() says so when it is missing). Interfaces: "usb0", "pci0", ...
class CANOPENMASTER_EXPORT PCANBasicCanAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    explicit PCANBasicCanAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
};

#endif
