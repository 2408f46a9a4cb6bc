#ifndef SIMTPDO_H
#define SIMTPDO_H

#include "cantypes.h"

#include <QObject>
#include <atomic>

class SimDevice;

// The device's synchronous TPDO: on every SYNC (0x80) received while the
// device is operational it sends 0x180 + node ID with six bytes:
//   bytes 0-1  UNSIGNED16  counter: 1 at the first TPDO after start-up or a
//                          reset, +1 with each TPDO, wrapping 65535 -> 0
//   bytes 2-5  INTEGER32   value: -1000 times the counter
class SimTpdo : public QObject
{
    Q_OBJECT
public:
    static constexpr quint32 SyncId = 0x80;

    explicit SimTpdo(SimDevice* device, QObject* parent = nullptr);
    ~SimTpdo() override;

    // The counter of the last TPDO sent (0: none since the last reset).
    quint16 counter() const { return mCounter.load(); }

    static qint32 valueFor(quint16 counter) { return qint32(-1000 * qint64(counter)); }
    static CAN::CanMessage buildFrame(quint8 nodeId, quint16 counter);

private:
    bool handleFrame(const CAN::CanRxMessage& frame);

    SimDevice* mDevice;
    int mHandler = 0;
    std::atomic<quint16> mCounter{0};
};

#endif
