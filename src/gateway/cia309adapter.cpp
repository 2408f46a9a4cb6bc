#include "cia309adapter.h"

#include <QCoreApplication>
#include <QDebug>
#include <QEvent>
#include <QTcpSocket>
#include <QTimer>

namespace {
// Posted to the adapter when another thread has queued a request.
QEvent::Type pendingRequestEvent()
{
    static const QEvent::Type type = QEvent::Type(QEvent::registerEventType());
    return type;
}
} // namespace

// A request made in another thread than the socket's: the caller waits for
// the socket's thread to number and write it.
struct CiA309Adapter::PendingRequest {
    const QString* request = nullptr;
    qint16 sequenceNumber = -1;
    CAN::RetType result = CAN::Error;
    bool done = false;
};

CiA309Adapter::CiA309Adapter(const QString& interfaceName, QObject* parent)
    : AbstractCanAdapter(parent)
    , mInterfaceName(interfaceName)
{
    auto* socket = new QTcpSocket(this);
    connect(socket, &QTcpSocket::readyRead, this, &CiA309Adapter::socketReadyRead);
    connect(socket, &QAbstractSocket::errorOccurred, this, &CiA309Adapter::socketError);
    connect(socket, &QAbstractSocket::stateChanged, this, &CiA309Adapter::socketStateChanged);
    mSocket = socket;
    mTailTimer = new QTimer(this);
    mTailTimer->setSingleShot(true);
    mTailTimer->setInterval(TailQuietMs);
    connect(mTailTimer, &QTimer::timeout, this, &CiA309Adapter::deliverTail);
}

CiA309Adapter::~CiA309Adapter()
{
    endOfLife(); // users in other threads let go first
    // The socket is our child and goes with us; it must not call back into
    // a half-destroyed adapter on its way out.
    if (mSocket) {
        mSocket->disconnect(this);
        mSocket->abort();
    }
}

QStringList CiA309Adapter::getInterfaceList()
{
    return {QStringLiteral("CiA 309-3")};
}

CAN::RetType CiA309Adapter::open()
{
    if (!mSocket)
        return CAN::Error; // closed for good: a new connection needs a new adapter
    abortSocket();
    clearTail();
    mSocket->connectToHost(mHost, mPort, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
    // Blocks the caller; a refused connection ends the wait at once.
    mSocket->waitForConnected(ConnectTimeoutMs);
    return mTcpState == QAbstractSocket::ConnectedState ? CAN::Ok : CAN::Error;
}

void CiA309Adapter::close()
{
    if (!mSocket)
        return;
    QTcpSocket* socket = mSocket.data();
    mSocket.clear();
    clearTail();
    abortSocket(socket);
    socket->close();
    socket->disconnect(this);
    // Deferred: close() may be called from a slot that runs inside one of the
    // socket's own signals.
    socket->deleteLater();
}

void CiA309Adapter::abortSocket()
{
    abortSocket(mSocket.data());
}

void CiA309Adapter::abortSocket(QTcpSocket* socket)
{
    if (!socket)
        return;
    // Passing through the closing state because we asked for it is not the
    // loss of an established connection: no interfaceError() for that.
    mAborting = true;
    socket->abort();
    mAborting = false;
}

CAN::RetType CiA309Adapter::setBitrate(quint16)
{
    return CAN::Error; // the gateway keeps its own bit rate
}

bool CiA309Adapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    switch (option) {
    case GatewayHost:
        mHost = value.toString();
        break;
    case GatewayPort:
        mPort = quint16(value.toUInt());
        break;
    default:
        break;
    }
    return true;
}

QVariant CiA309Adapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    return QVariant(option == CiA309Gateway);
}

CAN::RetType CiA309Adapter::write(CAN::CanMessage*)
{
    return CAN::Error; // raw frames cannot go through the gateway
}

CAN::RetType CiA309Adapter::write(QString string)
{
    qint16 unused = -1;
    return sendCiA309Request(string, unused);
}

CAN::RetType CiA309Adapter::sendCiA309Command(const QString& command)
{
    return write(command);
}

QString CiA309Adapter::requestLine(qint16 sequenceNumber, const QString& request)
{
    return QStringLiteral("[%1] ").arg(sequenceNumber) + request + QLatin1Char('\n');
}

qint16 CiA309Adapter::nextSequenceNumber(qint16 sequenceNumber)
{
    return sequenceNumber >= MaxSequenceNumber ? qint16(0) : qint16(sequenceNumber + 1);
}

