#ifndef SYNCPRODUCER_H
#define SYNCPRODUCER_H

#include "canopenservice.h"
#include "cantypes.h"

#include <QPointer>
#include <atomic>
#include <mutex>

class CanScheduler;
class TimerThread;

// CANopen SYNC producer. The period comes from a TimerThread of its own, and
// the periodic frames are written (and syncEvent() emitted) from that thread,
// so the SYNC rate does not depend on the application's event loop.
// When the scheduler or its adapter is deleted, frames are no longer sent
// (oneSync and start return 5).
class CANOPENMASTER_EXPORT SYNCProducer : public CANopenService
{
    Q_OBJECT
public:
    explicit SYNCProducer(QObject* parent = nullptr);
    SYNCProducer(unsigned int cobId, CanScheduler* scheduler, QObject* parent = nullptr);
    SYNCProducer(unsigned int cobId, unsigned int intervalUs, CanScheduler* scheduler, QObject* parent = nullptr);
    SYNCProducer(unsigned int cobId, unsigned int intervalUs, unsigned char overflow, CanScheduler* scheduler,
                 QObject* parent = nullptr);
    ~SYNCProducer() override;

    CAN::RetType setCanScheduler(CanScheduler* scheduler);
    CAN::RetType setCobId(unsigned int cobId);
    // Period in microseconds; the timer runs in whole milliseconds (us / 1000).
    CAN::RetType setSyncInterval(unsigned int us);
    // Counter overflow value: 0 switches the counter byte off, 1..255 on.
    CAN::RetType setSyncCounter(unsigned char overflow);
    CAN::RetType setCounterFlag(bool on);

    CAN::RetType start();
    CAN::RetType stop();
    CAN::RetType oneSync();

    unsigned int cobId() const { return mCobId.load(); }
    unsigned int syncInterval() const { return mInterval.load(); }

    // Next counter value from the present one (counter byte rule of SYNC):
    // 1, 2, ..., overflow, 1, ...; with overflow 0 always 1.
    static quint8 nextCounter(quint8 counter, quint8 overflow);

public Q_SLOTS:
    void timerElapsed();

Q_SIGNALS:
    void syncEvent();

protected:
    void initValues();
    // Advances the counter into the prepared frame and returns a copy of it.
    CAN::CanMessage buildNextSyncMessage();

private:
    std::atomic<unsigned int> mCobId{0x80};
    std::atomic<unsigned int> mInterval{0}; // us
    // The prepared frame, the counter and its settings are used by the
    // caller's thread and the timer thread alike.
    std::mutex mFrameLock;
    quint8 mCounter = 0;
    quint8 mOverflow = 0;
    CAN::CanMessage mFrame;
    bool mCounterFlag = false;
    QPointer<TimerThread> mTimer;
    // The scheduler the timer thread writes through, guarded by mSendLock
    // (held while a frame is written): cleared when the scheduler goes.
    std::mutex mSendLock;
    CanScheduler* mSyncScheduler = nullptr;
};

#endif
