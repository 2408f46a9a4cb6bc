#include "simemcyproducer.h"
#include "simdevice.h"

SimEmcyProducer::SimEmcyProducer(SimDevice* device)
    : mDevice(device)
{
}

CAN::CanMessage SimEmcyProducer::buildFrame(quint8 nodeId, quint16 errorCode, quint8 errorRegister,
                                            const ManufacturerData& manufacturer)
{
    CAN::CanMessage m;
    m.id = 0x80u + nodeId;
    m.length = 8;
    m.data[0] = quint8(errorCode & 0xFF);
    m.data[1] = quint8(errorCode >> 8);
    m.data[2] = errorRegister;
    for (int i = 0; i < 5; ++i)
        m.data[3 + i] = manufacturer[size_t(i)];
    return m;
}

CAN::RetType SimEmcyProducer::raise(quint16 errorCode, quint8 errorRegister, const ManufacturerData& manufacturer)
{
    // EMCY is sent in pre-operational and operational only.
    const SimDevice::NmtState state = mDevice->nmtState();
    if (state != SimDevice::PreOperational && state != SimDevice::Operational)
        return CAN::NotReady;
    return mDevice->send(buildFrame(mDevice->nodeId(), errorCode, errorRegister, manufacturer));
}

CAN::RetType SimEmcyProducer::clear()
{
    return raise(0x0000, 0x00);
}
