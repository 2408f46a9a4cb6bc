#ifndef FRAMECOLLECTOR_H
#define FRAMECOLLECTOR_H

#include "abstractcanadapter.h"
#include "canmutex.h"

#include <QObject>
#include <QVector>

// Collects the frames an adapter announces, in the adapter's own thread
// (a direct connection, as the dispatcher has), and hands copies to the
// test thread under a lock. QSignalSpy cannot do this safely: it appends
// in the emitting thread without a lock.
class FrameCollector : public QObject
{
    Q_OBJECT
public:
    explicit FrameCollector(AbstractCanAdapter* adapter, QObject* parent = nullptr);

    QVector<CAN::CanRxMessage> frames() const;
    int count() const;
    void clear();

public Q_SLOTS:
    void take(CAN::CanRxMessage* frame);

private:
    mutable CanMutex mLock;
    QVector<CAN::CanRxMessage> mFrames;
};

#endif
