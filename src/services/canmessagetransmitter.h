#ifndef CANMESSAGETRANSMITTER_H
#define CANMESSAGETRANSMITTER_H

#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <QThread>

class CanScheduler;
class CMTWorker;

// Sends one fixed raw frame again and again with a pause of `interval` ms
// after each frame. The loop runs in a CMTWorker in a thread of its own at
// the highest priority; every call here acts on the worker directly.
class CANOPENMASTER_EXPORT CanMessageTransmitter : public QObject
{
    Q_OBJECT
public:
    explicit CanMessageTransmitter(QObject* parent = nullptr);
    // Ends a running loop (its pause is cut short) and joins the thread.
    ~CanMessageTransmitter() override;

    // The frames go to the scheduler's adapter; a null scheduler leaves the
    // worker without adapter (a later start sends nothing).
    void setCanScheduler(QPointer<CanScheduler> scheduler);
    // Callers stop the transmission before changing the frame.
    void setTranmissionParameter(CAN::CanMessage message, unsigned int interval, unsigned int repeat);
    void updateInterval(unsigned int ms);
    void startTransmission();
    // The loop ends at once, without a further frame.
    void stopTransmission();
    bool isRunning() const;

Q_SIGNALS:
    void operate();

private:
    QPointer<CMTWorker> mWorker;
    QThread mThread;
};

#endif
