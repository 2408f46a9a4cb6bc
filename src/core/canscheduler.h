#ifndef CANSCHEDULER_H
#define CANSCHEDULER_H

#include "canmutex.h"
#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <QSet>
#include <QVector>
#include <atomic>
#include <memory>
#include <unordered_map>
#include <vector>

class AbstractCanAdapter;
class CanSender;

// Fans the frames of one adapter out to the CanSender registered for each
// identifier. Dispatch runs in the adapter's receive thread.
//
// Teardown: the scheduler and its adapter may be deleted in either order
// while frames arrive. The destructor detaches from the adapter and waits for
// dispatches running in other threads; a dispatch in the deleting thread (a
// receiver deleting the scheduler from its slot) stops touching it once the
// slot returns. When the adapter goes first, canAdapter() becomes null.
class CANOPENMASTER_EXPORT CanScheduler : public QObject
{
    Q_OBJECT
public:
    explicit CanScheduler(AbstractCanAdapter* adapter);
    ~CanScheduler() override;

    AbstractCanAdapter* canAdapter() const { return mAdapter.load(std::memory_order_acquire); }
    // Writes a frame to the adapter; 5 (error) once it is gone. For threads
    // other than the one that deletes the adapter: its deletion waits for a
    // write in progress here.
    CAN::RetType write(CAN::CanMessage* frame);
    void connectToAdapter(bool connect);
    CanSender* registerCanId(quint32 id);
    void unregisterCan(CanSender* sender);

    // Every received frame with a registered identifier gets a number,
    // counting from 1, when its dispatch begins. A receiver that starts a
    // request while a frame is still being handed to the receivers one after
    // the other (from another thread, or from a receiver's slot) can tell
    // that frame from the answers to its request: their numbers are higher
    // than dispatchCount() read before the request was sent.
    quint64 dispatchCount() const { return mDispatched.load(std::memory_order_acquire); }
    // The number of the frame `scheduler` is dispatching in the calling
    // thread right now; 0 outside a dispatch of that scheduler.
    static quint64 currentDispatch(const CanScheduler* scheduler);

Q_SIGNALS:
    // Emitted first thing in the destructor, in the deleting thread: users
    // that reach the scheduler from other threads let go of it here (connect
    // directly).
    void aboutToBeDestroyed();

public Q_SLOTS:
    void newRawCanMessage(CAN::CanRxMessage* pMessage);

private:
    struct Link;
    struct Scope;
    struct Entry;
    static thread_local Scope* topScope; // innermost dispatch of this thread
    static void enter(Link& link, CAN::CanRxMessage* pMessage);
    void dispatch(CAN::CanRxMessage* pMessage, Scope& scope);
    void releaseWalk();
    void adapterGone();

    std::atomic<AbstractCanAdapter*> mAdapter;
    CanMutex mWriteLock; // held by write() and while the adapter is dropped
    // The adapter's connection enters through the link, which outlives the
    // scheduler: a frame delivered after the destructor finds no scheduler.
    std::shared_ptr<Link> mLink;
    QMetaObject::Connection mConnection;
    QSet<CanSender*> mReceivers;   // owned, guarded by mLock
    CanMutex mLock;
    QVector<quint32> mIdentifiers; // one entry per registration, never shrinks
    // The receivers grouped by identifier, each group in the set's order:
    // dispatch looks up one group instead of walking every receiver. Rebuilt
    // from mReceivers by the first dispatch after a registration change
    // (guarded by mLock).
    std::unordered_map<quint32, std::vector<CanSender*>> mById;
    bool mByIdStale = true;
    // Senders unregistered while a dispatch walk may still hold them in its
    // snapshot are deleted once the last such walk has ended (guarded by mLock).
    std::atomic<int> mActiveWalks{0};
    std::atomic<bool> mHaveRetired{false};
    QVector<CanSender*> mRetired;
    std::atomic<quint64> mDispatched{0};
};

#endif
