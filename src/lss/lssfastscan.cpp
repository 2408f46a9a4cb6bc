#include "lssfastscan.h"

#include "abstractcanadapter.h"

#include <QMutexLocker>

namespace {
constexpr quint32 LssRequestId = 0x7E5;
constexpr quint8 FastScanCommand = 0x51;
constexpr quint8 OpeningBit = 0x80; // bit checked of the opening request: every unconfigured slave answers
constexpr quint8 Retries = 3;       // extra timer periods an unanswered step waits
} // namespace

LSSFastScan::LSSFastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber, quint32 serialNumber,
                         CanScheduler* scheduler, QObject* parent)
    : QObject(parent)
    , mScheduler(scheduler)
    , IDNumber(vendorId)
    , mVendorId(vendorId)
    , mProductCode(productCode)
    , mRevisionNumber(revisionNumber)
    , mSerialNumber(serialNumber)
    , mTimer(new QTimer(this))
{
    mTimer->setSingleShot(true);
    mTimer->setInterval(50);
    connect(mTimer, &QTimer::timeout, this, &LSSFastScan::timeout);
}

LSSFastScan::~LSSFastScan() = default;

void LSSFastScan::setScanTimeout(quint16 ms)
{
    scanTimeout = ms;
    mTimer->setInterval(ms);
}

void LSSFastScan::stop()
{
    running = false;
    mTimer->stop();
}

CAN::CanMessage LSSFastScan::requestFrame(quint32 idNumber, quint8 bitChecked, quint8 lssSub, quint8 lssNext)
{
    CAN::CanMessage m;
    m.id = LssRequestId;
    m.length = 8;
    m.data[0] = FastScanCommand;
    for (int i = 0; i < 4; ++i)
        m.data[1 + i] = quint8(idNumber >> (8 * i));
    m.data[5] = bitChecked;
    m.data[6] = lssSub;
    m.data[7] = lssNext;
    return m;
}

quint32& LSSFastScan::part(quint8 sub)
{
    switch (sub) {
    case 0: return mVendorId;
    case 1: return mProductCode;
    case 2: return mRevisionNumber;
    default: return mSerialNumber;
    }
}

void LSSFastScan::sendNextMessage()
{
    mTimer->stop();
    if (!running)
        return;
    if (nodeComplete) {
        awaitingAnswer = false;
        Q_EMIT nodeFound(mVendorId, mProductCode, mRevisionNumber, mSerialNumber);
        return;
    }
    CAN::CanMessage frame = requestFrame(IDNumber, bitChecked, lssSub, lssNext);
    // A request that does not go out shows up as a missing answer.
    if (mScheduler)
        mScheduler->write(&frame);
    answerSeen = false;
    awaitingAnswer = true;
    mTimer->start();
    retries = 0;
}

void LSSFastScan::handleCanMessage(CAN::CanRxMessage)
{
    answerSeen = true;
}

void LSSFastScan::timeout()
{
    if (retries < Retries && !answerSeen) {
        ++retries;
        mTimer->start();
        return;
    }
    QMutexLocker guard(&mMutex);
    if (answerSeen) {
        awaitingAnswer = false;
        nextRequest();
        guard.unlock();
        sendNextMessage();
    } else if (bitChecked == OpeningBit && lssSub == 0) {
        awaitingAnswer = false;
        running = false;
        guard.unlock();
        Q_EMIT noResponseTimeout(0); // no unconfigured slave on the bus
    } else if (confirmStep && bitChecked == 0) {
        awaitingAnswer = false;
        running = false;
        const quint8 failedPart = lssSub;
        guard.unlock();
        Q_EMIT noResponseTimeout(failedPart);
    } else if (awaitingAnswer) {
        // Nobody answered: no slave has a 0 at this bit.
        IDNumber |= quint32(1) << bitChecked;
        awaitingAnswer = false;
        nextRequest();
        guard.unlock();
        sendNextMessage();
    }
}

void LSSFastScan::nextRequest()
{
    for (;;) {
        bool searchFromTop = false;
        if (bitChecked == OpeningBit) {
            searchFromTop = true;
        } else if (bitChecked >= 1 && bitChecked <= 31) {
            --bitChecked;
            return;
        } else if (!confirmStep) {
            // All 32 bits known: confirm the part and name the next one.
            confirmStep = true;
            lssNext = lssNext + 1 == 4 ? 0 : lssNext + 1;
            return;
        } else {
            // Confirmation answered: the part is found; the next starts from its start value.
            confirmStep = false;
            part(lssSub) = IDNumber;
            if (lssSub < 3) {
                IDNumber = part(quint8(lssSub + 1));
            } else {
                nodeComplete = true;
                lssNext = 0;
            }
            lssSub = lssNext;
            searchFromTop = true;
        }
        if (searchFromTop) {
            if (!identityKnown) {
                bitChecked = 31;
                return;
            }
            // Known identity: no bit to search, straight to the confirmation.
            bitChecked = 0;
            if (nodeComplete || lssSub != lssNext)
                return;
        }
    }
}
