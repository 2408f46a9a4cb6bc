#ifndef FRAMECOLLECTOR_H
#define FRAMECOLLECTOR_H

#include "canmutex.h"
#include "cantypes.h"

#include <QObject>
#include <QVector>

class AbstractCanAdapter;

// Collects every frame an adapter emits, in the adapter's receive thread
// (a direct connection, as the dispatcher uses), for the test thread to
// inspect under a lock.
class FrameCollector : public QObject
{
    Q_OBJECT
public:
    explicit FrameCollector(AbstractCanAdapter* adapter, QObject* parent = nullptr);

    QVector<CAN::CanRxMessage> frames() const;
    // Frames with this identifier only, in arrival order.
    QVector<CAN::CanRxMessage> frames(quint32 id) const;
    int count() const;
    int count(quint32 id) const;
    void clear();

public Q_SLOTS:
    void take(CAN::CanRxMessage* frame);

private:
    mutable CanMutex mLock;
    QVector<CAN::CanRxMessage> mFrames;
};

#endif
