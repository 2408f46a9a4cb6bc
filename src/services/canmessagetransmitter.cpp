#include "canmessagetransmitter.h"
#include "canmutex.h"
#include "canscheduler.h"
#include "cmtworker.h"

CanMessageTransmitter::CanMessageTransmitter(QObject* parent)
    : QObject(parent)
{
    auto* worker = new CMTWorker();
    worker->moveToThread(&mThread);
    mWorker = worker;
    // Automatic, hence queued: doWork() runs in the worker's thread.
    connect(this, &CanMessageTransmitter::operate, worker, &CMTWorker::doWork);
    // The worker's last steps, seen by the destructor through QThread::wait().
    connect(&mThread, &QThread::finished, this, [this] { tsanRelease(&mThread); }, Qt::DirectConnection);
    mThread.start(QThread::TimeCriticalPriority);
}

CanMessageTransmitter::~CanMessageTransmitter()
{
    // No forced termination: the loop wakes from its pause at once and
    // later queued doWork() calls return at once, so the join is short.
    if (mWorker)
        mWorker->quit();
    mThread.quit();
    mThread.wait();
    tsanAcquire(&mThread);
    delete mWorker.data();
}

void CanMessageTransmitter::setCanScheduler(QPointer<CanScheduler> scheduler)
{
    if (mWorker)
        mWorker->setAdapter(scheduler ? scheduler->canAdapter() : nullptr);
}

void CanMessageTransmitter::setTranmissionParameter(CAN::CanMessage message, unsigned int interval,
                                                    unsigned int repeat)
{
    if (!mWorker)
        return;
    mWorker->setFrame(message);
    mWorker->setInterval(interval);
    mWorker->setRepeat(repeat);
}

void CanMessageTransmitter::updateInterval(unsigned int ms)
{
    if (mWorker)
        mWorker->setInterval(ms);
}

void CanMessageTransmitter::startTransmission()
{
    if (mWorker)
        mWorker->requestStart();
    Q_EMIT operate();
}

void CanMessageTransmitter::stopTransmission()
{
    if (mWorker)
        mWorker->stop();
}

bool CanMessageTransmitter::isRunning() const
{
    return mWorker && mWorker->isRunning();
}
