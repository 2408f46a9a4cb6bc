#ifndef LSSFASTSCAN_H
#define LSSFASTSCAN_H

#include "canopenmaster_global.h"
#include "canscheduler.h"
#include "cantypes.h"

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QTimer>

// Finds the identity (vendor-ID, product code, revision number, serial
// number) of one LSS slave without a valid node-ID by the fast-scan request,
// bit by bit, or only confirms a known identity. Made per scan by the CAN
// LSS service, which passes it the slaves' 0x4F answers.
//
// A step counts as answered after one timer period with an answer, as
// unanswered after four periods without one. Several slaves answering count
// once: bits resolve towards 0, so the slave with the lowest identity is found.
class CANOPENMASTER_EXPORT LSSFastScan : public QObject
{
    Q_OBJECT
public:
    LSSFastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber,
                CanScheduler* scheduler, QObject* parent = nullptr);
    ~LSSFastScan() override;

    // Per-step time-out and timer period, in ms.
    void setScanTimeout(quint16 ms);
    // True: the start values are the identity; each part is only confirmed.
    void setIdentityKnown(bool known) { identityKnown = known; }
    // Stops the scan: no further request goes out.
    void stop();

    quint32 vendorId() const { return mVendorId; }
    quint32 productCode() const { return mProductCode; }
    quint32 revisionNumber() const { return mRevisionNumber; }
    quint32 serialNumber() const { return mSerialNumber; }
    bool isRunning() const { return running; }

    // The fast-scan request: 0x51, ID number, bit checked, LSS sub, LSS next.
    static CAN::CanMessage requestFrame(quint32 idNumber, quint8 bitChecked, quint8 lssSub, quint8 lssNext);

Q_SIGNALS:
    void nodeFound(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber);
    // 0: no slave answered the opening request; 0..3: the confirmation of that part failed.
    void noResponseTimeout(quint8 timeoutInfo);

public Q_SLOTS:
    void handleCanMessage(CAN::CanRxMessage message);
    void timeout();
    void sendNextMessage();

private:
    void nextRequest();
    quint32& part(quint8 sub);

    QPointer<CanScheduler> mScheduler;
    quint32 IDNumber = 0;
    quint32 mVendorId = 0;
    quint32 mProductCode = 0;
    quint32 mRevisionNumber = 0;
    quint32 mSerialNumber = 0;
    quint8 bitChecked = 0x80;
    quint8 lssSub = 0;
    quint8 lssNext = 0;
    bool awaitingAnswer = false;
    bool nodeComplete = false;
    bool confirmStep = false;
    bool running = true;
    bool identityKnown = false;
    QTimer* mTimer = nullptr;
    QMutex mMutex;
    bool answerSeen = false;
    quint16 scanTimeout = 90;
    quint8 retries = 0;
};

#endif
