#ifndef DEMOCANADAPTER_H
#define DEMOCANADAPTER_H

#include "abstractcanadapter.h"
#include "canmutex.h"

#include <QHostAddress>
#include <QPointer>
#include <QStringList>
#include <QVector>
#include <atomic>
#include <deque>

class QTimer;
class QUdpSocket;

// The virtual bus: every instance on the host, in any process, exchanges
// frames as 76-byte UDP datagrams sent to 127.255.255.255 on one port.
class CANOPENMASTER_EXPORT DemoCanAdapter : public AbstractCanAdapter
{
    Q_OBJECT
public:
    static constexpr quint16 DefaultPort = 45674;
    // Environment variable that moves the bus of every new instance to
    // another UDP port (tests and demos use it to stay off each other's bus).
    static constexpr const char* PortEnvironmentVariable = "CANOPEN_VBUS_PORT";

    explicit DemoCanAdapter(const QString& interfaceName, QObject* parent = nullptr);
    ~DemoCanAdapter() override;

    CAN::RetType open() override;
    void close() override;
    CAN::RetType setBitrate(quint16 kbit) override;
    CAN::RetType setEcho(bool echo) override;
    CAN::RetType clearTxQueue() override { return CAN::Ok; }
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override { return 0; }
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override { return CAN::Ok; }
    CAN::CanState getState() override { return CAN::Stopped; }
    bool setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value) override;
    QVariant getCanAdapterOption(AbstractCanAdapter::AdapterOption option) override;

    QString interfaceName() const { return mInterfaceName; }
    quint16 busPort() const { return mPort.load(); }

    // Static answers for the adapter factory.
    static QStringList getInterfaceList();
    static bool isInterfaceFd(const QString& interfaceName);

    // Fill a received record from a datagram as the receive step does; pure,
    // for tests. `size` may be anything; at most 76 bytes are looked at.
    static void decodeDatagram(const char* datagram, qint64 size, CAN::CanRxMessage& out);

public Q_SLOTS:
    void timeout();
    CAN::RetType write(CAN::CanMessage* pMessage) override;
    void readPendingDatagrams();

protected:
    void run() override;

private:
    bool transmitStep();
    bool spinForWork(struct pollfd* fds);
    bool sendLocked(CAN::CanMessage msg);
    bool receivePendingLocked() const;
    CAN::CanTimeStamp stamp() const;
    void wake();
    void stopLoop();

    QString mInterfaceName;
    quint16 mOwnBitrate = 0;
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mEcho{false};
    QPointer<QTimer> mTimer;
    QUdpSocket* mTxSocket = nullptr;  // adapter thread only
    QUdpSocket* mRxSocket = nullptr;  // adapter thread only
    QHostAddress mBusAddress;
    qint64 mStartSeconds = 0;
    QVector<CAN::CanRxMessage> mEchoQueue; // adapter thread only
    std::deque<CAN::CanMessage> mTxQueue;  // guarded by mLock
    CanMutex mLock;
    // The running loop's sockets and where it sends, for sending from any
    // thread under mLock; -1 while no loop runs. (guarded by mLock)
    int mTxFd = -1;
    int mRxFd = -1;
    quint32 mBusIp = 0;
    quint16 mTxPort = 0;
    std::atomic<quint16> mPort{DefaultPort};
    quint16 mActivePort = DefaultPort;     // port of the running loop
    quint16 mTxLocalPort = 0;
    int mWakeFd = -1;                      // eventfd: a frame was queued or close() was called
    std::atomic<bool> mSleeping{false};
    quint64 mSent = 0; // frames sent by the loop (adapter thread only)
    std::atomic<bool> mStreaming{false}; // option 26: an SDO transfer of many frames runs
};

#endif
