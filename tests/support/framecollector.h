#ifndef FRAMECOLLECTOR_H
#define FRAMECOLLECTOR_H

#include "abstractcanadapter.h"
#include "canmutex.h"

#include <QObject>
#include <QString>
#include <QVector>

// Keeps every frame an adapter emits. Connected directly, as the dispatcher
// is, so it copies each record in the adapter's thread while the pointer is
// valid; the test thread reads the copies under the lock.
class FrameCollector : public QObject
{
public:
    explicit FrameCollector(AbstractCanAdapter* adapter, QObject* parent = nullptr);

    QVector<CAN::CanRxMessage> frames() const;
    // Frames with this identifier only, in arrival order.
    QVector<CAN::CanRxMessage> frames(quint32 id) const;
    int count() const;
    // The first frame with this identifier, and whether there is one.
    bool find(quint32 id, CAN::CanRxMessage* out = nullptr) const;
    void clear();
    // Every field of a frame in one line, for comparisons in tests:
    // "123 ext rtr fd brs esi [12] 000102..." (flags only when set).
    static QString describe(const CAN::CanMessage& m);

private:
    mutable CanMutex mLock;
    QVector<CAN::CanRxMessage> mFrames;
};

#endif
