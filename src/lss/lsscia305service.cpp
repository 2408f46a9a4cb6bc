#include "lsscia305service.h"

#include "deletelater.h"
#include "lssclassicalscan.h"
#include "lssfastscan.h"

#include <QStringList>

namespace {
// Command specifiers (CiA 305).
constexpr quint8 SwitchGlobal = 0x04;
constexpr quint8 ConfigureNodeId = 0x11;
constexpr quint8 ConfigureBitTiming = 0x13;
constexpr quint8 ActivateBitTiming = 0x15;
constexpr quint8 StoreConfiguration = 0x17;
constexpr quint8 SwitchSelectiveVendor = 0x40; // 0x41 product, 0x42 revision, 0x43 serial
constexpr quint8 SwitchSelectiveAnswer = 0x44;
constexpr quint8 IdentifySlaveAnswer = 0x4F;
constexpr quint8 IdentifyNonConfigured = 0x4C;
constexpr quint8 NonConfiguredAnswer = 0x50;
constexpr quint8 InquireNodeId = 0x5E;
constexpr quint32 EndMark = 0xFFFFFFFF;

// Ends a scan engine's part: no more reports to the service, no more frames.
// The object itself goes from the event loop (DeleteLater): it may still be on
// the call stack, a new scan being started from one of its result handlers.
template <typename Engine>
void retire(std::shared_ptr<Engine>& engine, QObject* service)
{
    if (!engine)
        return;
    engine->disconnect(service);
    engine->stop();
    engine.reset();
}
} // namespace

LSSCiA305Service::LSSCiA305Service(QObject* parent)
    : LSSService(parent)
{
    mAnswerTimer.setSingleShot(true);
    mGapTimer.setSingleShot(true);
    connect(&mAnswerTimer, &QTimer::timeout, this, &LSSCiA305Service::timeout);
    connect(&mGapTimer, &QTimer::timeout, this, &LSSCiA305Service::sendNextMessage);
}

LSSCiA305Service::LSSCiA305Service(CanScheduler* scheduler, QObject* parent)
    : LSSCiA305Service(parent)
{
    setCanScheduler(scheduler);
}

LSSCiA305Service::~LSSCiA305Service()
{
    releaseReceiver(mAnswerSender);
}

void LSSCiA305Service::setCanScheduler(CanScheduler* scheduler)
{
    // Scans running on the old scheduler end with it, silently.
    retire(fastScanEngine, this);
    retire(classicalScanEngine, this);
    attachScheduler(scheduler, AnswerId, mAnswerSender);
}

CAN::CanMessage LSSCiA305Service::requestFrame(quint8 command, const QByteArray& bytes, quint8 fdLength)
{
    CAN::CanMessage m;
    m.id = RequestId;
    m.length = mUseCANopenFD.load() ? fdLength : 8;
    m.data[0] = command;
    for (int i = 0; i < bytes.size() && i < 7; ++i)
        m.data[1 + i] = quint8(bytes[i]);
    return m;
}

CAN::CanMessage LSSCiA305Service::valueFrame(quint8 command, quint32 value)
{
    CAN::CanMessage m;
    m.id = RequestId;
    m.length = 8;
    m.data[0] = command;
    for (int i = 0; i < 4; ++i)
        m.data[1 + i] = quint8(value >> (8 * i));
    return m;
}

CAN::RetType LSSCiA305Service::singleFrameRequest(LSSMaster::LssAction action, CAN::CanMessage frame)
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    currentAction = action;
    const CAN::RetType r = writeFrame(frame);
    if (r != CAN::Ok) {
        currentAction = LSSMaster::LssNoAction;
        return r;
    }
    mAnswerTimer.start(getTimeout());
    return CAN::Ok;
}

CAN::RetType LSSCiA305Service::switchModeGlobal(LSSMaster::LssGlobalState state)
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    // Unconfirmed: the slaves do not answer.
    CAN::CanMessage frame = requestFrame(SwitchGlobal, QByteArray(1, state != 0 ? 1 : 0), 2);
    return writeFrame(frame);
}

CAN::RetType LSSCiA305Service::identifyNonConfigSlaves()
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    // Unconfirmed here: the 0x50 answers are reported whenever they come.
    CAN::CanMessage frame = requestFrame(IdentifyNonConfigured, QByteArray(), 1);
    return writeFrame(frame);
}

CAN::RetType LSSCiA305Service::configureNodeId(quint8 nodeId)
{
    return singleFrameRequest(LSSMaster::LssConfigureNodeId, requestFrame(ConfigureNodeId, QByteArray(1, char(nodeId)), 2));
}

