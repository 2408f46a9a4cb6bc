// bench_sdoclient: what the SDOClient facade costs on top of its engines.
//
// A simulated device (cosim) runs in a process of its own on a private
// virtual-bus port. Each phase runs the same request many times, one after
// the other (the next starts from the previous outcome), once on an engine
// directly and once through SDOClient, in alternating rounds so that both
// meet the same load. Printed: round trip median and 99th percentile, or
// bytes per second for the long transfers, and the facade's overhead.
// Then USDO expedited (CAN FD frames) against classic expedited SDO, and the
// same reads through a CiA 309-3 gateway (cogateway, a process of its own).
//
//   bench_sdoclient [--reads N] [--size BYTES] [--repeat R]
//   (defaults: 4000 round trips per phase, 65536 bytes, 3 long transfers)
#include "benchutil.h"

#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cia309adapter.h"
#include "democanadapter.h"
#include "sdoblockclient.h"
#include "sdoclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QProcess>
#include <QTcpServer>
#include <QTimer>

#include <algorithm>
#include <functional>
#include <vector>

namespace {

constexpr quint8 Node = 5;

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5))];
}

// Counts the outcomes of one engine or client and wakes the waiting loop.
struct Outcomes {
    int results = 0;
    int errors = 0;
    quint32 lastError = 0;
    QVariant value;
    QEventLoop* loop = nullptr;

    template <typename Source>
    void watch(Source* s)
    {
        QObject::connect(s, &Source::resultReceived, [this](quint16, quint8, QVariant v) {
            ++results;
            value = v;
            if (loop)
                loop->quit();
        });
        QObject::connect(s, &Source::errorReceived, [this](quint16, quint8, quint32 code) {
            ++errors;
            lastError = code;
            if (loop)
                loop->quit();
        });
    }

    // Starts one request and runs the event loop until its outcome; its time
    // in microseconds, negative on failure.
    double once(const std::function<CAN::RetType()>& start, int timeoutMs = 5000)
    {
        const int before = results + errors, errorsBefore = errors;
        const double t0 = Bench::seconds();
        if (start() != CAN::Ok)
            return -1;
        if (results + errors == before) {
            QEventLoop l;
            QTimer::singleShot(timeoutMs, &l, &QEventLoop::quit);
            loop = &l;
            l.exec();
            loop = nullptr;
        }
        const double us = (Bench::seconds() - t0) * 1e6;
        return results + errors != before && errors == errorsBefore ? us : -1;
    }
};

struct Series {
    std::vector<double> us;
    bool failed = false;
    void add(double v)
    {
        failed = failed || v < 0;
        us.push_back(v);
    }
};

// Runs two request kinds in alternating rounds; false when one failed.
bool alternate(int n, const std::function<double()>& a, const std::function<double()>& b, Series& sa, Series& sb)
{
    constexpr int Rounds = 10;
    for (int r = 0; r < Rounds; ++r) {
        for (int i = 0; i < n / Rounds && !sa.failed; ++i)
            sa.add(a());
        for (int i = 0; i < n / Rounds && !sb.failed; ++i)
            sb.add(b());
    }
    return !sa.failed && !sb.failed;
}

void printRoundTrips(const char* what, const Series& engine, const Series& facade)
{
    const double e50 = percentile(engine.us, 0.5), f50 = percentile(facade.us, 0.5);
    Bench::heading(what);
    Bench::figure(QStringLiteral("engine: round trip median"), e50, "us", 1);
    Bench::figure(QStringLiteral("engine: round trip 99%"), percentile(engine.us, 0.99), "us", 1);
    Bench::figure(QStringLiteral("SDOClient: round trip median"), f50, "us", 1);
    Bench::figure(QStringLiteral("SDOClient: round trip 99%"), percentile(facade.us, 0.99), "us", 1);
    Bench::figure(QStringLiteral("facade overhead (median difference)"), f50 - e50, "us", 1);
}

