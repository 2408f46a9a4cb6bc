#include "sdoexpeditedclient.h"
#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"

#include <QThread>
#include <QTimer>
#include <chrono>
#include <climits>
#include <cstring>

namespace {
qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

SDOExpeditedClient::SDOExpeditedClient(QObject* parent)
    : CANopenService(parent)
{
    init();
}

SDOExpeditedClient::SDOExpeditedClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler,
                                       QObject* parent)
    : CANopenService(parent)
{
    init();
    mScheduler = scheduler;
    setCobIds(clientRxCobId, serverCobId);
}

void SDOExpeditedClient::init()
{
    CanopenMaster::registerMetaTypes();
    mCore = std::make_shared<Core>();
    mCore->engine = this;
    timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(int(sdoTimeout));
    connect(timer, &QTimer::timeout, this, &SDOExpeditedClient::checkDeadline);
}

SDOExpeditedClient::~SDOExpeditedClient()
{
    detachCore();
    releaseReceiver(canSender);
}

void SDOExpeditedClient::detachCore()
{
    // After this no receive thread enters the engine or posts to it:
    // frameArrived checks the pointer under these locks.
    std::lock_guard<CanMutex> postGuard(mCore->postLock);
    std::lock_guard<CanMutex> guard(mCore->lock);
    mCore->engine = nullptr;
}

// ---------------------------------------------------------------- set-up

CAN::RetType SDOExpeditedClient::setCobIds(quint32 rxCobId, quint32 txCobId)
{
    {
        std::lock_guard<CanMutex> guard(lock());
        if (transferRunningLocked())
            return CAN::Busy;
        direction = 0;
        clientRxCobId = rxCobId;
        serverCobId = txCobId;
    }
    registerReceiver();
    return CAN::Ok;
}

CAN::RetType SDOExpeditedClient::setCanScheduler(CanScheduler* scheduler)
{
    CanScheduler* old = nullptr;
    QPointer<CanSender> oldSender;
    {
        std::lock_guard<CanMutex> guard(lock());
        old = mScheduler.data();
        oldSender = canSender;
        canSender.clear();
        mScheduler = scheduler;
    }
    if (old && oldSender)
        old->unregisterCan(oldSender.data());
    registerReceiver();
    return CAN::Ok;
}

void SDOExpeditedClient::registerReceiver()
{
    CanScheduler* scheduler = nullptr;
    QPointer<CanSender> old;
    quint32 id = 0;
    {
        std::lock_guard<CanMutex> guard(lock());
        scheduler = mScheduler.data();
        old = canSender;
        canSender.clear();
        id = clientRxCobId;
    }
    if (!scheduler)
        return;
    if (old)
        scheduler->unregisterCan(old.data());
    CanSender* sender = scheduler->registerCanId(id);
    // Direct connection: answers are handled in the adapter's receive thread.
    // The functor holds the core, not the engine (see the header).
    std::shared_ptr<Core> core = mCore;
    connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received),
            [core](CAN::CanRxMessage message) { frameArrived(core, message); });
    std::lock_guard<CanMutex> guard(lock());
    canSender = sender;
}

CAN::RetType SDOExpeditedClient::setSdoTimeout(quint32 ms)
{
    std::lock_guard<CanMutex> guard(lock());
    if (transferRunningLocked())
        return CAN::Busy;
    sdoTimeout = ms;
    if (inEngineThread())
        timer->setInterval(int(qMin<quint32>(ms, quint32(INT_MAX))));
    return CAN::Ok;
}

quint32 SDOExpeditedClient::getSdoTimeout() const
{
    std::lock_guard<CanMutex> guard(lock());
    return sdoTimeout;
}

bool SDOExpeditedClient::isBusy() const
{
    std::lock_guard<CanMutex> guard(lock());
    return transferRunningLocked();
}

quint32 SDOExpeditedClient::getClientRxCobId() const
{
    std::lock_guard<CanMutex> guard(lock());
    return clientRxCobId;
}

