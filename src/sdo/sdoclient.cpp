#include "sdoclient.h"

#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "sdocia309client.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"
#include "usdoexpeditedclient.h"

#include <QCoreApplication>
#include <QDebug>
#include <QEventLoop>
#include <QTimer>

bool SDOClient::mUseBlockTransfer = false;
quint32 SDOClient::mBlockTreshold = 29;
bool SDOClient::mFastSeg = false;
quint8 SDOClient::mFastSegCnt = 0;
bool SDOClient::mUseUSDO = false;
bool SDOClient::mRoutingActive = false;
quint16 SDOClient::mRoutingNetwork = 0;
quint16 SDOClient::mRoutingGatewayInLocalNetwork = 0;
QMap<quint8, QString> SDOClient::mAbortCodeMap;

namespace {
constexpr quint32 SdoAnswerBase = 0x580;  // server -> client
constexpr quint32 SdoRequestBase = 0x600; // client -> server
constexpr quint32 RoutingTimeoutCode = 0x05040000;
constexpr int RoutingErrorDelayMs = 100;
constexpr int WaitCycleMs = 10;
constexpr quint32 UsdoExpeditedLimit = 57; // USDO: shorter values fit one FD frame
} // namespace

SDOClient::SDOClient(QObject* parent)
    : CANopenService(parent)
{
    // The engines are the facade's children: they live and die with it.
    expeditedClient = new SDOExpeditedClient(this);
    segmentedClient = new SDOSegmentedClient(this);
    blockClient = new SDOBlockClient(this);
    usdoExpeditedClient = new USDOExpeditedClient(this);
    gatewayClient = new SDOCiA309Client(this);
    init();
}

SDOClient::SDOClient(quint32 clientRxCobId, quint32 serverCobId_, CanScheduler* scheduler, QObject* parent)
    : CANopenService(parent)
{
    expeditedClient = new SDOExpeditedClient(clientRxCobId, serverCobId_, scheduler, this);
    segmentedClient = new SDOSegmentedClient(clientRxCobId, serverCobId_, scheduler, this);
    blockClient = new SDOBlockClient(clientRxCobId, serverCobId_, scheduler, this);
    usdoExpeditedClient = new USDOExpeditedClient(0x29, quint8(serverCobId_ & 0xFF), scheduler, this);
    gatewayClient = new SDOCiA309Client(scheduler, this);
    serverCobId = serverCobId_;
    mScheduler = scheduler;
    // The routing answer arrives on the gateway's SDO channel; registered here
    // as in setCanScheduler so both ways of building the client behave alike.
    registerRoutingReceiver();
    init();
}

SDOClient::~SDOClient()
{
    releaseReceiver(routingSender);
}

void SDOClient::init()
{
    CanopenMaster::registerMetaTypes();
    busy = false;
    transferKind = KindNone;
    usdoLocalNode = 0x29;
    fillAbortCodeMap();
    setFastSegmentedDownload(mFastSeg, mFastSegCnt);
    setupConnections();
}

void SDOClient::setupConnections()
{
    auto hook = [this](auto* engine, bool withProgress) {
        using Engine = std::remove_pointer_t<decltype(engine)>;
        connect(engine, &Engine::resultReceived, this, &SDOClient::resultIndication);
        connect(engine, &Engine::errorReceived, this, &SDOClient::errorIndication);
        if constexpr (!std::is_same<Engine, SDOExpeditedClient>::value) {
            if (withProgress)
                connect(engine, &Engine::progress, this, &SDOClient::progressIndication);
        }
    };
    hook(expeditedClient.data(), false);
    hook(segmentedClient.data(), true);
    hook(blockClient.data(), true);
    hook(gatewayClient.data(), true);
    connect(usdoExpeditedClient.data(), &USDOExpeditedClient::resultReceived, this, &SDOClient::resultIndication);
    connect(usdoExpeditedClient.data(), &USDOExpeditedClient::errorReceived, this, &SDOClient::errorIndication);
}

// ------------------------------------------------------------------ set-up

CAN::RetType SDOClient::setCobIds(quint32 clientRxCobId, quint32 serverCobId_)
{
    if (busy)
        return CAN::Busy;
    return updateCobIds(clientRxCobId, serverCobId_);
}

