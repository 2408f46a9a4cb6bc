// bench_sdo: SDO round-trip time and throughput against the simulated device.
//
// The device (cosim) runs in a process of its own, started here on a private
// virtual-bus port; this process is the master with the three SDO engines on
// a DemoCanAdapter. Printed per phase: the figures, the CPU time of both
// processes (master: getrusage; device: /proc/<pid>/stat) and the thread
// wake-ups of both (voluntary context switches of every thread: a thread that
// blocks is woken once for it).
//
// The floor is measured in the same run, in blocks that alternate with the
// expedited reads so that both meet the same load: a plain-socket ping-pong of one
// 76-byte datagram each way over 127.255.255.255 between this process and an
// echo peer (this program started again with --echo-peer), both bound to a
// second private port with SO_REUSEADDR and SO_BROADCAST, both sending from a
// socket of their own and ignoring their own datagrams by source port, as the
// virtual bus does. Each SDO figure is printed next to it.
//
//   bench_sdo [--reads N] [--size BYTES] [--repeat R] [--cosim PATH] [--only PHASE]
//   (defaults: 10000 reads, 65536 bytes, 3 transfers of each kind; --only runs
//   the phases whose name contains PHASE: "expedited", "segmented", "block
//   upload", ...; the floor is measured with the expedited reads)
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr quint8 Node = 5;
constexpr int DatagramSize = 76;

double nowUs()
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5));
    return v[i];
}

quint16 freePort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::AnyIPv4), quint16(0));
    return probe.localPort();
}

// ---------------------------------------------------------------- process figures

// CPU time in microseconds and voluntary context switches (wake-ups) of a process.
struct Usage {
    double cpuUs = 0;
    long wakeups = 0;
    std::map<std::string, long> threadWakeups; // by thread name (summed over equal names)
};

long wakeupsOfTask(const QString& statusPath)
{
    QFile f(statusPath);
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : f.readAll().split('\n')) {
        if (line.startsWith("voluntary_ctxt_switches:"))
            return line.mid(24).trimmed().toLong();
    }
    return 0;
}

QString taskName(const QString& dir)
{
    QFile f(dir + QStringLiteral("/comm"));
    if (!f.open(QIODevice::ReadOnly))
        return QStringLiteral("?");
    return QString::fromLatin1(f.readAll().trimmed());
}

Usage usageOf(qint64 pid)
{
    Usage u;
    const QString base = QStringLiteral("/proc/%1").arg(pid);
    QFile stat(base + QStringLiteral("/stat"));
    if (stat.open(QIODevice::ReadOnly)) {
        const QByteArray text = stat.readAll();
        // Fields after the command name (which may hold spaces) start at ')'.
        const QList<QByteArray> f = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (f.size() > 12) {
            const double tick = 1e6 / double(sysconf(_SC_CLK_TCK));
            u.cpuUs = (f[11].toDouble() + f[12].toDouble()) * tick; // utime, stime
        }
    }
    const QStringList tasks = QDir(base + QStringLiteral("/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& t : tasks) {
        const QString dir = base + QStringLiteral("/task/") + t;
        const long w = wakeupsOfTask(dir + QStringLiteral("/status"));
        u.wakeups += w;
        u.threadWakeups[taskName(dir).toStdString()] += w;
    }
    return u;
}

Usage usageOfSelf()
{
    Usage u = usageOf(getpid());
    rusage r{};
    getrusage(RUSAGE_SELF, &r); // finer than the clock ticks of /proc
    u.cpuUs = double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1e6 + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec);
    return u;
}

std::string perThread(const Usage& before, const Usage& after, double per)
{
    std::string out;
    for (const auto& t : after.threadWakeups) {
        auto it = before.threadWakeups.find(t.first);
        const long d = t.second - (it == before.threadWakeups.end() ? 0 : it->second);
        if (d <= 0)
            continue;
        char buf[96];
        std::snprintf(buf, sizeof buf, "%s%s %.2f", out.empty() ? "" : ", ", t.first.c_str(), double(d) / per);
        out += buf;
    }
    return out.empty() ? "none" : out;
}

void printUsage(const char* who, const Usage& before, const Usage& after, double per, const char* unit)
{
    std::printf("    %-7s CPU %8.1f us/%s   wake-ups %6.2f/%s  (%s)\n", who, (after.cpuUs - before.cpuUs) / per, unit,
                double(after.wakeups - before.wakeups) / per, unit, perThread(before, after, per).c_str());
}

// ---------------------------------------------------------------- the floor

