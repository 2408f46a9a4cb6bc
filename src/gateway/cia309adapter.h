#ifndef CIA309ADAPTER_H
#define CIA309ADAPTER_H

#include "abstractcanadapter.h"

#include <QAbstractSocket>
#include <QPointer>
#include <QStringList>
#include <condition_variable>
#include <deque>
#include <mutex>

class QTcpSocket;
class QTimer;

// Adapter for a CANopen gateway reached over TCP that speaks the CiA 309-3
// ASCII command language. It carries no CAN frames: services ask option 35
// and send text command lines instead. Each request line is
// "[<sequence>] <command>\n"; the sequence number runs 0..32767 per adapter.
// Response text is relayed in whole lines: each newCiA309Response carries
// the lines completed by one read (several lines or one); a last line
// without line end follows once the peer has been quiet for TailQuietMs.
// Receivers split the text into lines and match the sequence numbers
// themselves.
//
// The socket lives in the thread that created the adapter; open() and close()
// are called there. Requests may come from any thread: they are carried out
// in the socket's thread (which must run its event loop) while the caller
// waits, so the adapter must outlive every call in progress.
class CANOPENMASTER_EXPORT CiA309Adapter : public AbstractCanAdapter
{
    Q_OBJECT
public:
    static constexpr int ConnectTimeoutMs = 30000;
    static constexpr qint16 MaxSequenceNumber = 32767;
    static constexpr int TailQuietMs = 200;
    // A domain upload can come as one long base64 line; anything longer is
    // dropped up to its line end.
    static constexpr int MaxLineBytes = 1 << 20;

    explicit CiA309Adapter(const QString& interfaceName, QObject* parent = nullptr);
    ~CiA309Adapter() override;

    CAN::RetType open() override;
    CAN::RetType sendCiA309Command(const QString& command) override;
    CAN::RetType sendCiA309Request(const QString& request, qint16& sequenceNumber) override;
    CAN::RetType setBitrate(quint16 kbit) override;
    CAN::RetType clearTxQueue() override { return CAN::Ok; }
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override { return 0; }
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override { return CAN::Ok; }
    CAN::CanState getState() override { return CAN::Stopped; }
    CAN::RetType setEcho(bool) override { return CAN::Ok; }
    void close() override;
    bool setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value) override;
    QVariant getCanAdapterOption(AbstractCanAdapter::AdapterOption option) override;

    QString interfaceName() const { return mInterfaceName; }
    QString host() const { return mHost; }
    quint16 port() const { return mPort; }

    // The factory offers one interface for this type; its name is not used
    // (the endpoint comes from options 0 and 1).
    static QStringList getInterfaceList();

    // Pure helpers of the line protocol.
    static QString requestLine(qint16 sequenceNumber, const QString& request);
    static qint16 nextSequenceNumber(qint16 sequenceNumber);

public Q_SLOTS:
    CAN::RetType write(CAN::CanMessage* pMessage) override;
    // The one-argument gateway command: a request line whose number is not needed.
    CAN::RetType write(QString string);
    void socketReadyRead();
    void socketError(QAbstractSocket::SocketError error);
    void socketStateChanged(QAbstractSocket::SocketState newTCPState);

protected:
    bool event(QEvent* e) override;

private:
    struct PendingRequest;
    void processPendingRequests();
    CAN::RetType writeLine(const QString& line);
    void abortSocket();
    void abortSocket(QTcpSocket* socket);
    void clearTail();
    void deliverTail();

    QString mInterfaceName;
    QPointer<QTcpSocket> mSocket;
    QString mHost;
    quint16 mPort = 0;
    qint16 mSequenceNumber = 0; // socket thread only
    QAbstractSocket::SocketState mTcpState = QAbstractSocket::UnconnectedState;
    bool mAborting = false; // our own abort is no loss of the connection
    // Received bytes of a line whose line feed has not come yet (socket thread only).
    QByteArray mTail;
    bool mSkippingLine = false; // dropping the rest of an overlong line
    QTimer* mTailTimer = nullptr;
    // Requests of other threads, waiting for the socket's thread.
    std::mutex mPendingLock;
    std::condition_variable mPendingDone;
    std::deque<PendingRequest*> mPending;
};

#endif