CAN::RetType SDOClient::updateCobIds(quint32 clientRxCobId, quint32 serverCobId_)
{
    serverCobId = serverCobId_;
    quint32 rx = clientRxCobId, tx = serverCobId_;
    if (mRoutingActive) {
        // Routed transfers talk to the gateway node's SDO server.
        rx = SdoAnswerBase + mRoutingGatewayInLocalNetwork;
        tx = SdoRequestBase + mRoutingGatewayInLocalNetwork;
    }
    CAN::RetType r = CAN::Ok;
    if (segmentedClient)
        segmentedClient->setCobIds(rx, tx);
    if (blockClient)
        blockClient->setCobIds(rx, tx);
    if (usdoExpeditedClient)
        usdoExpeditedClient->setNodes(usdoLocalNode, serverNode());
    if (expeditedClient)
        r = expeditedClient->setCobIds(rx, tx);
    return r;
}

CAN::RetType SDOClient::setCanScheduler(CanScheduler* scheduler)
{
    releaseReceiver(routingSender);
    mScheduler = scheduler;
    if (!scheduler)
        return CAN::Error;
    // Registered even while routing is off (then on 0x580 itself).
    registerRoutingReceiver();
    CAN::RetType r = CAN::Ok;
    if (segmentedClient)
        segmentedClient->setCanScheduler(scheduler);
    if (blockClient)
        blockClient->setCanScheduler(scheduler);
    if (usdoExpeditedClient)
        usdoExpeditedClient->setCanScheduler(scheduler);
    if (gatewayClient)
        gatewayClient->setCanScheduler(scheduler);
    if (expeditedClient)
        r = expeditedClient->setCanScheduler(scheduler);
    return r;
}

void SDOClient::registerRoutingReceiver()
{
    if (!mScheduler)
        return;
    releaseReceiver(routingSender);
    routingSender = mScheduler->registerCanId(SdoAnswerBase + mRoutingGatewayInLocalNetwork);
    if (routingSender)
        connect(routingSender.data(), qOverload<CAN::CanRxMessage>(&CanSender::received), this,
                &SDOClient::canMessageIndication);
}

CAN::RetType SDOClient::setSdoTimeout(quint32 ms)
{
    sdoTimeout = quint16(ms);
    if (segmentedClient)
        segmentedClient->setSdoTimeout(ms);
    if (blockClient)
        blockClient->setSdoTimeout(ms);
    if (usdoExpeditedClient)
        usdoExpeditedClient->setSdoTimeout(ms);
    if (gatewayClient)
        gatewayClient->setSdoTimeout(ms);
    return expeditedClient ? expeditedClient->setSdoTimeout(ms) : CAN::Error;
}

quint32 SDOClient::getSdoTimeout() const
{
    return expeditedClient ? expeditedClient->getSdoTimeout() : SDOExpeditedClient::DefaultTimeoutMs;
}

void SDOClient::setFastSegmentedDownload(bool on, quint8 count)
{
    mFastSeg = on;
    mFastSegCnt = count;
    if (segmentedClient)
        segmentedClient->setFastSegmentedDownload(on, count);
}

void SDOClient::activateUSDO(bool on, quint8 localNode)
{
    usdoLocalNode = localNode;
    mUseUSDO = on;
    CANopenService::activateCANopenFD(on);
    if (on && usdoExpeditedClient)
        usdoExpeditedClient->setNodes(localNode, serverNode());
}

void SDOClient::setRouting(quint16 network, quint8 gatewayNode)
{
    mRoutingNetwork = network;
    mRoutingGatewayInLocalNetwork = gatewayNode;
    if (network != 0 && gatewayNode != 0) {
        mRoutingActive = true;
        // The SDO engines keep their COB-IDs until the next setCobIds.
        registerRoutingReceiver();
        return;
    }
    mRoutingActive = false;
    if (!busy)
        updateCobIds(serverCobId - 0x80, serverCobId);
    routingWaiting = false;
}

// -------------------------------------------------------- transfer choice