CAN::RetType LSSCiA305Service::configureBitTiming(quint8 tableSelector, quint8 tableIndex)
{
    QByteArray bytes;
    bytes.append(char(tableSelector)).append(char(tableIndex));
    return singleFrameRequest(LSSMaster::LssConfigureBitTiming, requestFrame(ConfigureBitTiming, bytes, 8));
}

CAN::RetType LSSCiA305Service::activateBitTiming(quint16 switchDelay)
{
    // No answer in the protocol: the action always ends by its time-out, so
    // that the application changes its own bit rate only after the delay.
    QByteArray bytes;
    bytes.append(char(switchDelay & 0xFF)).append(char(switchDelay >> 8));
    return singleFrameRequest(LSSMaster::LssActivateBitTiming, requestFrame(ActivateBitTiming, bytes, 3));
}

CAN::RetType LSSCiA305Service::storeConfiguration()
{
    return singleFrameRequest(LSSMaster::LssStoreConfiguration, requestFrame(StoreConfiguration, QByteArray(), 1));
}

CAN::RetType LSSCiA305Service::inquireNodeId()
{
    return singleFrameRequest(LSSMaster::LssInquireNodeId, requestFrame(InquireNodeId, QByteArray(), 1));
}

CAN::RetType LSSCiA305Service::switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                                   quint32 serialNumber)
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    currentAction = LSSMaster::LssSwitchModeSelective;
    selectiveStep = 1;
    selVendorId = vendorId;
    selProductCode = productCode;
    selRevisionNumber = revisionNumber;
    selSerialNumber = serialNumber;
    // Without scheduler or adapter the service stays busy with this action
    // (no timer runs), and refuses every later request until it is replaced.
    if (!adapter())
        return CAN::Error;
    CAN::CanMessage frame = valueFrame(SwitchSelectiveVendor, vendorId);
    const CAN::RetType r = writeFrame(frame);
    if (r != CAN::Ok) {
        currentAction = LSSMaster::LssNoAction;
        return r;
    }
    ++selectiveStep;
    mGapTimer.start(getMessageGap());
    return CAN::Ok;
}

void LSSCiA305Service::sendNextMessage()
{
    if (currentAction != LSSMaster::LssSwitchModeSelective)
        return;
    const quint32 values[] = {selProductCode, selRevisionNumber, selSerialNumber};
    if (selectiveStep < 2 || selectiveStep > 4)
        return;
    CAN::CanMessage frame = valueFrame(quint8(SwitchSelectiveVendor + selectiveStep - 1), values[selectiveStep - 2]);
    if (writeFrame(frame) != CAN::Ok) {
        currentAction = LSSMaster::LssNoAction;
        Q_EMIT lssResult(LSSMaster::LssSwitchModeSelective, LSSMaster::LssError, 0);
        return;
    }
    ++selectiveStep;
    if (selectiveStep <= 4)
        mGapTimer.start(getMessageGap());
    else
        mAnswerTimer.start(getTimeout());
}

void LSSCiA305Service::finish(LSSMaster::LssResult result, const QVariant& value)
{
    const auto action = LSSMaster::LssAction(currentAction);
    currentAction = LSSMaster::LssNoAction;
    mAnswerTimer.stop();
    Q_EMIT lssResult(action, result, value);
}

void LSSCiA305Service::newCanMessageReceived(CAN::CanRxMessage message)
{
    const CAN::CanMessage& m = message.message;
    if (m.length != 8) // answers are 8 bytes, also with CANopen FD on
        return;
    switch (m.data[0]) {
    case SwitchSelectiveAnswer:
        if (currentAction == LSSMaster::LssSwitchModeSelective)
            finish(LSSMaster::LssSuccess, 0);
        break;
    case ConfigureNodeId:
    case ConfigureBitTiming:
    case StoreConfiguration: {
        const quint32 expected = m.data[0] == ConfigureNodeId      ? LSSMaster::LssConfigureNodeId
                                 : m.data[0] == ConfigureBitTiming ? LSSMaster::LssConfigureBitTiming
                                                                   : LSSMaster::LssStoreConfiguration;
        if (currentAction != expected)
            break;
        // Byte 1: error code (0 success); byte 2, the manufacturer's code, is not reported.
        if (m.data[1] == 0)
            finish(LSSMaster::LssSuccess, 0);
        else
            finish(LSSMaster::LssError, m.data[1]);
        break;
    }
    case NonConfiguredAnswer:
        // One report per answering slave, whatever else is pending.
        Q_EMIT lssResult(LSSMaster::LssIdentifyNonConfigSlaves, LSSMaster::LssSuccess, 0);
        break;
    case InquireNodeId:
        if (currentAction == LSSMaster::LssInquireNodeId)
            finish(LSSMaster::LssSuccess, m.data[1]);
        break;
    case IdentifySlaveAnswer:
        if (currentAction == LSSMaster::LssFastScan && fastScanEngine)
            fastScanEngine->handleCanMessage(message);
        else if (currentAction == LSSMaster::LssClassicalScan && classicalScanEngine)
            classicalScanEngine->handleCanMessage(message);
        break;
    default:
        break;
    }
}

