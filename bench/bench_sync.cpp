// bench_sync: accuracy of the SYNC period.
//
// A SYNCProducer writes SYNC frames (with counter byte) to one virtual-bus
// adapter; a second adapter on the same private bus receives them and the
// periods are taken from its reception time stamps. The producer's own view
// (the time of each syncEvent(), steady clock) is printed as well, which
// separates the timer's accuracy from the bus path's jitter.
//
//   bench_sync [--frames N] [--intervals US,US,...]   (defaults: 10000, 1000,10000)
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "syncproducer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>
#include <QUdpSocket>

#include <algorithm>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

struct Stats {
    double mean = 0, stddev = 0, maxDev = 0, min = 0, max = 0;
    int over = 0; // periods more than 10 % off the interval
};

Stats periodStats(const std::vector<qint64>& timesUs, double intervalUs)
{
    Stats s;
    const size_t n = timesUs.size() < 2 ? 0 : timesUs.size() - 1;
    if (n == 0)
        return s;
    double sum = 0, sumSq = 0;
    s.min = 1e18;
    for (size_t i = 0; i < n; ++i) {
        const double p = double(timesUs[i + 1] - timesUs[i]);
        sum += p;
        sumSq += p * p;
        s.min = std::min(s.min, p);
        s.max = std::max(s.max, p);
        s.maxDev = std::max(s.maxDev, std::fabs(p - intervalUs));
        if (std::fabs(p - intervalUs) > 0.1 * intervalUs)
            ++s.over;
    }
    s.mean = sum / double(n);
    s.stddev = std::sqrt(std::max(0.0, sumSq / double(n) - s.mean * s.mean));
    return s;
}

void print(const char* what, const Stats& s, double intervalUs, size_t periods)
{
    std::printf("  %-22s mean %9.2f us  stddev %8.2f us  max |dev| %8.2f us  min %9.2f  max %9.2f"
                "  (%zu periods, %d off by >10%%, mean error %+.3f %%)\n",
                what, s.mean, s.stddev, s.maxDev, s.min, s.max, periods, s.over,
                100.0 * (s.mean - intervalUs) / intervalUs);
}

// Whether a thread of this process may enter the real-time class (the timer
// thread tries to; without the privilege it runs at normal priority).
bool realTimeAllowed()
{
    bool allowed = false;
    std::thread probe([&allowed] {
        sched_param param{};
        param.sched_priority = sched_get_priority_min(SCHED_FIFO);
        allowed = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
    });
    probe.join();
    return allowed;
}

quint16 freePort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::AnyIPv4), quint16(0));
    return probe.localPort();
}

struct Receiver : QObject {
    std::vector<qint64> timesUs;
    std::vector<quint8> counters;
    std::atomic<int> count{0};
    size_t capacity = 0;
    void take(CAN::CanRxMessage* m)
    {
        if (m->message.id != 0x80 || m->echo)
            return;
        const int i = count.load(std::memory_order_relaxed);
        if (size_t(i) >= capacity)
            return;
        timesUs[size_t(i)] = qint64(m->timeStamp.seconds) * 1000000 + m->timeStamp.microseconds;
        counters[size_t(i)] = m->message.data[0];
        count.store(i + 1, std::memory_order_release);
    }
};

void runOne(unsigned int intervalUs, int frames, quint16 port)
{
    const int warmUp = 20;
    const size_t total = size_t(frames + warmUp);

    DemoCanAdapter producerBus(QStringLiteral("Talvik Virtual"));
    DemoCanAdapter monitorBus(QStringLiteral("Talvik Virtual"));
    producerBus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    monitorBus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);

    Receiver rx;
    rx.capacity = total;
    rx.timesUs.assign(total, 0);
    rx.counters.assign(total, 0);
    QObject::connect(&monitorBus, &AbstractCanAdapter::newCanMessage, &rx, [&rx](CAN::CanRxMessage* m) { rx.take(m); },
                     Qt::DirectConnection);

    std::vector<qint64> sentNs(total + 16, 0);
    std::atomic<size_t> sent{0};
    const auto t0 = std::chrono::steady_clock::now();

    producerBus.open();
    monitorBus.open();
    QThread::msleep(50); // both sockets bound

    CanScheduler scheduler(&producerBus);
    SYNCProducer sync(0x80, intervalUs, 240, &scheduler);
    QObject::connect(&sync, &SYNCProducer::syncEvent, &rx, [&] {
        const size_t i = sent.load(std::memory_order_relaxed);
        if (i < sentNs.size()) {
            sentNs[i] = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - t0).count();
            sent.store(i + 1, std::memory_order_release);
        }
    }, Qt::DirectConnection);

    QElapsedTimer wall;
    wall.start();
    sync.start();
    const qint64 limitMs = qint64(total) * intervalUs / 1000 * 2 + 5000;
    while (rx.count.load(std::memory_order_acquire) < int(total) && wall.elapsed() < limitMs)
        QThread::msleep(20);
    sync.stop();
    producerBus.close();
    monitorBus.close();

    const int got = rx.count.load(std::memory_order_acquire);
    std::vector<qint64> times(rx.timesUs.begin() + std::min(got, warmUp), rx.timesUs.begin() + got);
    int lost = 0;
    for (int i = warmUp + 1; i < got; ++i) {
        const int step = (int(rx.counters[size_t(i)]) - int(rx.counters[size_t(i - 1)]) + 240) % 240;
        lost += step - 1;
    }
    const size_t nSent = std::min(sent.load(std::memory_order_acquire), total);
    std::vector<qint64> sentUs;
    for (size_t i = size_t(warmUp); i < nSent; ++i)
        sentUs.push_back(sentNs[i] / 1000);

    std::printf("SYNC interval %u us: %d frames measured (after %d warm-up), %d lost, %.1f s\n", intervalUs,
                got > warmUp ? got - warmUp : 0, warmUp, lost, wall.elapsed() / 1000.0);
    print("on the bus (rx stamps)", periodStats(times, intervalUs), intervalUs, times.size() ? times.size() - 1 : 0);
    print("at the producer", periodStats(sentUs, intervalUs), intervalUs, sentUs.size() ? sentUs.size() - 1 : 0);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    int frames = 10000;
    QList<unsigned int> intervals{1000, 10000};
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--frames") && i + 1 < args.size()) {
            frames = args[++i].toInt();
        } else if (args[i] == QLatin1String("--intervals") && i + 1 < args.size()) {
            intervals.clear();
            for (const QString& v : args[++i].split(QLatin1Char(','), Qt::SkipEmptyParts))
                intervals.append(v.toUInt());
        } else {
            std::fprintf(stderr, "usage: bench_sync [--frames N] [--intervals US,US,...]\n");
            return 2;
        }
    }
    if (frames < 2) {
        std::fprintf(stderr, "bench_sync: --frames must be at least 2\n");
        return 2;
    }
    const quint16 port = freePort();
    std::printf("bench_sync: %d SYNC frames per interval, virtual bus on private UDP port %u\n", frames, port);
    std::printf("timer thread in the real-time class (SCHED_FIFO): %s\n", realTimeAllowed() ? "yes" : "no (not permitted)");
    for (unsigned int us : intervals) {
        if (us < 1000) {
            std::fprintf(stderr, "bench_sync: skipping %u us (the timer runs in whole milliseconds)\n", us);
            continue;
        }
        runOne(us, frames, port);
    }
    return 0;
}
