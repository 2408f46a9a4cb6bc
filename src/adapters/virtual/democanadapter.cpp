#include "democanadapter.h"

#include <QTimer>
#include <QUdpSocket>

#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {
constexpr int DatagramSize = int(sizeof(CAN::CanMessage)); // 76
constexpr int IdleWaitMs = 100; // upper bound of one idle wait; close() wakes the loop at once

// Drops, inside the kernel, the datagrams this instance broadcast itself
// (UDP source port == our transmit port) before they are queued on our
// receive socket: no wake-up and no read for our own frames. A UDP socket
// filter sees the datagram from its UDP header on (offset 0: source port).
// The receive step still checks the port, so nothing changes if the filter
// cannot be attached.
void dropOwnDatagrams(int rxFd, quint16 txPort)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 0),             // UDP source port
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, txPort, 0, 1), // ours?
        BPF_STMT(BPF_RET | BPF_K, 0),                      // drop
        BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),            // keep all of it
    };
    sock_fprog program = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
    setsockopt(rxFd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

quint16 portFromEnvironment()
{
    bool ok = false;
    const uint port = qEnvironmentVariable(DemoCanAdapter::PortEnvironmentVariable).toUInt(&ok);
    return (ok && port > 0 && port <= 65535) ? quint16(port) : DemoCanAdapter::DefaultPort;
}
} // namespace

