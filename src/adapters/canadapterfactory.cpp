#include "canadapterfactory.h"
#include "cia309adapter.h"
#include "democanadapter.h"
#include "emscpccanadapter.h"
#include "jmpcanadapter.h"
#include "kvasercanadapter.h"
#include "pcanadvancedadapter.h"
#include "vcicanadapter.h"


namespace {
using BitrateList = CanAdapterFactory::BitrateList;

BitrateList rates(std::initializer_list<quint32> kbits, bool megaStyle)
{
    // "1 Mbit/s" style lists write whole megabits as such; the others keep kbit/s.
    BitrateList list;
    for (quint32 k : kbits) {
        QString text = (megaStyle && k >= 1000 && k % 1000 == 0)
            ? QStringLiteral("%1 Mbit/s").arg(k / 1000)
            : QStringLiteral("%1 kbit/s").arg(k);
        list.append({text, k});
    }
    return list;
}
} // namespace

AbstractCanAdapter* CanAdapterFactory::createCanAdapter(CanAdapterType type, QString interfaceName)
{
    switch (type) {
    case Virtual:
        return new DemoCanAdapter(interfaceName, nullptr);
    case CiA309:
        return new CiA309Adapter(interfaceName, nullptr); // the name is not used
    // The makers' interfaces on Linux: SocketCAN through QtSerialBus.
    case EmsCpc:
        return new EmsCpcCanAdapter(interfaceName, nullptr);
    case Kvaser:
        return new KvaserCanAdapter(interfaceName, nullptr);
    case Janz:
        return new JmpCanAdapter(interfaceName, nullptr);
    case PcanAdvanced:
        return new PCANAdvancedAdapter(interfaceName, nullptr);
    case IxxatVci:
        return new VciCanAdapter(interfaceName, nullptr);
    default:
        return nullptr; // no class behind this type in this build
    }
}

CanAdapterFactory::AdapterList CanAdapterFactory::getImplementedAdapters()
{
    AdapterList list;
    list.append({QStringLiteral("Kvaser"), Kvaser});
    list.append({QStringLiteral("PCAN Advanced"), PcanAdvanced});
    list.append({QStringLiteral("USB-CANmodul (SYS TEC electronic)"), SystecUsb});
    list.append({QStringLiteral("CAN-Ethernet Gateway (SYS TEC electronic)"), SystecEthernet});
    list.append({QStringLiteral("Vector VXL"), VectorXl});
    list.append({QStringLiteral("EMS CPC"), EmsCpc});
    list.append({QStringLiteral("JanzTec"), Janz});
    list.append({QStringLiteral("MQ-PedelecUSB"), MarquardtUsb});
    list.append({QStringLiteral("CiA 309-3"), CiA309});
    list.prepend({QStringLiteral("Ixxat VCI 4"), IxxatVci});
    list.append({QStringLiteral("Talvik USB"), TalvikUsb});
    list.append({QStringLiteral("Talvik Virtual"), Virtual});
    return list;
}

QStringList CanAdapterFactory::getInterfaceList(CanAdapterType type)
{
    switch (type) {
    case Virtual:
        return DemoCanAdapter::getInterfaceList();
    case CiA309:
        return CiA309Adapter::getInterfaceList();
    case EmsCpc:
        return EmsCpcCanAdapter::getInterfaceList();
    case Kvaser:
        return KvaserCanAdapter::getInterfaceList();
    case Janz:
        return JmpCanAdapter::getInterfaceList();
    case PcanAdvanced:
        return PCANAdvancedAdapter::getInterfaceList();
    case IxxatVci:
        return VciCanAdapter::getInterfaceList();
    default:
        return {};
    }
}