struct BusSockets {
    int rx = -1;
    int tx = -1;
    quint16 txPort = 0;
    sockaddr_in bus{};
};

bool openBus(quint16 port, BusSockets& s)
{
    const int on = 1;
    s.rx = socket(AF_INET, SOCK_DGRAM, 0);
    s.tx = socket(AF_INET, SOCK_DGRAM, 0);
    if (s.rx < 0 || s.tx < 0)
        return false;
    setsockopt(s.rx, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(s.rx, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(s.tx, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = htons(port);
    if (bind(s.rx, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0)
        return false;
    any.sin_port = 0;
    if (bind(s.tx, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0)
        return false;
    socklen_t len = sizeof any;
    getsockname(s.tx, reinterpret_cast<sockaddr*>(&any), &len);
    s.txPort = ntohs(any.sin_port);
    s.bus.sin_family = AF_INET;
    s.bus.sin_port = htons(port);
    inet_pton(AF_INET, "127.255.255.255", &s.bus.sin_addr);
    return true;
}

// Blocks until a datagram of another sender arrives; returns its first byte, -1 on error.
int receiveForeign(const BusSockets& s, char* buf)
{
    for (;;) {
        sockaddr_in from{};
        socklen_t len = sizeof from;
        const ssize_t n = recvfrom(s.rx, buf, DatagramSize, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (ntohs(from.sin_port) == s.txPort)
            continue; // our own, looped back by the broadcast
        return n > 0 ? quint8(buf[0]) : 0;
    }
}

void sendDatagram(const BusSockets& s, char kind)
{
    char buf[DatagramSize] = {};
    buf[0] = kind;
    sendto(s.tx, buf, sizeof buf, 0, reinterpret_cast<const sockaddr*>(&s.bus), sizeof s.bus);
}

// The echo peer: answers every 'p' with an 'o' until it gets 'q'.
int echoPeer(quint16 port)
{
    BusSockets s;
    if (!openBus(port, s))
        return 1;
    sendDatagram(s, 'r'); // ready
    char buf[DatagramSize];
    for (;;) {
        const int kind = receiveForeign(s, buf);
        if (kind < 0 || kind == 'q')
            return 0;
        if (kind == 'p')
            sendDatagram(s, 'o');
    }
}

// This process's side of the ping-pong, with the echo peer running in a
// process of its own for the whole run.
class FloorPeer
{
public:
    ~FloorPeer() { stop(); }

    bool start(quint16 port, const QString& self)
    {
        if (!openBus(port, mSockets)) {
            std::fprintf(stderr, "bench_sdo: floor sockets failed: %s\n", std::strerror(errno));
            return false;
        }
        mPid = fork();
        if (mPid == 0) {
            const QByteArray exe = self.toLocal8Bit();
            const QByteArray p = QByteArray::number(port);
            execl(exe.constData(), exe.constData(), "--echo-peer", p.constData(), static_cast<char*>(nullptr));
            _exit(127);
        }
        timeval tv{5, 0};
        setsockopt(mSockets.rx, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char buf[DatagramSize];
        if (receiveForeign(mSockets, buf) != 'r') {
            std::fprintf(stderr, "bench_sdo: echo peer did not start\n");
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
            mPid = -1;
            return false;
        }
        return true;
    }

    // One round trip; its time in microseconds (negative: no answer).
    double pingPong()
    {
        char buf[DatagramSize];
        const double t0 = nowUs();
        sendDatagram(mSockets, 'p');
        for (;;) {
            const int kind = receiveForeign(mSockets, buf);
            if (kind == 'o')
                return nowUs() - t0;
            if (kind < 0)
                return -1;
        }
    }

    qint64 pid() const { return mPid; }

    void stop()
    {
        if (mPid > 0) {
            sendDatagram(mSockets, 'q');
            waitpid(mPid, nullptr, 0);
            mPid = -1;
        }
        if (mSockets.rx >= 0)
            close(mSockets.rx);
        if (mSockets.tx >= 0)
            close(mSockets.tx);
        mSockets = BusSockets();
    }

private:
    BusSockets mSockets;
    pid_t mPid = -1;
};

// Usage figures summed over several stretches of a measurement.
struct UsageSum {
    Usage total;
    void add(const Usage& before, const Usage& after)
    {
        total.cpuUs += after.cpuUs - before.cpuUs;
        total.wakeups += after.wakeups - before.wakeups;
        for (const auto& t : after.threadWakeups) {
            auto it = before.threadWakeups.find(t.first);
            total.threadWakeups[t.first] += t.second - (it == before.threadWakeups.end() ? 0 : it->second);
        }
    }
};

// ---------------------------------------------------------------- the master side

// The running wait: the outcome handlers ask it whether it is done.
QEventLoop* gWaitLoop = nullptr;
std::function<bool()> gWaitDone;

void poke()
{
    if (gWaitLoop && gWaitDone && gWaitDone())
        gWaitLoop->quit();
}

// Runs the event loop (sleeping, not spinning) until done() or the time-out;
// false on time-out.
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    if (done())
        return true;
    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    limit.start(timeoutMs);
    gWaitLoop = &loop;
    gWaitDone = done;
    loop.exec();
    gWaitLoop = nullptr;
    gWaitDone = nullptr;
    return done();
}

struct Outcome {
    int results = 0;
    int errors = 0;
    quint32 lastError = 0;
    QVariant value;
};

template <typename Engine>
void track(Engine* engine, Outcome& o)
{
    QObject::connect(engine, &Engine::resultReceived, [&o](quint16, quint8, QVariant v) {
        ++o.results;
        o.value = v;
        poke();
    });
    QObject::connect(engine, &Engine::errorReceived, [&o](quint16, quint8, quint32 code) {
        ++o.errors;
        o.lastError = code;
        poke();
    });
}

QByteArray pattern(int n)
{
    QByteArray b(n, '\0');
    quint32 x = 0x12345678;
    for (int i = 0; i < n; ++i) {
        x = x * 1664525u + 1013904223u;
        b[i] = char(x >> 24);
    }
    return b;
}

struct Transfer {
    const char* name;
    bool upload;
    bool block;
    double targetKBps;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--echo-peer") == 0)
        return echoPeer(quint16(std::atoi(argv[2])));

    QCoreApplication app(argc, argv);
    CanopenMaster master;
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false")); // the engines' debug lines
    int reads = 10000;
    int size = 65536;
    int repeat = 3;
    QString only; // run only the phases whose name contains this
#ifdef COSIM_PATH
    QString cosim = QStringLiteral(COSIM_PATH);
#else
    QString cosim = QStringLiteral("cosim");
#endif
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--reads") && i + 1 < args.size())
            reads = args[++i].toInt();
        else if (args[i] == QLatin1String("--size") && i + 1 < args.size())
            size = args[++i].toInt();
        else if (args[i] == QLatin1String("--repeat") && i + 1 < args.size())
            repeat = args[++i].toInt();
        else if (args[i] == QLatin1String("--cosim") && i + 1 < args.size())
            cosim = args[++i];
        else if (args[i] == QLatin1String("--only") && i + 1 < args.size())
            only = args[++i];
        else {
            std::fprintf(stderr, "usage: bench_sdo [--reads N] [--size BYTES] [--repeat R] [--cosim PATH] [--only PHASE]\n");
            return 2;
        }
    }
    if (reads < 100 || size < 1 || size > 65536 || repeat < 1) {
        std::fprintf(stderr, "bench_sdo: --reads >= 100, --size 1..65536, --repeat >= 1\n");
        return 2;
    }

    const quint16 sdoPort = freePort();
    quint16 floorPort = freePort();
    while (floorPort == sdoPort)
        floorPort = freePort();
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    std::printf("bench_sdo: %d expedited reads, %d-byte transfers x %d; virtual bus on private port %u, floor on %u\n",
                reads, size, repeat, sdoPort, floorPort);
    std::printf("machine: %ld cores, load average %.2f %.2f %.2f at start\n", sysconf(_SC_NPROCESSORS_ONLN), load[0],
                load[1], load[2]);

    // The floor's echo peer runs for the whole measurement.
    FloorPeer floor;
    if (!floor.start(floorPort, QCoreApplication::applicationFilePath()))
        return 1;

    // The device in a process of its own.
    QProcess device;
    device.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    device.start(cosim, {QStringLiteral("--node"), QString::number(Node), QStringLiteral("--port"),
                         QString::number(sdoPort), QStringLiteral("--heartbeat"), QStringLiteral("0"),
                         QStringLiteral("--no-console")});
    if (!device.waitForStarted(10000)) {
        std::fprintf(stderr, "bench_sdo: cannot start %s\n", qPrintable(cosim));
        return 1;
    }
    const qint64 devicePid = device.processId();

    DemoCanAdapter bus(QStringLiteral("Talvik Virtual"));
    bus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, sdoPort);
    bus.open();
    CanScheduler scheduler(&bus);
    scheduler.connectToAdapter(true);
    SDOExpeditedClient expedited(0x580 + Node, 0x600 + Node, &scheduler);
    SDOSegmentedClient segmented(0x580 + Node, 0x600 + Node, &scheduler);
    SDOBlockClient block(0x580 + Node, 0x600 + Node, &scheduler);
    Outcome eo, so, bo;
    track(&expedited, eo);
    track(&segmented, so);
    track(&block, bo);

    // Asked until the device answers.
    bool up = false;
    expedited.setSdoTimeout(100);
    for (int i = 0; i < 100 && !up; ++i) {
        const int before = eo.results + eo.errors;
        expedited.read(0x1000, 0, CAN::UNSIGNED32);
        waitUntil([&] { return eo.results + eo.errors > before; }, 1000);
        up = eo.results > 0;
    }
    expedited.setSdoTimeout(SDOExpeditedClient::DefaultTimeoutMs);
    if (!up) {
        std::fprintf(stderr, "bench_sdo: the device does not answer\n");
        device.kill();
        device.waitForFinished(5000);
        return 1;
    }

    // ---- expedited read round trip against the floor: the two alternate in
    // blocks, so that both see the same load of the shared machine. Within a
    // block each read starts from the previous result.
    double floorMedianUs = 0;
    if (QStringLiteral("expedited read").contains(only)) {
        constexpr int Blocks = 20;
        const int perBlock = (reads + Blocks - 1) / Blocks;
        std::vector<double> rtt, floorRtt;
        rtt.reserve(size_t(reads));
        floorRtt.reserve(size_t(reads));
        UsageSum master, dev, pinger, peer;
        int remaining = 0;
        double t0 = 0;
        bool recording = false;
        bool failed = false;
        QMetaObject::Connection c = QObject::connect(
            &expedited, &SDOExpeditedClient::resultReceived, [&](quint16, quint8, QVariant) {
                const double t = nowUs();
                if (recording)
                    rtt.push_back(t - t0);
                if (--remaining > 0) {
                    t0 = nowUs();
                    failed = failed || expedited.read(0x1018, 1, CAN::UNSIGNED32) != CAN::Ok;
                }
                poke();
            });
        const auto sdoBlock = [&](int n, bool record) {
            const int errorsBefore = eo.errors;
            remaining = n;
            recording = record;
            t0 = nowUs();
            if (expedited.read(0x1018, 1, CAN::UNSIGNED32) != CAN::Ok)
                return false;
            return waitUntil([&] { return remaining <= 0 || failed || eo.errors != errorsBefore; }, 60000)
                && remaining <= 0 && !failed;
        };
        bool ok = sdoBlock(500, false); // warm-up
        for (int i = 0; i < 500 && ok; ++i)
            ok = floor.pingPong() >= 0;
        for (int b = 0; b < Blocks && ok; ++b) {
            const int n = qMin(perBlock, reads - b * perBlock);
            Usage self0 = usageOfSelf(), peer0 = usageOf(floor.pid());
            for (int i = 0; i < n && ok; ++i) {
                const double us = floor.pingPong();
                ok = us >= 0;
                floorRtt.push_back(us);
            }
            Usage self1 = usageOfSelf(), peer1 = usageOf(floor.pid());
            pinger.add(self0, self1);
            peer.add(peer0, peer1);
            const Usage dev0 = usageOf(devicePid);
            self0 = usageOfSelf();
            ok = ok && sdoBlock(n, true);
            self1 = usageOfSelf();
            master.add(self0, self1);
            dev.add(dev0, usageOf(devicePid));
        }
        QObject::disconnect(c);
        if (!ok || rtt.size() != size_t(reads) || eo.value.toUInt() != 0x00000ABCu) {
            std::fprintf(stderr, "bench_sdo: expedited reads failed after %zu (error 0x%08X)\n", rtt.size(),
                         eo.lastError);
            device.kill();
            return 1;
        }
        floorMedianUs = percentile(floorRtt, 0.5);
        const double floorP99 = percentile(floorRtt, 0.99);
        std::printf("\nfloor: plain-socket ping-pong, 76 bytes each way, %d rounds (in %d blocks between the reads)\n",
                    reads, Blocks);
        std::printf("  round trip median %.1f us, 99%% %.1f us\n", floorMedianUs, floorP99);
        const Usage none;
        printUsage("self", none, pinger.total, reads, "round");
        printUsage("peer", none, peer.total, reads, "round");

        const double median = percentile(rtt, 0.5);
        const double p99 = percentile(rtt, 0.99);
        std::printf("\nexpedited read (1018h:01), %d round trips\n", reads);
        std::printf("  median %.1f us (%.2f x floor %.1f us; target <= 100 us and <= 1.4 x: %s)\n", median,
                    median / floorMedianUs, floorMedianUs,
                    median <= 100 && median <= 1.4 * floorMedianUs ? "met" : "missed");
        std::printf("  99%%    %.1f us (%.2f x floor 99%% %.1f us; target <= 250 us: %s)\n", p99, p99 / floorP99,
                    floorP99, p99 <= 250 ? "met" : "missed");
        std::printf("  max    %.1f us\n", percentile(rtt, 1.0));
        printUsage("master", none, master.total, reads, "read");
        printUsage("device", none, dev.total, reads, "read");
    }
    floor.stop();

    // ---- 64 KiB transfers of the domain 2002h.
    const QByteArray value = pattern(size);
    const int segments = (size + 6) / 7;
    const Transfer transfers[] = {
        {"segmented download", false, false, 85},
        {"segmented upload", true, false, 85},
        {"block download", false, true, 500},
        {"block upload", true, true, 500},
    };
    bool domainHoldsValue = false;
    for (const Transfer& tr : transfers) {
        if (!QString::fromLatin1(tr.name).contains(only))
            continue;
        if (tr.upload && !domainHoldsValue) {
            // No download ran before: put the value there first, untimed.
            const int before = bo.results;
            if (block.write(0x2002, 0, value) != CAN::Ok || !waitUntil([&] { return bo.results != before; }, 60000)) {
                std::fprintf(stderr, "bench_sdo: cannot store the value to upload\n");
                device.kill();
                return 1;
            }
            domainHoldsValue = true;
        }
        Outcome& o = tr.block ? bo : so;
        std::vector<double> seconds;
        const Usage self0 = usageOfSelf();
        const Usage dev0 = usageOf(devicePid);
        bool ok = true;
        for (int r = 0; r < repeat && ok; ++r) {
            const int before = o.results;
            const int errorsBefore = o.errors;
            const double t0 = nowUs();
            CAN::RetType rc;
            if (tr.block)
                rc = tr.upload ? block.read(0x2002, 0) : block.write(0x2002, 0, value);
            else
                rc = tr.upload ? segmented.read(0x2002, 0) : segmented.write(0x2002, 0, value);
            ok = rc == CAN::Ok && waitUntil([&] { return o.results != before || o.errors != errorsBefore; }, 60000)
                && o.errors == errorsBefore;
            seconds.push_back((nowUs() - t0) / 1e6);
            if (ok && tr.upload)
                ok = o.value.toByteArray() == value; // byte-exact
        }
        const Usage self1 = usageOfSelf();
        const Usage dev1 = usageOf(devicePid);
        domainHoldsValue = domainHoldsValue || (ok && !tr.upload);
        if (!ok) {
            std::fprintf(stderr, "bench_sdo: %s failed (error 0x%08X)\n", tr.name, o.lastError);
            device.kill();
            return 1;
        }
        const double median = percentile(seconds, 0.5);
        const double kbps = size / 1024.0 / median;
        const double perSegmentUs = median * 1e6 / segments;
        std::printf("\n%s, %d bytes (%d segments), %d transfers\n", tr.name, size, segments, repeat);
        std::printf("  %.1f KB/s median (best %.1f KB/s; target >= %.0f KB/s: %s)\n", kbps,
                    size / 1024.0 / *std::min_element(seconds.begin(), seconds.end()), tr.targetKBps,
                    kbps >= tr.targetKBps ? "met" : "missed");
        std::printf("  %.1f us per segment = %.2f x floor round trip (%.1f us)\n", perSegmentUs,
                    perSegmentUs / floorMedianUs, floorMedianUs);
        printUsage("master", self0, self1, repeat * segments, "seg");
        printUsage("device", dev0, dev1, repeat * segments, "seg");
        std::printf("    master CPU %.1f ms, device CPU %.1f ms per transfer\n", (self1.cpuUs - self0.cpuUs) / 1e3 / repeat,
                    (dev1.cpuUs - dev0.cpuUs) / 1e3 / repeat);
    }

    getloadavg(load, 3);
    std::printf("\nload average %.2f %.2f %.2f at the end\n", load[0], load[1], load[2]);
    bus.close();
    device.terminate();
    if (!device.waitForFinished(5000))
        device.kill();
    return 0;
}
