#include "simtpdo.h"
#include "simdevice.h"

SimTpdo::SimTpdo(SimDevice* device, QObject* parent)
    : QObject(parent)
    , mDevice(device)
{
    // A reset (the device passes through initialising) starts the counter over.
    connect(device, &SimDevice::nmtStateChanged, this, [this](SimDevice::NmtState state) {
        if (state == SimDevice::Initialising)
            mCounter.store(0);
    }, Qt::DirectConnection);
    mHandler = device->addHandler([this](const CAN::CanRxMessage& frame) { return handleFrame(frame); });
}

SimTpdo::~SimTpdo()
{
    mDevice->removeHandler(mHandler);
}

CAN::CanMessage SimTpdo::buildFrame(quint8 nodeId, quint16 counter)
{
    CAN::CanMessage m;
    m.id = 0x180u + nodeId;
    m.length = 6;
    const quint32 value = quint32(valueFor(counter));
    m.data[0] = quint8(counter & 0xFF); // CiA 301: least significant byte first
    m.data[1] = quint8(counter >> 8);
    for (int i = 0; i < 4; ++i)
        m.data[2 + i] = quint8(value >> (8 * i));
    return m;
}

bool SimTpdo::handleFrame(const CAN::CanRxMessage& frame)
{
    const CAN::CanMessage& m = frame.message;
    if (m.id != SyncId || m.rtr || m.extended)
        return false;
    // PDOs are sent in operational only.
    if (mDevice->nmtState() == SimDevice::Operational) {
        const quint16 counter = quint16(mCounter.load() + 1);
        mCounter.store(counter);
        mDevice->send(buildFrame(mDevice->nodeId(), counter));
    }
    return false; // other SYNC consumers may want it too
}
