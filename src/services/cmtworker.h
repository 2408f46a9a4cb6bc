#ifndef CMTWORKER_H
#define CMTWORKER_H

#include "abstractcanadapter.h"
#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <atomic>
#include <condition_variable>
#include <mutex>

// The sending loop of CanMessageTransmitter. doWork() runs in the
// transmitter's thread and blocks it while sending; the setters are called
// from the owner's thread while the loop runs, so every field is guarded.
class CANOPENMASTER_EXPORT CMTWorker : public QObject
{
    Q_OBJECT
public:
    explicit CMTWorker(QObject* parent = nullptr);

    void setFrame(const CAN::CanMessage& frame);
    CAN::CanMessage frame() const;
    void setInterval(unsigned int ms);
    unsigned int interval() const { return mInterval.load(); }
    void setRepeat(unsigned int repeat) { mRepeat.store(repeat); }
    unsigned int repeat() const { return mRepeat.load(); }
    void setAdapter(AbstractCanAdapter* adapter);

    bool isRunning() const { return mRunning.load(); }
    // Announces a doWork() call queued by the owner (see stop()).
    void requestStart();
    // Clears running and cuts the present pause short: the loop ends
    // without a further frame. Starts still queued are cancelled too, so
    // that a stop always stops (a queued doWork() then returns at once).
    void stop();
    // Ends this doWork() and refuses any later one (the owner is going away).
    void quit();

public Q_SLOTS:
    void doWork();

private:
    std::atomic<bool> mRunning{false};
    std::atomic<unsigned int> mInterval{0}; // pause after each frame, ms
    CAN::CanMessage mFrame;                 // guarded by mLock
    QPointer<AbstractCanAdapter> mAdapter;  // guarded by mLock
    // Stored for the application; the loop sends until stopped whatever it says.
    std::atomic<unsigned int> mRepeat{0};
    std::atomic<bool> mQuit{false};
    int mPendingStarts = 0;                 // queued doWork() calls, guarded by mLock
    int mCancelledStarts = 0;               // of those, cancelled by stop(), guarded by mLock
    mutable std::mutex mLock;
    std::condition_variable mWake;
};

#endif
