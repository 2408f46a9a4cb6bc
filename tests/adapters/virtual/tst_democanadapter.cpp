#include "democanadapter.h"
#include "canopenmasterclass.h"
#include "framecollector.h"
#include "recordingcanadapter.h"
#include "testbus.h"

#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

class tst_DemoCanAdapter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        mPort = TestBus::usePrivatePort();
    }

    void portComesFromEnvironmentAndOption()
    {
        DemoCanAdapter a(QStringLiteral("Talvik Virtual"));
        QCOMPARE(a.busPort(), mPort);
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, 65535));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::VirtualBusPort).toUInt(), 65535u);
        QVERIFY(!a.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, 0));
        QVERIFY(!a.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, 65536));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::VirtualBusPort).toUInt(), 65535u);
    }

    void frameTravelsToOtherInstance_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("arrivedLength");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<bool>("extended");
        QTest::addColumn<bool>("rtr");
        QTest::newRow("classic 2, remote") << 2 << 2 << false << false << true;
        QTest::newRow("extended, zero") << 0 << 0 << false << true << false;
        QTest::newRow("FD 9 -> 12") << 9 << 12 << true << false << false;
        QTest::newRow("FD 64, extended") << 64 << 64 << true << true << false;
    }
    void frameTravelsToOtherInstance()
    {
        QFETCH(int, length);
        QFETCH(int, arrivedLength);
        QFETCH(bool, fd);
        QFETCH(bool, extended);
        QFETCH(bool, rtr);
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameCollector sinkB(&b);
        QSignalSpy stateA(&a, &AbstractCanAdapter::newCanState);
        QCOMPARE(a.open(), CAN::Ok);
        QCOMPARE(b.open(), CAN::Ok);
        CAN::CanMessage m;
        m.id = 0x123;
        m.length = quint8(length);
        for (int i = 0; i < length; ++i)
            m.data[i] = quint8(i + 1);
        m.fd = m.brs = fd;
        m.extended = extended;
        m.rtr = rtr;
        m.esi = true; // never passed on
        // Written again until one arrives: b's socket may be bound late on a loaded machine.
        QTRY_VERIFY_WITH_TIMEOUT(a.write(&m) == CAN::Ok && sinkB.count() > 0, 2000);
        const CAN::CanMessage rx = sinkB.frames().at(0).message;
        QCOMPARE(rx.id, 0x123u);
        QCOMPARE(int(rx.length), arrivedLength);
        QCOMPARE(rx.fd, fd);
        QCOMPARE(rx.brs, fd);
        QCOMPARE(rx.extended, extended);
        QCOMPARE(rx.rtr, rtr);
        QCOMPARE(rx.esi, false);
        QCOMPARE(sinkB.frames().at(0).echo, false);
        for (int i = 0; i < arrivedLength; ++i)
            QCOMPARE(int(rx.data[i]), i < length ? i + 1 : 0);
        a.close();
        b.close(); // before its collector goes: late repeats may still arrive
        QCOMPARE(stateA.count(), 2);
        QCOMPARE(stateA.at(0).at(0).value<CAN::CanState>(), CAN::ErrorActive);
        QCOMPARE(stateA.at(1).at(0).value<CAN::CanState>(), CAN::Closed);
    }

    // write() is entered from one or several threads at once (services, the
    // SYNC timer thread, the cyclic transmitter), with or without option 26
    // (an SDO transfer runs: writes may go out from the writer's thread):
    // every frame goes out once, each thread's frames keep their order, the
    // writer sees its frames only as marked echoes and only when asked for.
    void trafficKeepsOrderLosesNothing_data()
    {
        QTest::addColumn<bool>("streaming");
        QTest::addColumn<bool>("echo");
        QTest::addColumn<int>("threads");
        QTest::addColumn<int>("perThread");
        QTest::newRow("one writer, echo") << false << true << 1 << 3000;
        QTest::newRow("one writer, echo, SDO transfer") << true << true << 1 << 3000;
        QTest::newRow("4 writers") << false << false << 4 << 3000;
        QTest::newRow("4 writers, SDO transfer") << true << false << 4 << 3000;
    }
    void trafficKeepsOrderLosesNothing()
    {
        QFETCH(bool, streaming);
        QFETCH(bool, echo);
        QFETCH(int, threads);
        QFETCH(int, perThread);
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameCollector sinkA(&a), sinkB(&b);
        a.setCanAdapterOption(AbstractCanAdapter::SdoTransferActive, streaming);
        a.setEcho(echo);
        a.open();
        b.open();
        QTest::qWait(20);
        std::vector<std::thread> writers;
        std::atomic<int> refused{0};
        for (int t = 0; t < threads; ++t) {
            writers.emplace_back([&a, &refused, t, perThread] {
                for (int i = 0; i < perThread; ++i) {
                    CAN::CanMessage m = makeFrame(0x400 + t, {quint8(t), quint8(i), quint8(i >> 8)});
                    if (a.write(&m) != CAN::Ok)
                        refused.fetch_add(1);
                }
            });
        }
        for (auto& w : writers)
            w.join();
        QCOMPARE(refused.load(), 0);
        const int total = threads * perThread;
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), total, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(sinkA.count(), echo ? total : 0, 5000);
        for (FrameCollector* sink : {&sinkA, &sinkB}) {
            std::vector<int> next(size_t(threads), 0);
            for (const CAN::CanRxMessage& rx : sink->frames()) {
                const int t = rx.message.data[0];
                QVERIFY(t < threads);
                QCOMPARE(rx.echo, sink == &sinkA);
                QCOMPARE(rx.message.id, quint32(0x400 + t));
                QCOMPARE(rx.message.data[1] | (rx.message.data[2] << 8), next[size_t(t)]++);
            }
        }
    }

    void reopenAfterClose()
    {
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameCollector sinkB(&b);
        b.open();
        for (int round = 0; round < 2; ++round) {
            a.open();
            QTest::qWait(10);
            CAN::CanMessage m = makeFrame(0x300 + round, {1});
            a.write(&m);
            QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), round + 1, 2000);
            a.close();
        }
        // Written while closed: stays queued and goes out after the next open.
        CAN::CanMessage m = makeFrame(0x3FF, {});
        a.write(&m);
        QTest::qWait(20);
        QCOMPARE(sinkB.count(), 2);
        a.open();
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 3, 2000);
        QCOMPARE(sinkB.frames().last().message.id, 0x3FFu);
    }

    void foreignDatagramsOfAnySize_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("lengthByte");
        QTest::addColumn<int>("expectedLength");
        QTest::newRow("empty") << 0 << 0 << 0;
        QTest::newRow("10 bytes") << 10 << 8 << 8;
        QTest::newRow("length 255") << 76 << 255 << 64;
        QTest::newRow("2000 bytes") << 2000 << 200 << 64;
    }
    void foreignDatagramsOfAnySize()
    {
        QFETCH(int, size);
        QFETCH(int, lengthByte);
        QFETCH(int, expectedLength);
        QByteArray d(size, char(0xAB));
        const quint32 id = 0x1AB;
        std::memcpy(d.data(), &id, size_t(qMin(size, 4)));
        if (size >= 5)
            d[4] = char(lengthByte);
        DemoCanAdapter b(QStringLiteral("v"));
        FrameCollector sinkB(&b);
        b.open();
        QTest::qWait(20);
        QUdpSocket foreign;
        foreign.writeDatagram(d, QHostAddress(QStringLiteral("127.255.255.255")), mPort);
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 1, 2000);
        const CAN::CanMessage rx = sinkB.frames().at(0).message;
        QCOMPARE(int(rx.length), expectedLength);
        QCOMPARE(rx.esi, false);
        if (size == 10) {
            QCOMPARE(rx.id, 0x1ABu);
            for (int i = 0; i < 8; ++i)
                QCOMPARE(int(rx.data[i]), i < 5 ? 0xAB : 0);
        }
    }

    // close() right after open() must neither hang (the starting loop must not
    // undo the close) nor drop what was written before it: every frame queued
    // before close() leaves, in order.
    void framesWrittenJustBeforeCloseAllLeave_data()
    {
        QTest::addColumn<int>("rounds");
        QTest::addColumn<int>("framesPerRound");
        QTest::newRow("open, close; many times") << 100 << 0;
        QTest::newRow("open, write one, close; many times") << 100 << 1;
        QTest::newRow("burst of 3000, close at once") << 1 << 3000;
    }
    void framesWrittenJustBeforeCloseAllLeave()
    {
        QFETCH(int, rounds);
        QFETCH(int, framesPerRound);
        DemoCanAdapter b(QStringLiteral("v"));
        FrameCollector sinkB(&b);
        b.open();
        QTest::qWait(20);
        int seq = 0;
        for (int round = 0; round < rounds; ++round) {
            DemoCanAdapter a(QStringLiteral("v"));
            a.open();
            for (int i = 0; i < framesPerRound; ++i, ++seq) {
                CAN::CanMessage m = makeFrame(0x321, {quint8(seq), quint8(seq >> 8)});
                QCOMPARE(a.write(&m), CAN::Ok);
            }
            a.close();
            QVERIFY(!a.isRunning());
        }
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), seq, 5000);
        const auto frames = sinkB.frames();
        for (int i = 0; i < seq; ++i)
            QCOMPARE(frames[i].message.data[0] | (frames[i].message.data[1] << 8), i);
    }

private:
    quint16 mPort = 0;
};

QTEST_MAIN(tst_DemoCanAdapter)
#include "tst_democanadapter.moc"
