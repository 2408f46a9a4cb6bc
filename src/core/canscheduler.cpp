#include "canscheduler.h"
#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "cansender.h"

#include <QDebug>
#include <QVarLengthArray>
#include <mutex>

namespace {
// The dispatch running in this thread (receivers may inject frames of their
// own, so dispatches can nest: each restores the one it interrupted).
struct DispatchMark {
    const CanScheduler* scheduler = nullptr;
    quint64 number = 0;
};
thread_local DispatchMark currentMark;

class DispatchScope
{
public:
    DispatchScope(const CanScheduler* scheduler, quint64 number)
        : mPrevious(currentMark)
    {
        currentMark = {scheduler, number};
    }
    ~DispatchScope() { currentMark = mPrevious; }

private:
    DispatchMark mPrevious;
};
} // namespace

CanScheduler::CanScheduler(AbstractCanAdapter* adapter)
    : QObject(nullptr)
    , mAdapter(adapter)
{
    CanopenMaster::registerMetaTypes();
}

CanScheduler::~CanScheduler()
{
    // Registered senders are not ours to delete here (their services hold
    // them); only those already retired by unregisterCan are freed.
    qDeleteAll(mRetired);
}

void CanScheduler::connectToAdapter(bool connect)
{
    if (connect) {
        // The adapter's thread may deliver a frame as soon as the connection
        // exists. Qt hands the connection over under a lock ThreadSanitizer
        // cannot see; tell it that the scheduler was complete before.
        tsanRelease(this);
        if (mAdapter)
            QObject::connect(mAdapter, &AbstractCanAdapter::newCanMessage, this,
                             &CanScheduler::newRawCanMessage,
                             Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
    } else {
        // Kept as it always was: this names the scheduler itself as sender,
        // so no connection from the adapter is removed and delivery goes on.
        QObject::disconnect(this, nullptr, this, SLOT(newRawCanMessage(CAN::CanRxMessage*)));
    }
}

CanSender* CanScheduler::registerCanId(quint32 id)
{
    auto* sender = new CanSender(id);
    std::lock_guard<CanMutex> guard(mLock);
    mReceivers.insert(sender);
    mIdentifiers.append(id);
    mByIdStale = true;
    return sender;
}

void CanScheduler::unregisterCan(CanSender* sender)
{
    bool deleteNow = true;
    {
        std::lock_guard<CanMutex> guard(mLock);
        if (!mReceivers.isEmpty() && mReceivers.remove(sender))
            mByIdStale = true;
        if (sender) {
            sender->mRetired.store(true, std::memory_order_release);
            // A walk running now may hold the sender in its snapshot: the
            // last walk to end deletes it instead (it never emits on it).
            if (mActiveWalks.load(std::memory_order_acquire) > 0) {
                deleteNow = false;
                mRetired.append(sender);
                mHaveRetired.store(true, std::memory_order_release);
            }
        }
    }
    if (sender && deleteNow)
        delete sender;
}

quint64 CanScheduler::currentDispatch(const CanScheduler* scheduler)
{
    return scheduler && currentMark.scheduler == scheduler ? currentMark.number : 0;
}

void CanScheduler::newRawCanMessage(CAN::CanRxMessage* pMessage)
{
    tsanAcquire(this); // see connectToAdapter
    const quint32 id = pMessage->message.id;
    // Never stall the receive loop behind a registering service: wait 2 ms at most.
    if (!mLock.tryLock(2)) {
        qDebug() << Q_FUNC_INFO << "1: Message Lost" << id;
        return;
    }
    if (!mIdentifiers.contains(id)) {
        mLock.unlock();
        return;
    }
    // Snapshot of the receivers for this identifier, in set order, taken
    // under the lock. (A copy of just these pointers rather than an implicitly
    // shared copy of the whole set: no container is shared across threads.)
    if (mByIdStale) {
        mById.clear();
        for (CanSender* sender : qAsConst(mReceivers))
            mById[sender->mId].push_back(sender);
        mByIdStale = false;
    }
    QVarLengthArray<CanSender*, 16> snapshot;
    const auto group = mById.find(id);
    if (group != mById.end())
        snapshot.append(group->second.data(), int(group->second.size()));
    mActiveWalks.fetch_add(1, std::memory_order_acq_rel);
    // Numbered under the lock: a registration (which takes it too) comes
    // before the first number, and with it the scheduler's construction.
    const quint64 number = mDispatched.fetch_add(1, std::memory_order_acq_rel) + 1;
    mLock.unlock();

    const DispatchScope scope(this, number);
    for (CanSender* sender : qAsConst(snapshot)) {
        // Unregistered after the snapshot was taken: stop here.
        if (sender->mRetired.load(std::memory_order_acquire)) {
            qDebug() << Q_FUNC_INFO << "2: Message Lost" << id;
            break;
        }
        Q_EMIT sender->received(*pMessage);
    }
    releaseWalk();
}

void CanScheduler::releaseWalk()
{
    if (mActiveWalks.fetch_sub(1, std::memory_order_acq_rel) != 1
        || !mHaveRetired.load(std::memory_order_acquire))
        return;
    QVector<CanSender*> doomed;
    {
        std::lock_guard<CanMutex> guard(mLock);
        if (mActiveWalks.load(std::memory_order_acquire) != 0)
            return; // a newer walk will free them
        doomed.swap(mRetired);
        mHaveRetired.store(false, std::memory_order_release);
    }
    qDeleteAll(doomed);
}
