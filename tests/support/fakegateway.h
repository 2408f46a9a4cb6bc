#ifndef FAKEGATEWAY_H
#define FAKEGATEWAY_H

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTcpServer>
#include <QTimer>

class AbstractCanAdapter;
class QTcpSocket;

// A CiA 309-3 gateway on 127.0.0.1 (a free port) for tests: it records the
// request lines it receives and answers each with "[n] <answer>\r\n", whole
// or in pieces. Pieces go out one every PieceGapMs, each flushed, so they
// reach the peer as separate segments; the test's event loop must run.
class FakeGateway : public QObject
{
public:
    static constexpr int PieceGapMs = 5;
    // As split positions: every byte in a piece of its own.
    static const QList<int> ByteByByte;

    explicit FakeGateway(QObject* parent = nullptr);

    quint16 port() const { return mServer.serverPort(); }
    QString address() const; // "127.0.0.1:<port>"
    // Points a gateway adapter (options 0 and 1) at this server.
    void configure(AbstractCanAdapter& adapter) const;

    // The answer text after "[n] " to every request; null: no answer. Split
    // at these byte positions of the whole answer line, if any.
    void answerWith(const QString& answer, const QList<int>& splits = {});
    // Sends bytes to the connected peer now (split as above); several
    // answers in one call go out in one write unless split.
    void send(const QByteArray& bytes, const QList<int>& splits = {});

    // Waits (running the event loop) for the peer's connection.
    bool waitForClient(int timeoutMs = 3000);
    QTcpSocket* client() const { return mClient; }
    // Waits until this many request lines are in; false after timeoutMs.
    bool waitForLines(int count, int timeoutMs = 3000);
    // The request lines received so far, without their line ends.
    QStringList lines() const { return mLines; }
    // The whole request lines received so far, as they came (with their line ends).
    QByteArray received() const { return mReceived; }
    // True once every piece handed to send() has been written.
    bool idle() const { return mQueue.isEmpty(); }

private:
    void readRequests();
    void sendNextPiece();

    QTcpServer mServer;
    QPointer<QTcpSocket> mClient;
    QTimer mPieceTimer;
    QByteArray mReceived;
    QStringList mLines;
    QString mAnswer;
    QList<int> mAnswerSplits;
    QList<QByteArray> mQueue;
};

#endif
