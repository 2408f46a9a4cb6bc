#ifndef LSSCIA305SERVICE_H
#define LSSCIA305SERVICE_H

#include "lssservice.h"

#include <QPointer>
#include <QTimer>

// LSS over CAN: requests on 0x7E5, answers on 0x7E4. Builds the request
// frames, matches the slaves' answers to the pending action, reports through
// lssResult and hosts the fast-scan and classical-scan engines.
class CANOPENMASTER_EXPORT LSSCiA305Service : public LSSService
{
    Q_OBJECT
public:
    static constexpr quint32 RequestId = 0x7E5;
    static constexpr quint32 AnswerId = 0x7E4;

    explicit LSSCiA305Service(QObject* parent = nullptr);
    explicit LSSCiA305Service(CanScheduler* scheduler, QObject* parent = nullptr);
    ~LSSCiA305Service() override;

    CAN::RetType switchModeGlobal(LSSMaster::LssGlobalState state) override;
    CAN::RetType storeConfiguration() override;
    CAN::RetType configureNodeId(quint8 nodeId) override;
    CAN::RetType identifyNonConfigSlaves() override;
    CAN::RetType switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                     quint32 serialNumber) override;
    CAN::RetType fastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber,
                          bool identityKnown) override;
    CAN::RetType classicalScan(quint32 vendorId, quint32 productCode) override;
    CAN::RetType classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow, quint32 revisionHigh,
                               quint32 serialLow, quint32 serialHigh) override;
    CAN::RetType getFastScanValues(quint32* vendorId, quint32* productCode, quint32* revisionNumber,
                                   quint32* serialNumber) const override;
    CAN::RetType activateBitTiming(quint16 switchDelay) override;
    CAN::RetType inquireNodeId() override;
    CAN::RetType configureBitTiming(quint8 tableSelector, quint8 tableIndex) override;
    CAN::RetType abortClassicalScan() override;
    void setCanScheduler(CanScheduler* scheduler) override;

    // A request frame: command specifier and up to seven bytes; 8 bytes long,
    // or `fdLength` while CANopen FD is on.
    static CAN::CanMessage requestFrame(quint8 command, const QByteArray& bytes, quint8 fdLength);
    // The same with a 32-bit value in bytes 1-4, little-endian.
    static CAN::CanMessage valueFrame(quint8 command, quint32 value);

public Q_SLOTS:
    void scanNodeFound(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber);
    void sendNextMessage();
    void fastScanTimeout(quint8 timeoutInfo);
    void timeout();
    void newCanMessageReceived(CAN::CanRxMessage message) override;

private:
    // Sends one frame of a confirmed request and arms the answer timer.
    CAN::RetType singleFrameRequest(LSSMaster::LssAction action, CAN::CanMessage frame);
    CAN::RetType startClassicalScan(quint32 vendorId, quint32 productCode, const quint32* range);
    void finish(LSSMaster::LssResult result, const QVariant& value);

    QPointer<CanSender> mAnswerSender;
    quint8 selectiveStep = 0;
    quint32 selVendorId = 0;
    quint32 selProductCode = 0;
    quint32 selRevisionNumber = 0;
    quint32 selSerialNumber = 0;
    QTimer mAnswerTimer;
    QTimer mGapTimer;
};

#endif
