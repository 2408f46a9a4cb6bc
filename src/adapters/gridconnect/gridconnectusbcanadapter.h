#ifndef GRIDCONNECTUSBCANADAPTER_H
#define GRIDCONNECTUSBCANADAPTER_H

#include "abstractcanadapter.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QPointer>
#include <QStringList>
#include <atomic>
#include <mutex>

class QSerialPort;

// USB-to-CAN interface on a serial port speaking the GridConnect ASCII frame
// format: configured with fixed text commands at open(), then one text line
// per transmitted and per received frame. A minimal backend: no time stamps,
// no state reports, no queues, the device always runs 125 kbit/s.
//
// Received frames are announced through the base class's newCanMessage()
// (and the other base signals): this class declares no signals of its own,
// since re-declaring them would shadow the base's and break pointer-to-member
// connections made on AbstractCanAdapter (the dispatcher's among them).
//
// Threads: the serial port object belongs to the receive loop's thread from
// open() on. write() runs in callers' threads and does not touch that
// object: it writes the line to the port's file descriptor under a lock, so
// lines of concurrent writers never interleave and the loop's reading is not
// disturbed (QSerialPort itself is not thread-safe).
class CANOPENMASTER_EXPORT GridConnectUSBCanAdapter : public AbstractCanAdapter
{
    Q_OBJECT
public:
    static constexpr int MaxLineLength = 100;

    explicit GridConnectUSBCanAdapter(const QString& portName, QObject* parent = nullptr);
    ~GridConnectUSBCanAdapter() override;

    CAN::RetType open() override;
    void close() override;
    CAN::RetType setBitrate(quint16 kbit) override;
    CAN::RetType setEcho(bool echo) override;
    CAN::RetType clearTxQueue() override { return CAN::Ok; }
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override { return 0; }
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override { return CAN::Ok; }
    CAN::CanState getState() override { return CAN::Stopped; }

    QString interfaceName() const { return mInterfaceName; }

    // The serial ports the system knows, by name (for a front end: this
    // class has no factory type). Other paths, pseudo-terminals for example,
    // can be passed to the constructor as well.
    static QStringList getInterfaceList();
    static QList<QPair<QString, quint32>> getSupportedBaudrates();

    // The configuration lines sent at open(), in order.
    static QList<QByteArray> configurationLines();
    // "|S<id>N<data>;\r\n": identifier in lower-case hexadecimal (at least 3
    // digits), data only for a data frame with bytes.
    static QByteArray formatTransmitLine(const CAN::CanMessage& message);
    // Fills `record` from a received line as the loop does; false when the
    // line is dropped. Only the fields a line carries are written: data bytes
    // beyond the new length keep what they were (the loop reuses its record).
    static bool parseReceiveLine(const QByteArray& line, CAN::CanRxMessage& record);

public Q_SLOTS:
    CAN::RetType write(CAN::CanMessage* pMessage) override;

protected:
    void run() override;

private:
    void writeBytes(const QByteArray& bytes);
    void stopLoop();

    QString mInterfaceName;
    quint16 mOwnBitrate = 0;
    QPointer<QSerialPort> mPort; // owner thread until start(), then the loop's
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mEcho{false};
    std::mutex mWriteLock;       // guards mFd and serialises the lines written
    int mFd = -1;
};

#endif
