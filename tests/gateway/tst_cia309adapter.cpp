#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cia309adapter.h"
#include "emcyconsumer.h"
#include "fakegateway.h"
#include "nmtnetwork.h"
#include "nmtslave.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>
#include <thread>

namespace {
// The texts of a spy on newCiA309Response, one per emission.
QStringList texts(const QSignalSpy& spy)
{
    QStringList result;
    for (const QList<QVariant>& args : spy)
        result << args.at(0).toString();
    return result;
}
} // namespace

class tst_CiA309Adapter : public QObject
{
    Q_OBJECT
private:
    // An adapter connected to the gateway.
    bool openOn(FakeGateway& gw, CiA309Adapter& a)
    {
        gw.configure(a);
        return a.open() == CAN::Ok && gw.waitForClient();
    }

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

    // Requests made before the connection fail but use up their numbers.
    void linesOnTheWireAreNumbered_data()
    {
        QTest::addColumn<int>("unconnected");
        QTest::newRow("from zero") << 0;
        QTest::newRow("after a request without connection") << 1;
        QTest::newRow("wrap after 32767") << 32767;
    }
    void linesOnTheWireAreNumbered()
    {
        QFETCH(int, unconnected);
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QSignalSpy sent(&a, &AbstractCanAdapter::newCiA309RequestSent);
        qint16 slot = -1;
        for (int i = 0; i < unconnected; ++i) {
            if (a.sendCiA309Request(QStringLiteral("x"), slot) != CAN::Error || slot != qint16(i))
                QFAIL(qPrintable(QStringLiteral("request %1 got number %2").arg(i).arg(slot)));
        }
        QCOMPARE(sent.count(), 0);
        QVERIFY(openOn(gw, a));

        auto number = [unconnected](int k) { return QString::number((unconnected + k) % 32768); };
        QCOMPARE(a.sendCiA309Request(QStringLiteral("5 preop"), slot), CAN::Ok);
        QCOMPARE(QString::number(slot), number(0));
        QCOMPARE(a.sendCiA309Request(QStringLiteral("5 r 0x1018 1 u32"), slot), CAN::Ok);
        QCOMPARE(QString::number(slot), number(1));
        // The one-argument forms number their lines too.
        QCOMPARE(a.write(QStringLiteral("0 start")), CAN::Ok);
        QCOMPARE(a.sendCiA309Command(QStringLiteral("0 stop")), CAN::Ok);

        QStringList expected;
        for (const char* request : {"5 preop", "5 r 0x1018 1 u32", "0 start", "0 stop"})
            expected << QStringLiteral("[%1] %2\n").arg(number(expected.size()), request);
        QVERIFY(gw.waitForLines(4));
        QCOMPARE(QString::fromUtf8(gw.received()), expected.join(QString()));
        QCOMPARE(texts(sent), expected);
    }

