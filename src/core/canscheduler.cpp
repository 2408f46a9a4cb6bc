#include "canscheduler.h"
#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "cansender.h"

#include <QDebug>
#include <QThread>
#include <QVarLengthArray>
#include <mutex>

// Entry of the adapter's connection. `active` counts the dispatches that got
// in; a dispatch counts itself before it looks at `scheduler`, the destructor
// clears `scheduler` before it looks at `active` (both sequentially consistent),
// so either the dispatch sees no scheduler or the destructor sees the dispatch.
struct CanScheduler::Link {
    std::atomic<CanScheduler*> scheduler{nullptr};
    std::atomic<int> active{0};
};

// One dispatch running in this thread. Receivers may inject frames of their
// own, so dispatches can nest: the scopes form a chain through `previous`.
struct CanScheduler::Scope {
    Scope(const CanScheduler* s, bool viaLink);
    ~Scope();
    const CanScheduler* scheduler;
    quint64 number = 0;
    const bool viaLink; // counted in Link::active
    bool gone = false;  // the scheduler was deleted by a receiver meanwhile
    Scope* const previous;
};

thread_local CanScheduler::Scope* CanScheduler::topScope = nullptr;

// The connection's functor; it holds the link. Each copy tells ThreadSanitizer
// that it is complete (Qt publishes it under a lock it cannot see), and the
// call takes that over before the link is read.
struct CanScheduler::Entry {
    explicit Entry(std::shared_ptr<Link> l)
        : link(std::move(l))
    {
        tsanRelease(this);
    }
    Entry(const Entry& other)
        : link(other.link)
    {
        tsanRelease(this);
    }
    void operator()(CAN::CanRxMessage* message) const
    {
        tsanAcquire(const_cast<Entry*>(this));
        enter(*link, message);
    }
    std::shared_ptr<Link> link;
};

namespace {
// Debug lines keep the name the dispatch has always had.
constexpr const char* DispatchName = "void CanScheduler::newRawCanMessage(CAN::CanRxMessage*)";
} // namespace

CanScheduler::Scope::Scope(const CanScheduler* s, bool link)
    : scheduler(s)
    , viaLink(link)
    , previous(topScope)
{
    topScope = this;
}

CanScheduler::Scope::~Scope() { topScope = previous; }

CanScheduler::CanScheduler(AbstractCanAdapter* adapter)
    : QObject(nullptr)
    , mAdapter(adapter)
    , mLink(std::make_shared<Link>())
{
    CanopenMaster::registerMetaTypes();
    mLink->scheduler.store(this);
    if (adapter && adapter->lifeToken()) // the token ends before the adapter is torn down
        connect(adapter->lifeToken(), &QObject::destroyed, this, &CanScheduler::adapterGone, Qt::DirectConnection);
}

CanScheduler::~CanScheduler()
{
    Q_EMIT aboutToBeDestroyed();
    QObject::disconnect(mConnection);
    // Dispatches of this thread (we are inside a receiver's slot) cannot be
    // waited for: they learn that the scheduler is gone when the slot returns.
    int own = 0;
    for (Scope* scope = topScope; scope; scope = scope->previous) {
        if (scope->scheduler == this) {
            scope->gone = true;
            own += scope->viaLink ? 1 : 0;
        }
    }
    mLink->scheduler.store(nullptr);
    while (mLink->active.load() > own)
        QThread::usleep(20); // a dispatch in the adapter's thread is finishing
    // Registered senders are not ours to delete here (their services hold
    // them); only those already retired by unregisterCan are freed.
    qDeleteAll(mRetired);
}

void CanScheduler::adapterGone()
{
    std::lock_guard<CanMutex> guard(mWriteLock); // a write() in progress ends first
    mAdapter.store(nullptr, std::memory_order_release);
}

CAN::RetType CanScheduler::write(CAN::CanMessage* frame)
{
    std::lock_guard<CanMutex> guard(mWriteLock);
    AbstractCanAdapter* adapter = mAdapter.load(std::memory_order_acquire);
    return adapter ? adapter->write(frame) : CAN::Error;
}

void CanScheduler::connectToAdapter(bool connect)
{
    AbstractCanAdapter* adapter = canAdapter();
    if (connect) {
        // The adapter's thread may deliver a frame as soon as the connection
        // exists. Qt hands the connection over under a lock ThreadSanitizer
        // cannot see; tell it that the scheduler was complete before.
        tsanRelease(this);
        if (adapter && !mConnection)
            mConnection = QObject::connect(adapter, &AbstractCanAdapter::newCanMessage, Entry{mLink});
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
    return scheduler && topScope && topScope->scheduler == scheduler ? topScope->number : 0;
}

void CanScheduler::enter(Link& link, CAN::CanRxMessage* pMessage)
{
    link.active.fetch_add(1);
    if (CanScheduler* scheduler = link.scheduler.load()) {
        Scope scope(scheduler, true);
        scheduler->dispatch(pMessage, scope);
    }
    link.active.fetch_sub(1);
}

void CanScheduler::newRawCanMessage(CAN::CanRxMessage* pMessage)
{
    Scope scope(this, false);
    dispatch(pMessage, scope);
}

void CanScheduler::dispatch(CAN::CanRxMessage* pMessage, Scope& scope)
{
    tsanAcquire(this); // see connectToAdapter
    const quint32 id = pMessage->message.id;
    // Never stall the receive loop behind a registering service: wait 2 ms at most.
    if (!mLock.tryLock(2)) {
        qDebug() << DispatchName << "1: Message Lost" << id;
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
    scope.number = mDispatched.fetch_add(1, std::memory_order_acq_rel) + 1;
    mLock.unlock();

    for (CanSender* sender : qAsConst(snapshot)) {
        // Unregistered after the snapshot was taken: stop here.
        if (sender->mRetired.load(std::memory_order_acquire)) {
            qDebug() << DispatchName << "2: Message Lost" << id;
            break;
        }
        Q_EMIT sender->received(*pMessage);
        if (scope.gone)
            return; // a receiver deleted the scheduler: touch nothing of it
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
