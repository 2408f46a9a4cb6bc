#include "recordingcanadapter.h"

#include <cstring>

bool RecordingCanAdapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    Guard g(mLock);
    mOptions.insert(int(option), value);
    mOptionHistory.append(qMakePair(int(option), value));
    return true;
}

QVariantList RecordingCanAdapter::optionHistory(AbstractCanAdapter::AdapterOption option) const
{
    Guard g(mLock);
    QVariantList values;
    for (const auto& entry : mOptionHistory) {
        if (entry.first == int(option))
            values.append(entry.second);
    }
    return values;
}

QVariant RecordingCanAdapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    {
        Guard g(mLock);
        auto it = mOptions.constFind(int(option));
        if (it != mOptions.constEnd())
            return it.value();
    }
    return AbstractCanAdapter::getCanAdapterOption(option);
}

CAN::RetType RecordingCanAdapter::sendCiA309Request(const QString& request, qint16& sequenceNumber)
{
    Guard g(mLock);
    if (!mOptions.value(int(CiA309Gateway)).toBool())
        return CAN::Error;
    mRequests.append(request);
    sequenceNumber = mSequence;
    mSequence = mSequence >= 32767 ? 0 : mSequence + 1;
    return mWriteResult;
}

CAN::RetType RecordingCanAdapter::write(CAN::CanMessage* pMessage)
{
    Guard g(mLock);
    if (mWriteResult == CAN::Ok)
        mWritten.append(*pMessage);
    return mWriteResult;
}

QVector<CAN::CanMessage> RecordingCanAdapter::written() const
{
    // A deep copy: an implicitly shared one would be released outside the
    // lock while writer threads append.
    Guard g(mLock);
    return QVector<CAN::CanMessage>(mWritten.cbegin(), mWritten.cend());
}

QStringList RecordingCanAdapter::requests() const
{
    Guard g(mLock);
    QStringList copy; // deep, for the same reason as written()
    for (const QString& line : mRequests)
        copy.append(QString(line.constData(), line.size()));
    return copy;
}

void RecordingCanAdapter::inject(quint32 id, std::initializer_list<quint8> data, CAN::CanTimeStamp stamp)
{
    inject(makeRxFrame(id, data, stamp));
}

void RecordingCanAdapter::inject(quint32 id, const QByteArray& data)
{
    CAN::CanRxMessage rx;
    rx.message.id = id;
    rx.message.length = quint8(qMin(data.size(), 64));
    std::memcpy(rx.message.data, data.constData(), rx.message.length);
    inject(rx);
}

QList<QByteArray> RecordingCanAdapter::writtenHex() const
{
    // Built under the lock from the frames themselves: no container is
    // shared with the writing threads.
    Guard g(mLock);
    QList<QByteArray> list;
    for (const CAN::CanMessage& m : mWritten)
        list.append(frameHex(m));
    return list;
}

QByteArray frameHex(const CAN::CanMessage& frame)
{
    return QByteArray::number(frame.id, 16) + ':' + frameData(frame).toHex();
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
