// Virtual bus throughput: frames/s from one DemoCanAdapter to another, in one
// process and across two processes (this program started again as the
// receiving child), with lost and reordered frames counted from sequence
// numbers in the data.
//   bench_vbus [frames]          (default 200000 per case)
//   bench_vbus --receive N       (child role, started by the parent)
#include "benchutil.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThread>
#include <atomic>
#include <cstring>

namespace {
constexpr quint32 DataId = 0x100;
constexpr quint32 ProbeId = 0x7FF;

// Counts data frames in the adapter's thread (a direct connection).
struct Receiver {
    std::atomic<quint64> received{0};
    std::atomic<quint64> reordered{0};
    std::atomic<quint64> probes{0};
    std::atomic<double> first{0};
    std::atomic<double> last{0};
    quint64 expectedNext = 0; // adapter thread only
    quint64 maxSeen = 0;      // adapter thread only

    void take(const CAN::CanRxMessage* rx)
    {
        if (rx->message.id == ProbeId) {
            probes.fetch_add(1);
            return;
        }
        if (rx->message.id != DataId)
            return;
        quint64 seq;
        std::memcpy(&seq, rx->message.data, sizeof seq);
        const double now = Bench::seconds();
        if (received.load(std::memory_order_relaxed) == 0)
            first.store(now);
        last.store(now);
        if (seq != expectedNext && seq < maxSeen)
            reordered.fetch_add(1);
        expectedNext = seq + 1;
        maxSeen = qMax(maxSeen, seq + 1);
        received.fetch_add(1);
    }
};

void writeFrames(DemoCanAdapter& a, quint64 frames)
{
    CAN::CanMessage m;
    m.id = DataId;
    m.length = 8;
    for (quint64 seq = 0; seq < frames; ++seq) {
        std::memcpy(m.data, &seq, sizeof seq);
        a.write(&m);
    }
}

// Waits until `done` or until nothing has changed for `silenceMs`.
template <typename Count>
void waitForFrames(Count count, quint64 wanted, int silenceMs)
{
    quint64 seen = count();
    double since = Bench::seconds();
    while (count() < wanted) {
        QThread::msleep(5);
        if (count() != seen) {
            seen = count();
            since = Bench::seconds();
        } else if ((Bench::seconds() - since) * 1000 > silenceMs) {
            break;
        }
    }
}

// CPU time each named adapter thread used per frame: the figure that does
// not depend on how busy the machine is (the wall-clock rate does).
void reportThreadCpu(const char* label, const QMap<int, Bench::ThreadCpu>& before, quint64 frames)
{
    const auto now = Bench::threadCpu();
    double worst = 0;
    for (auto it = now.cbegin(); it != now.cend(); ++it) {
        if (!it->name.startsWith(QLatin1String("vbus-")))
            continue;
        const double used = it->seconds - before.value(it.key()).seconds;
        const double perFrame = used * 1e6 / double(frames);
        worst = qMax(worst, perFrame);
        Bench::figure(QStringLiteral("%1: CPU per frame, thread %2").arg(QLatin1String(label), it->name), perFrame, "us", 2);
    }
    if (worst > 0)
        Bench::figure(QStringLiteral("%1: rate the busiest thread allows on a free core").arg(QLatin1String(label)),
                      1e6 / worst, "frames/s");
}

void report(const char* label, quint64 frames, quint64 received, quint64 reordered, double sendSeconds, double rxSeconds)
{
    Bench::figure(QStringLiteral("%1: frames sent").arg(QLatin1String(label)), double(frames), "frames");
    Bench::figure(QStringLiteral("%1: writes queued in").arg(QLatin1String(label)), sendSeconds * 1000, "ms", 1);
    Bench::figure(QStringLiteral("%1: received, first to last").arg(QLatin1String(label)),
                  received > 1 ? double(received) / rxSeconds : 0, "frames/s");
    Bench::figure(QStringLiteral("%1: lost").arg(QLatin1String(label)), double(frames - received), "frames");
    Bench::figure(QStringLiteral("%1: out of order").arg(QLatin1String(label)), double(reordered), "frames");
}

int receiveAsChild(quint64 frames)
{
    DemoCanAdapter b(QStringLiteral("Talvik Virtual"));
    b.setObjectName(QStringLiteral("vbus-B-receiver"));
    Receiver r;
    QObject::connect(&b, &AbstractCanAdapter::newCanMessage, [&r](CAN::CanRxMessage* rx) { r.take(rx); });
    b.open();
    // The parent sends probes until we answer "ready": then our socket is bound.
    while (r.probes.load() == 0)
        QThread::msleep(1);
    std::printf("ready\n");
    std::fflush(stdout);
    const auto cpuBefore = Bench::threadCpu();
    waitForFrames([&r]() { return r.received.load(); }, frames, 2000);
    reportThreadCpu("two processes", cpuBefore, frames);
    b.close();
    std::printf("%llu %llu %.9f\n", static_cast<unsigned long long>(r.received.load()),
                static_cast<unsigned long long>(r.reordered.load()), r.last.load() - r.first.load());
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    if (argc > 2 && std::strcmp(argv[1], "--receive") == 0)
        return receiveAsChild(QByteArray(argv[2]).toULongLong());

    const quint64 frames = argc > 1 ? QByteArray(argv[1]).toULongLong() : 200000;
    const quint16 port = Bench::freeUdpPort();
    qputenv(DemoCanAdapter::PortEnvironmentVariable, QByteArray::number(port));

    Bench::heading("virtual bus: one process, adapter A -> adapter B");
    Bench::note(QStringLiteral("%1 frames of 8 bytes written at once to A (private UDP port %2)").arg(frames).arg(port));
    {
        DemoCanAdapter a(QStringLiteral("Talvik Virtual")), b(QStringLiteral("Talvik Virtual"));
        a.setObjectName(QStringLiteral("vbus-A-sender"));
        b.setObjectName(QStringLiteral("vbus-B-receiver"));
        Receiver r;
        QObject::connect(&b, &AbstractCanAdapter::newCanMessage, [&r](CAN::CanRxMessage* rx) { r.take(rx); });
        a.open();
        b.open();
        CAN::CanMessage probe;
        probe.id = ProbeId;
        while (r.probes.load() == 0) {
            a.write(&probe);
            QThread::msleep(5);
        }
        const auto cpuBefore = Bench::threadCpu();
        const double t0 = Bench::seconds();
        writeFrames(a, frames);
        const double sendSeconds = Bench::seconds() - t0;
        waitForFrames([&r]() { return r.received.load(); }, frames, 2000);
        report("in-process", frames, r.received.load(), r.reordered.load(), sendSeconds, r.last.load() - r.first.load());
        reportThreadCpu("in-process", cpuBefore, frames);
        a.close();
        b.close();
        const double fps = double(r.received.load()) / (r.last.load() - r.first.load());
        Bench::figure(QStringLiteral("in-process, target >= 50,000 and none lost: %1")
                          .arg(QLatin1String(Bench::verdict(fps >= 50000 && r.received.load() == frames))),
                      fps, "frames/s");
    }

    Bench::heading("virtual bus: two processes, adapter A here -> adapter B in a child process");
    {
        QProcess child;
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--receive"), QString::number(frames)});
        if (!child.waitForStarted(10000)) {
            Bench::note(QStringLiteral("!! could not start the child process"));
            return 1;
        }
        DemoCanAdapter a(QStringLiteral("Talvik Virtual"));
        a.setObjectName(QStringLiteral("vbus-A-sender"));
        a.open();
        CAN::CanMessage probe;
        probe.id = ProbeId;
        QByteArray out;
        while (!out.contains("ready\n") && child.state() == QProcess::Running) {
            a.write(&probe);
            child.waitForReadyRead(10);
            out += child.readAllStandardOutput();
        }
        const auto cpuBefore = Bench::threadCpu();
        const double t0 = Bench::seconds();
        writeFrames(a, frames);
        const double sendSeconds = Bench::seconds() - t0;
        child.waitForFinished(120000);
        reportThreadCpu("two processes", cpuBefore, frames);
        a.close();
        out += child.readAllStandardOutput();
        // After "ready": the child's own figure lines, then "received reordered seconds".
        QList<QByteArray> lines = out.mid(out.indexOf("ready\n") + 6).split('\n');
        lines.removeAll(QByteArray());
        for (int i = 0; i + 1 < lines.size(); ++i)
            std::printf("%s\n", lines[i].constData());
        const QList<QByteArray> fields = lines.last().split(' ');
        if (fields.size() != 3) {
            Bench::note(QStringLiteral("!! unexpected child output: %1").arg(QString::fromLatin1(out)));
            return 1;
        }
        const quint64 received = fields[0].toULongLong();
        const double rxSeconds = fields[2].toDouble();
        report("two processes", frames, received, fields[1].toULongLong(), sendSeconds, rxSeconds);
        const double fps = double(received) / rxSeconds;
        Bench::figure(QStringLiteral("two processes, target >= 50,000 and none lost: %1")
                          .arg(QLatin1String(Bench::verdict(fps >= 50000 && received == frames))),
                      fps, "frames/s");
    }
    return 0;
}