QByteArray pattern(int n)
{
    QByteArray b(n, '\0');
    for (int i = 0; i < n; ++i)
        b[i] = char((i * 13 + (i >> 9)) & 0xFF);
    return b;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    int reads = 4000, size = 65536, repeat = 3;
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == QLatin1String("--reads") && hasValue)
            reads = args[++i].toInt();
        else if (args[i] == QLatin1String("--size") && hasValue)
            size = args[++i].toInt();
        else if (args[i] == QLatin1String("--repeat") && hasValue)
            repeat = args[++i].toInt();
        else {
            std::fprintf(stderr, "usage: bench_sdoclient [--reads N] [--size BYTES] [--repeat R]\n");
            return 2;
        }
    }
    if (reads < 20 || size < 1 || size > 65536 || repeat < 1) {
        std::fprintf(stderr, "bench_sdoclient: --reads >= 20, --size 1..65536, --repeat >= 1\n");
        return 2;
    }

    const quint16 port = Bench::freeUdpPort();
    std::printf("bench_sdoclient: %d round trips per phase, %d-byte transfers x %d, virtual bus on port %u\n", reads,
                size, repeat, port);
    QProcess device;
    device.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    device.start(QStringLiteral(COSIM_PATH),
                 {QStringLiteral("--node"), QString::number(Node), QStringLiteral("--port"), QString::number(port),
                  QStringLiteral("--heartbeat"), QStringLiteral("0"), QStringLiteral("--no-console")});
    if (!device.waitForStarted(10000)) {
        std::fprintf(stderr, "bench_sdoclient: cannot start cosim\n");
        return 1;
    }
    const auto fail = [&device](const char* what, quint32 code) {
        std::fprintf(stderr, "bench_sdoclient: %s failed (0x%08X)\n", what, code);
        device.kill();
        device.waitForFinished(5000);
        return 1;
    };

    DemoCanAdapter bus(QStringLiteral("Talvik Virtual"));
    bus.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, port);
    bus.open();
    CanScheduler scheduler(&bus);
    scheduler.connectToAdapter(true);
    const quint32 rx = 0x580 + Node, tx = 0x600 + Node;
    SDOExpeditedClient expedited(rx, tx, &scheduler);
    SDOSegmentedClient segmented(rx, tx, &scheduler);
    SDOBlockClient block(rx, tx, &scheduler);
    SDOClient client(rx, tx, &scheduler);
    Outcomes eo, so, bo, co;
    eo.watch(&expedited);
    so.watch(&segmented);
    bo.watch(&block);
    co.watch(&client);

    // Asked until the device answers.
    bool up = false;
    expedited.setSdoTimeout(100);
    for (int i = 0; i < 100 && !up; ++i)
        up = eo.once([&] { return expedited.read(0x1000, 0, CAN::UNSIGNED32); }, 1000) >= 0;
    expedited.setSdoTimeout(SDOExpeditedClient::DefaultTimeoutMs);
    if (!up)
        return fail("waiting for the device", eo.lastError);

    // Expedited read and write.
    {
        Series e, f;
        if (!alternate(
                reads, [&] { return eo.once([&] { return expedited.read(0x1018, 1, CAN::UNSIGNED32); }); },
                [&] { return co.once([&] { return client.read(0x1018, 1, CAN::UNSIGNED32); }); }, e, f))
            return fail("expedited read", eo.lastError | co.lastError);
        printRoundTrips("expedited read 1018h/01 (UNSIGNED32)", e, f);
        Series ew, fw;
        if (!alternate(
                reads, [&] { return eo.once([&] { return expedited.write(0x2000, 0x0D, CAN::UNSIGNED32, 7u); }); },
                [&] { return co.once([&] { return client.write(0x2000, 0x0D, CAN::UNSIGNED32, 7u); }); }, ew, fw))
            return fail("expedited write", eo.lastError | co.lastError);
        printRoundTrips("expedited write 2000h/0D (UNSIGNED32)", ew, fw);
    }

    // Segmented read of the device name (22 bytes, 4 segments).
    {
        Series e, f;
        if (!alternate(
                reads / 4, [&] { return so.once([&] { return segmented.read(0x1008, 0); }); },
                [&] { return co.once([&] { return client.read(0x1008, 0, CAN::VISIBLE_STRING); }); }, e, f))
            return fail("segmented read", so.lastError | co.lastError);
        printRoundTrips("segmented read 1008h (22 bytes)", e, f);
    }

    // Long transfers: segmented and block, engine and facade.
    const QByteArray value = pattern(size);
    struct Long {
        const char* name;
        bool blockMode;
        bool upload;
    };
    const Long longs[] = {{"segmented download", false, false},
                          {"segmented upload", false, true},
                          {"block download", true, false},
                          {"block upload", true, true}};
    for (const Long& l : longs) {
        Outcomes& eng = l.blockMode ? bo : so;
        Series e, f;
        for (int r = 0; r < repeat; ++r) {
            e.add(eng.once([&] {
                if (l.blockMode)
                    return l.upload ? block.read(0x2002, 0) : block.write(0x2002, 0, value);
                return l.upload ? segmented.read(0x2002, 0) : segmented.write(0x2002, 0, value);
            }, 60000));
            SDOClient::mUseBlockTransfer = l.blockMode; // process-wide switch
            f.add(co.once([&] {
                return l.upload ? client.read(0x2002, 0, CAN::DOMAIN) : client.write(0x2002, 0, CAN::DOMAIN, value);
            }, 60000));
            SDOClient::mUseBlockTransfer = false;
            if (e.failed || f.failed)
                return fail(l.name, eng.lastError | co.lastError);
            if (l.upload && (eng.value.toByteArray() != value || co.value.toByteArray() != value))
                return fail("upload comparison", 0);
        }
        const double es = percentile(e.us, 0.5) / 1e6, fs = percentile(f.us, 0.5) / 1e6;
        Bench::heading(qPrintable(QStringLiteral("%1, %2 bytes").arg(QLatin1String(l.name)).arg(size)));
        Bench::figure(QStringLiteral("engine"), size / 1024.0 / es, "KiB/s", 1);
        Bench::figure(QStringLiteral("SDOClient"), size / 1024.0 / fs, "KiB/s", 1);
        Bench::figure(QStringLiteral("facade overhead per transfer (median difference)"), (fs - es) * 1e3, "ms", 2);
    }

    // USDO (CAN FD, one request and one answer) against classic expedited SDO.
    {
        Series classic, usdo;
        SDOClient usdoClient(rx, tx, &scheduler);
        Outcomes uo;
        uo.watch(&usdoClient);
        const auto viaUsdo = [&] {
            usdoClient.activateUSDO(true, 0x29); // process-wide switch
            const double us = uo.once([&] { return usdoClient.read(0x1018, 1, CAN::UNSIGNED32); });
            usdoClient.activateUSDO(false, 0x29);
            return us;
        };
        if (!alternate(reads, [&] { return co.once([&] { return client.read(0x1018, 1, CAN::UNSIGNED32); }); },
                       viaUsdo, classic, usdo))
            return fail("USDO read", co.lastError | uo.lastError);
        const double c50 = percentile(classic.us, 0.5), u50 = percentile(usdo.us, 0.5);
        Bench::heading("SDOClient read 1018h/01: classic expedited SDO and USDO expedited");
        Bench::figure(QStringLiteral("classic SDO: round trip median"), c50, "us", 1);
        Bench::figure(QStringLiteral("USDO: round trip median"), u50, "us", 1);
        Bench::figure(QStringLiteral("USDO: round trip 99%"), percentile(usdo.us, 0.99), "us", 1);
    }

    // The same device through cogateway: text lines over TCP, carried out
    // on the bus by the gateway with this library.
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        const quint16 gwPort = probe.serverPort();
        probe.close();
        QProcess gateway;
        gateway.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        gateway.start(QStringLiteral(COGATEWAY_PATH),
                      {QStringLiteral("--port"), QString::number(port), QStringLiteral("--listen"), QString::number(gwPort)});
        gateway.waitForReadyRead(10000); // "listening on ..."
        CiA309Adapter gw(QStringLiteral("cogateway"));
        gw.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
        gw.setCanAdapterOption(AbstractCanAdapter::GatewayPort, gwPort);
        if (gw.open() != CAN::Ok)
            return fail("connecting to cogateway", 0);
        CanScheduler gwScheduler(&gw);
        SDOClient viaGateway(rx, tx, &gwScheduler);
        Outcomes go;
        go.watch(&viaGateway);
        Series can, text;
        if (!alternate(reads / 2, [&] { return co.once([&] { return client.read(0x1018, 1, CAN::UNSIGNED32); }); },
                       [&] { return go.once([&] { return viaGateway.read(0x1018, 1, CAN::UNSIGNED32); }); }, can, text))
            return fail("read through cogateway", co.lastError | go.lastError);
        Bench::heading("SDOClient read 1018h/01: over CAN and through cogateway");
        Bench::figure(QStringLiteral("over CAN: round trip median"), percentile(can.us, 0.5), "us", 1);
        Bench::figure(QStringLiteral("through cogateway: round trip median"), percentile(text.us, 0.5), "us", 1);
        Bench::figure(QStringLiteral("through cogateway: round trip 99%"), percentile(text.us, 0.99), "us", 1);
        // A domain: one base64 line from the gateway, which reads it by segmented SDO.
        Series dom;
        for (int r = 0; r < repeat; ++r) {
            dom.add(go.once([&] { return viaGateway.read(0x2002, 0, CAN::DOMAIN); }, 60000));
            if (dom.failed || go.value.toByteArray() != value)
                return fail("domain through cogateway", go.lastError);
        }
        Bench::figure(QStringLiteral("through cogateway: %1-byte domain upload").arg(size),
                      size / 1024.0 / (percentile(dom.us, 0.5) / 1e6), "KiB/s", 1);
        gw.close();
        gateway.terminate();
        gateway.waitForFinished(5000);
    }

    bus.close();
    device.terminate();
    if (!device.waitForFinished(5000))
        device.kill();
    return 0;
}
