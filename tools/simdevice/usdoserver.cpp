#include "usdoserver.h"

#include "abstractcanadapter.h"
#include "objectdictionary.h"
#include "sdoabortcodes.h"
#include "simdevice.h"

#include <cstring>

namespace {
// Command specifiers (byte 1).
constexpr quint8 Download = 0x01;
constexpr quint8 Upload = 0x11;
constexpr quint8 RoutedDownload = 0x81;
constexpr quint8 RoutedUpload = 0x91;
constexpr quint8 Answer = 0x21;
constexpr quint8 RoutedAnswer = 0xA1;
constexpr quint8 Abort = 0x7F;
constexpr int MaxValue = 56; // an expedited USDO frame carries at most 56 bytes
// USDO abort codes.
constexpr quint8 UnknownError = 0x10;
constexpr quint8 UnknownCommand = 0x13;
constexpr quint8 UnexpectedDlc = 0x1E;
constexpr quint8 LengthTooHigh = 0x37;
} // namespace

UsdoServer::UsdoServer(SimDevice* device, ObjectDictionary* dictionary)
    : mDevice(device)
    , mDictionary(dictionary)
{
    mHandle = device->addHandler([this](const CAN::CanRxMessage& f) { return handleFrame(f); });
}

UsdoServer::~UsdoServer()
{
    mDevice->removeHandler(mHandle);
}

quint8 UsdoServer::usdoAbortCode(quint32 code)
{
    switch (code) {
    case SdoAbort::InvalidCommand: return UnknownCommand;
    case SdoAbort::ReadOfWriteOnly: return 0x31;
    case SdoAbort::WriteOfReadOnly: return 0x32;
    case SdoAbort::ObjectDoesNotExist: return 0x33;
    case SdoAbort::SubIndexDoesNotExist: return 0x34;
    case SdoAbort::LengthMismatch: return 0x36;
    case SdoAbort::LengthTooHigh: return 0x37;
    case SdoAbort::LengthTooLow: return 0x38;
    case SdoAbort::ValueRangeExceeded: return 0x40;
    case SdoAbort::GeneralError: return 0x60;
    default: return UnknownError;
    }
}

CAN::CanMessage UsdoServer::answer(const CAN::CanMessage& request, quint8 node, ObjectDictionary& dictionary)
{
    CAN::CanMessage none;
    // Requests are CAN FD frames on 0x600 + the client's node-ID and name the
    // server in byte 0 (a classic frame there is an SDO request, not ours).
    if (!request.fd || request.id < 0x601 || request.id > 0x67F || request.extended || request.rtr
        || request.length < 2 || request.data[0] != node)
        return none;
    const quint8 client = quint8(request.id - 0x600);
    const quint8 cmd = request.data[1];
    const bool routed = cmd == RoutedDownload || cmd == RoutedUpload;
    // Positions of sub-index, index, type and length: plain 3/4/6/7, routed 7/8/10/11.
    const int subAt = routed ? 7 : 3;
    const int head = routed ? 12 : 8;

    CAN::CanMessage a;
    a.id = 0x580u + node;
    a.fd = true;
    a.brs = !routed;
    a.data[0] = client;
    a.data[2] = request.length > 2 ? request.data[2] : 0; // session number
    const auto abort = [&](quint8 code) {
        a.data[1] = Abort;
        a.data[3] = request.length > subAt ? request.data[subAt] : 0;
        a.data[4] = request.length > subAt + 1 ? request.data[subAt + 1] : 0;
        a.data[5] = request.length > subAt + 2 ? request.data[subAt + 2] : 0;
        a.data[6] = code;
        a.length = 8;
        return a;
    };
    if (cmd != Download && cmd != Upload && !routed)
        return abort(UnknownCommand);
    const bool upload = cmd == Upload || cmd == RoutedUpload;
    const int minLength = upload ? subAt + 3 : head;
    if (request.length < minLength)
        return abort(UnexpectedDlc);
    const quint8 sub = request.data[subAt];
    const quint16 index = quint16(request.data[subAt + 1] | request.data[subAt + 2] << 8);

    // The answer's head mirrors the request's: routed answers keep bytes 3-6.
    a.data[1] = routed ? RoutedAnswer : Answer;
    if (routed)
        std::memcpy(a.data + 3, request.data + 3, 4);
    a.data[subAt] = sub;
    a.data[subAt + 1] = quint8(index);
    a.data[subAt + 2] = quint8(index >> 8);
    if (upload) {
        ObjectDictionary::Info info;
        quint32 code = dictionary.lookup(index, sub, info);
        std::vector<quint8> value;
        if (code == SdoAbort::None)
            code = dictionary.read(index, sub, value);
        if (code != SdoAbort::None)
            return abort(usdoAbortCode(code));
        if (int(value.size()) > MaxValue)
            return abort(LengthTooHigh); // would need a segmented USDO transfer
        a.data[head - 2] = quint8(info.type);
        a.data[head - 1] = quint8(value.size());
        std::memcpy(a.data + head, value.data(), value.size());
        a.length = AbstractCanAdapter::dlcToLength(AbstractCanAdapter::lengthToDlc(quint8(head + int(value.size()))));
        return a;
    }
    // Download: the declared length must match what the frame carries. The
    // data type is not compared with the entry's: the length checks of the
    // dictionary decide, as for SDO.
    const int n = request.data[head - 1];
    if (n > MaxValue || head + n > request.length)
        return abort(UnexpectedDlc);
    const quint32 code = dictionary.write(index, sub, request.data + head, quint32(n));
    if (code != SdoAbort::None)
        return abort(usdoAbortCode(code));
    a.data[head - 2] = request.data[head - 2];
    a.data[head - 1] = 0;
    a.length = quint8(head);
    return a;
}

bool UsdoServer::handleFrame(const CAN::CanRxMessage& frame)
{
    const CAN::CanMessage a = answer(frame.message, mDevice->nodeId(), *mDictionary);
    if (a.length == 0)
        return false;
    mDevice->send(a);
    return true;
}
