#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cia309adapter.h"
#include "emcyconsumer.h"
#include "nmtnetwork.h"
#include "nmtslave.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>
#include <thread>

// The gateway's side of the connection: a local server and the one peer
// socket the adapter connects to.
class FakeGateway
{
public:
    FakeGateway() { mServer.listen(QHostAddress::LocalHost, 0); }
    quint16 port() const { return mServer.serverPort(); }
    void configure(CiA309Adapter& a) const
    {
        a.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
        a.setCanAdapterOption(AbstractCanAdapter::GatewayPort, uint(port()));
    }
    // The connection the adapter made (after its open() returned 0).
    QTcpSocket* accept()
    {
        if (!mPeer && mServer.waitForNewConnection(2000))
            mPeer = mServer.nextPendingConnection();
        return mPeer;
    }
    // Everything the adapter wrote, once at least `size` bytes are in.
    QByteArray received(int size)
    {
        QElapsedTimer t;
        t.start();
        while (mPeer && mData.size() < size && t.elapsed() < 3000) {
            mPeer->waitForReadyRead(50);
            mData += mPeer->readAll();
        }
        return mData;
    }
    // Everything the adapter wrote, once `count` whole lines are in.
    QByteArray receivedLines(int count)
    {
        QElapsedTimer t;
        t.start();
        while (mPeer && mData.count('\n') < count && t.elapsed() < 3000) {
            mPeer->waitForReadyRead(50);
            mData += mPeer->readAll();
        }
        return mData;
    }
    void send(const QByteArray& bytes)
    {
        mPeer->write(bytes);
        mPeer->flush();
    }

private:
    QTcpServer mServer;
    QTcpSocket* mPeer = nullptr;
    QByteArray mData;
};

