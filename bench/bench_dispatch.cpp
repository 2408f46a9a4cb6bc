// Dispatch cost of CanScheduler::newRawCanMessage: frames/s and ns/frame with
// 1, 10 and 100 registered identifiers, to a directly connected receiver and
// to a receiver in another thread (queued), and the cost of a frame whose
// identifier nobody registered.
//   bench_dispatch [frames]     (default 2000000 direct, a quarter queued)
#include "benchutil.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"

#include <QCoreApplication>
#include <QThread>
#include <atomic>
#include <thread>
#include <vector>

class Counter : public QObject
{
    Q_OBJECT
public:
    std::atomic<quint64> count{0};
public Q_SLOTS:
    void onFrame(CAN::CanRxMessage message)
    {
        Q_UNUSED(message)
        // Release: the thread that sees the final count (acquire) may then
        // reuse this object's memory (ThreadSanitizer cannot see QThread::wait).
        count.fetch_add(1, std::memory_order_release);
    }
};

namespace {
enum class Target { Cycle, LastRegistered, Unregistered };

struct Setup {
    CanScheduler scheduler{nullptr};
    std::vector<CanSender*> senders;
    Setup(int ids, Counter* counter, Qt::ConnectionType type)
    {
        for (int i = 0; i < ids; ++i) {
            CanSender* s = scheduler.registerCanId(0x100u + quint32(i));
            QObject::connect(s, qOverload<CAN::CanRxMessage>(&CanSender::received), counter, &Counter::onFrame, type);
            senders.push_back(s);
        }
    }
    ~Setup()
    {
        for (CanSender* s : senders)
            scheduler.unregisterCan(s);
    }
};

quint32 idFor(Target target, int ids, quint64 k)
{
    switch (target) {
    case Target::Cycle: return 0x100u + quint32(k % quint64(ids));
    case Target::LastRegistered: return 0x100u + quint32(ids - 1);
    case Target::Unregistered: return 0x7FFu;
    }
    return 0;
}

double runDirect(int ids, Target target, quint64 frames, const QString& label)
{
    Counter counter;
    Setup setup(ids, &counter, Qt::DirectConnection);
    CAN::CanRxMessage rx;
    rx.message.length = 8;
    for (quint64 k = 0; k < 20000; ++k) { // warm-up
        rx.message.id = idFor(target, ids, k);
        setup.scheduler.newRawCanMessage(&rx);
    }
    counter.count = 0;
    const double t0 = Bench::seconds();
    for (quint64 k = 0; k < frames; ++k) {
        rx.message.id = idFor(target, ids, k);
        setup.scheduler.newRawCanMessage(&rx);
    }
    const double t = Bench::seconds() - t0;
    Bench::figure(label + QStringLiteral(": frames/s"), double(frames) / t, "frames/s");
    Bench::figure(label + QStringLiteral(": per frame"), t * 1e9 / double(frames), "ns", 1);
    const quint64 expected = target == Target::Unregistered ? 0 : frames;
    if (counter.count.load() != expected)
        Bench::note(QStringLiteral("!! delivered %1 of %2").arg(counter.count.load()).arg(expected));
    return double(frames) / t;
}

double runQueued(int ids, quint64 frames)
{
    QThread worker;
    Counter counter;
    counter.moveToThread(&worker);
    worker.start();
    Setup setup(ids, &counter, Qt::QueuedConnection);
    CAN::CanRxMessage rx;
    rx.message.length = 8;
    // At most this many frames in flight, so that the event queue (not the
    // dispatcher) does not grow without bound.
    const quint64 window = 10000;
    const double t0 = Bench::seconds();
    for (quint64 k = 0; k < frames; ++k) {
        while (k - counter.count.load(std::memory_order_relaxed) > window)
            std::this_thread::yield();
        rx.message.id = idFor(Target::Cycle, ids, k);
        setup.scheduler.newRawCanMessage(&rx);
    }
    while (counter.count.load(std::memory_order_acquire) < frames)
        std::this_thread::yield();
    const double t = Bench::seconds() - t0;
    worker.quit();
    worker.wait();
    return double(frames) / t;
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    const quint64 frames = argc > 1 ? QByteArray(argv[1]).toULongLong() : 2000000;

    Bench::heading("dispatch: CanScheduler::newRawCanMessage, direct receiver (same thread)");
    Bench::note(QStringLiteral("%1 frames per case; frames cycle through all registered identifiers").arg(frames));
    double direct100 = 0;
    for (int ids : {1, 10, 100}) {
        const double fps = runDirect(ids, Target::Cycle, frames, QStringLiteral("%1 ids registered").arg(ids, 3));
        if (ids == 100)
            direct100 = fps;
    }
    runDirect(100, Target::LastRegistered, frames, QStringLiteral("100 ids, always the last registered"));

    Bench::heading("dispatch: frame for an unregistered identifier (100 ids registered)");
    runDirect(100, Target::Unregistered, frames, QStringLiteral("unregistered id"));

    Bench::heading("dispatch: queued receiver in another thread (frames/s delivered)");
    const quint64 queuedFrames = qMax<quint64>(frames / 4, 1000);
    Bench::note(QStringLiteral("%1 frames per case, at most 10000 in flight").arg(queuedFrames));
    for (int ids : {1, 10, 100}) {
        const double fps = runQueued(ids, queuedFrames);
        Bench::figure(QStringLiteral("%1 ids registered: frames/s").arg(ids, 3), fps, "frames/s");
        Bench::figure(QStringLiteral("%1 ids registered: per frame").arg(ids, 3), 1e9 / fps, "ns", 1);
    }

    Bench::heading("dispatch: target");
    Bench::figure(QStringLiteral("direct, 100 ids (target >= 2,000,000): %1").arg(QLatin1String(Bench::verdict(direct100 >= 2e6))),
                  direct100, "frames/s");
    return 0;
}

#include "bench_dispatch.moc"
