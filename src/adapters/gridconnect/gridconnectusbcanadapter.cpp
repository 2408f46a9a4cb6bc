#include "gridconnectusbcanadapter.h"
#include "canmutex.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSerialPort>
#include <QSerialPortInfo>

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace {
constexpr int PollMs = 20;        // longest wait of the loop for input; close() is seen within it
constexpr int ConfigAnswerMs = 10; // wait for the device's answer to a configuration line
constexpr int WriteStallMs = 100;  // give up on a line when the port takes nothing for this long

// Strict hexadecimal value of `count` characters at `pos`; -1 when any of
// them is missing or no hexadecimal digit.
int hexField(const QByteArray& text, int pos, int count)
{
    if (pos < 0 || pos + count > text.size())
        return -1;
    int value = 0;
    for (int i = pos; i < pos + count; ++i) {
        const char c = text.at(i);
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return -1;
        value = value * 16 + digit;
    }
    return value;
}
} // namespace

GridConnectUSBCanAdapter::GridConnectUSBCanAdapter(const QString& portName, QObject* parent)
    : AbstractCanAdapter(parent)
    , mInterfaceName(portName)
{
    qDebug() << "GridConnectUSBCanAdapter::GridConnectUSBCanAdapter";
}

GridConnectUSBCanAdapter::~GridConnectUSBCanAdapter()
{
    endOfLife(); // users in other threads let go first
    stopLoop();
    delete mPort.data(); // only if the loop never ran
}

QStringList GridConnectUSBCanAdapter::getInterfaceList()
{
    QStringList names;
    const auto ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : ports)
        names << info.portName();
    return names;
}

QList<QPair<QString, quint32>> GridConnectUSBCanAdapter::getSupportedBaudrates()
{
    QList<QPair<QString, quint32>> list;
    for (quint32 k : {10u, 20u, 50u, 125u, 250u, 500u, 1000u})
        list.append({QStringLiteral("%1 kbit/s").arg(k), k});
    return list;
}

QList<QByteArray> GridConnectUSBCanAdapter::configurationLines()
{
    // The device is always set to 125 kbit/s, whatever setBitrate() stored.
    return {QByteArrayLiteral(":CONFIG;\r\n"),
            QByteArrayLiteral("set mode cm\r\n"),
            QByteArrayLiteral("set can cm filter=OFF EOL=CRLF OFMT=ASCII MODE=NORMAL\r\n"),
            QByteArrayLiteral("set can port 125000 85\r\n"),
            QByteArrayLiteral("exit\r\n"),
            QByteArrayLiteral("exit\r\n"),
            QByteArrayLiteral("exit\r\n")};
}

QByteArray GridConnectUSBCanAdapter::formatTransmitLine(const CAN::CanMessage& message)
{
    // Extended, FD and bit-rate-switch flags are not encoded, and a remote
    // frame goes out as a data frame without bytes: limits of this device format.
    QString line = QStringLiteral("|S%1N").arg(uint(message.id), 3, 16, QLatin1Char('0'));
    if (!message.rtr && message.length != 0) {
        const int n = qMin<int>(message.length, 64);
        for (int i = 0; i < n; ++i)
            line += QStringLiteral("%1").arg(uint(message.data[i]), 2, 16, QLatin1Char('0'));
    }
    line += QLatin1String(";\r\n");
    return line.toLatin1();
}

bool GridConnectUSBCanAdapter::parseReceiveLine(const QByteArray& line, CAN::CanRxMessage& record)
{
    if (line.size() <= 3)
        return false;
    const int nul = line.indexOf('\0');
    const QByteArray text = nul < 0 ? line : line.left(nul);
    // ":S<3 hex digits id><type><2 hex digits per byte>;" and the line end.
    if (!text.startsWith(':'))
        return false;
    CAN::CanMessage& m = record.message;
    m.rtr = false;
    m.extended = false;
    m.fd = false;
    m.esi = false;
    const int id = hexField(text, 2, 3);
    m.id = id < 0 ? 0u : quint32(id);
    // The byte count counts the line end too: with CR LF it is one more than
    // the bytes in the line, and that last byte reads as 0.
    const int count = qBound(0, (text.size() - 7) / 2, 64);
    for (int i = 0; i < count; ++i) {
        const int byte = hexField(text, 6 + 2 * i, 2);
        m.data[i] = byte < 0 ? 0 : quint8(byte);
    }
    m.length = quint8(count);
    return true;
}

