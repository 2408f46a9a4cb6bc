#ifndef SIMDEVICE_H
#define SIMDEVICE_H

#include "abstractcanadapter.h"
#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <atomic>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

// A CANopen device on the virtual bus, for demos and end-to-end tests.
// Received frames are handled in the adapter's receive thread (a direct
// connection), so an answer goes out without any extra thread hop; the
// device's timers (heartbeat, ...) run in the thread that owns the object.
// Device services plug in as frame handlers.
class SimDevice : public QObject
{
    Q_OBJECT
public:
    // NMT states as coded in heartbeat and boot-up frames.
    enum NmtState : quint8 { Initialising = 0x00, Stopped = 0x04, Operational = 0x05, PreOperational = 0x7F };
    Q_ENUM(NmtState)

    // A handler returns true when it consumed the frame. Handlers run in the
    // adapter's receive thread, one frame at a time, in registration order.
    using FrameHandler = std::function<bool(const CAN::CanRxMessage&)>;

    SimDevice(quint8 nodeId, AbstractCanAdapter* adapter, QObject* parent = nullptr);
    ~SimDevice() override;

    quint8 nodeId() const { return mNodeId.load(); }
    // A new node-ID (LSS); 255 means none: the device then ignores every
    // frame and sends nothing until it gets one and is started again.
    void setNodeId(quint8 nodeId) { mNodeId.store(nodeId); }
    bool isConfigured() const { return mNodeId.load() != Unconfigured; }
    static constexpr quint8 Unconfigured = 0xFF;
    AbstractCanAdapter* adapter() const { return mAdapter; }

    // Sends the boot-up frame, enters pre-operational and starts the heartbeat
    // (without a node-ID: stops the heartbeat and stays initialising).
    void start();
    // Heartbeat producer time in ms (0: off). Thread-safe.
    void setHeartbeatTime(quint16 ms);
    quint16 heartbeatTime() const { return mHeartbeatMs.load(); }

    NmtState nmtState() const { return NmtState(mState.load()); }
    void setNmtState(NmtState state);

    // Write one frame to the bus (any thread).
    CAN::RetType send(const CAN::CanMessage& frame);
    CAN::RetType send(quint32 id, const QByteArray& data);

    // Returns a handle for removeHandler(). A component that goes away
    // before the device removes its handler; removeHandler() waits for a
    // frame being handled (so it must not be called from a handler).
    int addHandler(FrameHandler handler);
    void removeHandler(int handle);

Q_SIGNALS:
    void nmtStateChanged(SimDevice::NmtState state);
    void heartbeatTimeChanged(quint16 ms); // internal: moves timer changes into the owner's thread

private Q_SLOTS:
    void sendHeartbeat();
    void applyHeartbeatTime(quint16 ms);

private:
    void onFrame(CAN::CanRxMessage* frame);

    std::atomic<quint8> mNodeId;
    QPointer<AbstractCanAdapter> mAdapter;
    std::atomic<quint8> mState{Initialising};
    std::atomic<quint16> mHeartbeatMs{1000};
    QTimer mHeartbeatTimer;
    std::mutex mHandlersLock;
    std::vector<std::pair<int, FrameHandler>> mHandlers;
    int mNextHandle = 1;
};

#endif