quint32 SDOClient::getSdoTypefromDataType(CAN::CANopenDataType type, quint32 size, quint8 direction)
{
    const int t = int(type);
    const bool download = direction == 2;
    if (mUseUSDO) {
        switch (t) {
        case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8:
        case 12: case 16: case 17: case 21: case 22: case 24: case 25: case 27:
            return KindUsdoExpedited;
        case 15:
            if (download && mUseBlockTransfer)
                return KindUsdoBulk;
            return KindUsdoSegmented;
        default:
            return KindUsdoSegmented;
        }
    }
    switch (t) {
    case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8: case 16: case 22:
        return KindExpedited;
    case 12: case 21: case 24: case 25: case 27:
        return KindSegmented;
    case 9: case 10: case 15:
        if (!mUseBlockTransfer)
            return KindSegmented;
        // Block download pays off only from mBlockTreshold bytes on.
        return !download || size >= mBlockTreshold ? KindBlock : KindSegmented;
    default:
        // REAL64, UNICODE_STRING, TIME_DIFFERENCE, INTEGER40..56, UNSIGNED56
        // and unknown types have no classic SDO transfer here.
        return KindNone;
    }
}

// --------------------------------------------------------------- requests

CAN::RetType SDOClient::failedStart(quint16 idx, quint8 sub, CAN::RetType code)
{
    busy = false;
    Q_EMIT opError(idx, sub, code);
    return code;
}

CAN::RetType SDOClient::beginRequest(quint16 idx, quint8 sub)
{
    if (busy) {
        Q_EMIT opError(idx, sub, CAN::Busy);
        return CAN::Busy;
    }
    busy = true;
    index = idx;
    subIndex = sub;
    return routeRequest(idx, sub);
}

CAN::RetType SDOClient::read(quint16 idx, quint8 sub, CAN::CANopenDataType type)
{
    const CAN::RetType begun = beginRequest(idx, sub);
    if (begun != CAN::Ok)
        return begun;
    // With a routing indication done, a refused kind still reports 0.
    const CAN::RetType none = transferKind == KindRouting ? CAN::Ok : CAN::NotSupported;

    transferKind = onGateway() ? quint32(KindGateway) : getSdoTypefromDataType(type, 0, 0);
    bool started = false;
    const CAN::RetType r = startEngineRead(transferKind, idx, sub, type, started);
    if (!started) {
        busy = false;
        Q_EMIT opError(idx, sub, CAN::NotSupported);
        return none;
    }
    if (r == CAN::Ok)
        return CAN::Ok;
    // The engine's code is reported twice, before and after the lock is
    // released; callers rely on that sequence.
    Q_EMIT opError(idx, sub, r);
    return failedStart(idx, sub, r);
}

CAN::RetType SDOClient::startEngineRead(quint32 kind, quint16 idx, quint8 sub, CAN::CANopenDataType type, bool& started)
{
    started = true;
    switch (kind) {
    case KindGateway:
        if (gatewayClient)
            return gatewayClient->read(serverNode(), idx, sub, type);
        break;
    case KindExpedited:
        if (expeditedClient)
            return expeditedClient->read(idx, sub, type);
        break;
    case KindSegmented:
        if (segmentedClient)
            return segmentedClient->read(idx, sub);
        break;
    case KindBlock:
        if (blockClient)
            return blockClient->read(idx, sub);
        break;
    case KindUsdoExpedited:
        if (usdoExpeditedClient) {
            usdoExpeditedClient->setRouting(mRoutingActive, quint8(mRoutingGatewayInLocalNetwork),
                                            quint8(mRoutingNetwork), serverNode());
            return usdoExpeditedClient->read(idx, sub, type);
        }
        break;
    default: // no kind, or a USDO engine not part of this build
        break;
    }
    started = false;
    return CAN::NotSupported;
}

CAN::RetType SDOClient::write(quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value)
{
    const CAN::RetType begun = beginRequest(idx, sub);
    if (begun != CAN::Ok)
        return begun;

    const bool sized = type == CAN::VISIBLE_STRING || type == CAN::OCTET_STRING || type == CAN::DOMAIN;
    const quint32 size = sized ? quint32(value.toByteArray().size()) : 0;
    quint32 kind = onGateway() ? quint32(KindGateway) : getSdoTypefromDataType(type, size, 2);
    // Short values fit one USDO frame; longer ones would need the USDO
    // segmented engine, which is not part of this build.
    if (kind == KindUsdoSegmented && value.toByteArray().size() < int(UsdoExpeditedLimit))
        kind = KindUsdoExpedited;
    if (kind != KindNone)
        transferKind = kind; // a value without transfer kind leaves the stored kind as it was

    bool started = false;
    const CAN::RetType r = startEngineWrite(kind, idx, sub, type, value, started);
    if (r == CAN::Ok)
        return CAN::Ok;
    // write always reports 2; an SDO engine's own refusal is emitted first
    // (the USDO engine's is not).
    if (started && kind != KindUsdoExpedited)
        Q_EMIT opError(idx, sub, r);
    return failedStart(idx, sub, CAN::NotSupported);
}

