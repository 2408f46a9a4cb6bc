#ifndef CANADAPTERFACTORY_H
#define CANADAPTERFACTORY_H

#include "canopenmaster_global.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

class AbstractCanAdapter;

// Turns an adapter type and an interface name into a live adapter, and
// answers what each adapter type offers before any adapter exists.
class CANOPENMASTER_EXPORT CanAdapterFactory
{
public:
    // Values not listed are reserved and must keep their meaning unassigned.
    enum CanAdapterType {
        EmsCpc = 5,
        Virtual = 6,
        SystecUsb = 7,
        SystecEthernet = 8,
        Kvaser = 9,
        VectorXl = 10,
        Janz = 11,
        MarquardtUsb = 13,
        TalvikUsb = 15,
        PcanAdvanced = 16,
        IxxatVci = 17,
        CiA309 = 20
    };

    using AdapterList = QList<QPair<QString, CanAdapterType>>;
    using BitrateList = QList<QPair<QString, quint32>>; // display text, kbit/s

    static AbstractCanAdapter* createCanAdapter(CanAdapterType type, QString interfaceName);
    static AdapterList getImplementedAdapters();
    static QStringList getInterfaceList(CanAdapterType type);
    static BitrateList getSupportedBaudrates(CanAdapterType type, bool canFd);
    static BitrateList getSupportedFDBaudrates(CanAdapterType type);
    static bool isBaudrateChangeable(CanAdapterType type);
    static bool isAdditionalConfigAvailable(CanAdapterType type);
    static bool canDisableAutoBusOn(CanAdapterType type, QString interfaceName);
    static bool isInterfaceLowSpeed(CanAdapterType type, QString interfaceName);
    static bool isInterfaceFd(CanAdapterType type, QString interfaceName);

    // PCAN Advanced interface names end in their net number: the last
    // blank-separated part, read as a decimal number (low 8 bits; 0 if none).
    static quint8 pcanNetFromInterfaceName(const QString& interfaceName);
};

#endif
