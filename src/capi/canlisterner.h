#ifndef CANLISTERNER_H
#define CANLISTERNER_H

#include "canmutex.h"
#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <deque>

// Receive queue of one C-interface handle: filled in the adapter's thread,
// drained by the host's thread.
class CANOPENMASTER_EXPORT CANListerner : public QObject
{
    Q_OBJECT
public:
    explicit CANListerner(QObject* parent = nullptr);

    // Takes the oldest frame into `out` (if given a frame to take). Returns
    // the number of frames that were waiting before the call.
    int take(CAN::CanMessage* out, bool* taken);
    int count();

public Q_SLOTS:
    void canMessageReceived(CAN::CanRxMessage* message);

private:
    CanMutex mLock;
    std::deque<CAN::CanMessage> mQueue; // unbounded, first in first out
};

#endif
