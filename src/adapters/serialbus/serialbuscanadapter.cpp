#include "serialbuscanadapter.h"

#include <QCanBus>
#include <QCanBusDevice>
#include <QCanBusFrame>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>
#include <cstring>

SerialBusCanAdapter::SerialBusCanAdapter(const QString& plugin, const QString& interfaceName, QObject* parent)
    : AbstractCanAdapter(parent)
    , mPlugin(plugin)
    , mInterfaceName(interfaceName)
{
}

SerialBusCanAdapter::~SerialBusCanAdapter()
{
    endOfLife(); // users in other threads let go first
    close();
}

QStringList SerialBusCanAdapter::plugins()
{
    return QCanBus::instance()->plugins();
}

QStringList SerialBusCanAdapter::interfaces(const QString& plugin)
{
    QStringList names;
    for (const QCanBusDeviceInfo& info : QCanBus::instance()->availableDevices(plugin))
        names << info.name();
    return names;
}

QString SerialBusCanAdapter::errorString() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mError;
}

void SerialBusCanAdapter::fail(const QString& why)
{
    std::lock_guard<CanMutex> guard(mLock);
    mError = why;
}

void SerialBusCanAdapter::setState(CAN::CanState state)
{
    if (mState.exchange(state) != state)
        Q_EMIT newCanState(state);
}

QCanBusFrame SerialBusCanAdapter::toQt(const CAN::CanMessage& m)
{
    QCanBusFrame f;
    f.setExtendedFrameFormat(m.extended);
    f.setFrameId(m.id & (m.extended ? 0x1FFFFFFFu : 0x7FFu));
    if (m.rtr) {
        f.setFrameType(QCanBusFrame::RemoteRequestFrame);
        f.setPayload(QByteArray(qMin<int>(m.length, 8), '\0')); // the requested length
        return f;
    }
    // CAN FD frames carry one of the FD lengths; a classic frame at most 8 bytes.
    const quint8 length = m.fd ? dlcToLength(lengthToDlc(qMin<quint8>(m.length, 64))) : qMin<quint8>(m.length, 8);
    f.setPayload(QByteArray(reinterpret_cast<const char*>(m.data), length));
    f.setFlexibleDataRateFormat(m.fd);
    f.setBitrateSwitch(m.fd && m.brs);
    f.setErrorStateIndicator(m.fd && m.esi);
    return f;
}

CAN::CanRxMessage SerialBusCanAdapter::fromQt(const QCanBusFrame& f, bool useSystemTime)
{
    CAN::CanRxMessage rx;
    CAN::CanMessage& m = rx.message;
    m.id = f.frameId();
    m.extended = f.hasExtendedFrameFormat();
    m.rtr = f.frameType() == QCanBusFrame::RemoteRequestFrame;
    m.fd = f.hasFlexibleDataRateFormat();
    m.brs = f.hasBitrateSwitch();
    m.esi = f.hasErrorStateIndicator();
    const QByteArray payload = f.payload();
    m.length = quint8(qMin(payload.size(), m.fd ? 64 : 8));
    if (!m.rtr)
        std::memcpy(m.data, payload.constData(), m.length);
    rx.echo = f.hasLocalEcho();
    if (useSystemTime) {
        rx.timeStamp = systemTimeStamp();
    } else {
        rx.timeStamp.seconds = quint32(f.timeStamp().seconds());
        rx.timeStamp.microseconds = qint32(f.timeStamp().microSeconds());
    }
    return rx;
}

CAN::RetType SerialBusCanAdapter::open()
{
    if (isRunning())
        return CAN::Ok;
    {
        std::lock_guard<std::mutex> guard(mOpenLock);
        mOpenResult = -1;
    }
    start();
    std::unique_lock<std::mutex> guard(mOpenLock);
    if (!mOpenDone.wait_for(guard, std::chrono::milliseconds(OpenTimeoutMs), [this] { return mOpenResult >= 0; })) {
        guard.unlock();
        fail(QStringLiteral("%1 %2: no connection within %3 ms").arg(mPlugin, mInterfaceName).arg(OpenTimeoutMs));
        close();
        return CAN::Error;
    }
    const bool ok = mOpenResult == 0;
    guard.unlock();
    if (!ok) {
        wait(); // the thread has ended: nothing stays half-open
        tsanAcquire(this); // its end, seen through QThread::wait()
        return CAN::Error;
    }
    return CAN::Ok;
}

