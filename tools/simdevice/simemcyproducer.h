#ifndef SIMEMCYPRODUCER_H
#define SIMEMCYPRODUCER_H

#include "cantypes.h"

#include <array>

class SimDevice;

// The device's emergency producer: EMCY frames on 0x80 + node ID, eight
// bytes: error code (low byte first), error register, five manufacturer
// bytes. Like a real device it is silent while stopped or initialising.
class SimEmcyProducer
{
public:
    using ManufacturerData = std::array<quint8, 5>;

    explicit SimEmcyProducer(SimDevice* device);

    // Sends an emergency (any thread). 7 (not ready) while the device is
    // stopped or initialising, else the adapter's result.
    CAN::RetType raise(quint16 errorCode, quint8 errorRegister, const ManufacturerData& manufacturer = {});
    // Error reset: error code 0, error register 0, no manufacturer data.
    CAN::RetType clear();

    static CAN::CanMessage buildFrame(quint8 nodeId, quint16 errorCode, quint8 errorRegister,
                                      const ManufacturerData& manufacturer);

private:
    SimDevice* mDevice;
};

#endif