quint32 SDOExpeditedClient::getServerCobId() const
{
    std::lock_guard<CanMutex> guard(lock());
    return serverCobId;
}

// ---------------------------------------------------------------- frames and values

bool SDOExpeditedClient::isExpeditedType(CAN::CANopenDataType type)
{
    return (type >= CAN::BOOLEAN && type <= CAN::REAL32) || type == CAN::INTEGER24 || type == CAN::UNSIGNED24;
}

quint8 SDOExpeditedClient::downloadCommand(CAN::CANopenDataType type)
{
    // ccs 1, e 1; s 1 with n = 4 - size, except BOOLEAN (sent without size)
    switch (type) {
    case CAN::BOOLEAN:
        return 0x22;
    case CAN::INTEGER8:
    case CAN::UNSIGNED8:
        return 0x2F;
    case CAN::INTEGER16:
    case CAN::UNSIGNED16:
        return 0x2B;
    case CAN::INTEGER24:
    case CAN::UNSIGNED24:
        return 0x27;
    case CAN::INTEGER32:
    case CAN::UNSIGNED32:
    case CAN::REAL32:
        return 0x23;
    default:
        return 0;
    }
}

quint32 SDOExpeditedClient::encodeValue(CAN::CANopenDataType type, const QVariant& value)
{
    if (type == CAN::REAL32) {
        const float f = value.toFloat();
        quint32 bits;
        std::memcpy(&bits, &f, sizeof bits);
        return bits;
    }
    // All four bytes go out, also where fewer are significant.
    return value.toUInt();
}

QVariant SDOExpeditedClient::decodeValue(CAN::CANopenDataType type, quint32 raw)
{
    switch (type) {
    case CAN::BOOLEAN:
        return QVariant(int(raw != 0 ? 1 : 0));
    case CAN::INTEGER8:
        return QVariant(int(qint8(raw & 0xFF)));
    case CAN::INTEGER16:
        return QVariant(int(qint16(raw & 0xFFFF)));
    case CAN::INTEGER32:
        return QVariant(int(raw));
    case CAN::UNSIGNED8:
        return QVariant(int(raw & 0xFF));
    case CAN::UNSIGNED16:
        return QVariant(int(raw & 0xFFFF));
    case CAN::REAL32: {
        float f;
        std::memcpy(&f, &raw, sizeof f);
        return QVariant(f);
    }
    case CAN::INTEGER24:
        return QVariant(int(raw < 0x800000u ? raw : (raw | 0xFF800000u)));
    default:
        // UNSIGNED32, and UNSIGNED24 unmasked: an upper byte passes through.
        return QVariant(uint(raw));
    }
}

CAN::CanMessage SDOExpeditedClient::sdoFrame(quint32 cobId, quint8 command, quint16 idx, quint8 sub,
                                             quint32 payload)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = command;
    m.data[1] = quint8(idx & 0xFF);
    m.data[2] = quint8(idx >> 8);
    m.data[3] = sub;
    m.data[4] = quint8(payload);
    m.data[5] = quint8(payload >> 8);
    m.data[6] = quint8(payload >> 16);
    m.data[7] = quint8(payload >> 24);
    return m;
}

CAN::CanMessage SDOExpeditedClient::abortFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 code)
{
    return sdoFrame(cobId, 0x80, idx, sub, code);
}

quint16 SDOExpeditedClient::frameIndex(const CAN::CanMessage& frame)
{
    return quint16(frame.data[1] | (frame.data[2] << 8));
}

quint32 SDOExpeditedClient::framePayload(const CAN::CanMessage& frame)
{
    return quint32(frame.data[4]) | (quint32(frame.data[5]) << 8) | (quint32(frame.data[6]) << 16)
           | (quint32(frame.data[7]) << 24);
}

// ---------------------------------------------------------------- requests