CAN::RetType SDOClient::startEngineWrite(quint32 kind, quint16 idx, quint8 sub, CAN::CANopenDataType type,
                                         const QVariant& value, bool& started)
{
    started = true;
    switch (kind) {
    case KindGateway:
        if (gatewayClient)
            return gatewayClient->write(serverNode(), idx, sub, type, value);
        break;
    case KindExpedited:
        if (expeditedClient)
            return expeditedClient->write(idx, sub, type, value);
        break;
    case KindSegmented:
        if (segmentedClient)
            return segmentedClient->write(idx, sub, value.toByteArray());
        break;
    case KindBlock:
        if (blockClient)
            return blockClient->write(idx, sub, value.toByteArray());
        break;
    case KindUsdoExpedited:
        if (usdoExpeditedClient)
            return usdoExpeditedClient->write(idx, sub, type, value);
        break;
    default: // no kind, or a USDO engine not part of this build
        break;
    }
    started = false;
    return CAN::NotSupported;
}

// ---------------------------------------------------------------- routing

CAN::CanMessage SDOClient::routingFrame(quint8 gatewayNode, quint16 network, quint8 serverNode)
{
    // SDO network indication (CiA 301): 0xE0, destination network LE, node.
    CAN::CanMessage m{};
    m.id = SdoRequestBase + gatewayNode;
    m.length = 8;
    m.data[0] = 0xE0;
    m.data[1] = quint8(network & 0xFF);
    m.data[2] = quint8(network >> 8);
    m.data[3] = serverNode;
    return m;
}

CAN::RetType SDOClient::routeRequest(quint16 idx, quint8 sub)
{
    if (!mRoutingActive || mUseUSDO)
        return CAN::Ok;
    CAN::CanMessage frame = routingFrame(quint8(mRoutingGatewayInLocalNetwork), mRoutingNetwork, serverNode());
    const CAN::RetType sent = writeFrame(frame);
    if (sent != CAN::Ok) {
        Q_EMIT opError(idx, sub, sent); // busy stays set, as callers of the routed path expect
        return sent;
    }
    transferKind = KindRouting;
    routingWaiting = true;
    mysleep(sdoTimeout, &routingWaiting);
    if (!routingWaiting)
        return CAN::Ok;
    // An abort answer also runs into this time-out; the time-out's code wins.
    routingWaiting = false;
    routingAbortCode = RoutingTimeoutCode;
    QTimer::singleShot(RoutingErrorDelayMs, this, &SDOClient::sendRoutingError);
    Q_EMIT opError(idx, sub, CAN::Error);
    return CAN::Error;
}

void SDOClient::canMessageIndication(CAN::CanRxMessage message)
{
    if (!mRoutingActive || !routingWaiting)
        return;
    if (message.message.id != SdoAnswerBase + mRoutingGatewayInLocalNetwork)
        return;
    if (message.message.data[0] == 0x80) {
        // Abort: keep waiting; the time-out reports the failure.
        routingAbortCode = quint32(message.message.data[4]) | quint32(message.message.data[5]) << 8
                           | quint32(message.message.data[6]) << 16 | quint32(message.message.data[7]) << 24;
        return;
    }
    routingWaiting = false;
}

void SDOClient::mysleep(quint16 ms, bool* flag)
{
    QEventLoop loop;
    if (!flag) {
        QTimer::singleShot(ms, &loop, &QEventLoop::quit);
        loop.exec();
        return;
    }
    const int cycles = ms / WaitCycleMs;
    for (int done = 0; done < cycles;) {
        QTimer::singleShot(WaitCycleMs, &loop, &QEventLoop::quit);
        loop.exec();
        if (!*flag) {
            qDebug() << Q_FUNC_INFO << "aborted after " << done << " 10ms cycles.";
            return;
        }
        ++done;
    }
}

