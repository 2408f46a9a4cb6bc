// C interface throughput: frames/s from ca_send on one handle to ca_recv on
// another (both virtual adapters in this process), as a C host would poll.
//   bench_capi [frames]     (default 200000)
#include "benchutil.h"
#include "canopenmaster_c.h"

#include <QThread>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    const quint64 frames = argc > 1 ? QByteArray(argv[1]).toULongLong() : 200000;
    // A private bus; the C interface's adapters read the port from here.
    const quint16 port = Bench::freeUdpPort();
    setenv("CANOPEN_VBUS_PORT", QByteArray::number(port).constData(), 1);
    qca();
    const int32_t tx = ca_create(6, "Talvik Virtual", 500);
    const int32_t rx = ca_create(6, "Talvik Virtual", 500);
    if (tx < 0 || rx < 0 || ca_connect(tx) != 1 || ca_connect(rx) != 1) {
        std::printf("could not open the adapters\n");
        return 1;
    }

    Bench::heading("C interface: ca_send on handle 0 -> ca_recv on handle 1");
    Bench::note(QStringLiteral("%1 frames of 8 bytes; the host sends one frame, then takes whatever has arrived").arg(frames));
    CaFrame frame;
    std::memset(&frame, 0, sizeof frame);
    CaFrame in;
    std::memset(&in, 0, sizeof in);
    // Wait until the receiving handle's socket is bound.
    frame.id = 0x7FF;
    while (ca_recv(rx, &in) < 1) {
        ca_send(tx, &frame);
        QThread::msleep(5);
    }
    while (ca_recv(rx, &in) > 0) {
    }

    quint64 received = 0, reordered = 0, expected = 0;
    double lastRx = 0;
    auto drain = [&]() {
        while (ca_recv(rx, &in) > 0) {
            if (in.id != 0x100)
                continue;
            quint64 seq;
            std::memcpy(&seq, in.data, sizeof seq);
            reordered += seq != expected ? 1 : 0;
            expected = seq + 1;
            ++received;
            lastRx = Bench::seconds();
        }
    };
    frame.id = 0x100;
    frame.length = 8;
    const auto threadsBefore = Bench::threadCpu();
    const double t0 = Bench::seconds();
    for (quint64 seq = 0; seq < frames; ++seq) {
        std::memcpy(frame.data, &seq, sizeof seq);
        ca_send(tx, &frame);
        drain();
    }
    const double sendSeconds = Bench::seconds() - t0;
    double quietSince = Bench::seconds();
    quint64 seen = received;
    while (received < frames && Bench::seconds() - quietSince < 2.0) {
        drain();
        if (received != seen) {
            seen = received;
            quietSince = Bench::seconds();
        }
        QThread::usleep(200);
    }
    const double fps = double(received) / (lastRx - t0);
    // CPU per frame of each thread (host thread and the two adapter
    // threads): unlike the rate, hardly affected by a busy machine.
    const auto threadsAfter = Bench::threadCpu();
    double busiest = 0;
    for (auto it = threadsAfter.cbegin(); it != threadsAfter.cend(); ++it) {
        const double perFrame = (it->seconds - threadsBefore.value(it.key()).seconds) * 1e6 / double(frames);
        if (perFrame <= 0)
            continue;
        busiest = qMax(busiest, perFrame);
        Bench::figure(QStringLiteral("CPU per frame, thread %1 (%2)").arg(it->name).arg(it.key()), perFrame, "us", 2);
    }
    if (busiest > 0)
        Bench::figure(QStringLiteral("rate the busiest thread allows on a free core"), 1e6 / busiest, "frames/s");
    Bench::figure(QStringLiteral("ca_send calls, per call"), sendSeconds * 1e6 / double(frames), "us", 2);
    Bench::figure(QStringLiteral("frames/s, first ca_send to last ca_recv"), fps, "frames/s");
    Bench::figure(QStringLiteral("lost"), double(frames - received), "frames");
    Bench::figure(QStringLiteral("out of order"), double(reordered), "frames");
    Bench::figure(QStringLiteral("target >= 50,000 and none lost: %1")
                      .arg(QLatin1String(Bench::verdict(fps >= 50000 && received == frames))),
                  fps, "frames/s");
    ca_destroy(tx);
    ca_destroy(rx);
    return 0;
}