CAN::RetType SDOExpeditedClient::read(quint16 idx, quint8 sub, CAN::CANopenDataType type)
{
    return runLocked([&]() -> CAN::RetType {
        if (!isExpeditedType(type))
            return CAN::NotSupported;
        if (busy)
            return CAN::Busy;
        stopTimerLocked();
        index = idx;
        subIndex = sub;
        dataType = type;
        if (!hasAdapterLocked())
            return CAN::Error;
        busy = 1;
        direction = 1;
        beginTransferLocked();
        if (sdoTimeout != 0)
            superviseLocked(sdoTimeout);
        const CAN::RetType r = sendLocked(sdoFrame(serverCobId, 0x40, idx, sub));
        if (r != CAN::Ok) {
            stopTimerLocked();
            busy = 0;
            return r;
        }
        if (sdoTimeout == 0)
            busy = 0; // fire and forget: no answer is awaited
        return CAN::Ok;
    });
}

CAN::RetType SDOExpeditedClient::write(quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value)
{
    return runLocked([&]() -> CAN::RetType {
        if (busy)
            return CAN::Busy;
        stopTimerLocked();
        index = idx;
        subIndex = sub;
        dataType = type;
        const quint8 command = downloadCommand(type);
        if (command == 0)
            return CAN::NotSupported;
        const CAN::CanMessage frame = sdoFrame(serverCobId, command, idx, sub, encodeValue(type, value));
        if (!hasAdapterLocked())
            return CAN::Error;
        direction = 2;
        busy = 1;
        writeValue = value;
        beginTransferLocked();
        if (sendLocked(frame) != CAN::Ok) {
            busy = 0;
            writeValue = QVariant();
            return CAN::Error;
        }
        if (sdoTimeout == 0)
            busy = 0;
        else
            superviseLocked(sdoTimeout);
        return CAN::Ok;
    });
}

CAN::RetType SDOExpeditedClient::abort(quint32 abortCode)
{
    return runLocked([&]() -> CAN::RetType {
        if (busy)
            stopTimerLocked();
        busy = 0;
        direction = 3;
        mDeadlineMs = 0;
        if (abortCode != 0)
            sendLocked(abortFrame(serverCobId, index, subIndex, abortCode));
        setTransferOptionLocked(false);
        queueErrorLocked(abortCode);
        return CAN::Ok;
    });
}

// ---------------------------------------------------------------- answers

void SDOExpeditedClient::frameArrived(const std::shared_ptr<Core>& core, const CAN::CanRxMessage& message)
{
    SDOExpeditedClient* engine = nullptr;
    Delivery delivery = Delivery::None;
    {
        std::lock_guard<CanMutex> guard(core->lock);
        engine = core->engine;
        if (!engine || engine->dispatchedBeforeStartLocked())
            return;
        engine->handleFrameLocked(message.message);
        delivery = engine->scheduleDeliveryLocked();
    }
    if (delivery == Delivery::Here) {
        // Only in the engine's own thread, where the engine cannot be
        // destroyed behind our back.
        engine->deliverNotices();
    } else if (delivery == Delivery::Post) {
        // The engine may be going away in its thread meanwhile: post only
        // while detachCore has not run (it waits for this lock).
        std::lock_guard<CanMutex> guard(core->postLock);
        if (core->engine)
            core->engine->postDelivery();
    }
}

bool SDOExpeditedClient::dispatchedBeforeStartLocked() const
{
    // All engines of one node share its answer COB-ID, and the dispatcher
    // hands each frame to them one after the other. When one engine ends its
    // transfer on a frame and its user starts another engine at once, the
    // same frame may still be on its way to that engine: it is no answer to
    // the new request.
    const quint64 number = CanScheduler::currentDispatch(mScheduler.data());
    return number != 0 && number <= mStartDispatch;
}

void SDOExpeditedClient::newCanMessageReceived(CAN::CanRxMessage message)
{
    frameArrived(mCore, message);
}