bool SerialBusCanAdapter::openDevice()
{
    QString why;
    mDevice = QCanBus::instance()->createDevice(mPlugin, mInterfaceName, &why);
    if (!mDevice) {
        fail(QStringLiteral("no CAN interface '%1' with plugin '%2': %3")
                 .arg(mInterfaceName, mPlugin, why.isEmpty() ? QStringLiteral("unknown plugin") : why));
        return false;
    }
    if (mBitrate)
        mDevice->setConfigurationParameter(QCanBusDevice::BitRateKey, quint32(mBitrate) * 1000);
    if (mFdMode || mDataBitrate.load()) {
        mDevice->setConfigurationParameter(QCanBusDevice::CanFdKey, true);
        if (mDataBitrate.load())
            mDevice->setConfigurationParameter(QCanBusDevice::DataBitRateKey, quint32(mDataBitrate.load()) * 1000);
    }
    if (mEcho.load())
        mDevice->setConfigurationParameter(QCanBusDevice::ReceiveOwnKey, true);
    mDevice->setConfigurationParameter(QCanBusDevice::ErrorFilterKey,
                                       QVariant::fromValue(QCanBusFrame::FrameErrors(QCanBusFrame::AnyError)));
    if (!mDevice->connectDevice()) {
        fail(QStringLiteral("%1 %2: %3").arg(mPlugin, mInterfaceName, mDevice->errorString()));
        return false;
    }
    // Some plugins connect asynchronously (virtualcan over TCP).
    if (mDevice->state() != QCanBusDevice::ConnectedState) {
        QEventLoop loop;
        QTimer limit;
        limit.setSingleShot(true);
        QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
        QObject::connect(mDevice, &QCanBusDevice::stateChanged, &loop, [&loop](QCanBusDevice::CanBusDeviceState s) {
            if (s == QCanBusDevice::ConnectedState || s == QCanBusDevice::UnconnectedState)
                loop.quit();
        });
        limit.start(OpenTimeoutMs - 500);
        loop.exec();
    }
    if (mDevice->state() != QCanBusDevice::ConnectedState) {
        fail(QStringLiteral("%1 %2: %3").arg(mPlugin, mInterfaceName,
                                            mDevice->errorString().isEmpty() ? QStringLiteral("not connected")
                                                                             : mDevice->errorString()));
        return false;
    }
    return true;
}

