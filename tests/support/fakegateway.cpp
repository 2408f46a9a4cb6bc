#include "fakegateway.h"

#include "abstractcanadapter.h"

#include <QTcpSocket>
#include <QTest>

const QList<int> FakeGateway::ByteByByte{-1};

FakeGateway::FakeGateway(QObject* parent)
    : QObject(parent)
{
    mServer.listen(QHostAddress::LocalHost, 0);
    connect(&mServer, &QTcpServer::newConnection, this, [this]() {
        while (QTcpSocket* s = mServer.nextPendingConnection()) {
            mClient = s;
            connect(s, &QTcpSocket::readyRead, this, &FakeGateway::readRequests);
        }
    });
    mPieceTimer.setInterval(PieceGapMs);
    connect(&mPieceTimer, &QTimer::timeout, this, &FakeGateway::sendNextPiece);
}

QString FakeGateway::address() const
{
    return QStringLiteral("127.0.0.1:%1").arg(port());
}

void FakeGateway::configure(AbstractCanAdapter& adapter) const
{
    adapter.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
    adapter.setCanAdapterOption(AbstractCanAdapter::GatewayPort, uint(port()));
}

void FakeGateway::answerWith(const QString& answer, const QList<int>& splits)
{
    mAnswer = answer;
    mAnswerSplits = splits;
}

void FakeGateway::send(const QByteArray& bytes, const QList<int>& splits)
{
    int from = 0;
    for (int at = 1; at <= bytes.size(); ++at) {
        if (at == bytes.size() || splits == ByteByByte || splits.contains(at)) {
            mQueue << bytes.mid(from, at - from);
            from = at;
        }
    }
    if (!mPieceTimer.isActive())
        sendNextPiece(); // the first piece now, the others one gap apart
}

void FakeGateway::sendNextPiece()
{
    if (mQueue.isEmpty() || !mClient) {
        mQueue.clear();
    } else {
        mClient->write(mQueue.takeFirst());
        mClient->flush();
    }
    if (mQueue.isEmpty())
        mPieceTimer.stop();
    else if (!mPieceTimer.isActive())
        mPieceTimer.start();
}

void FakeGateway::readRequests()
{
    while (mClient->canReadLine()) {
        QByteArray line = mClient->readLine();
        mReceived += line;
        line.chop(line.endsWith("\r\n") ? 2 : 1);
        mLines << QString::fromUtf8(line);
        if (!mAnswer.isNull())
            send(line.left(line.indexOf(']') + 1) + ' ' + mAnswer.toUtf8() + "\r\n", mAnswerSplits);
    }
}

bool FakeGateway::waitForClient(int timeoutMs)
{
    return QTest::qWaitFor([this]() { return !mClient.isNull(); }, timeoutMs);
}

bool FakeGateway::waitForLines(int count, int timeoutMs)
{
    return QTest::qWaitFor([this, count]() { return mLines.size() >= count; }, timeoutMs);
}
