#ifndef CANSENDER_H
#define CANSENDER_H

#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <atomic>

// Handed out by CanScheduler::registerCanId(): emits every received frame
// carrying its identifier. Services connect received() to their own slot.
class CANOPENMASTER_EXPORT CanSender : public QObject
{
    Q_OBJECT
public:
    explicit CanSender(quint32 id, QObject* parent = nullptr);
    quint32 canId() const { return mId; }

Q_SIGNALS:
    void received(CAN::CanRxMessage message);
    void received(quint16 id);

private:
    friend class CanScheduler;
    const quint32 mId;
    // Set when unregistered: a dispatch walk that still holds this sender in
    // its snapshot stops here instead of delivering.
    std::atomic<bool> mRetired{false};
};

#endif
