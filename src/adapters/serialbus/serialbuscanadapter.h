#ifndef SERIALBUSCANADAPTER_H
#define SERIALBUSCANADAPTER_H

#include "abstractcanadapter.h"
#include "canmutex.h"

#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

class QCanBusDevice;
class QCanBusFrame;

// A CAN interface reached through Qt's CAN bus plugins (QtSerialBus):
// SocketCAN (nearly every interface on Linux, through its kernel driver),
// PEAK's PCAN-Basic library, Qt's virtualcan, ... The QCanBusDevice lives in
// the adapter's own thread, as Qt's CAN devices are not thread-safe; write()
// from any thread queues the frame (at most TxQueueLimit, then 6) and the
// adapter's thread sends the queue in order. Received frames are reported
// by newCanMessage in the adapter's thread, with the device's time stamps;
// error frames and bus states become newCanState.
class CANOPENMASTER_EXPORT SerialBusCanAdapter : public AbstractCanAdapter
{
    Q_OBJECT
public:
    static constexpr int TxQueueLimit = 4096;
    static constexpr int OpenTimeoutMs = 5000;

    SerialBusCanAdapter(const QString& plugin, const QString& interfaceName, QObject* parent = nullptr);
    ~SerialBusCanAdapter() override;

    // Creates, configures and connects the device in the adapter's thread;
    // on any failure nothing stays open and errorString() says why.
    CAN::RetType open() override;
    void close() override;
    CAN::RetType setBitrate(quint16 kbit) override;
    CAN::RetType setDataBitrate(quint16 kbit) override;
    CAN::RetType setEcho(bool echo) override;
    CAN::RetType clearTxQueue() override;
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override;
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override;
    CAN::CanState getState() override { return CAN::CanState(mState.load()); }
    bool setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value) override;
    QVariant getCanAdapterOption(AbstractCanAdapter::AdapterOption option) override;

    QString plugin() const { return mPlugin; }
    QString interfaceName() const { return mInterfaceName; }
    // Why the last open() failed, or the device's last error.
    QString errorString() const;

    // Plugin names QtSerialBus offers here, and the interfaces a plugin sees.
    static QStringList plugins();
    static QStringList interfaces(const QString& plugin);

    // Frame conversion both ways (pure, for tests).
    static QCanBusFrame toQt(const CAN::CanMessage& m);
    static CAN::CanRxMessage fromQt(const QCanBusFrame& f, bool useSystemTime);

public Q_SLOTS:
    CAN::RetType write(CAN::CanMessage* pMessage) override;

protected:
    void run() override;

private:
    bool openDevice(); // adapter thread
    void flush();      // adapter thread: sends the queue
    void receive();    // adapter thread
    void setState(CAN::CanState state);
    void fail(const QString& why);

    const QString mPlugin;
    const QString mInterfaceName;
    std::atomic<quint16> mDataBitrate{0};
    std::atomic<bool> mEcho{false};
    std::atomic<qint32> mState{CAN::Closed};
    QCanBusDevice* mDevice = nullptr; // adapter thread only
    bool mWroteFrames = false;        // adapter thread only
    QObject* mPump = nullptr;         // lives in the adapter thread; runs flush() (guarded by mLock)
    std::atomic<bool> mFlushPosted{false};
    std::deque<CAN::CanMessage> mTxQueue; // guarded by mLock
    mutable CanMutex mLock;
    QString mError; // guarded by mLock
    // open() waits for the thread's verdict.
    std::mutex mOpenLock;
    std::condition_variable mOpenDone;
    int mOpenResult = -1; // -1 pending, 0 open, 1 failed (guarded by mOpenLock)
};

#endif
