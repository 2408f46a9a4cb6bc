#include "lssclassicalscan.h"

#include <QDebug>

namespace {
constexpr quint32 LssRequestId = 0x7E5;
constexpr quint32 LssAnswerId = 0x7E4;
constexpr quint8 IdentifySlaveAnswer = 0x4F;
constexpr quint32 EndMark = 0xFFFFFFFF; // vendor-ID and product code of the exhausted queue
} // namespace

LSSClassicalScan::LSSClassicalScan(quint32 vendorId, quint32 productCode, CanScheduler* scheduler, QObject* parent)
    : QObject(parent)
    , mScheduler(scheduler)
    , mVendorId(vendorId)
    , mProductCode(productCode)
    , mTimer(new QTimer(this))
{
    mTimer->setSingleShot(true);
    mTimer->setInterval(scanTimeout);
    connect(mTimer, &QTimer::timeout, this, &LSSClassicalScan::timeout);
    mQueue.enqueue(Range{0, 0xFFFFFFFF, 0, 0xFFFFFFFF});
    takeNextRange();
}

LSSClassicalScan::~LSSClassicalScan() = default;

void LSSClassicalScan::setRange(quint32 vendorId, quint32 productCode, quint32 revisionLow, quint32 revisionHigh,
                                quint32 serialLow, quint32 serialHigh)
{
    mVendorId = vendorId;
    mProductCode = productCode;
    mRange = Range{revisionLow, revisionHigh, serialLow, serialHigh};
}

void LSSClassicalScan::setTimeout(quint16 ms)
{
    scanTimeout = ms;
    mTimer->setInterval(ms);
}

void LSSClassicalScan::stop()
{
    running = false;
    mTimer->stop();
}

void LSSClassicalScan::abort()
{
    running = false;
    mTimer->stop();
    Q_EMIT noResponseTimeout(0);
}

QVector<CAN::CanMessage> LSSClassicalScan::queryFrames(quint32 vendorId, quint32 productCode, const Range& range)
{
    // Identify remote slave (CiA 305): 0x46 vendor, 0x47 product, 0x48/0x49
    // revision low/high, 0x4A/0x4B serial low/high; always 8 bytes.
    const quint32 values[6] = {vendorId, productCode, range.revisionLow, range.revisionHigh,
                               range.serialLow, range.serialHigh};
    QVector<CAN::CanMessage> frames(6);
    for (int i = 0; i < 6; ++i) {
        CAN::CanMessage& m = frames[i];
        m.id = LssRequestId;
        m.length = 8;
        m.data[0] = quint8(0x46 + i);
        for (int b = 0; b < 4; ++b)
            m.data[1 + b] = quint8(values[i] >> (8 * b));
    }
    return frames;
}

QVector<LSSClassicalScan::Range> LSSClassicalScan::split(const Range& r)
{
    if (r.revisionLow != r.revisionHigh) {
        const quint32 half = (r.revisionHigh - r.revisionLow) / 2;
        return {Range{r.revisionLow, r.revisionLow + half, r.serialLow, r.serialHigh},
                Range{r.revisionHigh - half, r.revisionHigh, r.serialLow, r.serialHigh}};
    }
    if (r.serialLow != r.serialHigh) {
        const quint32 half = (r.serialHigh - r.serialLow) / 2;
        return {Range{r.revisionLow, r.revisionLow, r.serialLow, r.serialLow + half},
                Range{r.revisionLow, r.revisionLow, r.serialHigh - half, r.serialHigh}};
    }
    return {};
}

void LSSClassicalScan::sendNextMessage()
{
    mTimer->stop();
    if (!running)
        return;
    if (mVendorId == EndMark && mProductCode == EndMark) {
        running = false;
        mTimer->stop();
        Q_EMIT nodeFound(EndMark, 0, 0, 0);
        return;
    }
    const QVector<CAN::CanMessage> frames = queryFrames(mVendorId, mProductCode, mRange);
    for (CAN::CanMessage frame : frames) {
        if (!mScheduler || mScheduler->write(&frame) != CAN::Ok) {
            running = false;
            Q_EMIT noResponseTimeout(0);
            return;
        }
    }
    awaitingAnswer = true;
    mTimer->start();
}

void LSSClassicalScan::handleCanMessage(CAN::CanRxMessage message)
{
    if (!awaitingAnswer)
        return;
    awaitingAnswer = false; // only the first answer of a query counts
    if (message.message.id != LssAnswerId || message.message.length < 1
        || message.message.data[0] != IdentifySlaveAnswer)
        return;
    const QVector<Range> halves = split(mRange);
    if (halves.isEmpty())
        Q_EMIT nodeFound(mVendorId, mProductCode, mRange.revisionLow, mRange.serialLow);
    for (const Range& h : halves)
        mQueue.enqueue(h);
    Q_EMIT scanProgress(progress);
    qDebug().noquote() << QStringLiteral("Progress: %1").arg(progress);
}

void LSSClassicalScan::timeout()
{
    takeNextRange();
    QTimer::singleShot(0, this, &LSSClassicalScan::sendNextMessage);
}

void LSSClassicalScan::takeNextRange()
{
    if (mQueue.isEmpty()) {
        mVendorId = EndMark;
        mProductCode = EndMark;
        mRange = Range{0, 0, 0, 0};
        return;
    }
    mRange = mQueue.dequeue();
}
