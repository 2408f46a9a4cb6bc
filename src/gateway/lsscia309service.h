#ifndef LSSCIA309SERVICE_H
#define LSSCIA309SERVICE_H

#include "lssservice.h"

#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

// LSS through a CiA 309-3 gateway: sends the gateway's lss_* command lines
// and, for most of them, waits for the answer in a nested event loop before
// returning (0 on "OK", 5 on "ERROR", on no answer within a second, or
// without a scheduler). Emits no lssResult; fast scan, the two-argument
// classical scan and its abort are not offered (5).
class CANOPENMASTER_EXPORT LSSCiA309Service : public LSSService
{
    Q_OBJECT
public:
    static constexpr quint16 NoSequence = 65535;
    static constexpr int AnswerTimeoutMs = 1000;

    explicit LSSCiA309Service(QObject* parent = nullptr);
    explicit LSSCiA309Service(CanScheduler* scheduler, QObject* parent = nullptr);
    ~LSSCiA309Service() override;

    CAN::RetType switchModeGlobal(LSSMaster::LssGlobalState state) override;
    CAN::RetType storeConfiguration() override;
    CAN::RetType configureNodeId(quint8 nodeId) override;
    CAN::RetType identifyNonConfigSlaves() override;
    CAN::RetType switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                     quint32 serialNumber) override;
    using LSSService::classicalScan;
    CAN::RetType classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow, quint32 revisionHigh,
                               quint32 serialLow, quint32 serialHigh) override;
    CAN::RetType activateBitTiming(quint16 switchDelay) override;
    CAN::RetType inquireNodeId() override;
    CAN::RetType configureBitTiming(quint8 tableSelector, quint8 tableIndex) override;
    void setCanScheduler(CanScheduler* scheduler) override;

public Q_SLOTS:
    void newResponseString(QString response);
    void handleTimeout();

private:
    CAN::RetType commandWithAnswer(const QString& command);
    CAN::RetType commandWithoutAnswer(const QString& command);

    quint16 awaitedSequence = NoSequence;
    QEventLoop mLoop;
    QTimer mAnswerTimer;
    CAN::RetType commandResult = CAN::Error;
    QMetaObject::Connection mResponseConnection;
};

#endif