    // One emission per read, holding the lines completed so far; a last
    // line without line end comes once the peer has been quiet for a while.
    void responsesComeInWholeLines_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QList<int>>("splits");
        QTest::addColumn<QStringList>("emissions");
        QTest::newRow("two lines, one segment") << QByteArray("[0] OK\r\n[1] 0x00001234\r\n") << QList<int>{}
                                                << QStringList{"[0] OK\r\n[1] 0x00001234\r\n"};
        QTest::newRow("byte by byte") << QByteArray("[2] ERROR:100 #x\r\n") << FakeGateway::ByteByByte
                                      << QStringList{"[2] ERROR:100 #x\r\n"};
        QTest::newRow("line ends in the next piece") << QByteArray("[3] OK\r\n[4] OK\n") << QList<int>{3, 10}
                                                     << QStringList{"[3] OK\r\n", "[4] OK\n"};
        QTest::newRow("line feed alone") << QByteArray("[3] OK\n[4] OK\n") << QList<int>{6, 7}
                                         << QStringList{"[3] OK\n", "[4] OK\n"};
        QTest::newRow("cut at the first NUL") << QByteArray("[5] OK\r\n\0[6] OK\r\n", 17) << QList<int>{}
                                              << QStringList{"[5] OK\r\n"};
        QTest::newRow("tail without line end") << QByteArray("[7] OK\n[8] O") << QList<int>{}
                                               << QStringList{"[7] OK\n", "[8] O"};
    }
    void responsesComeInWholeLines()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QList<int>, splits);
        QFETCH(QStringList, emissions);
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QSignalSpy responses(&a, &AbstractCanAdapter::newCiA309Response);
        QVERIFY(openOn(gw, a));
        gw.send(bytes, splits);
        const int whole = emissions.last().endsWith('\n') ? emissions.size() : emissions.size() - 1;
        QTRY_VERIFY_WITH_TIMEOUT(gw.idle() && responses.count() >= whole, 3000);
        QCOMPARE(responses.count(), whole); // a tail waits for TailQuietMs
        QTRY_COMPARE_WITH_TIMEOUT(texts(responses), emissions, 3000);
        QTest::qWait(20);
        QCOMPARE(responses.count(), emissions.size());
    }

    void answerSplitAnywhereArrivesWhole()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QSignalSpy responses(&a, &AbstractCanAdapter::newCiA309Response);
        QVERIFY(openOn(gw, a));
        const QByteArray line("[0] ERROR:100 #abc\r\n");
        for (int at = 1; at < line.size(); ++at) {
            gw.send(line, {at});
            QTRY_VERIFY_WITH_TIMEOUT(gw.idle() && responses.count() >= at, 3000);
        }
        QTest::qWait(20);
        QCOMPARE(responses.count(), line.size() - 1);
        for (const QString& text : texts(responses))
            QCOMPARE(text, QString::fromLatin1(line));
    }

    void overlongLineIsDropped_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QString>("received");
        QTest::newRow("longest line") << CiA309Adapter::MaxLineBytes << "[0] OK\r\n[1] long\r\n[2] OK\r\n";
        QTest::newRow("one byte more") << CiA309Adapter::MaxLineBytes + 1 << "[0] OK\r\n[2] OK\r\n";
    }
    void overlongLineIsDropped()
    {
        QFETCH(int, length);
        QFETCH(QString, received);
        const bool dropped = length > CiA309Adapter::MaxLineBytes;
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QSignalSpy responses(&a, &AbstractCanAdapter::newCiA309Response);
        QSignalSpy errors(&a, &AbstractCanAdapter::interfaceError);
        QVERIFY(openOn(gw, a));
        if (dropped)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("longer than")));
        // Long lines come in many reads; "long" is at their end. The CR counts, the LF not.
        gw.send("[0] OK\r\n[1] " + QByteArray(length - 9, 'A') + "long\r\n[2] OK\r\n");
        QTRY_VERIFY_WITH_TIMEOUT(texts(responses).join(QString()).endsWith("[2] OK\r\n"), 5000);
        QCOMPARE(texts(responses).join(QString()).remove(QRegularExpression(QStringLiteral("A+"))), received);
        QCOMPARE(errors.count(), dropped ? 1 : 0);
    }

    void connectionEnds_data()
    {
        QTest::addColumn<bool>("peerCloses");
        QTest::newRow("the gateway closes: lost") << true;
        QTest::newRow("our close: for good") << false;
    }
    void connectionEnds()
    {
        QFETCH(bool, peerCloses);
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QSignalSpy errors(&a, &AbstractCanAdapter::interfaceError);
        QVERIFY(openOn(gw, a));
        if (peerCloses)
            gw.client()->disconnectFromHost();
        else
            a.close();
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), peerCloses ? 1 : 0, 3000);
        qint16 slot = -1;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("0 preop"), slot), CAN::Error);
        QCOMPARE(slot, qint16(0));
        QTest::qWait(20);
        QCOMPARE(errors.count(), peerCloses ? 1 : 0); // our own close is no loss of the connection
        if (!peerCloses) {
            QCOMPARE(a.open(), CAN::Error);
            a.close(); // twice is harmless
        }
    }

    void refusedConnectionFailsFast()
    {
        CiA309Adapter a{QString()};
        FakeGateway(this).configure(a); // a port that just stopped listening
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
        QVERIFY(openOn(gw, a));
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
        QVERIFY(gw.waitForLines(Threads * PerThread));
        const QStringList lines = gw.lines();
        QCOMPARE(lines.size(), Threads * PerThread);
        for (int n = 0; n < Threads * PerThread; ++n) {
            QRegularExpressionMatch m = QRegularExpression(QStringLiteral("^\\[(\\d+)\\] t(\\d) (\\d+)$")).match(lines[n]);
            QVERIFY2(m.hasMatch(), qPrintable(lines[n]));
            QCOMPARE(m.captured(1).toInt(), n);
            QCOMPARE(int(numbers[size_t(m.captured(2).toInt())][size_t(m.captured(3).toInt())]), n);
        }
    }

    // The services' command lines and the emergency report lines over a real
    // connection; an upper-case report split in two segments makes one record.
    void servicesOverTheGateway()
    {
        FakeGateway gw;
        CiA309Adapter a{QString()};
        QVERIFY(openOn(gw, a));
        CanScheduler scheduler(&a);
        scheduler.connectToAdapter(true);
        NMTNetwork network(&scheduler);
        NMTSlave slave(5, &scheduler);
        EMCYConsumer emcy(0x85, &scheduler);
        QSignalSpy emergencies(&emcy, &EMCYConsumer::newEmcyData);

        QCOMPARE(network.preop(), CAN::Ok);
        QCOMPARE(slave.resetApplication(), CAN::Ok);
        QCOMPARE(slave.getExpectedNodeState(), NMTSlave::Unknown);
        QVERIFY(gw.waitForLines(2));
        QCOMPARE(gw.lines(), (QStringList{"[0] 0 preop", "[1] 5 reset node"}));

        gw.send("[0] OK\r\n5 EMCY 0x8110 0x11 1 2 3 4 5\r\n6 emcy 0x1000 1 0 0 0 0 0\r\n", {26});
        QTRY_VERIFY_WITH_TIMEOUT(gw.idle() && emergencies.count() >= 1, 3000);
        QTest::qWait(20);
        QCOMPARE(emergencies.count(), 1);
        const auto d = emergencies.at(0).at(0).value<EMCYConsumer::EMCYData>();
        QCOMPARE(d.errorCode, quint16(0x8110));
        QCOMPARE(d.errorRegister, quint8(0x11));
        QCOMPARE(QByteArray(reinterpret_cast<const char*>(d.manufacturerData), 5), QByteArray("\1\2\3\4\5"));
    }
};

QTEST_MAIN(tst_CiA309Adapter)
#include "tst_cia309adapter.moc"
