#ifndef SDOEXPEDITEDCLIENT_H
#define SDOEXPEDITEDCLIENT_H

// Threads of the SDO engines (this class and its derived segmented and block
// engines):
//
// - Requests (read, write, abort, the block download's segment pacing and the
//   time-out check) run in the engine's own thread, the thread the object
//   lives in; so do its QTimer and every signal it emits.
// - Answers arrive by a direct connection from the dispatcher, that is in the
//   adapter's receive thread. They are handled there, under the engine's lock,
//   and the next segment or segment request of a segmented transfer, and the
//   start, confirmation and end frames of a block upload, go out from there at
//   once.
// - The engines of one node share its answer COB-ID and each gets every
//   frame of it, one after the other. A frame whose dispatch began before a
//   transfer started is no answer to it (CanScheduler::dispatchCount): the
//   frame that ends one engine's transfer may still be on its way to another
//   engine when the caller, woken by the outcome, starts that one.
// - All transfer state is guarded by one lock (Core::lock). Frames are written
//   while it is held, so that the wire sees them in state-machine order.
// - The time-out is a deadline: every frame sent or accepted moves the "last
//   activity" time; one QTimer in the engine's thread, armed when a transfer
//   starts, checks it when it fires and re-arms itself for the time that is
//   left. The receive thread never touches the timer.
// - Outcomes (resultReceived, errorReceived, progress and the block engine's
//   internal signals) are queued as notices under the lock and emitted in the
//   engine's thread: directly when the answer was handled in that thread,
//   otherwise by one queued invocation that also takes any further notices
//   queued meanwhile. The same invocation stops the timer once the transfer
//   has ended. Values handed over are fresh copies owned by the notice only.
//
// Wake-ups: an expedited read costs one wake-up of the engine's thread for
// the result, besides those of the adapter's thread to send and for the
// answer. The delivery is posted after the lock is released, so that the
// woken thread does not find the lock still held. A segment of a segmented
// transfer or of a block upload costs no hop: it is answered in the receive
// thread, whose adapter is awake and takes the frame without being woken.
// Only a changed progress value is handed to the engine's thread, by a
// queued call of which at most one is pending at a time (segments arriving
// meanwhile share it). A block download sends one segment per pass of the
// engine thread's event loop (a zero-interval timer, no posted event; the
// virtual bus sends it from this thread while option 26 is set) and costs
// one wake-up of the engine's thread per block (the confirmation).
//
// Lifetime: the receive path holds the lock and a shared core, not the engine;
// each engine's destructor first detaches the engine from its core, so that a
// frame still being dispatched never reaches a half-destroyed object. A class
// derived from an engine calls detachCore() first thing in its destructor.

#include "canmutex.h"
#include "canopenservice.h"

#include <QPointer>
#include <QVariant>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

class QTimer;

// Reads or writes one object dictionary entry of at most four bytes with one
// request and one answer (CiA 301 expedited SDO).
class CANOPENMASTER_EXPORT SDOExpeditedClient : public CANopenService
{
    Q_OBJECT
public:
    static constexpr quint32 DefaultTimeoutMs = 2000;
    static constexpr quint32 AbortTimeout = 0x05040000;  // SDO protocol timed out
    static constexpr quint32 AbortGeneral = 0x08000000;  // general error

    explicit SDOExpeditedClient(QObject* parent = nullptr);
    SDOExpeditedClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler,
                       QObject* parent = nullptr);
    ~SDOExpeditedClient() override;

    virtual CAN::RetType setCobIds(quint32 clientRxCobId, quint32 serverCobId);
    virtual CAN::RetType setCanScheduler(CanScheduler* scheduler);
    CAN::RetType setSdoTimeout(quint32 ms);
    quint32 getSdoTimeout() const;

    CAN::RetType read(quint16 idx, quint8 sub, CAN::CANopenDataType type);
    CAN::RetType write(quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value);
    // Local abort: ends the transfer, sends the abort frame when the code is
    // not 0 and reports errorReceived(index, sub, code). Returns 0.
    virtual CAN::RetType abort(quint32 abortCode);

    // True while a transfer of this engine runs.
    bool isBusy() const;
    quint32 getClientRxCobId() const;
    quint32 getServerCobId() const;

    // Frame building and value conversion (pure).
    static bool isExpeditedType(CAN::CANopenDataType type);
    // Command byte of an expedited download, 0 for a type that has none.
    static quint8 downloadCommand(CAN::CANopenDataType type);
    // The four data bytes of a download (little-endian value).
    static quint32 encodeValue(CAN::CANopenDataType type, const QVariant& value);
    // The value of an upload answer's bytes 4-7.
    static QVariant decodeValue(CAN::CANopenDataType type, quint32 raw);
    // An SDO frame: length 8, command, index, sub-index, 32-bit payload.
    static CAN::CanMessage sdoFrame(quint32 cobId, quint8 command, quint16 idx, quint8 sub, quint32 payload = 0);
    static CAN::CanMessage abortFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 code);
    static quint16 frameIndex(const CAN::CanMessage& frame);
    static quint32 framePayload(const CAN::CanMessage& frame);

