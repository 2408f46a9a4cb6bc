#include "syncproducer.h"
#include "abstractcanadapter.h"
#include "canscheduler.h"
#include "timerthread.h"

SYNCProducer::SYNCProducer(QObject* parent)
    : CANopenService(parent)
{
    initValues();
}

SYNCProducer::SYNCProducer(unsigned int cobId, CanScheduler* scheduler, QObject* parent)
    : CANopenService(parent)
{
    initValues();
    mCobId.store(cobId); // goes into the frame at start()
    setCanScheduler(scheduler);
}

SYNCProducer::SYNCProducer(unsigned int cobId, unsigned int intervalUs, CanScheduler* scheduler, QObject* parent)
    : SYNCProducer(cobId, scheduler, parent)
{
    setSyncInterval(intervalUs);
}

SYNCProducer::SYNCProducer(unsigned int cobId, unsigned int intervalUs, unsigned char overflow,
                           CanScheduler* scheduler, QObject* parent)
    : SYNCProducer(cobId, intervalUs, scheduler, parent)
{
    setSyncCounter(overflow);
}

SYNCProducer::~SYNCProducer()
{
    if (mTimer) {
        mTimer->shutdown();
        delete mTimer.data();
    }
}

void SYNCProducer::initValues()
{
    mCobId.store(0x80);
    mInterval.store(0);
    {
        std::lock_guard<std::mutex> guard(mFrameLock);
        mCounter = 0;
        mOverflow = 0;
        mFrame = CAN::CanMessage();
        mFrame.id = 0x80;
        mCounterFlag = false;
    }
    {
        std::lock_guard<std::mutex> guard(mSendLock);
        mSyncScheduler = nullptr;
    }
    if (!mTimer) {
        mTimer = new TimerThread();
        // Direct: the frame is written from the timer thread.
        connect(mTimer.data(), &TimerThread::elapsed, this, &SYNCProducer::timerElapsed, Qt::DirectConnection);
    }
}

CAN::RetType SYNCProducer::setCanScheduler(CanScheduler* scheduler)
{
    // SYNC receives nothing, so nothing is registered.
    if (mScheduler)
        disconnect(mScheduler.data(), &CanScheduler::aboutToBeDestroyed, this, nullptr);
    {
        std::lock_guard<std::mutex> guard(mSendLock);
        mSyncScheduler = scheduler;
    }
    mScheduler = scheduler;
    if (scheduler) {
        // Let go of it before it is torn down; a frame being written ends first.
        connect(scheduler, &CanScheduler::aboutToBeDestroyed, this, [this] {
            std::lock_guard<std::mutex> guard(mSendLock);
            mSyncScheduler = nullptr;
        }, Qt::DirectConnection);
    }
    return CAN::Ok;
}

CAN::RetType SYNCProducer::setCobId(unsigned int cobId)
{
    mCobId.store(cobId);
    std::lock_guard<std::mutex> guard(mFrameLock);
    mFrame.id = cobId;
    return CAN::Ok;
}

CAN::RetType SYNCProducer::setSyncInterval(unsigned int us)
{
    mInterval.store(us);
    if (mTimer)
        mTimer->setIntervalMs(quint16(us / 1000));
    return CAN::Ok;
}

CAN::RetType SYNCProducer::setSyncCounter(unsigned char overflow)
{
    std::lock_guard<std::mutex> guard(mFrameLock);
    mOverflow = overflow;
    mCounterFlag = overflow != 0;
    mFrame.length = mCounterFlag ? 1 : 0;
    return CAN::Ok;
}

CAN::RetType SYNCProducer::setCounterFlag(bool on)
{
    std::lock_guard<std::mutex> guard(mFrameLock);
    mCounterFlag = on;
    mFrame.length = on ? 1 : 0;
    return CAN::Ok;
}

quint8 SYNCProducer::nextCounter(quint8 counter, quint8 overflow)
{
    const int next = int(counter) + 1; // 255 + 1 wraps to 1, not to 0
    return next > int(overflow) ? 1 : quint8(next);
}

CAN::CanMessage SYNCProducer::buildNextSyncMessage()
{
    std::lock_guard<std::mutex> guard(mFrameLock);
    if (mCounterFlag) {
        mCounter = nextCounter(mCounter, mOverflow);
        mFrame.data[0] = mCounter;
    }
    return mFrame;
}

CAN::RetType SYNCProducer::oneSync()
{
    CAN::CanMessage frame = buildNextSyncMessage(); // the counter advances even if nothing is sent
    CAN::RetType result = CAN::Error;
    {
        std::lock_guard<std::mutex> guard(mSendLock);
        if (mSyncScheduler)
            result = mSyncScheduler->write(&frame); // 5 without adapter
    }
    if (result != CAN::Ok)
        return result;
    Q_EMIT syncEvent();
    return CAN::Ok;
}

CAN::RetType SYNCProducer::start()
{
    const unsigned int interval = mInterval.load();
    if (interval == 0)
        return CAN::Error;
    {
        std::lock_guard<std::mutex> guard(mFrameLock);
        mFrame.id = mCobId.load();
    }
    // The timer's clock restarts here; the first SYNC goes out at once from
    // this thread and the timer takes over one period later. Enabling after
    // the first frame keeps a zero-period timer from overtaking it.
    mTimer->setIntervalMs(quint16(interval / 1000));
    const CAN::RetType result = oneSync();
    mTimer->enable();
    return result;
}

CAN::RetType SYNCProducer::stop()
{
    // disable() returns only once a tick in progress has finished, so the
    // counter reset below cannot be overtaken by a late frame.
    mTimer->disable();
    std::lock_guard<std::mutex> guard(mFrameLock);
    mCounter = 0; // the next start begins again with 1
    return CAN::Ok;
}

void SYNCProducer::timerElapsed()
{
    oneSync();
}