class tst_CiA309Adapter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void fixedAnswersOfAGateway()
    {
        CiA309Adapter a(QStringLiteral("ignored"));
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("gw.local")));
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::GatewayPort, 70000u)); // cut to 16 bits
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::FdMode, true));      // ignored, still true
        QCOMPARE(a.host(), QStringLiteral("gw.local"));
        QCOMPARE(a.port(), quint16(70000 & 0xFFFF));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool(), true);
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::FdMode).toBool(), false);
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::AdapterOption(99)).toBool(), false);
        CAN::CanMessage m;
        QCOMPARE(a.write(&m), CAN::Error);
        QCOMPARE(a.setBitrate(500), CAN::Error);
        QCOMPARE(a.getBitrate(), quint16(0));
    }

    void linesOnTheWireAreNumberedFromZero()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QSignalSpy sent(&a, &AbstractCanAdapter::newCiA309RequestSent);
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());

        qint16 slot = -1;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("5 preop"), slot), CAN::Ok);
        QCOMPARE(slot, qint16(0));
        QCOMPARE(a.sendCiA309Request(QStringLiteral("5 r 0x1018 1 u32"), slot), CAN::Ok);
        QCOMPARE(slot, qint16(1));
        // The one-argument forms number their lines too.
        QCOMPARE(a.write(QStringLiteral("0 start")), CAN::Ok);
        QCOMPARE(a.sendCiA309Command(QStringLiteral("0 stop")), CAN::Ok);

        const QByteArray expected("[0] 5 preop\n[1] 5 r 0x1018 1 u32\n[2] 0 start\n[3] 0 stop\n");
        QCOMPARE(gw.received(expected.size()), expected);
        QCOMPARE(sent.count(), 4);
        QCOMPARE(sent.at(0).at(0).toString(), QStringLiteral("[0] 5 preop\n"));
        QCOMPARE(sent.at(3).at(0).toString(), QStringLiteral("[3] 0 stop\n"));
    }

    void requestWithoutConnectionConsumesANumber()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QSignalSpy sent(&a, &AbstractCanAdapter::newCiA309RequestSent);
        qint16 slot = -1;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("0 preop"), slot), CAN::Error);
        QCOMPARE(slot, qint16(0));
        QCOMPARE(sent.count(), 0);

        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        QCOMPARE(a.sendCiA309Request(QStringLiteral("0 preop"), slot), CAN::Ok);
        QCOMPARE(slot, qint16(1));
        QCOMPARE(gw.received(12), QByteArray("[1] 0 preop\n"));
    }

    void numberingWrapsAfter32767()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        qint16 slot = -1;
        // Unconnected requests use up numbers 0..32766 quickly.
        for (int i = 0; i < 32767; ++i) {
            a.sendCiA309Request(QStringLiteral("x"), slot);
            if (slot != qint16(i))
                QFAIL(qPrintable(QStringLiteral("request %1 got number %2").arg(i).arg(slot)));
        }
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        QCOMPARE(a.sendCiA309Request(QStringLiteral("a"), slot), CAN::Ok);
        QCOMPARE(slot, qint16(32767));
        QCOMPARE(a.sendCiA309Request(QStringLiteral("b"), slot), CAN::Ok);
        QCOMPARE(slot, qint16(0));
        const QByteArray expected("[32767] a\n[0] b\n");
        QCOMPARE(gw.received(expected.size()), expected);
    }

    void responseTextIsRelayedAsItArrives_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("text");
        QTest::newRow("two lines, one segment") << QByteArray("[0] OK\r\n[1] 0x00001234\r\n")
                                                << QStringLiteral("[0] OK\r\n[1] 0x00001234\r\n");
        QTest::newRow("part of a line") << QByteArray("[2] ERR") << QStringLiteral("[2] ERR");
        QTest::newRow("cut at the first NUL") << QByteArray("[3] OK\r\n\0[4] OK\r\n", 17)
                                              << QStringLiteral("[3] OK\r\n");
    }
    void responseTextIsRelayedAsItArrives()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, text);
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QSignalSpy responses(&a, &AbstractCanAdapter::newCiA309Response);
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        gw.send(bytes);
        QTRY_COMPARE_WITH_TIMEOUT(responses.count(), 1, 3000);
        QCOMPARE(responses.at(0).at(0).toString(), text);
        QTest::qWait(30);
        QCOMPARE(responses.count(), 1);
    }

    void peerClosingRaisesInterfaceError()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QSignalSpy errors(&a, &AbstractCanAdapter::interfaceError);
        QCOMPARE(a.open(), CAN::Ok);
        QTcpSocket* peer = gw.accept();
        QVERIFY(peer);
        peer->disconnectFromHost();
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 3000);
        qint16 slot = -1;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("0 preop"), slot), CAN::Error);
        QCOMPARE(slot, qint16(0));
        QTest::qWait(20);
        QCOMPARE(errors.count(), 1);
    }

    void closeIsForGood()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QSignalSpy errors(&a, &AbstractCanAdapter::interfaceError);
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        a.close();
        QTest::qWait(20);
        QCOMPARE(errors.count(), 0); // our own close is no loss of the connection
        qint16 slot = -1;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("0 preop"), slot), CAN::Error);
        QCOMPARE(slot, qint16(0));
        QCOMPARE(a.open(), CAN::Error);
        a.close(); // twice is harmless
    }

    void refusedConnectionFailsFast()
    {
        quint16 closedPort;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
            closedPort = probe.serverPort();
        }
        CiA309Adapter a{QString()};
        a.setCanAdapterOption(AbstractCanAdapter::GatewayHost, QStringLiteral("127.0.0.1"));
        a.setCanAdapterOption(AbstractCanAdapter::GatewayPort, uint(closedPort));
        QSignalSpy errors(&a, &AbstractCanAdapter::interfaceError);
        QElapsedTimer t;
        t.start();
        QCOMPARE(a.open(), CAN::Error);
        QVERIFY2(t.elapsed() < 10000, "a refused connection must not wait for the connect time-out");
        QCOMPARE(errors.count(), 0); // never established, nothing lost
    }

    void requestsFromOtherThreadsGoThroughTheSocketThread()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        constexpr int Threads = 3, PerThread = 40;
        std::atomic<int> finished{0};
        // What each caller was told: the number of each of its requests.
        std::vector<std::vector<qint16>> numbers(Threads, std::vector<qint16>(PerThread, -1));
        std::vector<std::thread> callers;
        for (int w = 0; w < Threads; ++w) {
            callers.emplace_back([&, w] {
                for (int i = 0; i < PerThread; ++i) {
                    qint16 slot = -1;
                    if (a.sendCiA309Request(QStringLiteral("t%1 %2").arg(w).arg(i), slot) == CAN::Ok)
                        numbers[size_t(w)][size_t(i)] = slot;
                }
                ++finished;
            });
        }
        QTRY_COMPARE_WITH_TIMEOUT(finished.load(), Threads, 10000); // this thread serves them meanwhile
        for (std::thread& t : callers)
            t.join();
        // Every line whole, numbered in the order written, and its number the one its caller got.
        const QList<QByteArray> lines = gw.receivedLines(Threads * PerThread).split('\n');
        QCOMPARE(lines.size(), Threads * PerThread + 1);
        for (int n = 0; n < Threads * PerThread; ++n) {
            QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^\\[(\\d+)\\] t(\\d) (\\d+)$"))
                                            .match(QString::fromLatin1(lines[n]));
            QVERIFY2(m.hasMatch(), lines[n].constData());
            QCOMPARE(m.captured(1).toInt(), n);
            QCOMPARE(int(numbers[size_t(m.captured(2).toInt())][size_t(m.captured(3).toInt())]), n);
        }
    }

    // The services' command lines and the emergency report lines over a real connection.
    void servicesOverTheGateway()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        gw.configure(a);
        QCOMPARE(a.open(), CAN::Ok);
        QVERIFY(gw.accept());
        CanScheduler scheduler(&a);
        scheduler.connectToAdapter(true);
        NMTNetwork network(&scheduler);
        NMTSlave slave(5, &scheduler);
        EMCYConsumer emcy(0x85, &scheduler);
        QSignalSpy emergencies(&emcy, &EMCYConsumer::newEmcyData);

        QCOMPARE(network.preop(), CAN::Ok);
        QCOMPARE(slave.resetApplication(), CAN::Ok);
        QCOMPARE(slave.getExpectedNodeState(), NMTSlave::Unknown);
        const QByteArray expected("[0] 0 preop\n[1] 5 reset node\n");
        QCOMPARE(gw.received(expected.size()), expected);

        gw.send("[0] OK\r\n5 emcy 0x8110 0x11 1 2 3 4 5\r\n6 emcy 0x1000 1 0 0 0 0 0\r\n");
        QTRY_COMPARE_WITH_TIMEOUT(emergencies.count(), 1, 3000);
        const auto d = emergencies.at(0).at(0).value<EMCYConsumer::EMCYData>();
        QCOMPARE(d.errorCode, quint16(0x8110));
        QCOMPARE(d.errorRegister, quint8(0x11));
        QCOMPARE(d.manufacturerData[4], quint8(5));
    }
};

QTEST_MAIN(tst_CiA309Adapter)
#include "tst_cia309adapter.moc"