Q_SIGNALS:
    void resultReceived(quint16 index, quint8 sub, QVariant value);
    void errorReceived(quint16 index, quint8 sub, quint32 errorCode);

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;
    void timeout();

protected:
    // Notices queued under the lock and emitted in the engine's thread.
    enum NoticeKind { NoticeResult, NoticeError, NoticeProgress, NoticeEngine };
    struct Notice {
        int kind = NoticeResult;
        quint16 index = 0;
        quint8 sub = 0;
        quint32 code = 0;  // abort code, percent or an engine's own argument
        QVariant value;    // result value, owned by the notice
    };
    struct Core {
        CanMutex lock;
        // Taken to post a delivery from another thread, after the lock was
        // released (so that the woken engine thread does not find it held),
        // and by detachCore.
        CanMutex postLock;
        SDOExpeditedClient* engine = nullptr; // null once the engine is being destroyed; written under both locks
    };

    CanMutex& lock() const { return mCore->lock; }
    void detachCore();

    // How the notices queued under the lock reach the engine's thread.
    enum class Delivery { None, Here, Post };

    // Run f under the lock, then emit what it queued: here when this is the
    // engine's thread, otherwise by one queued delivery.
    template <typename F>
    auto runLocked(F&& f) -> decltype(f())
    {
        using R = decltype(f());
        Delivery delivery = Delivery::None;
        if constexpr (std::is_void<R>::value) {
            {
                std::lock_guard<CanMutex> guard(mCore->lock);
                f();
                delivery = scheduleDeliveryLocked();
            }
            deliver(delivery);
        } else {
            R result;
            {
                std::lock_guard<CanMutex> guard(mCore->lock);
                result = f();
                delivery = scheduleDeliveryLocked();
            }
            deliver(delivery);
            return result;
        }
    }

    // Helpers for the state machines; all called with the lock held.
    CAN::RetType sendLocked(CAN::CanMessage frame);
    bool hasAdapterLocked() const;
    void setTransferOptionLocked(bool active);
    // A transfer starts: called before its first request is sent. Frames
    // whose dispatch began before this point are not answers to it.
    void beginTransferLocked();
    void superviseLocked(quint32 ms);  // start the time-out for a transfer
    // The time-out of a multi-frame transfer whose state is `state` (0 idle):
    // an abort frame with 0x05040000 and errorReceived, unless the transfer
    // was already aborted locally (direction 3), which just ends.
    void endTransferOnTimeoutLocked(quint32& state);
    void touchLocked();                // a frame went out or came in
    void stopTimerLocked();
    // Time-out of a multi-frame transfer: sdoTimeout, or the default when it is 0.
    quint32 multiFrameTimeoutLocked() const;
    void queueLocked(int kind, quint32 code = 0, QVariant value = QVariant());
    void queueResultLocked(QVariant value);
    void queueErrorLocked(quint32 code);
    void queueErrorLocked(quint16 idx, quint8 sub, quint32 code);
    bool inEngineThread() const;

    virtual bool transferRunningLocked() const;
    virtual void handleFrameLocked(const CAN::CanMessage& frame);
    virtual void expireLocked();
    // Emits an engine's own notice kinds (progress and the like).
    virtual void deliverNotice(const Notice& notice);

    // Fields, guarded by the lock.
    quint32 clientRxCobId = 0;
    quint32 serverCobId = 0;
    quint16 index = 0;
    quint8 subIndex = 0;
    quint32 sdoTimeout = DefaultTimeoutMs;
    CAN::CANopenDataType dataType = CAN::UNSIGNED32;
    QPointer<CanSender> canSender;
    QTimer* timer = nullptr;
    QVariant writeValue;
    quint32 busy = 0;
    quint32 direction = 0; // 0 idle, 1 upload, 2 download, 3 aborted

private Q_SLOTS:
    void checkDeadline();
    void deliverNotices();

private:
    static void frameArrived(const std::shared_ptr<Core>& core, const CAN::CanRxMessage& message);
    bool dispatchedBeforeStartLocked() const;
    void init();
    void registerReceiver();
    Delivery scheduleDeliveryLocked();
    void deliver(Delivery delivery); // by a caller that holds the engine alive
    void postDelivery();
    void startTimerForDeadline();
    void expeditedTimeoutLocked();

    std::shared_ptr<Core> mCore;
    std::vector<Notice> mNotices;     // guarded by the lock
    bool mDeliveryPosted = false;     // guarded by the lock
    bool mDelivering = false;         // engine's thread only
    qint64 mLastActivityNs = 0;       // guarded by the lock
    quint64 mStartDispatch = 0;       // guarded by the lock; see beginTransferLocked
    quint32 mDeadlineMs = 0;          // guarded by the lock; 0: no time-out running
};

#endif
