#include "crossthreadspy.h"

#include <chrono>
#include <mutex>

void CrossThreadSpy::record()
{
    const qint64 now = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::steady_clock::now().time_since_epoch()).count();
    std::lock_guard<CanMutex> guard(mLock);
    mTimes.append(now);
}

int CrossThreadSpy::count() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mTimes.size();
}

QVector<qint64> CrossThreadSpy::timesUs() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return QVector<qint64>(mTimes.cbegin(), mTimes.cend()); // a deep copy, made under the lock
}
