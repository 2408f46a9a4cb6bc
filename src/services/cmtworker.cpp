#include "cmtworker.h"

#include <chrono>

CMTWorker::CMTWorker(QObject* parent)
    : QObject(parent)
{
}

void CMTWorker::setFrame(const CAN::CanMessage& frame)
{
    std::lock_guard<std::mutex> guard(mLock);
    mFrame = frame;
}

CAN::CanMessage CMTWorker::frame() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mFrame;
}

void CMTWorker::setInterval(unsigned int ms)
{
    mInterval.store(ms); // the next pause uses it
}

void CMTWorker::setAdapter(AbstractCanAdapter* adapter)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (mAdapter && mAdapter->lifeToken())
        disconnect(mAdapter->lifeToken(), &QObject::destroyed, this, nullptr);
    mAdapter = adapter;
    if (adapter && adapter->lifeToken()) {
        // The loop writes under the lock, so an adapter being deleted waits
        // for a write in progress and is never used afterwards.
        connect(adapter->lifeToken(), &QObject::destroyed, this, [this] {
            std::lock_guard<std::mutex> guard(mLock);
            mAdapter.clear();
        }, Qt::DirectConnection);
    }
}

void CMTWorker::requestStart()
{
    std::lock_guard<std::mutex> guard(mLock);
    ++mPendingStarts;
}

void CMTWorker::stop()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mCancelledStarts += mPendingStarts;
        mPendingStarts = 0;
        mRunning.store(false);
    }
    mWake.notify_all();
}

void CMTWorker::quit()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mQuit.store(true);
        mRunning.store(false);
    }
    mWake.notify_all();
}

void CMTWorker::doWork()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mQuit.load())
            return;
        if (mCancelledStarts > 0) { // queued before a stop
            --mCancelledStarts;
            return;
        }
        if (mPendingStarts > 0)
            --mPendingStarts;
        mRunning.store(true);
    }
    for (;;) {
        std::unique_lock<std::mutex> lock(mLock);
        AbstractCanAdapter* adapter = mAdapter.data();
        if (!adapter) {
            mRunning.store(false);
            return;
        }
        CAN::CanMessage frame = mFrame;
        adapter->write(&frame); // the result is not looked at: the next period tries again
        // The pause follows the write, so the period is the interval plus
        // the time of one write.
        const unsigned int pause = mInterval.load();
        if (pause > 0)
            mWake.wait_for(lock, std::chrono::milliseconds(pause), [this] { return !mRunning.load(); });
        if (!mRunning.load())
            return;
    }
}