void SDOClient::sendRoutingError()
{
    busy = false;
    Q_EMIT errorReceived(index, subIndex, routingAbortCode);
}

// -------------------------------------------------------- running transfer

CAN::RetType SDOClient::abort(quint32 abortCode)
{
    // The engine of the running transfer aborts it; without that engine
    // nothing happens and the answer is still 0.
    SDOExpeditedClient* sdo = transferKind == KindExpedited   ? expeditedClient.data()
                              : transferKind == KindSegmented ? static_cast<SDOExpeditedClient*>(segmentedClient.data())
                              : transferKind == KindBlock     ? static_cast<SDOExpeditedClient*>(blockClient.data())
                                                              : nullptr;
    if (sdo) {
        busy = false;
        sdo->abort(abortCode);
    } else if (transferKind == KindUsdoExpedited && usdoExpeditedClient) {
        busy = false;
        usdoExpeditedClient->abort(abortCode);
    } else if (transferKind == KindGateway) {
        busy = false;
        return gatewayClient ? gatewayClient->abort(abortCode) : CAN::NotSupported;
    }
    // none, routing, or a USDO engine this build lacks: 0 all the same
    return CAN::Ok;
}

QByteArray SDOClient::getCurrentlyReceivedData() const
{
    if (mUseUSDO)
        return QByteArray(); // the USDO segmented engine is not part of this build
    if (transferKind == KindSegmented && segmentedClient)
        return segmentedClient->getCurrentlyReceivedData();
    if (transferKind == KindBlock && blockClient)
        return blockClient->getCurrentlyReceivedData();
    if (transferKind == KindGateway && gatewayClient)
        return gatewayClient->getCurrentlyReceivedData();
    return QByteArray();
}

// ----------------------------------------------------------------- slots

void SDOClient::resultIndication(quint16 idx, quint8 sub, QVariant value)
{
    busy = false;
    Q_EMIT resultReceived(idx, sub, value);
}

void SDOClient::errorIndication(quint16 idx, quint8 sub, quint32 errorCode)
{
    busy = false;
    Q_EMIT errorReceived(idx, sub, errorCode);
}

void SDOClient::progressIndication(quint8 percentValue)
{
    Q_EMIT progress(percentValue);
}

// ------------------------------------------------------------ abort texts

QString SDOClient::interpretSdoAbort(quint32 code)
{
    // In USDO mode every abort code is read as a USDO code.
    if (mUseUSDO)
        return interpretUsdoAbort(code);
    switch (code) {
    case 0x05030000: return QStringLiteral("Toggle bit not alternated");
    case 0x05040000: return QStringLiteral("SDO Protocol timed out");
    case 0x05040001: return QStringLiteral("Command specifier not valid or unknown");
    case 0x05040002: return QStringLiteral("Invalid block size (block mode only).");
    case 0x05040003: return QStringLiteral("Invalid sequence number (block mode only).");
    case 0x05040004: return QStringLiteral("CRC error (block mode only).");
    case 0x05040005: return QStringLiteral("Unsupported access to an object"); // sic, as 0x06010000
    case 0x06010000: return QStringLiteral("Unsupported access to an object");
    case 0x06010001: return QStringLiteral("Attempt to read a write only object");
    case 0x06010002: return QStringLiteral("Attempt to write a read only object");
    case 0x06020000: return QStringLiteral("Object does not exist");
    case 0x06040041: return QStringLiteral("Object cannot be mapped to the PDO");
    case 0x06040042: return QStringLiteral("The number and length of the objects to be mapped would exceed PDO length");
    case 0x06040043: return QStringLiteral("General parameter incompatibility reason");
    case 0x06040047: return QStringLiteral("General internal incompatibility in the device.");
    case 0x06060000: return QStringLiteral("Access failed due to an hardware error");
    case 0x06070010: return QStringLiteral("Data type does not match, length of service parameter does not match");
    case 0x06070012: return QStringLiteral("Data type does not match: length too high");
    case 0x06070013: return QStringLiteral("Data type does not match: length too low");
    case 0x06090011: return QStringLiteral("sub index does not exist");
    case 0x06090030: return QStringLiteral("Invalid value for parameter (download only)");
    case 0x06090031: return QStringLiteral("Value of parameter written too high (download only).");
    case 0x06090032: return QStringLiteral("Value of parameter written too lpw (download only)."); // sic
    case 0x06090036: return QStringLiteral("Maximum value is less than minimum value");
    case 0x060A0023: return QStringLiteral("Resource not available: SDO connection");
    case 0x08000000: return QStringLiteral("General error");
    case 0x08000020: return QStringLiteral("Data cannot be transferred or stored to the application");
    case 0x08000021: return QStringLiteral("Data cannot be transferred or stored to the application because of local control");
    case 0x08000022: return QStringLiteral("Data cannot be transferred or stored to the application because of present device state");
    case 0x08000023: return QStringLiteral("Object dictionary dynamic generation failes or no object dictionary is present"); // sic
    case 0x08000024: return QStringLiteral("No data available");
    default: return QStringLiteral("unknown SDO abort code");
    }
}

