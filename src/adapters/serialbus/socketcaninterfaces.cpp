#include "socketcaninterfaces.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <mutex>

namespace {
// Kernel drivers of CAN interfaces, by maker.
const struct {
    const char* driver;
    SocketCanInterfaces::Maker maker;
} kDrivers[] = {
    {"ems_usb", SocketCanInterfaces::Ems},       {"ems_pci", SocketCanInterfaces::Ems},
    {"ems_pcmcia", SocketCanInterfaces::Ems},    {"kvaser_usb", SocketCanInterfaces::Kvaser},
    {"kvaser_pci", SocketCanInterfaces::Kvaser}, {"kvaser_pciefd", SocketCanInterfaces::Kvaser},
    {"janz-ican3", SocketCanInterfaces::Janz},   {"peak_usb", SocketCanInterfaces::Peak},
    {"peak_pci", SocketCanInterfaces::Peak},     {"peak_pciefd", SocketCanInterfaces::Peak},
    {"peak_pcmcia", SocketCanInterfaces::Peak},  {"ixxat_usb", SocketCanInterfaces::Ixxat},
    {"ixx_usb", SocketCanInterfaces::Ixxat},     {"ixxat_usb2can", SocketCanInterfaces::Ixxat},
};
constexpr int ArphrdCan = 280; // the link type of CAN interfaces
constexpr int CanFdMtu = 72;

std::mutex gRootLock;
QString gRoot; // guarded by gRootLock

QString readText(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLatin1(f.readAll()).trimmed();
}
} // namespace

QString SocketCanInterfaces::root()
{
    {
        std::lock_guard<std::mutex> guard(gRootLock);
        if (!gRoot.isEmpty())
            return gRoot;
    }
    const QString env = qEnvironmentVariable("CANOPEN_SYSFS_ROOT");
    return env.isEmpty() ? QStringLiteral("/sys") : env;
}

void SocketCanInterfaces::setRoot(const QString& root)
{
    std::lock_guard<std::mutex> guard(gRootLock);
    gRoot = root;
}

SocketCanInterfaces::Maker SocketCanInterfaces::makerOfDriver(const QString& driver)
{
    for (const auto& d : kDrivers) {
        if (driver == QLatin1String(d.driver))
            return d.maker;
    }
    return Other;
}

QList<SocketCanInterfaces::Interface> SocketCanInterfaces::all()
{
    QList<Interface> out;
    const QDir net(root() + QStringLiteral("/class/net"));
    for (const QString& name : net.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System, QDir::Name)) {
        const QString dir = net.filePath(name);
        if (readText(dir + QStringLiteral("/type")).toInt() != ArphrdCan)
            continue;
        Interface i;
        i.name = name;
        // device/driver is a link to the driver's directory, named after it.
        i.driver = QFileInfo(QFileInfo(dir + QStringLiteral("/device/driver")).canonicalFilePath()).fileName();
        i.maker = makerOfDriver(i.driver);
        i.index = readText(dir + QStringLiteral("/ifindex")).toInt();
        i.fd = readText(dir + QStringLiteral("/mtu")).toInt() == CanFdMtu;
        out << i;
    }
    return out;
}

QList<SocketCanInterfaces::Interface> SocketCanInterfaces::ofMaker(Maker maker)
{
    QList<Interface> out;
    for (const Interface& i : all()) {
        if (i.maker == maker)
            out << i;
    }
    return out;
}

SocketCanInterfaces::Interface SocketCanInterfaces::find(const QString& name)
{
    for (const Interface& i : all()) {
        if (i.name == name)
            return i;
    }
    return Interface();
}

QStringList SocketCanInterfaces::names(Maker maker, NameStyle style)
{
    QStringList out;
    for (const Interface& i : ofMaker(maker)) {
        if (style == FdSuffix && i.fd)
            out << i.name + QStringLiteral(" CAN-FD");
        else if (style == NetNumber)
            out << QStringLiteral("%1 net %2").arg(i.name).arg(i.index);
        else
            out << i.name;
    }
    return out;
}

QString SocketCanInterfaces::socketName(const QString& listed)
{
    return listed.section(QLatin1Char(' '), 0, 0);
}