DemoCanAdapter::DemoCanAdapter(const QString& interfaceName, QObject* parent)
    : AbstractCanAdapter(parent)
    , mInterfaceName(interfaceName)
{
    mPort.store(portFromEnvironment());
    // The 50 ms timer runs for the adapter's whole life into an empty slot.
    auto* timer = new QTimer(this);
    timer->setInterval(50);
    connect(timer, &QTimer::timeout, this, &DemoCanAdapter::timeout);
    timer->start();
    mTimer = timer;

    struct timeval now;
    gettimeofday(&now, nullptr);
    mStartSeconds = now.tv_sec;
    mWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

DemoCanAdapter::~DemoCanAdapter()
{
    stopLoop();
    if (mWakeFd >= 0)
        ::close(mWakeFd);
}

void DemoCanAdapter::timeout() {}

CAN::RetType DemoCanAdapter::open()
{
    if (isRunning())
        return CAN::Ok;
    // Set here as well as in run(), so that a close() right after open()
    // cannot be overtaken by the starting thread.
    mRunning.store(true);
    start(QThread::TimeCriticalPriority);
    Q_EMIT newCanState(CAN::ErrorActive);
    return CAN::Ok;
}

void DemoCanAdapter::stopLoop()
{
    mRunning.store(false);
    wake();
    // The loop ends within one pass; join it rather than sleeping a fixed time.
    if (QThread::currentThread() != this) {
        wait();
        tsanAcquire(this); // the loop's end, seen through QThread::wait()
    }
}

void DemoCanAdapter::close()
{
    stopLoop();
    Q_EMIT newCanState(CAN::Closed);
}

CAN::RetType DemoCanAdapter::setBitrate(quint16 kbit)
{
    mOwnBitrate = kbit; // no effect on the virtual bus; the base's field stays 0
    return CAN::Ok;
}

CAN::RetType DemoCanAdapter::setEcho(bool echo)
{
    mEcho.store(echo);
    return CAN::Ok;
}

bool DemoCanAdapter::setCanAdapterOption(AbstractCanAdapter::AdapterOption option, const QVariant& value)
{
    if (option == VirtualBusPort) {
        bool ok = false;
        const uint port = value.toUInt(&ok);
        if (!ok || port == 0 || port > 65535)
            return false;
        mPort.store(quint16(port)); // used from the next open()
        return true;
    }
    return AbstractCanAdapter::setCanAdapterOption(option, value);
}

QVariant DemoCanAdapter::getCanAdapterOption(AbstractCanAdapter::AdapterOption option)
{
    if (option == VirtualBusPort)
        return QVariant(uint(mPort.load()));
    return AbstractCanAdapter::getCanAdapterOption(option);
}

QStringList DemoCanAdapter::getInterfaceList()
{
    return {QStringLiteral("Talvik Virtual")};
}

bool DemoCanAdapter::isInterfaceFd(const QString&)
{
    return true;
}

void DemoCanAdapter::wake()
{
    if (mWakeFd >= 0) {
        const quint64 one = 1;
        [[maybe_unused]] ssize_t n = ::write(mWakeFd, &one, sizeof one);
    }
}

CAN::RetType DemoCanAdapter::write(CAN::CanMessage* pMessage)
{
    if (!pMessage)
        return CAN::Error;
    {
        std::lock_guard<CanMutex> guard(mLock);
        mTxQueue.push_back(*pMessage);
    }
    // The loop announces that it is about to wait and then looks at the
    // queue once more, so either it sees this frame or we see it asleep.
    if (mSleeping.load())
        wake();
    return CAN::Ok;
}

CAN::CanTimeStamp DemoCanAdapter::stamp() const
{
    if (useSystemTime())
        return systemTimeStamp();
    struct timeval now;
    gettimeofday(&now, nullptr);
    CAN::CanTimeStamp ts;
    // Seconds since construction; the microseconds are the wall clock's own,
    // not corrected by the start time (that is the rule of this adapter).
    ts.seconds = quint32(now.tv_sec - mStartSeconds);
    ts.microseconds = qint32(now.tv_usec);
    return ts;
}

// Transmit step: at most one frame per pass. Returns true when more are queued.
bool DemoCanAdapter::transmitStep()
{
    std::lock_guard<CanMutex> guard(mLock);
    if (mTxQueue.empty())
        return false;
    CAN::CanMessage msg = mTxQueue.front();
    mTxQueue.pop_front();
    // Lengths that are no valid FD length are rounded up (9 -> 12, 13 -> 16, ...).
    msg.length = dlcToLength(lengthToDlc(msg.length));
    mTxSocket->writeDatagram(reinterpret_cast<const char*>(&msg), DatagramSize, mBusAddress, mActivePort);
    if (mEcho.load()) {
        CAN::CanRxMessage echo;
        echo.timeStamp = stamp();
        echo.message = msg;
        echo.echo = true;
        mEchoQueue.append(echo);
    }
    return !mTxQueue.empty();
}

void DemoCanAdapter::decodeDatagram(const char* datagram, qint64 size, CAN::CanRxMessage& out)
{
    unsigned char buf[DatagramSize] = {};
    if (datagram && size > 0)
        std::memcpy(buf, datagram, size_t(qMin<qint64>(size, DatagramSize)));
    out = CAN::CanRxMessage();
    std::memcpy(&out.message.id, buf, 4); // little-endian host
    // No peer of this library sends more than 64 bytes; a foreign datagram
    // claiming more is clamped so that no receiver reads past the data.
    out.message.length = qMin<quint8>(buf[4], 64);
    std::memcpy(out.message.data, buf + 5, out.message.length);
    out.message.rtr = buf[69] != 0;
    out.message.extended = buf[70] != 0;
    out.message.fd = buf[71] != 0;
    out.message.brs = buf[73] != 0;
    // esi is never passed on and the tail stays zero.
}

// Receive step: pending echoes first, then every datagram waiting on the socket.
void DemoCanAdapter::readPendingDatagrams()
{
    if (!mEchoQueue.isEmpty()) {
        const QVector<CAN::CanRxMessage> echoes = std::move(mEchoQueue);
        mEchoQueue.clear();
        for (CAN::CanRxMessage rx : echoes)
            Q_EMIT newCanMessage(&rx);
    }
    if (!mRxSocket)
        return;
    const int fd = int(mRxSocket->socketDescriptor());
    // Read the descriptor directly: one system call per datagram instead of
    // Qt's peek-then-read pair.
    for (;;) {
        char buf[DatagramSize];
        sockaddr_in from;
        socklen_t fromLen = sizeof from;
        const ssize_t n = ::recvfrom(fd, buf, sizeof buf, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return; // EAGAIN: drained
        }
        CAN::CanRxMessage rx;
        const CAN::CanTimeStamp ts = stamp();
        // Our own transmission looped back by the broadcast.
        if (fromLen >= sizeof from && ntohs(from.sin_port) == mTxLocalPort)
            continue;
        decodeDatagram(buf, n, rx);
        rx.timeStamp = ts;
        Q_EMIT newCanMessage(&rx);
    }
}

void DemoCanAdapter::run()
{
    // The running flag was set by open() before the thread started: setting
    // it here again would undo a close() that came before this line.
    mBusAddress = QHostAddress(QStringLiteral("127.255.255.255"));
    mActivePort = mPort.load();
    mTxSocket = new QUdpSocket();
    mRxSocket = new QUdpSocket();
    mRxSocket->bind(QHostAddress::AnyIPv4, mActivePort,
                    QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint);
    mRxSocket->joinMulticastGroup(mBusAddress); // no multicast group: without effect, kept
    // A deep receive buffer keeps bursts from being dropped while a slow
    // receiver catches up (SO_RCVBUFFORCE needs privileges; fall back quietly).
    const int rxFd = int(mRxSocket->socketDescriptor());
    const int want = 4 * 1024 * 1024;
    if (rxFd >= 0 && setsockopt(rxFd, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
        setsockopt(rxFd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
    // Bind the transmit socket now so that its port, which tells our own
    // looped-back datagrams apart, is known before the first frame goes out.
    mTxSocket->bind(QHostAddress(QHostAddress::AnyIPv4), quint16(0));
    mTxLocalPort = mTxSocket->localPort();
    if (rxFd >= 0 && mTxLocalPort != 0)
        dropOwnDatagrams(rxFd, mTxLocalPort);

    pollfd fds[2] = {{rxFd, POLLIN, 0}, {mWakeFd, POLLIN, 0}};
    while (mRunning.load()) {
        const bool moreToSend = transmitStep();
        readPendingDatagrams();
        if (moreToSend || !mEchoQueue.isEmpty())
            continue;
        // Wait for work instead of spinning: a datagram, a queued frame or close().
        mSleeping.store(true);
        bool queued;
        {
            std::lock_guard<CanMutex> guard(mLock);
            queued = !mTxQueue.empty();
        }
        if (!queued && mRunning.load()) {
            fds[0].revents = fds[1].revents = 0;
            ::poll(fds, 2, IdleWaitMs);
            if (fds[1].revents & POLLIN) {
                quint64 count;
                [[maybe_unused]] ssize_t n = ::read(mWakeFd, &count, sizeof count);
            }
        }
        mSleeping.store(false);
    }
    // Frames written before close() still leave: a caller that writes and
    // closes at once (a command-line tool, for example) loses none of them.
    while (transmitStep()) {
    }
    readPendingDatagrams();
    // Each start creates fresh sockets, so free these ones now.
    delete mTxSocket;
    delete mRxSocket;
    mTxSocket = mRxSocket = nullptr;
    mEchoQueue.clear();
    tsanRelease(this);
}
