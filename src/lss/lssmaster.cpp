#include "lssmaster.h"

#include "abstractcanadapter.h"
#include "deletelater.h"
#include "lsscia305service.h"
#include "lsscia309service.h"
#include "lssservice.h"

namespace {
// The time-out every newly picked service starts with (it replaces whatever
// was set before; applications rely on this value).
constexpr quint16 ServiceTimeoutMs = 1234;
} // namespace

void LSSMaster::registerMetaTypes()
{
    static const bool done = [] {
        qRegisterMetaType<LSSMaster::LssAction>("LSSMaster::LssAction");
        qRegisterMetaType<LSSMaster::LssResult>("LSSMaster::LssResult");
        return true;
    }();
    Q_UNUSED(done)
}

LSSMaster::LSSMaster(QObject* parent)
    : CANopenService(parent)
    , mService(new LSSService(), DeleteLater())
{
    registerMetaTypes();
}

LSSMaster::LSSMaster(CanScheduler* scheduler, QObject* parent)
    : LSSMaster(parent)
{
    setCanScheduler(scheduler);
}

LSSMaster::~LSSMaster() = default;

void LSSMaster::setCanScheduler(CanScheduler* scheduler)
{
    mScheduler = scheduler;
    if (!scheduler)
        return;
    if (mService)
        mService->setTimeout(ServiceTimeoutMs);
    AbstractCanAdapter* a = scheduler->canAdapter();
    const bool gateway = a && a->getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool();
    std::shared_ptr<LSSService> next(gateway ? static_cast<LSSService*>(new LSSCiA309Service())
                                             : static_cast<LSSService*>(new LSSCiA305Service()),
                                     DeleteLater());
    if (mService) {
        next->copySettings(*mService);
        mService->disconnect(this);
        mService->setCanScheduler(nullptr); // its registration goes now, the object later
    }
    mService = next; // the old service and any scan it ran go with it
    mService->setCanScheduler(scheduler);
    connect(mService.get(), &LSSService::lssResult, this, &LSSMaster::newLssResult);
}

void LSSMaster::setTimeout(quint16 ms)
{
    if (mService)
        mService->setTimeout(ms);
}

void LSSMaster::setMessageGap(quint16 ms)
{
    if (mService)
        mService->setMessageGap(ms);
}

CAN::RetType LSSMaster::switchModeGlobal(LSSMaster::LssGlobalState state)
{
    return mService ? mService->switchModeGlobal(state) : CAN::Error;
}

CAN::RetType LSSMaster::storeConfiguration()
{
    return mService ? mService->storeConfiguration() : CAN::Error;
}

CAN::RetType LSSMaster::configureNodeId(quint8 nodeId)
{
    return mService ? mService->configureNodeId(nodeId) : CAN::Error;
}

CAN::RetType LSSMaster::identifyNonConfigSlaves()
{
    return mService ? mService->identifyNonConfigSlaves() : CAN::Error;
}

CAN::RetType LSSMaster::switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                            quint32 serialNumber)
{
    return mService ? mService->switchModeSelective(vendorId, productCode, revisionNumber, serialNumber)
                    : CAN::Error;
}

CAN::RetType LSSMaster::fastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                 quint32 serialNumber, bool identityKnown)
{
    return mService ? mService->fastScan(vendorId, productCode, revisionNumber, serialNumber, identityKnown)
                    : CAN::Error;
}

CAN::RetType LSSMaster::classicalScan(quint32 vendorId, quint32 productCode)
{
    return mService ? mService->classicalScan(vendorId, productCode) : CAN::Error;
}

CAN::RetType LSSMaster::classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow,
                                      quint32 revisionHigh, quint32 serialLow, quint32 serialHigh)
{
    return mService ? mService->classicalScan(vendorId, productCode, revisionLow, revisionHigh, serialLow, serialHigh)
                    : CAN::Error;
}

CAN::RetType LSSMaster::abortClassicalScan()
{
    return mService ? mService->abortClassicalScan() : CAN::Error;
}

CAN::RetType LSSMaster::getFastScanValues(quint32* vendorId, quint32* productCode, quint32* revisionNumber,
                                          quint32* serialNumber) const
{
    return mService ? mService->getFastScanValues(vendorId, productCode, revisionNumber, serialNumber) : CAN::Error;
}

CAN::RetType LSSMaster::activateBitTiming(quint16 switchDelay)
{
    return mService ? mService->activateBitTiming(switchDelay) : CAN::Error;
}

CAN::RetType LSSMaster::inquireNodeId()
{
    return mService ? mService->inquireNodeId() : CAN::Error;
}

CAN::RetType LSSMaster::configureBitTiming(quint8 tableSelector, quint8 tableIndex)
{
    return mService ? mService->configureBitTiming(tableSelector, tableIndex) : CAN::Error;
}

void LSSMaster::newLssResult(LSSMaster::LssAction lastAction, LSSMaster::LssResult resultType, QVariant resultValue)
{
    Q_EMIT lssResult(lastAction, resultType, resultValue);
}
