#include "lssservice.h"

#include "lssclassicalscan.h"
#include "lssfastscan.h"

LSSService::LSSService(QObject* parent)
    : CANopenService(parent)
{
    LSSMaster::registerMetaTypes();
}

LSSService::~LSSService() = default;

CAN::RetType LSSService::switchModeGlobal(LSSMaster::LssGlobalState)
{
    return CAN::Error;
}

CAN::RetType LSSService::storeConfiguration()
{
    return CAN::Error;
}

CAN::RetType LSSService::configureNodeId(quint8)
{
    return CAN::Error;
}

CAN::RetType LSSService::identifyNonConfigSlaves()
{
    return CAN::Error;
}

CAN::RetType LSSService::switchModeSelective(quint32, quint32, quint32, quint32)
{
    return CAN::Error;
}

CAN::RetType LSSService::fastScan(quint32, quint32, quint32, quint32, bool)
{
    return CAN::Error;
}

CAN::RetType LSSService::classicalScan(quint32, quint32)
{
    return CAN::Error;
}

CAN::RetType LSSService::classicalScan(quint32, quint32, quint32, quint32, quint32, quint32)
{
    return CAN::Error;
}

CAN::RetType LSSService::getFastScanValues(quint32*, quint32*, quint32*, quint32*) const
{
    return CAN::Error;
}

CAN::RetType LSSService::activateBitTiming(quint16)
{
    return CAN::Error;
}

CAN::RetType LSSService::inquireNodeId()
{
    return CAN::Error;
}

CAN::RetType LSSService::configureBitTiming(quint8, quint8)
{
    return CAN::Error;
}

CAN::RetType LSSService::abortClassicalScan()
{
    return CAN::Error;
}

void LSSService::setCanScheduler(CanScheduler*) {}

void LSSService::setTimeout(quint16 ms)
{
    timeout = ms;
    scanTimeout = ms;
    if (classicalScanEngine)
        classicalScanEngine->setTimeout(ms);
    if (fastScanEngine)
        fastScanEngine->setScanTimeout(ms);
}

void LSSService::setMessageGap(quint16 ms)
{
    messageGap = ms;
}

void LSSService::copySettings(const LSSService& other)
{
    timeout = other.timeout;
    messageGap = other.messageGap;
    scanTimeout = other.scanTimeout;
}