void LSSCiA305Service::timeout()
{
    if (currentAction != LSSMaster::LssNoAction)
        finish(LSSMaster::LssTimeout, 0);
}

void LSSCiA305Service::fastScanTimeout(quint8 timeoutInfo)
{
    if (currentAction != LSSMaster::LssNoAction)
        finish(LSSMaster::LssTimeout, timeoutInfo);
}

// ---------------------------------------------------------------- scans

CAN::RetType LSSCiA305Service::fastScan(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                       quint32 serialNumber, bool identityKnown)
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    currentAction = LSSMaster::LssFastScan;
    retire(fastScanEngine, this);
    fastScanEngine.reset(new LSSFastScan(vendorId, productCode, revisionNumber, serialNumber, mScheduler.data()),
                         DeleteLater());
    fastScanEngine->setScanTimeout(getScanTimeout());
    fastScanEngine->setIdentityKnown(identityKnown);
    connect(fastScanEngine.get(), &LSSFastScan::noResponseTimeout, this, &LSSCiA305Service::fastScanTimeout);
    connect(fastScanEngine.get(), &LSSFastScan::nodeFound, this, &LSSCiA305Service::scanNodeFound,
            Qt::QueuedConnection);
    fastScanEngine->sendNextMessage();
    return CAN::Ok;
}

CAN::RetType LSSCiA305Service::classicalScan(quint32 vendorId, quint32 productCode)
{
    return startClassicalScan(vendorId, productCode, nullptr);
}

CAN::RetType LSSCiA305Service::classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow,
                                            quint32 revisionHigh, quint32 serialLow, quint32 serialHigh)
{
    const quint32 range[4] = {revisionLow, revisionHigh, serialLow, serialHigh};
    return startClassicalScan(vendorId, productCode, range);
}

CAN::RetType LSSCiA305Service::startClassicalScan(quint32 vendorId, quint32 productCode, const quint32* range)
{
    if (currentAction != LSSMaster::LssNoAction)
        return CAN::Busy;
    currentAction = LSSMaster::LssClassicalScan;
    retire(classicalScanEngine, this);
    classicalScanEngine.reset(new LSSClassicalScan(vendorId, productCode, mScheduler.data()), DeleteLater());
    if (range)
        classicalScanEngine->setRange(vendorId, productCode, range[0], range[1], range[2], range[3]);
    classicalScanEngine->setTimeout(getTimeout());
    connect(classicalScanEngine.get(), &LSSClassicalScan::noResponseTimeout, this,
            &LSSCiA305Service::fastScanTimeout);
    connect(classicalScanEngine.get(), &LSSClassicalScan::nodeFound, this, &LSSCiA305Service::scanNodeFound,
            Qt::QueuedConnection);
    classicalScanEngine->sendNextMessage();
    return CAN::Ok;
}

CAN::RetType LSSCiA305Service::abortClassicalScan()
{
    if (!classicalScanEngine)
        return CAN::Busy;
    classicalScanEngine->abort();
    return CAN::Ok;
}

CAN::RetType LSSCiA305Service::getFastScanValues(quint32* vendorId, quint32* productCode, quint32* revisionNumber,
                                                 quint32* serialNumber) const
{
    if (!fastScanEngine)
        return CAN::Error;
    if (vendorId)
        *vendorId = fastScanEngine->vendorId();
    if (productCode)
        *productCode = fastScanEngine->productCode();
    if (revisionNumber)
        *revisionNumber = fastScanEngine->revisionNumber();
    if (serialNumber)
        *serialNumber = fastScanEngine->serialNumber();
    return CAN::Ok;
}

void LSSCiA305Service::scanNodeFound(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                     quint32 serialNumber)
{
    if (currentAction == LSSMaster::LssFastScan) {
        // The identity is read with getFastScanValues.
        currentAction = LSSMaster::LssNoAction;
        Q_EMIT lssResult(LSSMaster::LssFastScan, LSSMaster::LssSuccess, 0);
        return;
    }
    // Classical scan: every slave found is reported; the end mark ends the action.
    if (vendorId == EndMark)
        currentAction = LSSMaster::LssNoAction;
    const QStringList identity{QString::number(vendorId), QString::number(productCode),
                               QString::number(revisionNumber), QString::number(serialNumber)};
    Q_EMIT lssResult(LSSMaster::LssClassicalScan, LSSMaster::LssSuccess, identity);
}
