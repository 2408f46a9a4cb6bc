#include "abstractcanadapter.h"
#include "canopenmasterclass.h"

#include <QDateTime>
#include <QDebug>

AbstractCanAdapter::AbstractCanAdapter(QObject* parent)
    : QThread(parent)
    , mLifeToken(new QObject(this))
{
    CanopenMaster::registerMetaTypes();
}

AbstractCanAdapter::~AbstractCanAdapter() = default;

void AbstractCanAdapter::endOfLife()
{
    delete mLifeToken;
    mLifeToken = nullptr;
}

quint8 AbstractCanAdapter::lengthToDlc(quint8 length)
{
    // CAN FD DLC codes 9..15 stand for 12, 16, 20, 24, 32, 48, 64 bytes.
    if (length <= 8) return length;
    if (length <= 12) return 9;
    if (length <= 16) return 10;
    if (length <= 20) return 11;
    if (length <= 24) return 12;
    if (length <= 32) return 13;
    if (length <= 48) return 14;
    return 15;
}

quint8 AbstractCanAdapter::dlcToLength(quint8 dlc)
{
    static const quint8 table[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    return table[dlc & 0x0F];
}

CAN::RetType AbstractCanAdapter::sendCiA309Command(const QString&) { return CAN::Error; }

CAN::RetType AbstractCanAdapter::sendCiA309Request(const QString&, qint16&) { return CAN::Error; }

CAN::RetType AbstractCanAdapter::setDataBitrate(quint16) { return CAN::Error; }

CAN::RetType AbstractCanAdapter::setSamplePoint(double) { return CAN::Ok; }

CAN::RetType AbstractCanAdapter::setDataSamplePoint(double) { return CAN::Ok; }

CAN::RetType AbstractCanAdapter::setTimingRegister(quint32) { return CAN::Error; }

void AbstractCanAdapter::setAutoBusOn(bool on) { mAutoBusOn = on; }

int AbstractCanAdapter::getBusLoad() { return 0; }

CAN::RetType AbstractCanAdapter::setupCyclicBuffer(int, CAN::CanMessage*, quint32) { return CAN::Error; }

CAN::RetType AbstractCanAdapter::controlCyclicBuffer(int) { return CAN::Error; }

bool AbstractCanAdapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption, const QVariant&)
{
    return true;
}

QVariant AbstractCanAdapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    switch (option) {
    case FdMode:
        return QVariant(mFdMode);
    case CiA309Gateway:
        return QVariant(false);
    default:
        return QVariant(true); // options no backend handles answer true
    }
}

void AbstractCanAdapter::setUseSystemTime(bool useSystemTime)
{
    qDebug() << Q_FUNC_INFO << useSystemTime;
    mUseSystemTime.store(useSystemTime);
}

quint16 AbstractCanAdapter::getBitrate() { return mBitrate; }

CAN::CanTimeStamp AbstractCanAdapter::systemTimeStamp()
{
    const QTime now = QTime::currentTime();
    CAN::CanTimeStamp ts;
    ts.seconds = quint32(now.hour() * 3600 + now.minute() * 60 + now.second());
    ts.microseconds = now.msec() * 1000;
    return ts;
}
