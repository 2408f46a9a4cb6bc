// Idle cost: CPU time used by an open virtual adapter (with a scheduler on it)
// while nothing is on the bus, as % of one core.
//   bench_idle [seconds]     (default 10)
#include "benchutil.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"
#include "democanadapter.h"

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    const int seconds = argc > 1 ? qMax(1, QByteArray(argv[1]).toInt()) : 10;
    qputenv(DemoCanAdapter::PortEnvironmentVariable, QByteArray::number(Bench::freeUdpPort()));

    DemoCanAdapter adapter(QStringLiteral("Talvik Virtual"));
    adapter.setObjectName(QStringLiteral("vbus-idle"));
    CanScheduler scheduler(&adapter);
    scheduler.connectToAdapter(true);
    CanSender* sender = scheduler.registerCanId(0x705);
    adapter.open();
    // Let start-up settle before measuring.
    QTimer::singleShot(300, &app, &QCoreApplication::quit);
    app.exec();

    Bench::heading("idle: an open virtual adapter, no traffic");
    Bench::note(QStringLiteral("measuring for %1 s while the main event loop runs").arg(seconds));
    const auto threadsBefore = Bench::threadCpu();
    const double cpu0 = Bench::processCpuSeconds();
    const double t0 = Bench::seconds();
    QTimer::singleShot(seconds * 1000, &app, &QCoreApplication::quit);
    app.exec();
    const double wall = Bench::seconds() - t0;
    const double process = (Bench::processCpuSeconds() - cpu0) / wall * 100;
    const auto threadsAfter = Bench::threadCpu();
    for (auto it = threadsAfter.cbegin(); it != threadsAfter.cend(); ++it) {
        const double used = it->seconds - threadsBefore.value(it.key()).seconds;
        Bench::figure(QStringLiteral("thread %1").arg(it->name), used / wall * 100, "% of one core", 3);
    }
    Bench::figure(QStringLiteral("whole process (getrusage)"), process, "% of one core", 3);
    Bench::figure(QStringLiteral("target < 1%: %1").arg(QLatin1String(Bench::verdict(process < 1.0))), process,
                  "% of one core", 3);
    scheduler.unregisterCan(sender);
    adapter.close();
    return 0;
}