CAN::RetType CiA309Adapter::sendCiA309Request(const QString& request, qint16& sequenceNumber)
{
    if (QThread::currentThread() != thread()) {
        // The socket is not thread-safe: numbering and writing happen in the
        // socket's thread while this caller waits, so the call stays
        // synchronous and numbers go out in the order of the lines. (The
        // socket's thread must be running its event loop.)
        PendingRequest pending;
        pending.request = &request;
        {
            std::lock_guard<std::mutex> guard(mPendingLock);
            mPending.push_back(&pending);
        }
        QCoreApplication::postEvent(this, new QEvent(pendingRequestEvent()));
        std::unique_lock<std::mutex> lock(mPendingLock);
        mPendingDone.wait(lock, [&pending] { return pending.done; });
        sequenceNumber = pending.sequenceNumber;
        return pending.result;
    }

    const qint16 used = mSequenceNumber;
    const CAN::RetType result = writeLine(requestLine(used, request));
    // The number is consumed whether or not the line went out.
    sequenceNumber = used;
    mSequenceNumber = nextSequenceNumber(used);
    return result;
}

bool CiA309Adapter::event(QEvent* e)
{
    if (e->type() == pendingRequestEvent()) {
        processPendingRequests();
        return true;
    }
    return AbstractCanAdapter::event(e);
}

void CiA309Adapter::processPendingRequests()
{
    for (;;) {
        PendingRequest* p;
        {
            std::lock_guard<std::mutex> guard(mPendingLock);
            if (mPending.empty())
                return;
            p = mPending.front();
            mPending.pop_front();
        }
        qint16 used = -1;
        const CAN::RetType result = sendCiA309Request(*p->request, used);
        {
            std::lock_guard<std::mutex> guard(mPendingLock);
            p->sequenceNumber = used;
            p->result = result;
            p->done = true;
        }
        mPendingDone.notify_all();
    }
}

CAN::RetType CiA309Adapter::writeLine(const QString& line)
{
    if (!mSocket || !mSocket->isOpen())
        return CAN::Error;
    const QByteArray bytes = line.toUtf8();
    if (mSocket->write(bytes) != bytes.size())
        return CAN::Error;
    mSocket->flush(); // hand it to the kernel now, not at the next event loop turn
    Q_EMIT newCiA309RequestSent(line);
    return CAN::Ok;
}

// This signal used to relay the text of each read as TCP delivered it, so a
// receiver could see "[0] " alone and take it for the whole answer. Now one
// emission per read carries only the lines completed so far; the rest waits
// for its line feed, or for TailQuietMs without data from a peer that does
// not end its last line.
void CiA309Adapter::socketReadyRead()
{
    if (!mSocket)
        return;
    QByteArray bytes = mSocket->readAll();
    const int nul = bytes.indexOf('\0');
    if (nul >= 0)
        bytes.truncate(nul); // text ends at a NUL; the rest of the read is dropped

    QByteArray lines;
    bool overlong = false;
    int pos = 0;
    while (pos < bytes.size()) {
        const int lineFeed = bytes.indexOf('\n', pos);
        const int end = lineFeed < 0 ? bytes.size() : lineFeed + 1;
        const int length = mTail.size() + (lineFeed < 0 ? end : lineFeed) - pos;
        if (mSkippingLine) {
            mSkippingLine = lineFeed < 0;
        } else if (length > MaxLineBytes) {
            overlong = true;
            mTail.clear();
            mSkippingLine = lineFeed < 0;
        } else if (lineFeed < 0) {
            mTail.append(bytes.constData() + pos, end - pos);
        } else {
            lines += mTail;
            lines.append(bytes.constData() + pos, end - pos);
            mTail.clear();
        }
        pos = end;
    }
    if (mTail.isEmpty())
        mTailTimer->stop();
    else
        mTailTimer->start();

    // Emitted last: a receiver may close or reopen the adapter.
    if (!lines.isEmpty())
        Q_EMIT newCiA309Response(QString::fromUtf8(lines));
    if (overlong) {
        qWarning() << "CiA309Adapter: a gateway line longer than" << MaxLineBytes << "bytes was dropped";
        Q_EMIT interfaceError();
    }
}

void CiA309Adapter::deliverTail()
{
    if (mTail.isEmpty())
        return;
    const QString text = QString::fromUtf8(mTail);
    mTail.clear();
    Q_EMIT newCiA309Response(text);
}

void CiA309Adapter::clearTail()
{
    mTail.clear();
    mSkippingLine = false;
    mTailTimer->stop();
}

void CiA309Adapter::socketError(QAbstractSocket::SocketError error)
{
    qDebug() << Q_FUNC_INFO << error;
}

void CiA309Adapter::socketStateChanged(QAbstractSocket::SocketState newTCPState)
{
    qDebug() << Q_FUNC_INFO << newTCPState;
    // An established connection that went through closing to unconnected is lost.
    if (newTCPState == QAbstractSocket::UnconnectedState && mTcpState == QAbstractSocket::ClosingState
        && !mAborting)
        Q_EMIT interfaceError();
    mTcpState = newTCPState;
}
