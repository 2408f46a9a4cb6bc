#include "usdoexpeditedclient.h"

#include "canopenmasterclass.h"
#include "sdoexpeditedclient.h"

#include <QTimer>
#include <cstring>

namespace {
constexpr quint32 AnswerBase = 0x580;
constexpr quint32 RequestBase = 0x600;
// USDO command bytes (CiA 1301).
constexpr quint8 CmdDownload = 0x01, CmdUpload = 0x11, CmdRouted = 0x80;
constexpr quint8 CmdAnswer = 0x21, CmdRoutedAnswer = 0xA1, CmdAbort = 0x7F;
constexpr quint8 AnswerMask = 0xEF; // bit 4 (upload/download) is not compared

void put16(CAN::CanMessage& m, int at, quint16 v)
{
    m.data[at] = quint8(v & 0xFF);
    m.data[at + 1] = quint8(v >> 8);
}

CAN::CanMessage fdFrame(quint32 id, int length, bool bitRateSwitch)
{
    CAN::CanMessage m{};
    m.id = id;
    m.length = quint8(length);
    m.fd = true;
    m.brs = bitRateSwitch; // a routed request may cross a classic segment
    return m;
}
} // namespace

USDOExpeditedClient::USDOExpeditedClient(QObject* parent)
    : CANopenService(parent)
{
    init();
}

USDOExpeditedClient::USDOExpeditedClient(quint8 local, quint8 server, CanScheduler* scheduler, QObject* parent)
    : CANopenService(parent)
{
    init();
    mScheduler = scheduler;
    setNodes(local, server);
}

USDOExpeditedClient::~USDOExpeditedClient()
{
    releaseReceivers();
}

void USDOExpeditedClient::init()
{
    CanopenMaster::registerMetaTypes();
    timer = new QTimer(this);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &USDOExpeditedClient::timeout);
}

// ------------------------------------------------------------------ set-up

CAN::RetType USDOExpeditedClient::setNodes(quint8 local, quint8 server)
{
    if (busy)
        return CAN::Busy;
    localNode = local;
    serverNode = server;
    rxCanId = AnswerBase + server;
    txCanId = RequestBase + local; // a USDO client sends on its own node's CAN-ID
    direction = 0;
    registerReceivers();
    return CAN::Ok;
}

CAN::RetType USDOExpeditedClient::setCanScheduler(CanScheduler* scheduler)
{
    releaseReceivers();
    mScheduler = scheduler;
    if (!scheduler)
        return CAN::Error;
    registerReceivers();
    return CAN::Ok;
}

void USDOExpeditedClient::releaseReceivers()
{
    releaseReceiver(canSender);
    for (QPointer<CanSender>& s : broadcastSenders)
        releaseReceiver(s);
    broadcastSenders.clear();
}

void USDOExpeditedClient::registerReceivers()
{
    releaseReceivers();
    if (!mScheduler)
        return;
    reregister(rxCanId, canSender);
    if (serverNode != 0)
        return;
    // Addressed to all nodes: every node's request channel may carry answers.
    broadcastSenders.reserve(0x7F);
    for (quint32 id = 0x601; id <= 0x67F; ++id) {
        QPointer<CanSender> s;
        reregister(id, s);
        broadcastSenders.append(s);
    }
}

void USDOExpeditedClient::setRouting(bool active, quint8 gateway, quint8 network, quint8 server)
{
    routingActive = active;
    routingGateway = gateway;
    routingNetwork = network;
    routingServerNode = server;
}

CAN::RetType USDOExpeditedClient::setSdoTimeout(quint32 ms)
{
    if (busy)
        return CAN::Busy;
    sdoTimeout = ms;
    return CAN::Ok;
}

// ---------------------------------------------------------------- frames

CAN::CanMessage USDOExpeditedClient::uploadFrame(quint8 local, quint8 server, quint8 session, quint16 idx,
                                                 quint8 sub, const Route& route)
{
    if (!route.active) {
        CAN::CanMessage m = fdFrame(RequestBase + local, 6, true);
        m.data[0] = server;
        m.data[1] = CmdUpload;
        m.data[2] = session;
        m.data[3] = sub;
        put16(m, 4, idx);
        return m;
    }
    CAN::CanMessage m = fdFrame(RequestBase + local, 12, false);
    m.data[0] = route.gateway;
    m.data[1] = CmdUpload | CmdRouted;
    m.data[2] = session;
    m.data[3] = route.network;
    m.data[4] = route.serverNode;
    m.data[5] = route.sourceNetwork;
    m.data[6] = local;
    m.data[7] = sub;
    put16(m, 8, idx);
    return m;
}

