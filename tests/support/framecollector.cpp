#include "framecollector.h"

#include "abstractcanadapter.h"

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
    return QVector<CAN::CanRxMessage>(mFrames.cbegin(), mFrames.cend()); // a deep copy, made under the lock
}

QVector<CAN::CanRxMessage> FrameCollector::frames(quint32 id) const
{
    QVector<CAN::CanRxMessage> result;
    std::lock_guard<CanMutex> guard(mLock);
    for (const CAN::CanRxMessage& f : mFrames) {
        if (f.message.id == id)
            result.append(f);
    }
    return result;
}

int FrameCollector::count() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mFrames.size();
}

int FrameCollector::count(quint32 id) const
{
    std::lock_guard<CanMutex> guard(mLock);
    int n = 0;
    for (const CAN::CanRxMessage& f : mFrames)
        n += f.message.id == id ? 1 : 0;
    return n;
}

void FrameCollector::clear()
{
    std::lock_guard<CanMutex> guard(mLock);
    mFrames.clear();
}
