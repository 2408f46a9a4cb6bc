// Memory: resident set size (VmRSS) before and after 1,000,000 frames pass
// from one virtual adapter through another adapter and its scheduler to a
// receiver in the main thread (queued, as a service gets them).
//   bench_memory [frames]     (default 1000000)
#include "benchutil.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"
#include "democanadapter.h"

#include <QCoreApplication>
#include <cstring>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    const quint64 frames = argc > 1 ? QByteArray(argv[1]).toULongLong() : 1000000;
    qputenv(DemoCanAdapter::PortEnvironmentVariable, QByteArray::number(Bench::freeUdpPort()));

    DemoCanAdapter a(QStringLiteral("Talvik Virtual")), b(QStringLiteral("Talvik Virtual"));
    CanScheduler scheduler(&b);
    scheduler.connectToAdapter(true);
    CanSender* sender = scheduler.registerCanId(0x100);
    quint64 received = 0;
    QObject receiver;
    QObject::connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received), &receiver,
                     [&received](CAN::CanRxMessage) { ++received; });
    a.open();
    b.open();

    // Frames go in chunks, each written once the previous one has arrived, so
    // that no queue legitimately holds many frames when RSS is read.
    quint64 sent = 0;
    auto pass = [&](quint64 upTo) {
        CAN::CanMessage m;
        m.id = 0x100;
        m.length = 8;
        while (sent < upTo) {
            const quint64 chunkEnd = qMin(upTo, sent + 1000);
            for (; sent < chunkEnd; ++sent) {
                std::memcpy(m.data, &sent, sizeof sent);
                a.write(&m);
            }
            const double since = Bench::seconds();
            while (received < sent && Bench::seconds() - since < 2.0)
                QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
            if (received < sent) // lost frames: carry on with the count reached
                sent = received;
        }
    };

    // Wait until b's socket is bound (a frame gets through).
    {
        CAN::CanMessage probe;
        probe.id = 0x100;
        while (received == 0) {
            a.write(&probe);
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        }
        const double since = Bench::seconds();
        while (Bench::seconds() - since < 0.05)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        sent = received;
    }

    Bench::heading("memory: VmRSS while frames pass adapter -> adapter -> scheduler -> queued receiver");
    const quint64 base = sent;
    pass(base + 20000); // warm-up: sockets, queues and allocator pools reach their working size
    const long before = Bench::statusKiB("VmRSS");
    Bench::figure(QStringLiteral("VmRSS after 20000 warm-up frames"), double(before), "kB");
    for (quint64 step = frames / 4; step <= frames; step += frames / 4) {
        pass(base + 20000 + step);
        Bench::figure(QStringLiteral("VmRSS after %1 more frames").arg(step), double(Bench::statusKiB("VmRSS")), "kB");
    }
    const long after = Bench::statusKiB("VmRSS");
    Bench::figure(QStringLiteral("VmHWM (peak)"), double(Bench::statusKiB("VmHWM")), "kB");
    Bench::figure(QStringLiteral("growth over %1 frames").arg(frames), double(after - before), "kB");
    Bench::figure(QStringLiteral("growth per 1000 frames"), double(after - before) * 1000.0 / double(frames), "kB", 3);
    Bench::note(QStringLiteral("flat (growth < 1 MB): %1").arg(QLatin1String(Bench::verdict(after - before < 1024))));
    scheduler.unregisterCan(sender);
    a.close();
    b.close();
    return 0;
}
