#ifndef SOCKETCANINTERFACES_H
#define SOCKETCANINTERFACES_H

#include "canopenmaster_global.h"

#include <QList>
#include <QString>
#include <QStringList>

// The SocketCAN interfaces of this machine, read from sysfs
// (<root>/class/net/*: type 280 is a CAN interface), with the kernel
// driver behind each and the maker that driver belongs to. The root is
// /sys, or $CANOPEN_SYSFS_ROOT, or what setRoot() gave (tests use a fake tree).
class CANOPENMASTER_EXPORT SocketCanInterfaces
{
public:
    // Makers as the adapter factory names them (its type numbers).
    enum Maker { Other = 0, Ems = 5, Kvaser = 9, Janz = 11, Peak = 16, Ixxat = 17 };

    struct Interface {
        QString name;    // "can0"
        QString driver;  // "kvaser_usb"; empty when sysfs does not tell
        Maker maker = Other;
        int index = 0;   // the kernel's interface index
        bool fd = false; // MTU 72: CAN FD frames
    };

    static QList<Interface> all();
    static QList<Interface> ofMaker(Maker maker);
    static Interface find(const QString& name); // name empty when there is none
    // The maker of a kernel driver (the one table of this knowledge).
    static Maker makerOfDriver(const QString& driver);

    // How the makers' interface lists name an interface: the SocketCAN name,
    // followed by " CAN-FD" for an FD interface (Ixxat: the factory reads FD
    // from the name), or by " net <index>" (PEAK: the factory reads the net
    // number from the name's last part).
    enum NameStyle { Plain, FdSuffix, NetNumber };
    static QStringList names(Maker maker, NameStyle style);
    // The SocketCAN interface of a listed name: its first word.
    static QString socketName(const QString& listed);

    static QString root();
    static void setRoot(const QString& root); // empty: back to the default
};

#endif
