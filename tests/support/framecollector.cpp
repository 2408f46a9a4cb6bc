#include "framecollector.h"

#include <mutex>

FrameCollector::FrameCollector(AbstractCanAdapter* adapter, QObject* parent)
    : QObject(parent)
{
    connect(adapter, &AbstractCanAdapter::newCanMessage, this, &FrameCollector::take, Qt::DirectConnection);
}

void FrameCollector::take(CAN::CanRxMessage* frame)
{
    std::lock_guard<CanMutex> guard(mLock);
    mFrames.append(*frame);
}

QVector<CAN::CanRxMessage> FrameCollector::frames() const
{
    std::lock_guard<CanMutex> guard(mLock);
    QVector<CAN::CanRxMessage> copy;
    copy.reserve(mFrames.size());
    for (const CAN::CanRxMessage& f : mFrames)
        copy.append(f); // a deep copy: no container shared between threads
    return copy;
}

int FrameCollector::count() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mFrames.size();
}

void FrameCollector::clear()
{
    std::lock_guard<CanMutex> guard(mLock);
    mFrames.clear();
}
