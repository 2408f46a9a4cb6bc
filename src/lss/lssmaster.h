#ifndef LSSMASTER_H
#define LSSMASTER_H

#include "canopenservice.h"

#include <QVariant>
#include <memory>

class LSSService;

// Layer setting services (LSS): switching slaves between waiting and
// configuration mode, setting node-ID and bit timing, storing the
// configuration, inquiring the node-ID, and finding unconfigured slaves by
// fast or classical scan. The master owns one service and forwards every
// request to it: LSS frames on an ordinary CAN adapter, the gateway's LSS
// commands on a CiA 309-3 gateway. Outcomes arrive through lssResult.
//
// Requests return 0 when sent, 1 while the service is busy with another
// action, 5 without a service or for an operation it does not offer; other
// codes come unchanged from the adapter's frame write.
class CANOPENMASTER_EXPORT LSSMaster : public CANopenService
{
    Q_OBJECT
public:
    // Which request a result belongs to; also the action a service is busy with.
    enum LssAction : quint32 {
        LssNoAction = 0,
        LssSwitchModeGlobal = 1,
        LssSwitchModeSelective = 2,
        LssConfigureNodeId = 3,
        LssStoreConfiguration = 4,
        LssIdentifyNonConfigSlaves = 5,
        LssFastScan = 6,
        LssClassicalScan = 7,
        LssInquireNodeId = 8,
        LssActivateBitTiming = 9,
        LssConfigureBitTiming = 10
    };
    Q_ENUM(LssAction)
    enum LssResult : quint32 { LssSuccess = 0, LssTimeout = 1, LssError = 2 };
    Q_ENUM(LssResult)
    // Any non-zero value means configuration mode.
    enum LssGlobalState : quint32 { LssWaitingState = 0, LssConfigurationState = 1 };
    Q_ENUM(LssGlobalState)

    explicit LSSMaster(QObject* parent = nullptr);
    explicit LSSMaster(CanScheduler* scheduler, QObject* parent = nullptr);
    ~LSSMaster() override;

    // Picks the service for the scheduler's adapter (CAN or gateway).
    void setCanScheduler(CanScheduler* scheduler);
    void setTimeout(quint16 ms);
    void setMessageGap(quint16 ms);

    CAN::RetType switchModeGlobal(LSSMaster::LssGlobalState state);
    CAN::RetType storeConfiguration();
    CAN::RetType configureNodeId(quint8 nodeId);
    CAN::RetType identifyNonConfigSlaves();
    CAN::RetType switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                     quint32 serialNumber);
    CAN::RetType fastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber,
                          bool identityKnown = false);
    CAN::RetType classicalScan(quint32 vendorId, quint32 productCode);
    CAN::RetType classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow, quint32 revisionHigh,
                               quint32 serialLow, quint32 serialHigh);
    CAN::RetType abortClassicalScan();
    CAN::RetType getFastScanValues(quint32* vendorId, quint32* productCode, quint32* revisionNumber,
                                   quint32* serialNumber) const;
    CAN::RetType activateBitTiming(quint16 switchDelay);
    CAN::RetType inquireNodeId();
    CAN::RetType configureBitTiming(quint8 tableSelector, quint8 tableIndex);

    // The service in use (a placeholder that supports nothing until a
    // scheduler is given).
    LSSService* service() const { return mService.get(); }

    static void registerMetaTypes();

Q_SIGNALS:
    void lssResult(LSSMaster::LssAction lastAction, LSSMaster::LssResult resultType, QVariant resultValue);

public Q_SLOTS:
    void newLssResult(LSSMaster::LssAction lastAction, LSSMaster::LssResult resultType, QVariant resultValue);

private:
    std::shared_ptr<LSSService> mService;
    // Reserved slots, released with the master.
    std::shared_ptr<QObject> mReserved1;
    std::shared_ptr<QObject> mReserved2;
};

Q_DECLARE_METATYPE(LSSMaster::LssAction)
Q_DECLARE_METATYPE(LSSMaster::LssResult)

#endif
