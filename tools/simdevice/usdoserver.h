#ifndef USDOSERVER_H
#define USDOSERVER_H

#include "cantypes.h"

#include <QByteArray>

class ObjectDictionary;
class SimDevice;

// The simulated device's USDO server (CANopen FD): expedited uploads and
// downloads of up to 56 bytes, one request frame and one answer frame, on
// the object dictionary the SDO server uses. A client sends on 0x600 + its
// own node-ID with the destination node in byte 0; the answer goes out on
// 0x580 + this node-ID, addressed to the client, with the request's session
// number. Routed requests (0x91/0x81) addressed to this node are answered
// as their final server: the device plays gateway and target at once, so
// that a client's routed mode can be tried on one simulated device; the
// answer (0xA1) mirrors the request's routed layout.
class UsdoServer
{
public:
    UsdoServer(SimDevice* device, ObjectDictionary* dictionary);
    ~UsdoServer();

    // The frame handler: true when the frame was a USDO request to this node.
    bool handleFrame(const CAN::CanRxMessage& frame);

    // The answer to one request (pure: the dictionary is the only state);
    // an empty frame (length 0) when the request is not for `node`.
    static CAN::CanMessage answer(const CAN::CanMessage& request, quint8 node, ObjectDictionary& dictionary);
    // USDO abort code (one byte) for an SDO abort code of the dictionary.
    static quint8 usdoAbortCode(quint32 sdoAbortCode);

private:
    SimDevice* mDevice;
    ObjectDictionary* mDictionary;
    int mHandle = 0;
};

#endif
