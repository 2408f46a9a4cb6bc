#ifndef CANSCHEDULER_H
#define CANSCHEDULER_H

#include "canmutex.h"
#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <QSet>
#include <QVector>
#include <atomic>
#include <unordered_map>
#include <vector>

class AbstractCanAdapter;
class CanSender;

// Fans the frames of one adapter out to the CanSender registered for each
// identifier. Dispatch runs in the adapter's receive thread.
class CANOPENMASTER_EXPORT CanScheduler : public QObject
{
    Q_OBJECT
public:
    explicit CanScheduler(AbstractCanAdapter* adapter);
    ~CanScheduler() override;

    AbstractCanAdapter* canAdapter() const { return mAdapter; }
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

public Q_SLOTS:
    void newRawCanMessage(CAN::CanRxMessage* pMessage);

private:
    void releaseWalk();

    AbstractCanAdapter* mAdapter;
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
