// SerialBusCanAdapter without hardware: two adapters on QtSerialBus's
// virtualcan plugin exchange frames; and the library's services run over it
// as over the virtual bus. The plugin's bus is one TCP port for the whole
// machine (35468, the first device starts it): CTest runs the programs that
// use it one at a time (resource lock "virtualcan").
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "framecollector.h"
#include "nmtslave.h"
#include "objectdictionary.h"
#include "recordingcanadapter.h"
#include "sdoclient.h"
#include "sdoserver.h"
#include "serialbuscanadapter.h"
#include "simdevice.h"
#include "simnmtslave.h"

#include <QCanBus>
#include <QCanBusDevice>
#include <QCanBusFrame>
#include <QThread>
#include <atomic>
#include <memory>
#include <QtTest>
#include <cstring>
#include <thread>

namespace {
// The plugin's first channel.
QString privateBus()
{
    return QStringLiteral("can0");
}

// The plugin's bus server lives in the thread of the first device that
// connects; an adapter's thread ends when it closes. A thread of its own
// keeps the server for the whole test.
class VirtualCanServer : public QThread
{
public:
    ~VirtualCanServer() override
    {
        quit();
        wait();
    }
    bool begin()
    {
        start();
        return QTest::qWaitFor([this]() { return connected.load(); }, 5000);
    }
    std::atomic<bool> connected{false};

protected:
    void run() override
    {
        std::unique_ptr<QCanBusDevice> anchor(QCanBus::instance()->createDevice(QStringLiteral("virtualcan"), QStringLiteral("can9")));
        if (!anchor || !anchor->connectDevice())
            return;
        QObject::connect(anchor.get(), &QCanBusDevice::stateChanged, [this](QCanBusDevice::CanBusDeviceState s) {
            connected.store(s == QCanBusDevice::ConnectedState);
        });
        exec();
    }
};

// A new device joins its channel on the plugin's server a little after it
// reports itself connected: until a probe from `a` reaches `b`, frames may
// pass `b` by.
bool settle(AbstractCanAdapter& a, AbstractCanAdapter& b)
{
    // Shared, not on this stack: a probe may still be reported after we return.
    const auto seen = std::make_shared<std::atomic<bool>>(false);
    QObject context;
    QObject::connect(&b, &AbstractCanAdapter::newCanMessage, &context, [seen](CAN::CanRxMessage*) { seen->store(true); },
                     Qt::DirectConnection);
    for (int i = 0; i < 100 && !seen->load(); ++i) {
        CAN::CanMessage probe;
        probe.id = 0x7FF;
        a.write(&probe);
        QTest::qWait(20);
    }
    QTest::qWait(20); // later probes still on their way
    return seen->load();
}

CAN::CanMessage frame(quint32 id, const QByteArray& data, bool extended = false, bool fd = false, bool brs = false)
{
    CAN::CanMessage m;
    m.id = id;
    m.extended = extended;
    m.fd = fd;
    m.brs = brs;
    m.length = quint8(data.size());
    std::memcpy(m.data, data.constData(), size_t(data.size()));
    return m;
}
} // namespace

