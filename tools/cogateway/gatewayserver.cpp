#include "gatewayserver.h"

#include "gatewaybackend.h"
#include "gatewayrequest.h"

#include <QPointer>
#include <QTcpSocket>

GatewayServer::GatewayServer(GatewayBackend* backend, QObject* parent)
    : QObject(parent)
    , mBackend(backend)
{
    connect(&mServer, &QTcpServer::newConnection, this, &GatewayServer::accept);
}

GatewayServer::~GatewayServer()
{
    for (QTcpSocket* s : mClients.keys())
        s->disconnect(this);
}

bool GatewayServer::listen(const QHostAddress& address, quint16 port)
{
    return mServer.listen(address, port);
}

void GatewayServer::accept()
{
    while (QTcpSocket* s = mServer.nextPendingConnection()) {
        mClients.insert(s, Client());
        connect(s, &QTcpSocket::readyRead, this, [this, s]() { read(s); });
        connect(s, &QTcpSocket::disconnected, this, [this, s]() { drop(s); });
        Q_EMIT clientCountChanged(mClients.size());
    }
}

void GatewayServer::drop(QTcpSocket* socket)
{
    if (mClients.remove(socket))
        Q_EMIT clientCountChanged(mClients.size());
    socket->deleteLater(); // answers still due for it find it gone
}

QList<QByteArray> GatewayServer::takeLines(QByteArray& buffer, bool& skipping, QByteArray* overlongHead)
{
    QList<QByteArray> lines;
    int start = 0;
    for (;;) {
        const int end = buffer.indexOf('\n', start);
        if (end < 0)
            break;
        if (skipping)
            skipping = false; // the overlong line ends here
        else
            lines << buffer.mid(start, end - start);
        start = end + 1;
    }
    buffer.remove(0, start);
    if (buffer.size() > MaxLineBytes) {
        if (!skipping) {
            *overlongHead = buffer.left(16);
            lines << QByteArray(); // reported once
        }
        skipping = true;
        buffer.clear();
    }
    return lines;
}

void GatewayServer::read(QTcpSocket* socket)
{
    auto it = mClients.find(socket);
    if (it == mClients.end())
        return;
    it->buffer += socket->readAll();
    QByteArray head;
    const QList<QByteArray> lines = takeLines(it->buffer, it->skipping, &head);
    QPointer<QTcpSocket> guarded(socket);
    const GatewayBackend::Reply reply = [guarded](const QStringList& answer) {
        if (!guarded || guarded->state() != QAbstractSocket::ConnectedState)
            return; // the client went away: nobody to tell
        for (const QString& line : answer)
            guarded->write(line.toUtf8() + "\r\n");
    };
    for (const QByteArray& raw : lines) {
        if (raw.isNull()) {
            const int seq = GatewayRequest::leadingSequence(head);
            reply({GatewayRequest::error(seq, GatewayRequest::OutOfMemory,
                                         QStringLiteral("line longer than %1 bytes").arg(MaxLineBytes))});
            continue;
        }
        QByteArray line = raw;
        while (line.endsWith('\r'))
            line.chop(1);
        if (line.trimmed().isEmpty())
            continue;
        mBackend->execute(GatewayRequest::parse(QString::fromUtf8(line)), reply);
    }
}
