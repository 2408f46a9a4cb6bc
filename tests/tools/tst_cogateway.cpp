// End to end: cogateway on a private virtual bus with the simulated device
// (cosim), reached over TCP by test clients and by the library's own gateway
// adapter: answer lines, the same values as over CAN, garbage, overlong and
// half lines, clients that vanish mid-transfer while another one works.
#include "canscheduler.h"
#include "cia309adapter.h"
#include "lssmaster.h"
#include "sdoclient.h"
#include "toolprocess.h"

#include <QRegularExpression>
#include <QTcpSocket>
#include <QtTest>
#include <memory>

namespace {
const QString kCogateway = QStringLiteral(COGATEWAY_PATH);
const QString kCosim = QStringLiteral(COSIM_PATH);

// A test client: sends raw bytes, collects the answer lines.
struct Client {
    QTcpSocket socket;
    QByteArray received;
    explicit Client(quint16 port)
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, [this]() { received += socket.readAll(); });
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        socket.waitForConnected(3000);
    }
    QStringList lines() const { return QString::fromUtf8(received).split(QStringLiteral("\r\n"), Qt::SkipEmptyParts); }
    // Sends and waits until `count` answer lines are in.
    bool ask(const QByteArray& bytes, int count, int ms = 10000)
    {
        socket.write(bytes);
        return QTest::qWaitFor([&]() { return lines().size() >= count; }, ms);
    }
};
} // namespace

