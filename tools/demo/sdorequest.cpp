#include "sdorequest.h"

#include "democontext.h"
#include "sdoclient.h"

#include <QElapsedTimer>
#include <QTimer>

SdoRequest::SdoRequest(SDOClient& client)
    : mClient(client)
{
    QObject::connect(&client, &SDOClient::resultReceived, &client, [this](quint16, quint8, QVariant v) {
        value = v;
        mOk = mDone = true;
        mLoop.quit();
    });
    QObject::connect(&client, &SDOClient::errorReceived, &client, [this](quint16, quint8, quint32 code) {
        abortCode = code;
        mDone = true;
        mLoop.quit();
    });
}

bool SdoRequest::read(quint16 index, quint8 sub, CAN::CANopenDataType type)
{
    return run([&]() { return mClient.read(index, sub, type); });
}

bool SdoRequest::write(quint16 index, quint8 sub, CAN::CANopenDataType type, const QVariant& v)
{
    return run([&]() { return mClient.write(index, sub, type, v); });
}

bool SdoRequest::run(const std::function<CAN::RetType()>& start)
{
    value = QVariant();
    abortCode = 0;
    mDone = mOk = false;
    QElapsedTimer t;
    t.start();
    refused = start();
    if (refused != CAN::Ok)
        return false;
    if (!mDone) {
        // Until the outcome's signal, a time-out well past the client's own, or Ctrl-C.
        QTimer limit;
        limit.setSingleShot(true);
        QObject::connect(&limit, &QTimer::timeout, &mLoop, &QEventLoop::quit);
        limit.start(int(mClient.getSdoTimeout()) + 3000);
        QTimer poll; // notices Ctrl-C
        QObject::connect(&poll, &QTimer::timeout, &mLoop, [this]() {
            if (DemoContext::interrupted())
                mLoop.quit();
        });
        poll.start(100);
        mLoop.exec();
    }
    ms = double(t.nsecsElapsed()) / 1e6;
    return mOk;
}

QString SdoRequest::failure() const
{
    if (refused != CAN::Ok)
        return QStringLiteral("refused with %1").arg(int(refused));
    if (abortCode == 0)
        return QStringLiteral("no answer");
    return QStringLiteral("abort 0x%1: %2")
        .arg(abortCode, 8, 16, QLatin1Char('0'))
        .arg(SDOClient::interpretSdoAbort(abortCode));
}

QString SdoRequest::kindName() const
{
    switch (mClient.getTransferKind()) {
    case SDOClient::KindExpedited: return QStringLiteral("expedited");
    case SDOClient::KindSegmented: return QStringLiteral("segmented");
    case SDOClient::KindBlock: return QStringLiteral("block");
    case SDOClient::KindUsdoExpedited: return QStringLiteral("USDO expedited");
    case SDOClient::KindGateway: return QStringLiteral("gateway");
    default: return QStringLiteral("kind %1").arg(mClient.getTransferKind());
    }
}