CAN::CanMessage USDOExpeditedClient::downloadFrame(quint8 local, quint8 server, quint8 session, quint16 idx,
                                                   quint8 sub, CAN::CANopenDataType type, const QByteArray& value,
                                                   const Route& route)
{
    const int n = qMin(value.size(), MaxValueBytes);
    const int head = route.active ? 12 : 8;
    CAN::CanMessage m = fdFrame(RequestBase + local, head + n, !route.active);
    m.data[2] = session;
    if (!route.active) {
        m.data[0] = server;
        m.data[1] = CmdDownload;
        m.data[3] = sub;
        put16(m, 4, idx);
        m.data[6] = quint8(type);
        m.data[7] = quint8(n);
    } else {
        m.data[0] = route.gateway;
        m.data[1] = CmdDownload | CmdRouted;
        m.data[3] = route.network;
        m.data[4] = route.serverNode;
        m.data[5] = route.sourceNetwork;
        m.data[6] = local;
        m.data[7] = sub;
        put16(m, 8, idx);
        m.data[10] = quint8(type);
        m.data[11] = quint8(n);
    }
    std::memcpy(m.data + head, value.constData(), size_t(n));
    return m;
}

CAN::CanMessage USDOExpeditedClient::abortFrame(quint8 local, quint8 server, quint8 session, quint16 idx,
                                                quint8 sub, quint8 code)
{
    // Abort: command 0x7F, the one-byte abort code in byte 6.
    CAN::CanMessage m = fdFrame(RequestBase + local, 8, true);
    m.data[0] = server;
    m.data[1] = CmdAbort;
    m.data[2] = session;
    m.data[3] = sub;
    put16(m, 4, idx);
    m.data[6] = code;
    return m;
}

QByteArray USDOExpeditedClient::encodeValue(CAN::CANopenDataType type, const QVariant& value)
{
    int n = 0;
    switch (type) {
    case CAN::BOOLEAN: case CAN::INTEGER8: case CAN::UNSIGNED8: n = 1; break;
    case CAN::INTEGER16: case CAN::UNSIGNED16: n = 2; break;
    case CAN::INTEGER24: case CAN::UNSIGNED24: n = 3; break;
    case CAN::INTEGER32: case CAN::UNSIGNED32: case CAN::REAL32: n = 4; break;
    case CAN::VISIBLE_STRING: case CAN::OCTET_STRING: case CAN::DOMAIN: {
        const QByteArray bytes = value.toByteArray();
        return bytes.size() <= MaxValueBytes ? bytes : QByteArray();
    }
    default:
        return QByteArray();
    }
    // Numbers little-endian, REAL32 as its IEEE 754 bits, as on classic SDO.
    const quint32 raw = SDOExpeditedClient::encodeValue(type, value);
    QByteArray bytes(n, '\0');
    for (int i = 0; i < n; ++i)
        bytes[i] = char((raw >> (8 * i)) & 0xFF);
    return bytes;
}

// -------------------------------------------------------------- requests

USDOExpeditedClient::Route USDOExpeditedClient::route() const
{
    Route r;
    r.active = routingActive;
    r.gateway = routingGateway;
    r.network = routingNetwork;
    r.serverNode = routingServerNode;
    r.sourceNetwork = sourceNetwork;
    return r;
}

CAN::RetType USDOExpeditedClient::start(CAN::CanMessage frame, quint32 dir)
{
    const CAN::RetType sent = writeFrame(frame);
    if (sent != CAN::Ok)
        return CAN::Error;
    ++sessionId; // wraps at 256
    direction = dir;
    if (sdoTimeout != 0) {
        busy = 1;
        timer->start(int(sdoTimeout));
    }
    return CAN::Ok;
}

