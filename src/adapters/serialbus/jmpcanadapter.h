#ifndef JMPCANADAPTER_H
#define JMPCANADAPTER_H

#include "serialbuscanadapter.h"

// JanzTec interfaces through their SocketCAN driver (janz-ican3).
class CANOPENMASTER_EXPORT JmpCanAdapter : public SerialBusCanAdapter
{
    Q_OBJECT
public:
    // interfaceName: a name of getInterfaceList().
    explicit JmpCanAdapter(const QString& interfaceName, QObject* parent = nullptr);

    static QStringList getInterfaceList();
};

#endif
