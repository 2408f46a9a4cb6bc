// bench_lss: finding unconfigured devices, and reading a full network.
//
// 1. Fast scan: cosim simulates N devices without node-ID on a private
//    virtual bus; LSSMaster finds them one after the other (fast scan, then
//    configure node-ID and switch back to waiting mode, as cotool lss scan
//    does), at the tool's default step time and at 10 ms. Printed: wall time
//    and frames on the bus, in all and per device.
// 2. Classical scan of a serial-number range holding three devices.
// 3. A full network: one cosim process with 127 configured devices; 127
//    SDOClients read identity (1018h sub 1-4) and name (1008h) all at once.
//    Printed: wall time and frames.
//
//   bench_lss [--devices 1,3,16] [--steps 10,5] [--network 127]
#include "benchutil.h"

#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "lssmaster.h"
#include "sdoclient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

namespace {

using M = LSSMaster;

// Counts every frame on the bus, seen from an adapter of its own.
class FrameCounter
{
public:
    explicit FrameCounter(quint16 port)
    {
        mAdapter.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
        QObject::connect(&mAdapter, &AbstractCanAdapter::newCanMessage, &mAdapter,
                         [this](CAN::CanRxMessage*) { mCount.fetch_add(1, std::memory_order_relaxed); },
                         Qt::DirectConnection);
        mAdapter.open();
    }
    ~FrameCounter() { mAdapter.close(); }
    long count() const { return mCount.load(); }

private:
    DemoCanAdapter mAdapter{QStringLiteral("counter")};
    std::atomic<long> mCount{0};
};

bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!done() && t.elapsed() < timeoutMs) {
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return done();
}

struct Device {
    QProcess process;
    bool start(const QStringList& args)
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(COSIM_PATH), QStringList{QStringLiteral("--quiet"), QStringLiteral("--no-console")} + args);
        if (!process.waitForStarted(10000))
            return false;
        QThread::msleep(300); // its adapter opens
        return true;
    }
    ~Device()
    {
        process.terminate();
        if (!process.waitForFinished(5000))
            process.kill();
    }
};

// A private bus with simulated devices, a frame counter and the master's adapter and scheduler.
struct Network {
    const quint16 port = Bench::freeUdpPort();
    Device device;
    std::unique_ptr<FrameCounter> frames;
    DemoCanAdapter bus{QStringLiteral("Talvik Virtual")};
    std::unique_ptr<CanScheduler> scheduler;

    bool start(const QStringList& deviceArgs)
    {
        if (!device.start(QStringList{QStringLiteral("--port"), QString::number(port), QStringLiteral("--heartbeat"),
                                      QStringLiteral("0")} + deviceArgs))
            return false;
        frames.reset(new FrameCounter(port));
        bus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
        bus.open();
        scheduler.reset(new CanScheduler(&bus));
        scheduler->connectToAdapter(true);
        return true;
    }
    // Frames seen so far, once the last ones have arrived.
    long framesSeen()
    {
        QThread::msleep(50);
        return frames->count();
    }
    ~Network()
    {
        scheduler.reset();
        bus.close();
    }
};

QList<int> numbers(const QString& text)
{
    QList<int> out;
    for (const QString& part : text.split(QLatin1Char(','), Qt::SkipEmptyParts))
        out << part.toInt();
    return out;
}

