#include "emcyconsumer.h"
#include "abstractcanadapter.h"

#include <QDebug>
#include <QStringList>

static_assert(sizeof(EMCYConsumer::EMCYData) == 10, "EMCYData is 10 bytes");
static_assert(alignof(EMCYConsumer::EMCYData) == 2, "EMCYData is 2-byte aligned");

EMCYConsumer::EMCYConsumer(QObject* parent)
    : CANopenService(parent)
{
    registerMetaTypes();
}

EMCYConsumer::EMCYConsumer(unsigned int cobId, QObject* parent)
    : EMCYConsumer(parent)
{
    mCobId = cobId;
}

EMCYConsumer::EMCYConsumer(unsigned int cobId, CanScheduler* scheduler, QObject* parent)
    : EMCYConsumer(parent)
{
    mCobId = cobId;
    attachScheduler(scheduler, mCobId, mReceiver);
    connectGateway();
}

EMCYConsumer::~EMCYConsumer()
{
    releaseReceiver(mReceiver);
}

void EMCYConsumer::registerMetaTypes()
{
    static const bool done = [] {
        qRegisterMetaType<EMCYConsumer::EMCYData>("EMCYConsumer::EMCYData");
        return true;
    }();
    Q_UNUSED(done)
}

void EMCYConsumer::setCobId(unsigned int cobId)
{
    mCobId = cobId;
    if (mScheduler)
        reregister(mCobId, mReceiver);
}

void EMCYConsumer::setCanScheduler(CanScheduler* scheduler)
{
    releaseReceiver(mReceiver);
    mScheduler = scheduler;
    if (scheduler) {
        // Registered, but the frames are deliberately not connected here:
        // this path has always asked for a pointer-form signal/slot pair that
        // does not exist, so CAN emergencies arrive only after setCobId().
        mReceiver = scheduler->registerCanId(mCobId);
    }
    connectGateway();
}

void EMCYConsumer::connectGateway()
{
    AbstractCanAdapter* a = adapter();
    if (mGateway && mGateway != a)
        disconnect(mGateway.data(), &AbstractCanAdapter::newCiA309Response, this, &EMCYConsumer::newCiA309Response);
    mGateway.clear();
    if (a && onGateway()) {
        connect(a, &AbstractCanAdapter::newCiA309Response, this, &EMCYConsumer::newCiA309Response,
                Qt::UniqueConnection);
        mGateway = a;
    }
}

EMCYConsumer::EMCYData EMCYConsumer::decodeFrame(const CAN::CanMessage& frame)
{
    EMCYData d;
    d.errorCode = quint16(frame.data[0] | (frame.data[1] << 8));
    d.errorRegister = frame.data[2];
    for (int i = 0; i < 5; ++i)
        d.manufacturerData[i] = frame.data[3 + i];
    return d;
}

void EMCYConsumer::newCanMessageReceived(CAN::CanRxMessage message)
{
    if (message.message.id != mCobId) {
        qDebug() << "EMCYConsumer::newCanMessageReceived This should not happen.";
        return;
    }
    // Bytes beyond a short frame's length are the zeroes of the record.
    Q_EMIT newEmcyData(decodeFrame(message.message));
}

void EMCYConsumer::newCiA309Response(QString response)
{
    const QStringList lines = response.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines)
        handleResponseLine(line);
}

namespace {
// C convention: "0x" hexadecimal, leading 0 octal, else decimal; unreadable is 0.
uint readNumber(const QString& token)
{
    bool ok = false;
    const uint value = token.toUInt(&ok, 0);
    return ok ? value : 0;
}
} // namespace

bool EMCYConsumer::decodeLine(const QString& line, unsigned int cobId, EMCYData& out)
{
    if (!line.contains(QLatin1String("emcy"), Qt::CaseInsensitive)) // gateways write "EMCY" too
        return false;
    // Gateways end their lines with CR LF; the CR belongs to no token.
    QString text = line;
    while (text.endsWith(QLatin1Char('\r')))
        text.chop(1);
    // <node> <word> <error code> <error register> <5 manufacturer bytes>
    const QStringList tokens = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const int count = tokens.size();
    if (count < 8)
        return false;
    if ((readNumber(tokens.at(0)) & 0xFF) + 128 != cobId)
        return false;
    EMCYData d;
    d.errorCode = quint16(readNumber(tokens.at(2)));
    d.errorRegister = quint8(readNumber(tokens.at(3)));
    // Manufacturer byte i - 3 is token i + 1 while i is below the token
    // count. With exactly 8 tokens the last byte would need a token 8 that is
    // not there: it stays 0.
    for (int i = 3; i <= 7; ++i) {
        if (i < count)
            d.manufacturerData[i - 3] = quint8(i + 1 < count ? readNumber(tokens.at(i + 1)) : 0);
    }
    out = d;
    return true;
}

void EMCYConsumer::handleResponseLine(QString line)
{
    EMCYData d;
    if (decodeLine(line, mCobId, d))
        Q_EMIT newEmcyData(d);
}
