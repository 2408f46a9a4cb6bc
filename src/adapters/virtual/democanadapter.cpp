#include "democanadapter.h"

#include <QTimer>
#include <QUdpSocket>

#include <cerrno>
#include <cstring>
#include <ctime>
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
// After a pass that sent a frame the loop stays awake this long before it
// sleeps: an answer to what just went out (an SDO segment, say) usually comes
// within tens of microseconds, and catching it awake saves a thread wake-up
// (15 to 25 us on a virtual machine) on each side of every round trip. Only
// while a transfer of many frames runs (option 26), and only after sending:
// an idle adapter, one that only listens to a busy bus, or a single request
// never spins (on two cores, spinning for a single request made its round
// trip slower half of the time: the spinning thread took the processor from
// the thread that had to answer).
constexpr qint64 SpinAfterTrafficNs = 60000;

qint64 monotonicNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Our own transmissions come back to our receive socket (the broadcast
// reaches every socket bound to the port). A socket filter drops them in the
// kernel, so that a frame sent from another thread while the loop sleeps does
// not wake the loop for nothing. The receive step still drops them by source
// port should the filter be refused.
void dropOwnDatagrams(int rxFd, quint16 ownPort)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 0),               // UDP header: source port
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ownPort, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0),                        // ours: drop
        BPF_STMT(BPF_RET | BPF_K, 0xFFFFFFFFu),              // keep whole
    };
    sock_fprog program = {sizeof code / sizeof code[0], code};
    if (rxFd >= 0 && ownPort != 0)
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
    endOfLife(); // users in other threads let go first
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
    if (option == SdoTransferActive)
        mStreaming.store(value.toBool(), std::memory_order_relaxed); // see write()
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
        // While an SDO transfer of many frames runs (option 26), a frame
        // written from another thread goes straight onto the bus from that
        // thread if the loop is idle: a block download writes one segment per
        // pass of its event loop, and each would otherwise cost a wake-up of
        // the loop. Only when no frame waits before this one (the lock keeps
        // the order across threads), no echo is wanted (echoes are the loop's
        // to emit) and no received datagram waits to be handed on; otherwise
        // the frame is queued, and queued frames go out one per pass of the
        // loop with a receive step between two, as they always did.
        // A single request (no transfer running) is handed to the loop. The
        // caller goes on working after write() (back into its event loop),
        // and a receiver woken by a send from its thread tends to be put on
        // its processor and to wait for it, while the loop sends and goes back
        // to sleep at once: on a 2-core virtual machine an expedited SDO round
        // trip took about 70 us with the direct send and 53 us through the loop.
        // (The first look at the sleeping flag spares the loop's own writes
        // the look at the socket; the second, after it, is the one that counts.)
        if (mStreaming.load(std::memory_order_relaxed) && mTxFd >= 0 && mTxQueue.empty() && !mEcho.load()
            && mSleeping.load() && !receivePendingLocked() && mSleeping.load() && sendLocked(*pMessage))
            return CAN::Ok;
        mTxQueue.push_back(*pMessage);
    }
    // The loop announces that it is about to wait and then looks at the
    // queue once more, so either it sees this frame or we see it asleep.
    if (mSleeping.load())
        wake();
    return CAN::Ok;
}

// Stays awake for a short while after traffic; true as soon as a datagram
// or a queued frame is there (or close() was called).
bool DemoCanAdapter::spinForWork(pollfd* fds)
{
    const qint64 until = monotonicNs() + SpinAfterTrafficNs;
    do {
        if (::poll(fds, 1, 0) != 0 || !mRunning.load())
            return true;
        {
            std::lock_guard<CanMutex> guard(mLock);
            if (!mTxQueue.empty())
                return true;
        }
    } while (monotonicNs() < until);
    return false;
}

bool DemoCanAdapter::receivePendingLocked() const
{
    pollfd fd = {mRxFd, POLLIN, 0};
    return ::poll(&fd, 1, 0) != 0; // an error counts as pending: the loop will see
}

// One datagram onto the bus; false when the socket would block (the frame
// then waits in the queue for the loop).
bool DemoCanAdapter::sendLocked(CAN::CanMessage msg)
{
    // Lengths that are no valid FD length are rounded up (9 -> 12, 13 -> 16, ...).
    msg.length = dlcToLength(lengthToDlc(msg.length));
    sockaddr_in bus{};
    bus.sin_family = AF_INET;
    bus.sin_port = htons(mTxPort);
    bus.sin_addr.s_addr = htonl(mBusIp);
    for (;;) {
        const ssize_t n = ::sendto(mTxFd, &msg, DatagramSize, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&bus),
                                   sizeof bus);
        if (n >= 0)
            return true;
        if (errno == EINTR)
            continue;
        // Anything but a full buffer loses the frame, as a bus error would.
        return errno != EAGAIN && errno != EWOULDBLOCK;
    }
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
    const CAN::CanMessage msg = mTxQueue.front();
    mTxQueue.pop_front();
    sendLocked(msg); // with the socket's buffer still full the frame is lost
    ++mSent;
    if (mEcho.load()) {
        CAN::CanRxMessage echo;
        echo.timeStamp = stamp();
        echo.message = msg;
        echo.message.length = dlcToLength(lengthToDlc(msg.length));
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
    dropOwnDatagrams(rxFd, mTxLocalPort);
    {
        std::lock_guard<CanMutex> guard(mLock);
        mBusIp = mBusAddress.toIPv4Address();
        mTxPort = mActivePort;
        mTxFd = int(mTxSocket->socketDescriptor());
        mRxFd = rxFd;
    }

    pollfd fds[2] = {{rxFd, POLLIN, 0}, {mWakeFd, POLLIN, 0}};
    auto queued = [this]() {
        std::lock_guard<CanMutex> guard(mLock);
        return !mTxQueue.empty();
    };
    while (mRunning.load()) {
        const quint64 sentBefore = mSent;
        const bool moreToSend = transmitStep();
        readPendingDatagrams();
        if (moreToSend || !mEchoQueue.isEmpty())
            continue;
        if (mSent != sentBefore && mStreaming.load(std::memory_order_relaxed) && spinForWork(fds))
            continue;
        // Wait for work instead of spinning: a datagram, a queued frame or close().
        mSleeping.store(true);
        if (!queued() && mRunning.load()) {
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
    {
        std::lock_guard<CanMutex> guard(mLock);
        mTxFd = mRxFd = -1;
    }
    delete mTxSocket;
    delete mRxSocket;
    mTxSocket = mRxSocket = nullptr;
    mEchoQueue.clear();
    tsanRelease(this);
}
