#ifndef ABSTRACTCANADAPTER_H
#define ABSTRACTCANADAPTER_H

#include "canopenmaster_global.h"
#include "cantypes.h"

#include <QString>
#include <QThread>
#include <QVariant>
#include <atomic>

// The one abstraction over all CAN interfaces. Each backend runs its receive
// loop in run() and announces frames with newCanMessage(); write() is
// synchronous and may be entered from several threads at once.
class CANOPENMASTER_EXPORT AbstractCanAdapter : public QThread
{
    Q_OBJECT
public:
    enum AdapterOption {
        GatewayHost = 0,        // CiA 309-3 gateway: host name or address
        GatewayPort = 1,        // CiA 309-3 gateway: TCP port
        FdMode = 17,            // interface opened in CAN FD mode
        SdoTransferActive = 26, // set during segmented and block SDO transfers
        PcanAdvancedOption = 29,
        CiA309Gateway = 35,     // true only on the CiA 309-3 gateway adapter
        VirtualBusPort = 40     // virtual bus: UDP port (default 45674)
    };
    Q_ENUM(AdapterOption)

    explicit AbstractCanAdapter(QObject* parent = nullptr);
    ~AbstractCanAdapter() override;

    // FD length rules: byte count to DLC code and back (only the low nibble counts).
    static quint8 lengthToDlc(quint8 length);
    static quint8 dlcToLength(quint8 dlc);

    // Operations in interface order (run() from QThread comes first).
    virtual CAN::RetType open() = 0;
    virtual CAN::RetType sendCiA309Command(const QString& command);
    virtual CAN::RetType sendCiA309Request(const QString& request, qint16& sequenceNumber);
    virtual CAN::RetType setBitrate(quint16 kbit) = 0;
    virtual CAN::RetType setDataBitrate(quint16 kbit);
    virtual CAN::RetType setSamplePoint(double value);
    virtual CAN::RetType setDataSamplePoint(double value);
    virtual CAN::RetType setTimingRegister(quint32 value);
    virtual CAN::RetType clearTxQueue() = 0;
    virtual CAN::RetType clearRxQueue() = 0;
    virtual int getTxQueueCount() = 0;
    virtual int getRxQueueCount() = 0;
    virtual void setAutoBusOn(bool on);
    virtual CAN::RetType resetDriver() = 0;
    virtual CAN::CanState getState() = 0;
    virtual CAN::RetType setEcho(bool echo) = 0;
    virtual void close() = 0;
    virtual int getBusLoad();
    virtual CAN::RetType setupCyclicBuffer(int index, CAN::CanMessage* message, quint32 cycleMs);
    virtual CAN::RetType controlCyclicBuffer(int command);
    virtual bool setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value);
    virtual QVariant getCanAdapterOption(AbstractCanAdapter::AdapterOption option);
    virtual void setUseSystemTime(bool useSystemTime);
    virtual quint16 getBitrate();

    // Base flags, readable by callers that configure adapters generically.
    bool isSendingBlocked() const { return mSendingBlocked.load(); }
    void setSendingBlocked(bool blocked) { mSendingBlocked.store(blocked); }
    bool useSystemTime() const { return mUseSystemTime.load(); }
    bool autoBusOn() const { return mAutoBusOn; }

    // Lives while the adapter is whole: a backend ends it first thing in its
    // destructor (endOfLife()); otherwise it goes with the adapter's children.
    // Users that write from other threads connect directly to its destroyed()
    // signal and let go of the adapter there, in the deleting thread.
    QObject* lifeToken() const { return mLifeToken; }

Q_SIGNALS:
    void newCanMessage(CAN::CanRxMessage* message);
    void newTxCanMessage(CAN::CanRxMessage message);
    void newCanState(CAN::CanState state);
    void interfaceError();
    void newCiA309Response(const QString& response);
    void newCiA309RequestSent(const QString& request);

public Q_SLOTS:
    virtual CAN::RetType write(CAN::CanMessage* pMessage) = 0;

protected:
    // Fill a time stamp from the host clock (local time of day), as used
    // when the system-time switch is on.
    static CAN::CanTimeStamp systemTimeStamp();
    void endOfLife();

    std::atomic<bool> mSendingBlocked{false};
    bool mListenOnly = false;      // second base flag, kept for backends
    bool mFdMode = false;
    bool mErrorFrames = false;     // fourth base flag, kept for backends
    quint16 mBitrate = 0;
    std::atomic<bool> mUseSystemTime{false};
    bool mAutoBusOn = false;

private:
    QObject* mLifeToken;
};

#endif
