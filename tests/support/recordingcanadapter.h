#ifndef RECORDINGCANADAPTER_H
#define RECORDINGCANADAPTER_H

#include "abstractcanadapter.h"
#include "canmutex.h"

#include <QHash>
#include <QPair>
#include <QVariant>
#include <QStringList>
#include <QVector>
#include <initializer_list>
#include <mutex>

// Test adapter: records every frame written (from any thread), injects
// received frames through newCanMessage, and can be told to fail writes or to
// pretend to be a CiA 309-3 gateway (records the request lines then).
class RecordingCanAdapter : public AbstractCanAdapter
{
    Q_OBJECT
    using Guard = std::lock_guard<CanMutex>;

public:
    using AbstractCanAdapter::AbstractCanAdapter;

    CAN::RetType open() override { Q_EMIT newCanState(CAN::ErrorActive); return CAN::Ok; }
    void close() override { Q_EMIT newCanState(CAN::Stopped); }
    CAN::RetType setBitrate(quint16 kbit) override { mBitrate = kbit; return CAN::Ok; }
    CAN::RetType clearTxQueue() override { return CAN::Ok; }
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override { return 0; }
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override { return CAN::Ok; }
    CAN::CanState getState() override { return CAN::ErrorActive; }
    CAN::RetType setEcho(bool) override { return CAN::Ok; }
    bool setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value) override;
    QVariant getCanAdapterOption(AbstractCanAdapter::AdapterOption option) override;
    CAN::RetType sendCiA309Request(const QString& request, qint16& sequenceNumber) override;
    CAN::RetType sendCiA309Command(const QString& command) override
    {
        qint16 unused = -1;
        return sendCiA309Request(command, unused);
    }

    // Frames written so far (a copy), and forgetting them.
    QVector<CAN::CanMessage> written() const;
    int writtenCount() const { Guard g(mLock); return mWritten.size(); }
    CAN::CanMessage lastWritten() const { return writtenAt(writtenCount() - 1); }
    // Frame number i (a default frame when there is none): plain data, safe
    // to take while other threads write.
    CAN::CanMessage writtenAt(int i) const { Guard g(mLock); return mWritten.value(i); }
    void clearWritten() { Guard g(mLock); mWritten.clear(); mRequests.clear(); }
    // Every later write answers `result` (Ok to write normally again).
    void failWrites(CAN::RetType result) { Guard g(mLock); mWriteResult = result; }
    // Gateway requests recorded while option 35 is set.
    QStringList requests() const;
    // Option values answered instead of the base's defaults (35 makes a gateway).
    void setOptionAnswer(AbstractCanAdapter::AdapterOption option, const QVariant& value)
    {
        Guard g(mLock);
        mOptions.insert(int(option), value);
    }
    // Every value given to setCanAdapterOption for `option`, in call order
    // (from any thread), and forgetting them.
    QVariantList optionHistory(AbstractCanAdapter::AdapterOption option) const;
    void clearOptionHistory() { Guard g(mLock); mOptionHistory.clear(); }

    // Emit a received frame as an adapter's receive loop would, in the calling thread.
    void inject(CAN::CanRxMessage frame) { Q_EMIT newCanMessage(&frame); }
    void inject(quint32 id, std::initializer_list<quint8> data, CAN::CanTimeStamp stamp = {});
    void inject(quint32 id, const QByteArray& data);
    // Inject a frame given as hex digits ("60 00 20 01"; spaces ignored).
    void injectHex(quint32 id, const char* hex) { inject(id, QByteArray::fromHex(QByteArray(hex).replace(' ', ""))); }
    // The frames written so far as frameHex() strings.
    QList<QByteArray> writtenHex() const;

public Q_SLOTS:
    CAN::RetType write(CAN::CanMessage* pMessage) override;

private:
    mutable CanMutex mLock;
    QVector<CAN::CanMessage> mWritten;
    QStringList mRequests;
    CAN::RetType mWriteResult = CAN::Ok;
    QHash<int, QVariant> mOptions;
    QVector<QPair<int, QVariant>> mOptionHistory;
    qint16 mSequence = 0;
};

// Build a frame from an identifier and data bytes.
CAN::CanMessage makeFrame(quint32 id, std::initializer_list<quint8> data);
CAN::CanRxMessage makeRxFrame(quint32 id, std::initializer_list<quint8> data, CAN::CanTimeStamp stamp = {});
QByteArray frameData(const CAN::CanMessage& frame);
// "605:4018100200000000": identifier and data bytes in hex, for comparisons
// that show both in a failure message.
QByteArray frameHex(const CAN::CanMessage& frame);

#endif
