#include "canlisterner.h"

#include <mutex>

CANListerner::CANListerner(QObject* parent)
    : QObject(parent)
{
}

void CANListerner::canMessageReceived(CAN::CanRxMessage* message)
{
    if (!message || message->echo)
        return; // our own transmissions never reach the host
    CAN::CanMessage copy = message->message;
    copy.tail[0] = copy.tail[1] = 0;
    std::lock_guard<CanMutex> guard(mLock);
    mQueue.push_back(copy);
}

int CANListerner::take(CAN::CanMessage* out, bool* taken)
{
    std::lock_guard<CanMutex> guard(mLock);
    const int before = int(mQueue.size());
    *taken = before > 0;
    if (before > 0) {
        if (out)
            *out = mQueue.front();
        mQueue.pop_front();
    }
    return before;
}

int CANListerner::count()
{
    std::lock_guard<CanMutex> guard(mLock);
    return int(mQueue.size());
}
