// bench_serialbus: frames per second and CPU per frame through
// SerialBusCanAdapter on QtSerialBus's virtualcan plugin (a TCP bus of the
// plugin's own, channel can1), next to the same through the library's virtual bus.
//
//   bench_serialbus [frames]   (default 100000)
#include "benchutil.h"

#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "serialbuscanadapter.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>
#include <atomic>
#include <memory>

namespace {
struct Result {
    double seconds = 0;
    double cpuUs = 0;
    long received = 0;
};

using Counter = std::shared_ptr<std::atomic<long>>;

// Counts the frames `rx` receives; connected before the adapter opens (the
// receive thread reads the connection list).
Counter countOn(AbstractCanAdapter& rx)
{
    const auto count = std::make_shared<std::atomic<long>>(0);
    QObject::connect(&rx, &AbstractCanAdapter::newCanMessage, &rx,
                     [count](CAN::CanRxMessage*) { count->fetch_add(1, std::memory_order_relaxed); },
                     Qt::DirectConnection);
    return count;
}

// Writes `frames` frames on `tx` (retrying while its queue is full) until
// `count` has seen them all; wall time and process CPU per frame.
Result run(AbstractCanAdapter& tx, const Counter& count, int frames)
{
    CAN::CanMessage m;
    m.id = 0x181;
    m.length = 8;
    const double t0 = Bench::seconds(), c0 = Bench::processCpuSeconds();
    for (int i = 0; i < frames; ++i) {
        m.data[0] = quint8(i);
        while (tx.write(&m) == CAN::TxQueueFull)
            QThread::usleep(50);
    }
    while (count->load() < frames && Bench::seconds() - t0 < 60)
        QThread::usleep(200);
    Result r;
    r.seconds = Bench::seconds() - t0;
    r.cpuUs = (Bench::processCpuSeconds() - c0) * 1e6 / frames;
    r.received = count->load();
    return r;
}

void report(const char* what, const Result& r, int frames)
{
    Bench::figure(QStringLiteral("%1: frames per second").arg(QLatin1String(what)), r.received / r.seconds, "frames/s");
    Bench::figure(QStringLiteral("%1: CPU per frame (both adapters, whole process)").arg(QLatin1String(what)), r.cpuUs, "us", 1);
    Bench::figure(QStringLiteral("%1: frames lost").arg(QLatin1String(what)), double(frames - r.received), "");
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\nqt.canbus*=false"));
    const int frames = argc > 1 ? QByteArray(argv[1]).toInt() : 100000;
    if (frames < 1) {
        std::fprintf(stderr, "usage: bench_serialbus [frames]\n");
        return 2;
    }
    Bench::heading(qPrintable(QStringLiteral("%1 frames of 8 bytes, one adapter to another in this process").arg(frames)));
    const QString bus = QStringLiteral("can1"); // the plugin's bus is one TCP port (35468) for the machine
    SerialBusCanAdapter a(QStringLiteral("virtualcan"), bus), b(QStringLiteral("virtualcan"), bus);
    const Counter onB = countOn(b);
    if (a.open() != CAN::Ok || b.open() != CAN::Ok) {
        std::fprintf(stderr, "bench_serialbus: virtualcan: %s\n", qPrintable(a.errorString() + b.errorString()));
        return 1;
    }
    report("SerialBusCanAdapter on virtualcan", run(a, onB, frames), frames);
    a.close();
    b.close();

    const quint16 port = Bench::freeUdpPort();
    DemoCanAdapter c(QStringLiteral("Talvik Virtual")), d(QStringLiteral("Talvik Virtual"));
    c.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    d.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    const Counter onD = countOn(d);
    c.open();
    d.open();
    QThread::msleep(100);
    report("the library's virtual bus", run(c, onD, frames), frames);
    c.close();
    d.close();
    return 0;
}
