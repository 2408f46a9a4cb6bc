#include "pdo.h"

#include <QDebug>

PDO::PDO(QObject* parent)
    : CANopenService(parent)
{
}

CAN::RetType PDO::setCobId(unsigned int cobId)
{
    mCobId = cobId;
    return CAN::Ok;
}

CAN::RetType PDO::setMapping(QVector<CAN::CANopenDataType> mapping)
{
    mMapping = std::move(mapping);
    return CAN::Ok;
}

CAN::RetType PDO::setTransmissionType(unsigned int type)
{
    mTransmissionType = type;
    return CAN::Ok;
}

int PDO::typeLength(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::INTEGER8:
    case CAN::UNSIGNED8:
        return 1;
    case CAN::INTEGER16:
    case CAN::UNSIGNED16:
        return 2;
    case CAN::INTEGER32:
    case CAN::UNSIGNED32:
        return 4;
    default:
        return 0;
    }
}

int PDO::mappedLength() const
{
    int length = 0;
    for (CAN::CANopenDataType type : mMapping) {
        const int n = typeLength(type);
        if (n == 0) {
            qDebug() << Q_FUNC_INFO << "Currently not supported" << int(type);
            return 0;
        }
        length += n;
    }
    return length;
}

QVariant PDO::decodeValue(CAN::CANopenDataType type, const quint8 (&data)[64], int pos)
{
    const int n = typeLength(type);
    if (n == 0)
        return QVariant();
    quint32 raw = 0; // CiA 301: least significant byte first
    for (int i = n - 1; i >= 0; --i) {
        const int at = pos + i;
        raw = (raw << 8) | ((at >= 0 && at < 64) ? data[at] : 0u);
    }
    switch (type) {
    case CAN::INTEGER8:
        return int(qint8(quint8(raw)));
    case CAN::INTEGER16:
        return int(qint16(quint16(raw)));
    case CAN::INTEGER32:
        return int(qint32(raw));
    case CAN::UNSIGNED8:
    case CAN::UNSIGNED16:
        return int(raw);
    default: // UNSIGNED32
        return uint(raw);
    }
}
