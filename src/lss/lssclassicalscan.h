#ifndef LSSCLASSICALSCAN_H
#define LSSCLASSICALSCAN_H

#include "canopenmaster_global.h"
#include "canscheduler.h"
#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <QQueue>
#include <QTimer>
#include <QVector>

// Finds every LSS slave of one vendor-ID and product code whose revision and
// serial number lie in given ranges, by identify-remote-slave queries over
// shrinking ranges, breadth first: an answered range is split in two halves
// (the revision range down to one value first, then the serial range), a
// silent one is dropped. Each query lasts one timer period. The end of the
// scan is reported as nodeFound(0xFFFFFFFF, 0, 0, 0).
class CANOPENMASTER_EXPORT LSSClassicalScan : public QObject
{
    Q_OBJECT
public:
    // Revision low, revision high, serial low, serial high; bounds inclusive.
    struct Range {
        quint32 revisionLow;
        quint32 revisionHigh;
        quint32 serialLow;
        quint32 serialHigh;
    };

    LSSClassicalScan(quint32 vendorId, quint32 productCode, CanScheduler* scheduler, QObject* parent = nullptr);
    ~LSSClassicalScan() override;

    void setRange(quint32 vendorId, quint32 productCode, quint32 revisionLow, quint32 revisionHigh,
                  quint32 serialLow, quint32 serialHigh);
    void setTimeout(quint16 ms);
    // Ends the scan with noResponseTimeout(0).
    void abort();
    // Ends the scan without a report.
    void stop();
    bool isRunning() const { return running; }
    int pendingRanges() const { return mQueue.size(); }

    // The six identify-remote-slave frames (0x46..0x4B) of one query.
    static QVector<CAN::CanMessage> queryFrames(quint32 vendorId, quint32 productCode, const Range& range);
    // The two halves of an answered range; they share one value when the
    // difference of its bounds is even (0..2 gives 0..1 and 1..2).
    static QVector<Range> split(const Range& range);

Q_SIGNALS:
    void nodeFound(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber);
    void noResponseTimeout(quint8 timeoutInfo);
    void scanProgress(quint8 percent);

public Q_SLOTS:
    void handleCanMessage(CAN::CanRxMessage message);
    void timeout();
    void sendNextMessage();

private:
    void takeNextRange();

    QPointer<CanScheduler> mScheduler;
    quint32 mVendorId = 0;
    quint32 mProductCode = 0;
    Range mRange{0, 0, 0, 0};
    QTimer* mTimer = nullptr;
    bool running = true;
    quint8 progress = 0; // never advanced: reported as 0 for the whole scan
    quint16 scanTimeout = 70;
    bool awaitingAnswer = false;
    QQueue<Range> mQueue;
};

#endif