void SerialBusCanAdapter::run()
{
    const bool ok = openDevice();
    if (ok) {
        QObject pump;
        {
            std::lock_guard<CanMutex> guard(mLock);
            mPump = &pump;
        }
        connect(mDevice, &QCanBusDevice::framesReceived, &pump, [this]() { receive(); }, Qt::DirectConnection);
        connect(mDevice, &QCanBusDevice::errorOccurred, &pump, [this](QCanBusDevice::CanBusError e) {
            fail(mDevice->errorString());
            if (e == QCanBusDevice::ConnectionError)
                setState(CAN::Stopped);
            Q_EMIT interfaceError();
        }, Qt::DirectConnection);
        setState(CAN::ErrorActive);
        {
            std::lock_guard<std::mutex> guard(mOpenLock);
            mOpenResult = 0;
        }
        mOpenDone.notify_all();
        flush(); // frames written before the device was ready
        exec();
        {
            std::lock_guard<CanMutex> guard(mLock);
            mPump = nullptr; // writes from now on only queue
        }
        // Frames written before close() still leave (a tool that writes and
        // closes at once loses none), then the device's own queue drains.
        flush();
        QElapsedTimer drain;
        drain.start();
        while (mDevice->framesToWrite() > 0 && drain.elapsed() < 1000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        // A plugin may still hold written frames in a socket of its own
        // (virtualcan: TCP to its bus server); give it a moment to pass them on.
        if (mWroteFrames) {
            drain.restart();
            while (drain.elapsed() < 50)
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        mDevice->disconnectDevice();
    } else {
        std::lock_guard<std::mutex> guard(mOpenLock);
        mOpenResult = 1;
    }
    if (!ok)
        mOpenDone.notify_all();
    delete mDevice;
    mDevice = nullptr;
    tsanRelease(this);
}

void SerialBusCanAdapter::close()
{
    if (isRunning()) {
        quit();
        if (QThread::currentThread() != this) {
            wait();
            tsanAcquire(this); // the loop's end, seen through QThread::wait()
        }
    }
    setState(CAN::Closed);
}

CAN::RetType SerialBusCanAdapter::write(CAN::CanMessage* pMessage)
{
    if (!pMessage)
        return CAN::InvalidValue;
    if (isSendingBlocked())
        return CAN::Error;
    std::lock_guard<CanMutex> guard(mLock);
    if (int(mTxQueue.size()) >= TxQueueLimit)
        return CAN::TxQueueFull;
    mTxQueue.push_back(*pMessage);
    // One posted flush covers every frame queued until it runs; without a
    // running device the queue waits for the next open().
    if (mPump && !mFlushPosted.exchange(true))
        QMetaObject::invokeMethod(mPump, [this]() { flush(); }, Qt::QueuedConnection);
    return CAN::Ok;
}

void SerialBusCanAdapter::flush()
{
    mFlushPosted.store(false);
    for (;;) {
        CAN::CanMessage m;
        {
            std::lock_guard<CanMutex> guard(mLock);
            if (mTxQueue.empty())
                return;
            m = mTxQueue.front();
            mTxQueue.pop_front();
        }
        mWroteFrames = true;
        if (!mDevice || !mDevice->writeFrame(toQt(m))) {
            if (mDevice)
                fail(mDevice->errorString());
            Q_EMIT interfaceError();
            continue;
        }
        if (mEcho.load()) {
            CAN::CanRxMessage echo;
            echo.message = m;
            echo.echo = true;
            echo.timeStamp = systemTimeStamp();
            Q_EMIT newTxCanMessage(echo);
        }
    }
}

void SerialBusCanAdapter::receive()
{
    while (mDevice && mDevice->framesAvailable()) {
        const QCanBusFrame f = mDevice->readFrame();
        if (!f.isValid())
            continue;
        if (f.frameType() == QCanBusFrame::ErrorFrame) {
            // Error frames tell the controller's state; they are no data.
            const QCanBusFrame::FrameErrors e = f.error();
            if (e & QCanBusFrame::BusOffError)
                setState(CAN::BusOff);
            else if (e & QCanBusFrame::ControllerError)
                setState(CAN::ErrorPassive);
            else if (e & QCanBusFrame::ControllerRestartError)
                setState(CAN::ErrorActive);
            continue;
        }
        if (f.hasLocalEcho() && !mEcho.load())
            continue;
        CAN::CanRxMessage rx = fromQt(f, useSystemTime());
        Q_EMIT newCanMessage(&rx);
    }
}

CAN::RetType SerialBusCanAdapter::setBitrate(quint16 kbit)
{
    mBitrate = kbit; // applied at the next open()
    return CAN::Ok;
}

CAN::RetType SerialBusCanAdapter::setDataBitrate(quint16 kbit)
{
    mDataBitrate.store(kbit);
    return CAN::Ok;
}

CAN::RetType SerialBusCanAdapter::setEcho(bool echo)
{
    mEcho.store(echo);
    return CAN::Ok;
}

CAN::RetType SerialBusCanAdapter::clearTxQueue()
{
    std::lock_guard<CanMutex> guard(mLock);
    mTxQueue.clear();
    return CAN::Ok;
}

int SerialBusCanAdapter::getTxQueueCount()
{
    std::lock_guard<CanMutex> guard(mLock);
    return int(mTxQueue.size());
}

CAN::RetType SerialBusCanAdapter::resetDriver()
{
    if (!isRunning())
        return CAN::Error;
    close();
    return open();
}

bool SerialBusCanAdapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    if (option == FdMode) {
        mFdMode = value.toBool(); // applied at the next open()
        return true;
    }
    return AbstractCanAdapter::setCanAdapterOption(option, value);
}

QVariant SerialBusCanAdapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    if (option == FdMode)
        return mFdMode;
    return AbstractCanAdapter::getCanAdapterOption(option);
}