class tst_SerialBusCanAdapter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        if (!SerialBusCanAdapter::plugins().contains(QStringLiteral("virtualcan")))
            QSKIP("QtSerialBus's virtualcan plugin is not installed");
        QVERIFY(mServer.begin());
    }

    // Frames of every kind from one adapter to the other, as they were sent.
    void framesBothWays_data()
    {
        QTest::addColumn<bool>("extended");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<bool>("brs");
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("classic") << false << false << false << QByteArray::fromHex("0102030405060708");
        QTest::newRow("extended, empty") << true << false << false << QByteArray();
        QTest::newRow("FD, 64 bytes, BRS") << false << true << true << QByteArray(64, '\x5a');
        QTest::newRow("FD extended, 12 bytes") << true << true << false << QByteArray(12, '\x01');
    }
    void framesBothWays()
    {
        QFETCH(bool, extended);
        QFETCH(bool, fd);
        QFETCH(bool, brs);
        QFETCH(QByteArray, data);
        const QString bus = privateBus();
        SerialBusCanAdapter a(QStringLiteral("virtualcan"), bus), b(QStringLiteral("virtualcan"), bus);
        a.setCanAdapterOption(AbstractCanAdapter::FdMode, fd);
        b.setCanAdapterOption(AbstractCanAdapter::FdMode, fd);
        QSignalSpy states(&a, &AbstractCanAdapter::newCanState);
        QCOMPARE(a.open(), CAN::Ok);
        QCOMPARE(b.open(), CAN::Ok);
        QCOMPARE(states.value(0).value(0).value<CAN::CanState>(), CAN::ErrorActive);
        QVERIFY(settle(a, b));
        FrameCollector received(&b);
        CAN::CanMessage m = frame(extended ? 0x1ABCDEF0 : 0x123, data, extended, fd, brs);
        QCOMPARE(a.write(&m), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(received.count(), 1, 5000);
        const CAN::CanRxMessage rx = received.frames().at(0);
        QCOMPARE(frameHex(rx.message), frameHex(m));
        QCOMPARE(rx.message.extended, extended);
        QCOMPARE(rx.message.fd, fd);
        QCOMPARE(rx.message.brs, brs);
        QVERIFY(rx.timeStamp.seconds > 0 || rx.timeStamp.microseconds > 0);
        a.close();
        b.close();
        QCOMPARE(a.getState(), CAN::Closed);
    }

    // Three threads write at once: every frame arrives, each thread's in its order.
    void writesFromSeveralThreadsKeepTheirOrder()
    {
        const QString bus = privateBus();
        SerialBusCanAdapter a(QStringLiteral("virtualcan"), bus), b(QStringLiteral("virtualcan"), bus);
        QCOMPARE(a.open(), CAN::Ok);
        QCOMPARE(b.open(), CAN::Ok);
        QVERIFY(settle(a, b));
        FrameCollector received(&b);
        constexpr int PerThread = 300;
        std::vector<std::thread> writers;
        for (int t = 0; t < 3; ++t) {
            writers.emplace_back([&a, t]() {
                for (int i = 0; i < PerThread; ++i) {
                    CAN::CanMessage m = frame(0x100 + quint32(t), QByteArray::number(i).rightJustified(4, '0'));
                    while (a.write(&m) == CAN::TxQueueFull)
                        std::this_thread::yield();
                }
            });
        }
        for (std::thread& w : writers)
            w.join();
        QTRY_COMPARE_WITH_TIMEOUT(received.count(), 3 * PerThread, 20000);
        int next[3] = {0, 0, 0};
        for (const CAN::CanRxMessage& rx : received.frames()) {
            const int t = int(rx.message.id - 0x100);
            QCOMPARE(QByteArray(reinterpret_cast<const char*>(rx.message.data), 4).toInt(), next[t]++);
        }
        // Closing while frames still flow ends cleanly; a closed adapter queues for the next open.
        for (int i = 0; i < 200; ++i) {
            CAN::CanMessage m = frame(0x200, "x");
            a.write(&m);
        }
        a.close();
        b.close();
    }

    void openFailsCleanly_data()
    {
        QTest::addColumn<QString>("plugin");
        QTest::addColumn<QString>("interface");
        QTest::newRow("unknown plugin") << "nosuchplugin" << "can0";
        QTest::newRow("socketcan, no such interface") << "socketcan" << "nosuchcan9";
    }
    void openFailsCleanly()
    {
        QFETCH(QString, plugin);
        QFETCH(QString, interface);
        SerialBusCanAdapter a(plugin, interface);
        QCOMPARE(a.open(), CAN::Error);
        QVERIFY(!a.isRunning());
        QVERIFY2(a.errorString().contains(interface) || a.errorString().contains(plugin), qPrintable(a.errorString()));
    }

    // The library's services over this adapter: SDO, NMT and heartbeat
    // against the simulated device on a second adapter of the same bus.
    void servicesRunOverIt()
    {
        const QString bus = privateBus();
        SerialBusCanAdapter master(QStringLiteral("virtualcan"), bus), deviceBus(QStringLiteral("virtualcan"), bus);
        QCOMPARE(master.open(), CAN::Ok);
        QCOMPARE(deviceBus.open(), CAN::Ok);
        QVERIFY(settle(master, deviceBus) && settle(deviceBus, master));
        SimDevice device(5, &deviceBus);
        SimNmtSlave nmt(&device);
        ObjectDictionary od;
        od.addDefaultEntries(5, &device);
        SdoServer server(&device, &od);
        CanScheduler scheduler(&master);
        scheduler.connectToAdapter(true);
        NMTSlave slave(5, &scheduler);
        QSignalSpy states(&slave, &NMTSlave::NodeStateChanged);
        device.setHeartbeatTime(50);
        device.start();
        QTRY_VERIFY_WITH_TIMEOUT(states.count() >= 1, 5000); // boot-up or heartbeat
        SDOClient client(0x585, 0x605, &scheduler);
        QSignalSpy results(&client, &SDOClient::resultReceived);
        QCOMPARE(client.read(0x1008, 0, CAN::VISIBLE_STRING), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results.count(), 1, 5000);
        QCOMPARE(results.at(0).at(2).value<QVariant>().toByteArray(), QByteArray("cosim simulated device"));
        QCOMPARE(slave.startNode(), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(slave.getCurrentNodeState(), NMTSlave::Operational, 5000);
        master.close();
        deviceBus.close();
    }

private:
    VirtualCanServer mServer;
};

QTEST_MAIN(tst_SerialBusCanAdapter)
#include "tst_serialbuscanadapter.moc"
