#include "pcanbasiccanadapter.h"

PCANBasicCanAdapter::PCANBasicCanAdapter(const QString& interfaceName, QObject* parent)
    : SerialBusCanAdapter(QStringLiteral("peakcan"), interfaceName, parent)
{
}

QStringList PCANBasicCanAdapter::getInterfaceList()
{
    return interfaces(QStringLiteral("peakcan"));
}
