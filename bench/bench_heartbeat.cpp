// bench_heartbeat: how long after a device's last heartbeat NMTSlave reports
// Lost.
//
// A "device" (a virtual-bus adapter driven by a thread of its own) sends its
// heartbeat at half the consumer time, starting at a random phase, and stops
// after a few. An NMTSlave on a second adapter of the same private bus
// supervises it with startHeartbeatMonitoring(consumer time). The figure is
// the time from the last heartbeat's write to the Lost signal. NMTSlave checks
// once per consumer time whether more than the consumer time has passed since
// the last frame, so Lost is due between 1x and 2x the consumer time.
//
//   bench_heartbeat [--runs N] [--times MS,MS,...]   (defaults: 10, 100,1000)
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "nmtslave.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QStringList>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0, Clock::time_point t)
{
    return std::chrono::duration<double, std::milli>(t - t0).count();
}

quint16 freePort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::AnyIPv4), quint16(0));
    return probe.localPort();
}

constexpr quint8 kNode = 5;
constexpr int kHeartbeats = 4; // sent before the device falls silent

// One run: the latency from the last heartbeat to Lost in ms, or a negative
// value when Lost came before the device stopped (a starved sender) or never.
double runOne(AbstractCanAdapter& device, CanScheduler& scheduler, int consumerMs, std::mt19937& random)
{
    NMTSlave slave(kNode, &scheduler);
    Clock::time_point lostAt{};
    bool lost = false;
    QEventLoop loop;
    QObject::connect(&slave, &NMTSlave::HeartbeatGuardingStateChanged, &loop,
                     [&](NMTSlave::HeartbeatGuardingState s) {
                         if (s == NMTSlave::Lost && !lost) {
                             lost = true;
                             lostAt = Clock::now();
                             loop.quit();
                         }
                     });

    const int producerMs = consumerMs / 2;
    const int phaseMs = std::uniform_int_distribution<int>(0, consumerMs - 1)(random);
    std::atomic<Clock::time_point::rep> lastSend{0};
    slave.startHeartbeatMonitoring(quint16(consumerMs));
    std::thread producer([&device, &lastSend, producerMs, phaseMs]() {
        CAN::CanMessage beat;
        beat.id = NMTSlave::ErrorControlCobId + kNode;
        beat.length = 1;
        beat.data[0] = 0x05; // operational
        std::this_thread::sleep_for(std::chrono::milliseconds(phaseMs));
        auto next = Clock::now();
        for (int i = 0; i < kHeartbeats; ++i) {
            std::this_thread::sleep_until(next);
            device.write(&beat);
            lastSend.store(Clock::now().time_since_epoch().count());
            next += std::chrono::milliseconds(producerMs);
        }
    });
    QTimer::singleShot(phaseMs + kHeartbeats * producerMs + 3 * consumerMs + 1000, &loop, &QEventLoop::quit);
    loop.exec();
    producer.join();
    if (!lost)
        return -1;
    const Clock::time_point last{Clock::duration(lastSend.load())};
    return lostAt < last ? -2 : msSince(last, lostAt);
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    int runs = 10;
    QList<int> times{100, 1000};
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--runs") && i + 1 < args.size()) {
            runs = args[++i].toInt();
        } else if (args[i] == QLatin1String("--times") && i + 1 < args.size()) {
            times.clear();
            for (const QString& v : args[++i].split(QLatin1Char(','), Qt::SkipEmptyParts))
                times.append(v.toInt());
        } else {
            std::fprintf(stderr, "usage: bench_heartbeat [--runs N] [--times MS,MS,...]\n");
            return 2;
        }
    }
    for (int t : times) {
        if (t < 2 || t > 65535) {
            std::fprintf(stderr, "bench_heartbeat: consumer times must be 2..65535 ms\n");
            return 2;
        }
    }
    if (runs < 1) {
        std::fprintf(stderr, "bench_heartbeat: --runs must be at least 1\n");
        return 2;
    }

    const quint16 port = freePort();
    DemoCanAdapter device(QStringLiteral("Talvik Virtual"));
    DemoCanAdapter masterBus(QStringLiteral("Talvik Virtual"));
    device.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    masterBus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    device.open();
    masterBus.open();
    CanScheduler scheduler(&masterBus);
    scheduler.connectToAdapter(true);
    QThread::msleep(50); // both sockets bound

    std::printf("bench_heartbeat: %d runs per consumer time, virtual bus on private UDP port %u\n", runs, port);
    std::printf("device: heartbeat every consumer time / 2, random start phase, silent after %d heartbeats\n",
                kHeartbeats);
    std::mt19937 random(12345);
    for (int consumerMs : times) {
        std::vector<double> latencies;
        int early = 0, missed = 0;
        for (int r = 0; r < runs; ++r) {
            const double ms = runOne(device, scheduler, consumerMs, random);
            if (ms == -1)
                ++missed;
            else if (ms < 0)
                ++early;
            else
                latencies.push_back(ms);
        }
        std::printf("consumer time %d ms: last heartbeat -> Lost", consumerMs);
        if (latencies.empty()) {
            std::printf(": no measurement\n");
        } else {
            double sum = 0;
            int inWindow = 0;
            for (double v : latencies) {
                sum += v;
                inWindow += v >= consumerMs && v <= 2.0 * consumerMs ? 1 : 0;
            }
            std::printf(" mean %.1f ms, min %.1f ms, max %.1f ms (%zu runs); window %d .. %d ms, %d of %zu inside\n",
                        sum / double(latencies.size()), *std::min_element(latencies.begin(), latencies.end()),
                        *std::max_element(latencies.begin(), latencies.end()), latencies.size(), consumerMs,
                        2 * consumerMs, inWindow, latencies.size());
        }
        if (early || missed)
            std::printf("  %d runs with Lost before the device stopped (sender starved), %d without Lost\n", early, missed);
        std::fflush(stdout);
    }
    scheduler.connectToAdapter(false);
    device.close();
    masterBus.close();
    return 0;
}