CAN::RetType GridConnectUSBCanAdapter::open()
{
    qDebug() << "GridConnectUSBCanAdapter::open";
    if (isRunning())
        return CAN::Ok;
    auto* port = new QSerialPort();
    // Ports the system enumerates are opened through their port information;
    // any other name (a device path, a pseudo-terminal) as given.
    const QSerialPortInfo info(mInterfaceName);
    if (!info.isNull())
        port->setPort(info);
    else
        port->setPortName(mInterfaceName);
    port->setBaudRate(115200, QSerialPort::AllDirections);
    port->setDataBits(QSerialPort::Data8);
    // Not examined further: a port that does not open shows in the log only.
    if (!port->open(QIODevice::ReadWrite))
        qDebug() << "GridConnectUSBCanAdapter::open" << mInterfaceName << port->errorString();
    {
        std::lock_guard<std::mutex> guard(mWriteLock);
        mFd = port->isOpen() ? port->handle() : -1;
    }
    for (const QByteArray& line : configurationLines()) {
        writeBytes(line);
        if (port->isOpen()) {
            port->waitForReadyRead(ConfigAnswerMs);
            qDebug() << "GridConnectUSBCanAdapter::open" << port->readAll();
        }
    }
    // From here on the port belongs to the receive loop's thread.
    port->moveToThread(this);
    mPort = port;
    mRunning.store(true); // before start(): a close() right after open() is not overtaken
    start(QThread::TimeCriticalPriority);
    return CAN::Ok;
}

void GridConnectUSBCanAdapter::stopLoop()
{
    mRunning.store(false);
    // The loop notices within one poll interval; join it rather than sleep.
    if (QThread::currentThread() != this) {
        wait();
        tsanAcquire(this);
    }
}

void GridConnectUSBCanAdapter::close()
{
    stopLoop(); // the loop closes and deletes the port on its way out
}

CAN::RetType GridConnectUSBCanAdapter::setBitrate(quint16 kbit)
{
    mOwnBitrate = kbit; // kept, not sent: the device is configured for 125 kbit/s
    return CAN::Ok;
}

CAN::RetType GridConnectUSBCanAdapter::setEcho(bool echo)
{
    mEcho.store(echo); // stored, not used
    return CAN::Ok;
}

void GridConnectUSBCanAdapter::writeBytes(const QByteArray& bytes)
{
    std::lock_guard<std::mutex> guard(mWriteLock);
    if (mFd < 0)
        return;
    const char* p = bytes.constData();
    qint64 left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(mFd, p, size_t(left));
        if (n > 0) {
            p += n;
            left -= n;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN) {
            // The port is opened non-blocking: wait until it takes more.
            pollfd pfd{mFd, POLLOUT, 0};
            if (::poll(&pfd, 1, WriteStallMs) > 0)
                continue;
        }
        qDebug() << "GridConnectUSBCanAdapter::write" << "line not written completely";
        return;
    }
}

CAN::RetType GridConnectUSBCanAdapter::write(CAN::CanMessage* pMessage)
{
    if (!pMessage)
        return CAN::Error;
    if (isSendingBlocked())
        return CAN::NotReady;
    const QByteArray line = formatTransmitLine(*pMessage);
    writeBytes(line);
    qDebug() << "GridConnectUSBCanAdapter::write" << line;
    return CAN::Ok;
}

void GridConnectUSBCanAdapter::run()
{
    qDebug() << "GridConnectUSBCanAdapter::run();\n";
    QSerialPort* port = mPort.data();
    if (port && port->isOpen()) {
        port->clear(QSerialPort::Input);
        port->readAll();
    }
    // One record, reused for every frame: no time stamp, no echo.
    CAN::CanRxMessage record;
    while (mRunning.load()) {
        if (!port || !port->isOpen()) {
            msleep(PollMs);
            continue;
        }
        // Wait for a whole line. Input that grows past a line's length
        // without a line end is taken in pieces so the buffer cannot grow.
        if (!port->canReadLine() && port->bytesAvailable() < MaxLineLength) {
            QCoreApplication::processEvents();
            if (!port->waitForReadyRead(PollMs) && port->error() != QSerialPort::NoError
                && port->error() != QSerialPort::TimeoutError) {
                // A broken port would return at once: do not spin on it.
                qDebug() << "GridConnectUSBCanAdapter::run" << port->errorString();
                port->clearError();
                msleep(PollMs);
            }
            continue;
        }
        const QByteArray line = port->readLine(MaxLineLength);
        qDebug() << "GridConnectUSBCanAdapter::run" << line;
        if (parseReceiveLine(line, record))
            Q_EMIT newCanMessage(&record);
    }
    {
        std::lock_guard<std::mutex> guard(mWriteLock);
        mFd = -1;
    }
    if (port) {
        port->close();
        delete port;
    }
    tsanRelease(this);
}