// Finds and numbers every unconfigured device; the number found.
int fastScanAll(M& master, int stepMs, int expected)
{
    QList<QPair<M::LssAction, M::LssResult>> results;
    QObject ctx;
    QObject::connect(&master, &M::lssResult, &ctx,
                     [&](M::LssAction a, M::LssResult r, QVariant) { results.append({a, r}); });
    QList<QVariant> values;
    QObject::connect(&master, &M::lssResult, &ctx, [&](M::LssAction, M::LssResult, QVariant v) { values.append(v); });
    const auto request = [&](M::LssAction a, const std::function<CAN::RetType()>& start) {
        results.clear();
        values.clear();
        if (start() != CAN::Ok)
            return false;
        waitUntil([&] { return !results.isEmpty(); }, 120000);
        return !results.isEmpty() && results.first().first == a && results.first().second == M::LssSuccess;
    };
    int found = 0;
    for (int node = 1, retries = 0; node <= expected + 1;) {
        master.setTimeout(quint16(stepMs));
        if (!request(M::LssFastScan, [&] { return master.fastScan(0, 0, 0, 0); })) {
            // A lost answer spoils a search (its confirmation fails): scan again, as cotool does.
            if (!values.isEmpty() && values.first().toUInt() != 0 && ++retries <= 5) {
                std::printf("  (a scan lost its device at step %d ms: scanning again)\n", stepMs);
                continue;
            }
            break;
        }
        master.setTimeout(500);
        if (!request(M::LssConfigureNodeId, [&] { return master.configureNodeId(quint8(node)); }))
            break;
        master.switchModeGlobal(M::LssWaitingState);
        ++found;
        ++node;
    }
    return found;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    QList<int> deviceCounts{1, 3, 16};
    QList<int> steps{10, 5}; // cotool's default, and half of it
    int network = 127;
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == QLatin1String("--devices") && hasValue)
            deviceCounts = numbers(args[++i]);
        else if (args[i] == QLatin1String("--steps") && hasValue)
            steps = numbers(args[++i]);
        else if (args[i] == QLatin1String("--network") && hasValue)
            network = args[++i].toInt();
        else {
            std::fprintf(stderr, "usage: bench_lss [--devices 1,3,16] [--steps 10,5] [--network 127]\n");
            return 2;
        }
    }
    if (network < 0 || network > 127) {
        std::fprintf(stderr, "bench_lss: --network 0..127\n");
        return 2;
    }
    bool failed = false;

    Bench::heading("fast scan: find, number and switch back every unconfigured device");
    for (int step : steps) {
        for (int n : deviceCounts) {
            Network net;
            if (!net.start({QStringLiteral("--unconfigured"), QString::number(n)}))
                return 1;
            M lss(net.scheduler.get());
            QElapsedTimer t;
            t.start();
            const int found = fastScanAll(lss, step, n);
            const double s = double(t.nsecsElapsed()) / 1e9;
            const long f = net.framesSeen();
            failed = failed || found != n;
            Bench::figure(QStringLiteral("%1 device(s), step %2 ms: found %3, wall time").arg(n).arg(step).arg(found), s, "s", 2);
            Bench::figure(QStringLiteral("%1 device(s), step %2 ms: frames on the bus (per device %3)")
                              .arg(n).arg(step).arg(found ? f / found : 0), double(f), "frames");
        }
    }

    Bench::heading("classical scan: 3 devices in a range of 256 serial numbers, step 10 ms");
    {
        Network net;
        if (!net.start({QStringLiteral("--unconfigured"), QStringLiteral("3")}))
            return 1;
        M lss(net.scheduler.get());
        lss.setTimeout(10);
        int found = 0;
        bool end = false;
        QObject::connect(&lss, &M::lssResult, &lss, [&](M::LssAction, M::LssResult r, QVariant v) {
            const QStringList id = v.toStringList();
            if (r != M::LssSuccess || id.value(0).toUInt() == 0xFFFFFFFFu)
                end = true;
            else
                ++found;
        });
        QElapsedTimer t;
        t.start();
        lss.classicalScan(0xABC, 0xC051, 0x10000, 0x10000, 0x5D000100, 0x5D0001FF);
        waitUntil([&] { return end; }, 120000);
        const double s = double(t.nsecsElapsed()) / 1e9;
        failed = failed || found != 3;
        Bench::figure(QStringLiteral("found %1, wall time").arg(found), s, "s", 3);
        Bench::figure(QStringLiteral("frames on the bus"), double(net.framesSeen()), "frames");
    }

    if (network > 0) {
        Bench::heading(qPrintable(QStringLiteral("full network: %1 devices, identity (1018h/1-4) and name (1008h) "
                                                 "read by %1 SDOClients at once").arg(network)));
        Network net;
        if (!net.start({QStringLiteral("--nodes"), QStringLiteral("1-%1").arg(network)}))
            return 1;
        struct Reader {
            std::unique_ptr<SDOClient> client;
            int step = 0;
            bool failed = false;
        };
        std::vector<Reader> readers(static_cast<size_t>(network));
        int done = 0;
        const auto next = [](Reader& r) {
            if (r.step < 4)
                return r.client->read(0x1018, quint8(r.step + 1), CAN::UNSIGNED32);
            return r.client->read(0x1008, 0, CAN::VISIBLE_STRING);
        };
        for (int i = 0; i < network; ++i) {
            Reader& r = readers[size_t(i)];
            r.client.reset(new SDOClient(0x581 + quint32(i), 0x601 + quint32(i), net.scheduler.get()));
            QObject::connect(r.client.get(), &SDOClient::resultReceived, r.client.get(), [&r, &done, &next](quint16, quint8, QVariant) {
                if (++r.step == 5)
                    ++done;
                else
                    next(r);
            });
            QObject::connect(r.client.get(), &SDOClient::errorReceived, r.client.get(), [&r, &done](quint16, quint8, quint32) {
                r.failed = true;
                ++done;
            });
        }
        const long before = net.frames->count();
        QElapsedTimer t;
        t.start();
        for (Reader& r : readers)
            next(r);
        waitUntil([&] { return done == network; }, 60000);
        const double s = double(t.nsecsElapsed()) / 1e9;
        int failures = 0;
        for (const Reader& r : readers)
            failures += r.failed || r.step != 5;
        failed = failed || failures != 0;
        Bench::figure(QStringLiteral("wall time (aim: under 0.5 s)"), s, "s", 3);
        Bench::figure(QStringLiteral("frames on the bus"), double(net.framesSeen() - before), "frames");
        Bench::figure(QStringLiteral("devices not read completely"), failures, "");
    }
    return failed ? 1 : 0;
}