void SDOExpeditedClient::handleFrameLocked(const CAN::CanMessage& frame)
{
    if (!busy || frame.id != clientRxCobId || frame.data[3] != subIndex || frameIndex(frame) != index)
        return;
    const quint8 command = frame.data[0];
    if ((command & 0x4F) == 0x41) {
        // The server offers a segmented upload: not ours to follow.
        busy = 0;
        queueErrorLocked(AbortGeneral);
    } else if (command & 0x40) {
        // Any upload or download answer counts as success.
        busy = 0;
        if (direction == 1)
            queueResultLocked(decodeValue(dataType, framePayload(frame)));
        else
            queueResultLocked(std::move(writeValue));
        writeValue = QVariant();
    } else if (command & 0x80) {
        busy = 0;
        queueErrorLocked(framePayload(frame));
    }
}

// ---------------------------------------------------------------- time-out

void SDOExpeditedClient::timeout()
{
    runLocked([&] { expeditedTimeoutLocked(); });
}

void SDOExpeditedClient::expireLocked()
{
    expeditedTimeoutLocked();
}

void SDOExpeditedClient::expeditedTimeoutLocked()
{
    if (!busy)
        return;
    // Without an adapter no abort frame can go out; the transfer ends all the same.
    if (mScheduler)
        sendLocked(abortFrame(serverCobId, index, subIndex, AbortTimeout));
    busy = 0;
    mDeadlineMs = 0;
    queueErrorLocked(AbortTimeout);
}

void SDOExpeditedClient::checkDeadline()
{
    runLocked([&] {
        if (!transferRunningLocked() || mDeadlineMs == 0)
            return;
        const qint64 elapsedNs = nowNs() - mLastActivityNs;
        const qint64 limitNs = qint64(mDeadlineMs) * 1000000;
        if (elapsedNs < limitNs) {
            // Activity since the timer was armed: wait for the rest.
            const qint64 leftMs = (limitNs - elapsedNs + 999999) / 1000000;
            timer->start(int(qBound<qint64>(1, leftMs, INT_MAX)));
            return;
        }
        mDeadlineMs = 0;
        expireLocked();
    });
}

void SDOExpeditedClient::beginTransferLocked()
{
    mStartDispatch = mScheduler ? mScheduler->dispatchCount() : 0;
}

void SDOExpeditedClient::superviseLocked(quint32 ms)
{
    mDeadlineMs = ms;
    mLastActivityNs = nowNs();
    if (inEngineThread()) {
        timer->start(int(qMin<quint32>(ms, quint32(INT_MAX))));
    } else {
        // Requests started from a foreign thread: arm the timer in ours.
        QMetaObject::invokeMethod(this, &SDOExpeditedClient::startTimerForDeadline, Qt::QueuedConnection);
    }
}

void SDOExpeditedClient::startTimerForDeadline()
{
    std::lock_guard<CanMutex> guard(lock());
    if (mDeadlineMs != 0 && transferRunningLocked())
        timer->start(int(qMin<quint32>(mDeadlineMs, quint32(INT_MAX))));
}

void SDOExpeditedClient::touchLocked()
{
    mLastActivityNs = nowNs();
}

void SDOExpeditedClient::stopTimerLocked()
{
    mDeadlineMs = 0;
    // From the receive thread the timer is left alone: its next firing, or
    // the delivery of the outcome, finds the transfer ended and stops it.
    if (inEngineThread())
        timer->stop();
}

quint32 SDOExpeditedClient::multiFrameTimeoutLocked() const
{
    // A segmented or block transfer cannot be fire-and-forget: a time-out of 0
    // supervises it with the default instead, so that no transfer stays busy.
    return sdoTimeout != 0 ? sdoTimeout : DefaultTimeoutMs;
}

bool SDOExpeditedClient::transferRunningLocked() const
{
    return busy != 0;
}

// ---------------------------------------------------------------- sending

bool SDOExpeditedClient::hasAdapterLocked() const
{
    return mScheduler && mScheduler->canAdapter();
}

