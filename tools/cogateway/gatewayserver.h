#ifndef GATEWAYSERVER_H
#define GATEWAYSERVER_H

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QTcpServer>

class GatewayBackend;
class QTcpSocket;

// The TCP side of the gateway: accepts any number of clients, cuts what
// each sends into lines (LF or CR LF; a line may arrive in any number of
// pieces), hands every whole line to the backend and writes the answers back
// to the client that asked, each line ended by CR LF. A line longer than
// MaxLineBytes is answered with an error and skipped up to its end. A client
// that goes away loses its pending answers; the others see nothing of it.
class GatewayServer : public QObject
{
    Q_OBJECT
public:
    static constexpr int MaxLineBytes = 1 << 20; // a 64 KiB DOMAIN is one base64 line of 88 KiB

    GatewayServer(GatewayBackend* backend, QObject* parent = nullptr);
    ~GatewayServer() override;

    bool listen(const QHostAddress& address, quint16 port);
    quint16 port() const { return mServer.serverPort(); }
    QString errorString() const { return mServer.errorString(); }
    int clients() const { return mClients.size(); }

    // Lines of a client's input buffer that are complete, taken out of it;
    // an overlong one (no line end within MaxLineBytes) comes back as a null
    // QByteArray once, with its first bytes in *overlongHead, its rest
    // skipped. Pure, for tests.
    static QList<QByteArray> takeLines(QByteArray& buffer, bool& skipping, QByteArray* overlongHead);

Q_SIGNALS:
    void clientCountChanged(int count);

private:
    struct Client {
        QByteArray buffer;
        bool skipping = false; // in the rest of an overlong line
    };
    void accept();
    void read(QTcpSocket* socket);
    void drop(QTcpSocket* socket);

    QTcpServer mServer;
    GatewayBackend* mBackend;
    QHash<QTcpSocket*, Client> mClients;
};

#endif