CAN::RetType USDOExpeditedClient::read(quint16 idx, quint8 sub, CAN::CANopenDataType type)
{
    if (busy)
        return CAN::Busy;
    const int t = int(type);
    if (!((t >= 1 && t <= 10) || t == 15 || t == 16 || t == 22))
        return CAN::NotSupported;
    index = idx;
    subIndex = sub;
    dataType = type;
    return start(uploadFrame(localNode, serverNode, sessionId, idx, sub, route()), 1);
}

CAN::RetType USDOExpeditedClient::write(quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value)
{
    if (busy)
        return CAN::Busy;
    const QByteArray bytes = encodeValue(type, value);
    const bool sized = type == CAN::VISIBLE_STRING || type == CAN::OCTET_STRING || type == CAN::DOMAIN;
    if (bytes.isEmpty() && !(sized && value.toByteArray().isEmpty()))
        return CAN::NotSupported; // no expedited form, or 57 bytes and more
    index = idx;
    subIndex = sub;
    dataType = type;
    writeValue = value;
    return start(downloadFrame(localNode, serverNode, sessionId, idx, sub, type, bytes, route()), 2);
}

CAN::RetType USDOExpeditedClient::abort(quint32 abortCode)
{
    timer->stop();
    const bool running = busy != 0;
    busy = 0;
    direction = 3;
    if (abortCode != 0) {
        CAN::CanMessage frame = abortFrame(localNode, serverNode, sessionId, index, subIndex, quint8(abortCode));
        writeFrame(frame);
    }
    if (running)
        Q_EMIT errorReceived(index, subIndex, abortCode);
    return CAN::Ok;
}

void USDOExpeditedClient::timeout()
{
    if (!busy)
        return;
    // Like the SDO engines: tell the server, then report the time-out.
    CAN::CanMessage frame = abortFrame(localNode, serverNode, sessionId, index, subIndex, AbortTimeout);
    writeFrame(frame);
    busy = 0;
    direction = 3;
    Q_EMIT errorReceived(index, subIndex, AbortTimeout);
}

void USDOExpeditedClient::endTransfer()
{
    timer->stop();
    busy = 0;
}

// --------------------------------------------------------------- answers

void USDOExpeditedClient::newCanMessageReceived(CAN::CanRxMessage message)
{
    const CAN::CanMessage& m = message.message;
    if (busy != 1 || m.length < 2)
        return;
    if (serverNode != 0 && m.id != rxCanId)
        return;
    const quint8 cmd = m.data[1];
    if (cmd == CmdAbort) {
        endTransfer();
        Q_EMIT errorReceived(index, subIndex, m.length > 6 ? m.data[6] : 0);
        return;
    }
    // Plain answer: sub-index at 3, index at 4-5, length at 7, data from 8.
    // Routed answer: sub-index at 7, index at 8-9, length at 11, data from 12.
    const bool plain = (cmd & AnswerMask) == CmdAnswer;
    const bool routed = routingActive && (cmd & AnswerMask) == CmdRoutedAnswer;
    const int subAt = routed ? 7 : 3;
    const int head = routed ? 12 : 8;
    if (m.length < subAt + 3)
        return;
    const quint8 sub = m.data[subAt];
    const quint16 idx = quint16(m.data[subAt + 1] | m.data[subAt + 2] << 8);
    if (sub != subIndex || idx != index)
        return;
    if (!plain && !routed) {
        timer->stop(); // an unexpected command for our entry: stop waiting, no outcome
        return;
    }
    endTransfer();
    QVariant value = writeValue;
    if (direction == 1) {
        const int declared = m.length > head - 1 ? m.data[head - 1] : 0;
        const int available = qMax(0, int(m.length) - head);
        if (declared < 5) {
            quint32 raw = 0;
            for (int i = 0; i < 4 && i < available; ++i)
                raw |= quint32(m.data[head + i]) << (8 * i);
            value = SDOExpeditedClient::decodeValue(dataType, raw);
        } else {
            // A length beyond the frame is cut to what arrived.
            value = QByteArray(reinterpret_cast<const char*>(m.data + head), qMin(declared, available));
        }
    }
    writeValue = QVariant();
    Q_EMIT resultReceived(index, subIndex, value);
}