CAN::RetType SDOExpeditedClient::sendLocked(CAN::CanMessage frame)
{
    AbstractCanAdapter* a = mScheduler ? mScheduler->canAdapter() : nullptr;
    if (!a)
        return CAN::Error;
    touchLocked();
    return a->write(&frame);
}

void SDOExpeditedClient::setTransferOptionLocked(bool active)
{
    if (AbstractCanAdapter* a = mScheduler ? mScheduler->canAdapter() : nullptr)
        a->setCanAdapterOption(AbstractCanAdapter::SdoTransferActive, QVariant(active));
}

bool SDOExpeditedClient::inEngineThread() const
{
    return QThread::currentThread() == thread();
}

// ---------------------------------------------------------------- notices

void SDOExpeditedClient::queueLocked(int kind, quint32 code, QVariant value)
{
    Notice n;
    n.kind = kind;
    n.index = index;
    n.sub = subIndex;
    n.code = code;
    n.value = std::move(value);
    mNotices.push_back(std::move(n));
}

void SDOExpeditedClient::queueResultLocked(QVariant value)
{
    queueLocked(NoticeResult, 0, std::move(value));
}

void SDOExpeditedClient::queueErrorLocked(quint32 code)
{
    queueLocked(NoticeError, code);
}

void SDOExpeditedClient::queueErrorLocked(quint16 idx, quint8 sub, quint32 code)
{
    Notice n;
    n.kind = NoticeError;
    n.index = idx;
    n.sub = sub;
    n.code = code;
    mNotices.push_back(std::move(n));
}

SDOExpeditedClient::Delivery SDOExpeditedClient::scheduleDeliveryLocked()
{
    if (mNotices.empty())
        return Delivery::None;
    if (inEngineThread())
        return Delivery::Here;
    if (mDeliveryPosted)
        return Delivery::None;
    // One queued call takes every notice queued until it runs. It is posted
    // once the lock is released: posting wakes the engine's thread, which
    // would otherwise find the lock still held and have to wait for it.
    mDeliveryPosted = true;
    return Delivery::Post;
}

void SDOExpeditedClient::deliver(Delivery delivery)
{
    if (delivery == Delivery::Here)
        deliverNotices();
    else if (delivery == Delivery::Post)
        postDelivery();
}

void SDOExpeditedClient::postDelivery()
{
    QMetaObject::invokeMethod(this, &SDOExpeditedClient::deliverNotices, Qt::QueuedConnection);
}

void SDOExpeditedClient::deliverNotices()
{
    // A slot that starts or aborts a transfer while we emit adds notices;
    // they are taken by the loop below, in order, not by a nested delivery.
    if (mDelivering)
        return;
    mDelivering = true;
    for (;;) {
        std::vector<Notice> batch;
        {
            std::lock_guard<CanMutex> guard(lock());
            batch.swap(mNotices);
            mDeliveryPosted = false;
            if (!transferRunningLocked()) {
                mDeadlineMs = 0;
                timer->stop();
            }
        }
        if (batch.empty())
            break;
        for (const Notice& n : batch) {
            switch (n.kind) {
            case NoticeResult:
                Q_EMIT resultReceived(n.index, n.sub, n.value);
                break;
            case NoticeError:
                Q_EMIT errorReceived(n.index, n.sub, n.code);
                break;
            default:
                deliverNotice(n);
                break;
            }
        }
    }
    mDelivering = false;
}

void SDOExpeditedClient::deliverNotice(const Notice&) {}

void SDOExpeditedClient::endTransferOnTimeoutLocked(quint32& state)
{
    if (direction == 3) {
        state = 0;
        setTransferOptionLocked(false);
        return;
    }
    if (state == 0)
        return;
    if (mScheduler)
        sendLocked(abortFrame(serverCobId, index, subIndex, AbortTimeout));
    state = 0;
    setTransferOptionLocked(false);
    queueErrorLocked(AbortTimeout);
}
