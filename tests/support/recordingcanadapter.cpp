#include "recordingcanadapter.h"

#include <cstring>
#include <mutex>

RecordingCanAdapter::RecordingCanAdapter(QObject* parent)
    : AbstractCanAdapter(parent)
{
}

CAN::RetType RecordingCanAdapter::open()
{
    Q_EMIT newCanState(CAN::ErrorActive);
    return CAN::Ok;
}

void RecordingCanAdapter::close()
{
    Q_EMIT newCanState(CAN::Stopped);
}

CAN::RetType RecordingCanAdapter::setBitrate(quint16 kbit)
{
    mBitrate = kbit;
    return CAN::Ok;
}

CAN::RetType RecordingCanAdapter::setEcho(bool echo)
{
    mEcho = echo;
    return CAN::Ok;
}

bool RecordingCanAdapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    std::lock_guard<CanMutex> guard(mLock);
    mOptions.insert(int(option), value);
    mOptionHistory.append(qMakePair(int(option), value));
    return true;
}

QVariantList RecordingCanAdapter::optionHistory(AbstractCanAdapter::AdapterOption option) const
{
    std::lock_guard<CanMutex> guard(mLock);
    QVariantList values;
    for (const auto& entry : mOptionHistory) {
        if (entry.first == int(option))
            values.append(entry.second);
    }
    return values;
}

void RecordingCanAdapter::clearOptionHistory()
{
    std::lock_guard<CanMutex> guard(mLock);
    mOptionHistory.clear();
}

void RecordingCanAdapter::setOptionAnswer(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    std::lock_guard<CanMutex> guard(mLock);
    mOptions.insert(int(option), value);
}

QVariant RecordingCanAdapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    {
        std::lock_guard<CanMutex> guard(mLock);
        auto it = mOptions.constFind(int(option));
        if (it != mOptions.constEnd())
            return it.value();
    }
    return AbstractCanAdapter::getCanAdapterOption(option);
}

CAN::RetType RecordingCanAdapter::sendCiA309Request(const QString& request, qint16& sequenceNumber)
{
    std::lock_guard<CanMutex> guard(mLock);
    if (!mOptions.value(int(CiA309Gateway)).toBool())
        return CAN::Error;
    mRequests.append(request);
    sequenceNumber = mSequence;
    mSequence = mSequence >= 32767 ? 0 : mSequence + 1;
    return mWriteResult;
}

CAN::RetType RecordingCanAdapter::write(CAN::CanMessage* pMessage)
{
    CAN::CanRxMessage echo;
    {
        std::lock_guard<CanMutex> guard(mLock);
        if (mWriteResult != CAN::Ok)
            return mWriteResult;
        mWritten.append(*pMessage);
        if (!mEcho)
            return CAN::Ok;
        echo.message = *pMessage;
        echo.echo = true;
    }
    Q_EMIT newTxCanMessage(echo);
    return CAN::Ok;
}

QVector<CAN::CanMessage> RecordingCanAdapter::written() const
{
    // A deep copy: an implicitly shared one would be released outside the
    // lock while writer threads append.
    std::lock_guard<CanMutex> guard(mLock);
    return QVector<CAN::CanMessage>(mWritten.cbegin(), mWritten.cend());
}

int RecordingCanAdapter::writtenCount() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mWritten.size();
}

CAN::CanMessage RecordingCanAdapter::lastWritten() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mWritten.isEmpty() ? CAN::CanMessage() : mWritten.last();
}

void RecordingCanAdapter::clearWritten()
{
    std::lock_guard<CanMutex> guard(mLock);
    mWritten.clear();
    mRequests.clear();
}

void RecordingCanAdapter::failWrites(CAN::RetType result)
{
    std::lock_guard<CanMutex> guard(mLock);
    mWriteResult = result;
}

QStringList RecordingCanAdapter::requests() const
{
    std::lock_guard<CanMutex> guard(mLock);
    QStringList copy; // deep, for the same reason as written()
    for (const QString& line : mRequests)
        copy.append(QString(line.constData(), line.size()));
    return copy;
}

void RecordingCanAdapter::inject(const CAN::CanRxMessage& frame)
{
    CAN::CanRxMessage copy = frame;
    Q_EMIT newCanMessage(&copy);
}

void RecordingCanAdapter::inject(quint32 id, std::initializer_list<quint8> data, CAN::CanTimeStamp stamp)
{
    inject(makeRxFrame(id, data, stamp));
}

void RecordingCanAdapter::injectHex(quint32 id, const char* hex)
{
    inject(makeRxFrameHex(id, hex));
}

QList<QByteArray> RecordingCanAdapter::writtenHex() const
{
    // Built under the lock from the frames themselves: no container is
    // shared with the writing threads.
    std::lock_guard<CanMutex> guard(mLock);
    QList<QByteArray> list;
    for (const CAN::CanMessage& m : mWritten)
        list.append(frameHex(m));
    return list;
}

CAN::CanMessage RecordingCanAdapter::writtenAt(int i) const
{
    std::lock_guard<CanMutex> guard(mLock);
    return (i >= 0 && i < mWritten.size()) ? mWritten.at(i) : CAN::CanMessage();
}

QByteArray frameHex(const CAN::CanMessage& frame)
{
    return QByteArray::number(frame.id, 16) + ':' + frameData(frame).toHex();
}

CAN::CanRxMessage makeRxFrameHex(quint32 id, const char* hex)
{
    const QByteArray bytes = QByteArray::fromHex(QByteArray(hex).replace(' ', ""));
    CAN::CanRxMessage rx;
    rx.message.id = id;
    rx.message.length = quint8(qMin(bytes.size(), 64));
    std::memcpy(rx.message.data, bytes.constData(), rx.message.length);
    return rx;
}

CAN::CanMessage makeFrame(quint32 id, std::initializer_list<quint8> data)
{
    CAN::CanMessage m;
    m.id = id;
    int i = 0;
    for (quint8 b : data) {
        if (i < 64)
            m.data[i++] = b;
    }
    m.length = quint8(i);
    return m;
}

CAN::CanRxMessage makeRxFrame(quint32 id, std::initializer_list<quint8> data, CAN::CanTimeStamp stamp)
{
    CAN::CanRxMessage rx;
    rx.timeStamp = stamp;
    rx.message = makeFrame(id, data);
    return rx;
}

QByteArray frameData(const CAN::CanMessage& frame)
{
    return QByteArray(reinterpret_cast<const char*>(frame.data), qMin<int>(frame.length, 64));
}