CanAdapterFactory::BitrateList CanAdapterFactory::getSupportedBaudrates(CanAdapterType type, bool canFd)
{
    switch (type) {
    case EmsCpc:
    case Janz:
    case MarquardtUsb:
    case TalvikUsb:
        return rates({10, 20, 50, 125, 250, 500, 1000}, false);
    case Virtual:
        return canFd ? rates({500, 1000}, true) : rates({50, 125, 250, 500, 1000}, true);
    case SystecUsb:
        return rates({10, 20, 50, 125, 250, 500, 800, 1000}, false);
    case SystecEthernet:
        return rates({1000}, false);
    case Kvaser:
        return canFd ? rates({500, 1000}, true) : rates({50, 62, 83, 125, 250, 500, 1000}, true);
    case VectorXl:
        return canFd ? rates({500, 800, 1000}, true) : rates({10, 50, 125, 250, 500, 800, 1000}, true);
    case PcanAdvanced:
        return canFd ? rates({250, 500, 1000}, true) : rates({10, 20, 50, 125, 250, 500, 1000}, false);
    case IxxatVci:
        return canFd ? rates({500, 1000}, true) : rates({10, 50, 125, 250, 500, 800, 1000}, true);
    case CiA309: {
        BitrateList list{{QStringLiteral("-"), 0}}; // the gateway keeps its own rate
        return list + rates({50, 125, 250, 500, 1000}, true);
    }
    default:
        return {};
    }
}

CanAdapterFactory::BitrateList CanAdapterFactory::getSupportedFDBaudrates(CanAdapterType type)
{
    switch (type) {
    case Virtual:
    case Kvaser:
        return rates({500, 1000, 2000, 4000, 8000}, true);
    case VectorXl:
        return rates({1000, 2000, 4000, 5000, 8000}, true);
    case PcanAdvanced:
        return rates({2000, 4000, 8000, 10000}, true);
    case IxxatVci:
        return rates({500, 1000, 2000, 4000}, true);
    default:
        return {};
    }
}

bool CanAdapterFactory::isBaudrateChangeable(CanAdapterType type)
{
    switch (type) {
    case EmsCpc: case Virtual: case SystecUsb: case Kvaser: case VectorXl: case Janz:
    case MarquardtUsb: case TalvikUsb: case PcanAdvanced: case IxxatVci: case CiA309:
        return true;
    default:
        return false; // 8: the Ethernet gateway runs at its own configured rate
    }
}

bool CanAdapterFactory::isAdditionalConfigAvailable(CanAdapterType type)
{
    switch (int(type)) {
    case 2: // reserved, answers true on purpose
    case SystecUsb: case SystecEthernet: case Janz: case MarquardtUsb: case TalvikUsb:
    case PcanAdvanced: case CiA309:
        return true;
    default:
        return false;
    }
}

bool CanAdapterFactory::canDisableAutoBusOn(CanAdapterType type, QString)
{
    return type == IxxatVci;
}

bool CanAdapterFactory::isInterfaceLowSpeed(CanAdapterType type, QString interfaceName)
{
    return type == IxxatVci && interfaceName.contains(QLatin1String("LS"), Qt::CaseSensitive);
}

quint8 CanAdapterFactory::pcanNetFromInterfaceName(const QString& interfaceName)
{
    const QStringList parts = interfaceName.split(QLatin1Char(' '), Qt::KeepEmptyParts);
    return quint8(parts.last().toUInt() & 0xFF); // not a number reads as 0
}

bool CanAdapterFactory::isInterfaceFd(CanAdapterType type, QString interfaceName)
{
    if (type < 6 || type > 17)
        return false;
    switch (type) {
    case Virtual:
        return DemoCanAdapter::isInterfaceFd(interfaceName);
    case VectorXl:
    case IxxatVci:
        return interfaceName.contains(QLatin1String("CAN-FD"), Qt::CaseSensitive);
    case Kvaser:
        return KvaserCanAdapter::isInterfaceFd(interfaceName);
    case PcanAdvanced:
        return PCANAdvancedAdapter::isNetFd(pcanNetFromInterfaceName(interfaceName));
    default:
        return false;
    }
}
