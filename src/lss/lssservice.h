#ifndef LSSSERVICE_H
#define LSSSERVICE_H

#include "lssmaster.h"

#include <memory>

class LSSFastScan;
class LSSClassicalScan;

// Base of the LSS services. Every request of this base does nothing and
// returns 5; the CAN and the gateway service override what they offer.
// A service is idle (currentAction 0) or busy with exactly one action.
class CANOPENMASTER_EXPORT LSSService : public CANopenService
{
    Q_OBJECT
public:
    explicit LSSService(QObject* parent = nullptr);
    ~LSSService() override;

    virtual CAN::RetType switchModeGlobal(LSSMaster::LssGlobalState state);
    virtual CAN::RetType storeConfiguration();
    virtual CAN::RetType configureNodeId(quint8 nodeId);
    virtual CAN::RetType identifyNonConfigSlaves();
    virtual CAN::RetType switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                             quint32 serialNumber);
    virtual CAN::RetType fastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                  quint32 serialNumber, bool identityKnown);
    virtual CAN::RetType classicalScan(quint32 vendorId, quint32 productCode);
    virtual CAN::RetType classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow,
                                       quint32 revisionHigh, quint32 serialLow, quint32 serialHigh);
    virtual CAN::RetType getFastScanValues(quint32* vendorId, quint32* productCode, quint32* revisionNumber,
                                           quint32* serialNumber) const;
    virtual CAN::RetType activateBitTiming(quint16 switchDelay);
    virtual CAN::RetType inquireNodeId();
    virtual CAN::RetType configureBitTiming(quint8 tableSelector, quint8 tableIndex);
    virtual CAN::RetType abortClassicalScan();
    virtual void setCanScheduler(CanScheduler* scheduler);

    // Sets the confirmation time-out and the scan time-out (also of a scan
    // engine that exists).
    void setTimeout(quint16 ms);
    void setMessageGap(quint16 ms);
    quint16 getTimeout() const { return timeout; }
    quint16 getMessageGap() const { return messageGap; }
    quint16 getScanTimeout() const { return scanTimeout; }
    quint32 getCurrentAction() const { return currentAction; }
    // Takes over the time-outs and the message gap of another service.
    void copySettings(const LSSService& other);

Q_SIGNALS:
    void lssResult(LSSMaster::LssAction lastAction, LSSMaster::LssResult resultType, QVariant resultValue);

protected:
    quint32 currentAction = LSSMaster::LssNoAction;
    quint16 timeout = 300;    // ms to wait for a confirmation
    quint16 messageGap = 1;   // ms between the frames of one request
    quint16 scanTimeout = 70; // ms per scan step
    std::shared_ptr<LSSFastScan> fastScanEngine;
    std::shared_ptr<LSSClassicalScan> classicalScanEngine;
};

#endif