QString SDOClient::interpretUsdoAbort(quint32 code)
{
    // USDO abort codes are one byte (CiA 1301); only the low byte is looked up.
    const auto it = mAbortCodeMap.constFind(quint8(code & 0xFF));
    if (it != mAbortCodeMap.constEnd())
        return it.value();
    return QCoreApplication::translate("SDOClient", "Error Code %1 \n No interpretation yet")
        .arg(qulonglong(code), 0, 10);
}

void SDOClient::fillAbortCodeMap()
{
    static const struct {
        quint8 code;
        const char* text;
    } rows[] = {
        {0x10, "Unknown error"},
        {0x11, "USDO protocol error detected"},
        {0x12, "USDO time out error"},
        {0x13, "Unknown command specifier"},
        {0x14, "Invalid value in counter byte(segmented protocol)"},
        {0x15, "CRC error"},
        {0x16, "Out of memory"},
        {0x17, "General parameter incompatibility reason"},
        {0x18, "General internal incompatibility in the device"},
        {0x19, "USDO general routing error"},
        {0x1A, "USDO destination network unknown"},
        {0x1B, "USDO destination node unknown"},
        {0x1C, "USDO source network unknown"},
        {0x1D, "USDO source node unknown"},
        {0x1E, "Unexpected CAN DLC"},
        {0x1F, "Unexpected multiplexer"},
        {0x30, "Unsupported access to an object"},
        {0x31, "Attempt to read a write only object"},
        {0x32, "Attempt to write a read only object"},
        {0x33, "Object does not exist in the object dictionary"},
        {0x34, "Sub-index does not exist"},
        {0x35, "Access failed due to a hardware error"},
        {0x36, "Data type does not match, length of service parameter does not match"},
        {0x37, "Data type does not match, length of service parameter too high"},
        {0x38, "Data type does not match, length of service parameter too low"},
        {0x40, "Invalid value for parameter (download only)"},
        {0x41, "Value of parameter written too high (download only)"},
        {0x42, "Value of parameter written too low (download only)"},
        {0x43, "Maximum value is less than minimum value"},
        {0x44, "Minimum value is higher than maximum value"},
        {0x45, "CAN-ID and CAN frame format are of access type read-only"},
        {0x50, "Object cannot be mapped to the PDO"},
        {0x51, "The number and length of the objects to be mapped would exceed PDO length"},
        {0x52, "Attempt to map a non-mappable parameter to a PDO"},
        {0x53, "Attempt to map a parameter of PDO access type RPDO to a TPDO"},
        {0x54, "Attempt to map a parameter of PDO access type TPDO to a RPDO"},
        {0x55, "Attempt to write to PDO parameters, while PDO is valid"},
        {0x56, "Attempt to write to PDO mapping parameters, while PDO mapping is valid"},
        {0x60, "Data cannot be transferred or stored to the application"},
        {0x61, "Data cannot be transferred or stored to the application because of local control"},
        {0x62, "Data cannot be transferred or stored to the application because of the present device state"},
        {0x63, "Object dictionary dynamic generation fails or no object dictionary is present"},
        {0x64, "No data available"},
        {0x70, "USDO server busy"},
    };
    mAbortCodeMap.clear();
    for (const auto& row : rows)
        mAbortCodeMap.insert(row.code, QString::fromLatin1(row.text));
}