class tst_Cogateway : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        mBus = std::make_unique<WatchedBus>();
        QVERIFY(mBus->opened);
        mDevice = std::make_unique<ToolProcess>(kCosim, QStringList{"--quiet", "--no-console", "--heartbeat", "0"});
        QVERIFY(mDevice->waitUntilBound(mBus->port));
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x705), 5000);
        mGateway = std::make_unique<ToolProcess>(kCogateway, QStringList{"--listen", "0"});
        QTRY_VERIFY_WITH_TIMEOUT(mGateway->out().contains("listening on"), 5000);
        mPort = quint16(QRegularExpression("127\\.0\\.0\\.1:(\\d+)").match(mGateway->out()).captured(1).toUInt());
        QVERIFY(mPort);
    }

    // One request line, its answer line.
    void answers_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QString>("answer");
        QTest::newRow("read u32, CR LF") << QByteArray("[1] 5 r 0x1018 1 u32\r\n") << "[1] 2748";
        QTest::newRow("read with network 1") << QByteArray("[2] 1 5 r 4120 2 u32\n") << "[2] 49233";
        QTest::newRow("string in quotes") << QByteArray("[3] 5 r 0x1008 0 vs\n") << "[3] \"cosim simulated device\"";
        QTest::newRow("write") << QByteArray("[4] 5 w 0x2000 3 i16 -300\n") << "[4] OK";
        QTest::newRow("missing object") << QByteArray("[5] 5 r 0x3000 0 u32\n") << "[5] ERROR:0x06020000 #Object does not exist";
        QTest::newRow("read-only") << QByteArray("[6] 5 w 0x1018 1 u32 7\n") << "[6] ERROR:0x06010002 #Attempt to write a read only object";
        QTest::newRow("NMT to all") << QByteArray("[7] 0 preop\n") << "[7] OK";
        QTest::newRow("sdo time-out") << QByteArray("[8] set sdo_timeout 300\n") << "[8] OK";
        QTest::newRow("silent node") << QByteArray("[9] 66 r 0x1000 0 u32\n") << "[9] ERROR:0x05040000 #SDO Protocol timed out";
        QTest::newRow("unknown command") << QByteArray("[10] 5 frobnicate\n") << "[10] ERROR:100 #Request not supported: 'frobnicate'";
        QTest::newRow("other network") << QByteArray("[11] 2 5 r 0x1018 1 u32\n") << "[11] ERROR:106 #Unsupported net";
        QTest::newRow("unknown type") << QByteArray("[12] 5 r 0x1018 1 u33\n") << "[12] ERROR:101 #Syntax error: unknown data type 'u33'";
        QTest::newRow("no sequence number") << QByteArray("5 r 0x1018 1 u32\n") << "ERROR:101 #Syntax error: a request begins with [sequence]";
    }
    void answers()
    {
        QFETCH(QByteArray, request);
        QFETCH(QString, answer);
        Client c(mPort);
        QVERIFY(c.ask(request, 1));
        QCOMPARE(c.lines(), QStringList{answer});
    }

    // The library's own gateway client gets through cogateway what SDO over
    // CAN gives, a 2 KiB domain included.
    void libraryClientSeesTheSameValues()
    {
        CiA309Adapter adapter(QStringLiteral("gw"));
        adapter.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
        adapter.setCanAdapterOption(AbstractCanAdapter::GatewayPort, mPort);
        QCOMPARE(adapter.open(), CAN::Ok);
        CanScheduler gwScheduler(&adapter);
        CanScheduler canScheduler(&mBus->adapter);
        canScheduler.connectToAdapter(true);
        SDOClient viaGateway(0x585, 0x605, &gwScheduler), viaCan(0x585, 0x605, &canScheduler);
        QByteArray domain(2048, '\0');
        for (int i = 0; i < domain.size(); ++i)
            domain[i] = char(i * 7);
        const auto run = [](SDOClient& c, bool write, quint16 idx, quint8 sub, CAN::CANopenDataType t, const QVariant& v) {
            QSignalSpy results(&c, &SDOClient::resultReceived), errors(&c, &SDOClient::errorReceived);
            if ((write ? c.write(idx, sub, t, v) : c.read(idx, sub, t)) != CAN::Ok)
                return QVariant(QStringLiteral("refused"));
            if (!QTest::qWaitFor([&]() { return results.count() + errors.count() > 0; }, 10000))
                return QVariant(QStringLiteral("no outcome"));
            return errors.count() ? QVariant(errors.at(0).at(2).toUInt()) : results.at(0).at(2).value<QVariant>();
        };
        // (a gateway write reports 0, an error its abort code)
        QCOMPARE(run(viaGateway, true, 0x2000, 0x0D, CAN::UNSIGNED32, 0xCAFEF00Du).toString(), QString("0"));
        QCOMPARE(run(viaGateway, true, 0x2005, 0, CAN::VISIBLE_STRING, QString("two words")).toString(), QString("0"));
        QCOMPARE(run(viaGateway, true, 0x2002, 0, CAN::DOMAIN, domain).toString(), QString("0"));
        const struct { quint16 idx; quint8 sub; CAN::CANopenDataType type; } entries[] = {
            {0x1018, 4, CAN::UNSIGNED32}, {0x2000, 0x0D, CAN::UNSIGNED32}, {0x2000, 3, CAN::INTEGER16},
            {0x2005, 0, CAN::VISIBLE_STRING}, {0x2002, 0, CAN::DOMAIN}, {0x3000, 0, CAN::UNSIGNED32}};
        for (const auto& e : entries) {
            const QVariant can = run(viaCan, false, e.idx, e.sub, e.type, {});
            const QVariant gw = run(viaGateway, false, e.idx, e.sub, e.type, {});
            QCOMPARE(gw.toString(), can.toString());
        }
        QCOMPARE(run(viaCan, false, 0x2002, 0, CAN::DOMAIN, {}).toByteArray(), domain);
        adapter.close();
    }

    // LSS through the gateway: the library's gateway LSS service drives
    // cogateway, which configures a device without node-ID by LSS over CAN.
    void lssThroughTheGateway()
    {
        ToolProcess fresh(kCosim, {"--quiet", "--no-console", "--unconfigured", "1", "--heartbeat", "0"});
        QVERIFY(fresh.waitUntilBound(mBus->port));
        CiA309Adapter adapter(QStringLiteral("gw"));
        adapter.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
        adapter.setCanAdapterOption(AbstractCanAdapter::GatewayPort, mPort);
        QCOMPARE(adapter.open(), CAN::Ok);
        CanScheduler scheduler(&adapter);
        LSSMaster lss(&scheduler);
        // Selected by its identity: node 5 on the same bus stays in waiting mode.
        QCOMPARE(lss.switchModeSelective(0xABC, 0xC051, 0x10000, 0x5D000101), CAN::Ok);
        QCOMPARE(lss.configureNodeId(33), CAN::Ok);
        QCOMPARE(lss.storeConfiguration(), CAN::Ok);
        QCOMPARE(lss.configureNodeId(200), CAN::Error); // refused by the device
        mBus->frames.clear();
        QCOMPARE(lss.switchModeGlobal(LSSMaster::LssWaitingState), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(mBus->frames.find(0x721), 3000); // boots as node 33
        adapter.close();
    }

    // Garbage, an overlong line, half lines and clients that vanish in the
    // middle of a transfer: the other client's answers keep coming, right.
    void survivesGarbageAndVanishingClients()
    {
        Client steady(mPort);
        {
            Client rude(mPort);
            QByteArray garbage;
            for (int i = 0; i < 4096; ++i)
                garbage += char((i * 37) & 0xFF);
            garbage.replace('\n', 'x'); // one line of garbage
            rude.socket.write(garbage + "\n");
            rude.socket.write("[40] " + QByteArray(1100000, 'x')); // no line end within 1 MiB
            rude.socket.write("\n[41] 5 r 0x1018 1 u32\n");
            QVERIFY(QTest::qWaitFor([&]() { return rude.lines().size() >= 3; }, 10000));
            QVERIFY2(rude.lines().size() == 3, qPrintable(rude.lines().join("|").left(600)));
            QVERIFY2(rude.lines().contains("[40] ERROR:600 #line longer than 1048576 bytes"), qPrintable(rude.lines().join('|')));
            QCOMPARE(rude.lines().last(), QString("[41] 2748"));
            rude.socket.write("[42] 5 r 0x2002 0 d\n[43] 5 r 0x10"); // a transfer, and half a line
            rude.socket.flush();
        } // gone, mid-transfer
        for (int i = 0; i < 3; ++i) {
            Client brief(mPort);
            brief.socket.write("[50] 5 r 0x2001 0 vs\n"); // a long segmented read, then gone
            brief.socket.flush();
            QTest::qWait(5);
        }
        QVERIFY(steady.ask("[60] 5 r 0x1018 4 u32\n[61] 5 r 0x1018 1 u32\n", 2));
        QCOMPARE(steady.lines(), (QStringList{"[60] 1560281093", "[61] 2748"}));
        QCOMPARE(mGateway->finish(50), -1); // still running
    }

    void badArguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("port too big") << QStringList{"--listen", "70000"};
        QTest::newRow("bad address") << QStringList{"--address", "nowhere"};
        QTest::newRow("gateway option") << QStringList{"--gateway", "127.0.0.1:1"};
    }
    void badArguments()
    {
        QFETCH(QStringList, args);
        const ToolProcess::Result r = ToolProcess::run(kCogateway, args);
        QCOMPARE(r.exitCode, 2);
        QVERIFY(!r.err.isEmpty());
    }

private:
    std::unique_ptr<WatchedBus> mBus;
    std::unique_ptr<ToolProcess> mDevice;
    std::unique_ptr<ToolProcess> mGateway;
    quint16 mPort = 0;
};

QTEST_MAIN(tst_Cogateway)
#include "tst_cogateway.moc"
