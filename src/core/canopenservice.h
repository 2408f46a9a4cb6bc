#ifndef CANOPENSERVICE_H
#define CANOPENSERVICE_H

#include "canopenmaster_global.h"
#include "canscheduler.h"
#include "cansender.h"
#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <atomic>

class AbstractCanAdapter;

// Common base of the CANopen services: the guarded link to a scheduler and
// the process-wide switch between classic CANopen and CANopen FD.
class CANOPENMASTER_EXPORT CANopenService : public QObject
{
    Q_OBJECT
public:
    explicit CANopenService(QObject* parent = nullptr);

    static void activateCANopenFD(bool on);
    // Process-wide; atomic because the SYNC timer thread and the cyclic
    // transmitter read it while the application may switch it.
    static std::atomic<bool> mUseCANopenFD;

    CanScheduler* canScheduler() const { return mScheduler.data(); }

public Q_SLOTS:
    // Frames of the service's registration arrive here (see registerReceiver).
    virtual void newCanMessageReceived(CAN::CanRxMessage message);

protected:
    // The adapter behind the scheduler, or null when either is gone.
    AbstractCanAdapter* adapter() const;
    // True when the adapter is a CiA 309-3 gateway (option 35).
    bool onGateway() const;
    // The common scheduler pattern: unregister the old receiver, store the new
    // scheduler and, if it is not null, register `id` and connect the sender's
    // received() to newCanMessageReceived() with the given connection type.
    CAN::RetType attachScheduler(CanScheduler* scheduler, quint32 id, QPointer<CanSender>& receiver,
                                 Qt::ConnectionType type = Qt::AutoConnection);
    // Re-register `id` on the present scheduler (node ID or COB-ID change).
    CAN::RetType reregister(quint32 id, QPointer<CanSender>& receiver,
                            Qt::ConnectionType type = Qt::AutoConnection);
    void releaseReceiver(QPointer<CanSender>& receiver);
    // The common sending pattern: 5 without scheduler or adapter, else write().
    CAN::RetType writeFrame(CAN::CanMessage& message) const;

    QPointer<CanScheduler> mScheduler;
};

#endif
