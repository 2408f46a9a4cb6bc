#include "democanadapter.h"
#include "canopenmasterclass.h"
#include "recordingcanadapter.h"
#include "testbus.h"

#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

// Collects frames in the adapter's thread (direct connection, as the
// dispatcher does) and hands them to the test thread under a lock.
class FrameSink : public QObject
{
    Q_OBJECT
public:
    explicit FrameSink(AbstractCanAdapter* a)
    {
        connect(a, &AbstractCanAdapter::newCanMessage, this, &FrameSink::take, Qt::DirectConnection);
    }
    QVector<CAN::CanRxMessage> frames()
    {
        std::lock_guard<CanMutex> g(mLock);
        return mFrames;
    }
    int count()
    {
        std::lock_guard<CanMutex> g(mLock);
        return mFrames.size();
    }
public Q_SLOTS:
    void take(CAN::CanRxMessage* m)
    {
        std::lock_guard<CanMutex> g(mLock);
        mFrames.append(*m);
    }
private:
    CanMutex mLock;
    QVector<CAN::CanRxMessage> mFrames;
};

class tst_DemoCanAdapter : public QObject
{
    Q_OBJECT
    static void streamingRows()
    {
        QTest::addColumn<bool>("streaming");
        QTest::newRow("through the loop") << false;
        QTest::newRow("SDO transfer running") << true;
    }

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
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, 40001));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::VirtualBusPort).toUInt(), 40001u);
        QVERIFY(!a.setCanAdapterOption(AbstractCanAdapter::VirtualBusPort, 0));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool(), false);
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::AdapterOption(99)).toBool(), true);
        QCOMPARE(a.getState(), CAN::Stopped);
        QCOMPARE(a.setBitrate(500), CAN::Ok);
        QCOMPARE(a.getBitrate(), quint16(0));
    }

    void frameTravelsToOtherInstanceWithLengthNormalised_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("arrivedLength");
        QTest::addColumn<bool>("fd");
        QTest::newRow("classic 2") << 2 << 2 << false;
        QTest::newRow("zero") << 0 << 0 << false;
        QTest::newRow("9 -> 12") << 9 << 12 << true;
        QTest::newRow("13 -> 16") << 13 << 16 << true;
        QTest::newRow("25 -> 32") << 25 << 32 << true;
        QTest::newRow("64") << 64 << 64 << true;
    }
    void frameTravelsToOtherInstanceWithLengthNormalised()
    {
        QFETCH(int, length);
        QFETCH(int, arrivedLength);
        QFETCH(bool, fd);
        DemoCanAdapter a(QStringLiteral("Talvik Virtual")), b(QStringLiteral("Talvik Virtual"));
        FrameSink sinkA(&a), sinkB(&b);
        QSignalSpy stateA(&a, &AbstractCanAdapter::newCanState);
        QCOMPARE(a.open(), CAN::Ok);
        QCOMPARE(stateA.count(), 1);
        QCOMPARE(stateA.at(0).at(0).value<CAN::CanState>(), CAN::ErrorActive);
        QCOMPARE(b.open(), CAN::Ok);
        QTest::qWait(20); // both receive sockets bound

        CAN::CanMessage m;
        m.id = 0x123;
        m.length = quint8(length);
        for (int i = 0; i < length; ++i)
            m.data[i] = quint8(i + 1);
        m.fd = fd;
        m.brs = fd;
        m.esi = true; // never passed on
        QCOMPARE(a.write(&m), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 1, 2000);
        const CAN::CanRxMessage rx = sinkB.frames().at(0);
        QCOMPARE(rx.message.id, 0x123u);
        QCOMPARE(int(rx.message.length), arrivedLength);
        QCOMPARE(rx.message.fd, fd);
        QCOMPARE(rx.message.brs, fd);
        QCOMPARE(rx.message.esi, false);
        QCOMPARE(rx.echo, false);
        for (int i = 0; i < arrivedLength; ++i)
            QCOMPARE(int(rx.message.data[i]), i < length ? i + 1 : 0);
        QTest::qWait(20);
        QCOMPARE(sinkA.count(), 0); // echo off: the writer sees nothing

        QSignalSpy closed(&a, &AbstractCanAdapter::newCanState);
        a.close();
        QCOMPARE(closed.count(), 1);
        QCOMPARE(closed.at(0).at(0).value<CAN::CanState>(), CAN::Closed);
        b.close();
    }

    // Option 26 (an SDO transfer runs) lets writes from other threads go
    // out from the writer's thread: the rules stay the same either way.
    void echoComesBackMarked_data() { streamingRows(); }
    void echoComesBackMarked()
    {
        QFETCH(bool, streaming);
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameSink sinkA(&a), sinkB(&b);
        a.setCanAdapterOption(AbstractCanAdapter::SdoTransferActive, streaming);
        a.setEcho(true);
        a.open();
        b.open();
        QTest::qWait(20);
        CAN::CanMessage m = makeFrame(0x701, {0x05});
        a.write(&m);
        QTRY_COMPARE_WITH_TIMEOUT(sinkA.count(), 1, 2000);
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 1, 2000);
        QCOMPARE(sinkA.frames().at(0).echo, true);
        QCOMPARE(sinkA.frames().at(0).message.id, 0x701u);
        QCOMPARE(sinkB.frames().at(0).echo, false);
    }

    void framesKeepTheirOrderAndNoneIsLost_data() { streamingRows(); }
    void framesKeepTheirOrderAndNoneIsLost()
    {
        QFETCH(bool, streaming);
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameSink sinkB(&b);
        a.setCanAdapterOption(AbstractCanAdapter::SdoTransferActive, streaming);
        a.open();
        b.open();
        QTest::qWait(20);
        const int n = 5000;
        for (int i = 0; i < n; ++i) {
            CAN::CanMessage m = makeFrame(0x200, {quint8(i), quint8(i >> 8)});
            a.write(&m);
        }
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), n, 10000);
        const auto frames = sinkB.frames();
        for (int i = 0; i < n; ++i)
            QCOMPARE(frames[i].message.data[0] | (frames[i].message.data[1] << 8), i & 0xFFFF);
    }

    // write() is entered from several threads at once (services, the SYNC
    // timer thread, the cyclic transmitter): every frame goes out once and
    // each thread's frames keep their order.
    void concurrentWritersLoseNothing_data() { streamingRows(); }
    void concurrentWritersLoseNothing()
    {
        QFETCH(bool, streaming);
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameSink sinkB(&b);
        a.setCanAdapterOption(AbstractCanAdapter::SdoTransferActive, streaming);
        a.open();
        b.open();
        QTest::qWait(20);
        constexpr int Threads = 4;
        constexpr int PerThread = 5000;
        std::vector<std::thread> writers;
        std::atomic<int> refused{0};
        for (int t = 0; t < Threads; ++t) {
            writers.emplace_back([&a, &refused, t] {
                for (int i = 0; i < PerThread; ++i) {
                    CAN::CanMessage m = makeFrame(0x400 + t, {quint8(t), quint8(i), quint8(i >> 8)});
                    if (a.write(&m) != CAN::Ok)
                        refused.fetch_add(1);
                }
            });
        }
        for (auto& w : writers)
            w.join();
        QCOMPARE(refused.load(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), Threads * PerThread, 30000);
        int next[Threads] = {};
        for (const CAN::CanRxMessage& rx : sinkB.frames()) {
            const int t = rx.message.data[0];
            QVERIFY(t < Threads);
            QCOMPARE(rx.message.id, quint32(0x400 + t));
            QCOMPARE(rx.message.data[1] | (rx.message.data[2] << 8), next[t]);
            ++next[t];
        }
        for (int t = 0; t < Threads; ++t)
            QCOMPARE(next[t], PerThread);
    }

    void reopenAfterClose()
    {
        DemoCanAdapter a(QStringLiteral("v")), b(QStringLiteral("v"));
        FrameSink sinkB(&b);
        b.open();
        for (int round = 0; round < 3; ++round) {
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
        QCOMPARE(sinkB.count(), 3);
        a.open();
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 4, 2000);
        QCOMPARE(sinkB.frames().last().message.id, 0x3FFu);
    }

    void foreignDatagramsOfAnySize_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("lengthByte");
        QTest::addColumn<int>("expectedLength");
        QTest::newRow("empty") << 0 << 0 << 0;
        QTest::newRow("10 bytes") << 10 << 8 << 8;
        QTest::newRow("76 bytes") << 76 << 8 << 8;
        QTest::newRow("length 255") << 76 << 255 << 64;
        QTest::newRow("2000 bytes") << 2000 << 200 << 64;
    }
    void foreignDatagramsOfAnySize()
    {
        QFETCH(int, size);
        QFETCH(int, lengthByte);
        QFETCH(int, expectedLength);
        QByteArray d(size, char(0xAB));
        if (size >= 4) {
            const quint32 id = 0x1AB;
            std::memcpy(d.data(), &id, 4);
        }
        if (size >= 5)
            d[4] = char(lengthByte);
        // Pure decoding first.
        CAN::CanRxMessage rx;
        DemoCanAdapter::decodeDatagram(d.constData(), d.size(), rx);
        QCOMPARE(int(rx.message.length), expectedLength);
        QCOMPARE(rx.message.esi, false);
        if (size == 10) {
            QCOMPARE(rx.message.id, 0x1ABu);
            for (int i = 0; i < 8; ++i)
                QCOMPARE(int(rx.message.data[i]), i < 5 ? 0xAB : 0);
        }
        // Then over the socket, from a foreign sender.
        DemoCanAdapter b(QStringLiteral("v"));
        FrameSink sinkB(&b);
        b.open();
        QTest::qWait(20);
        QUdpSocket foreign;
        foreign.writeDatagram(d, QHostAddress(QStringLiteral("127.255.255.255")), mPort);
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), 1, 2000);
        QCOMPARE(int(sinkB.frames().at(0).message.length), expectedLength);
    }

    // close() straight after open(), before the new thread has run: the
    // loop must not start anyway (close() would wait for it for ever).
    void closeRightAfterOpen()
    {
        DemoCanAdapter a(QStringLiteral("v"));
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(a.open(), CAN::Ok);
            a.close();
            QVERIFY(!a.isRunning());
        }
    }

    // close() right after open() must neither hang (the starting loop must not
    // undo the close) nor drop what was written before it: every frame queued
    // before close() leaves, in order.
    void framesWrittenJustBeforeCloseAllLeave_data()
    {
        QTest::addColumn<int>("rounds");
        QTest::addColumn<int>("framesPerRound");
        QTest::newRow("open, write one, close; many times") << 100 << 1;
        QTest::newRow("open, write 5, close") << 40 << 5;
        QTest::newRow("burst of 3000, close at once") << 1 << 3000;
    }
    void framesWrittenJustBeforeCloseAllLeave()
    {
        QFETCH(int, rounds);
        QFETCH(int, framesPerRound);
        DemoCanAdapter b(QStringLiteral("v"));
        FrameSink sinkB(&b);
        b.open();
        QTest::qWait(20);
        int seq = 0;
        for (int round = 0; round < rounds; ++round) {
            DemoCanAdapter a(QStringLiteral("v"));
            QSignalSpy state(&a, &AbstractCanAdapter::newCanState);
            a.open();
            for (int i = 0; i < framesPerRound; ++i, ++seq) {
                CAN::CanMessage m = makeFrame(0x321, {quint8(seq), quint8(seq >> 8)});
                QCOMPARE(a.write(&m), CAN::Ok);
            }
            a.close();
            QVERIFY(!a.isRunning());
            QCOMPARE(state.count(), 2);
            QCOMPARE(state.at(1).at(0).value<CAN::CanState>(), CAN::Closed);
        }
        QTRY_COMPARE_WITH_TIMEOUT(sinkB.count(), seq, 5000);
        const auto frames = sinkB.frames();
        for (int i = 0; i < seq; ++i)
            QCOMPARE(frames[i].message.data[0] | (frames[i].message.data[1] << 8), i);
    }

    void closeIsPromptWhenIdle()
    {
        DemoCanAdapter a(QStringLiteral("v"));
        a.open();
        QTest::qWait(10);
        QElapsedTimer t;
        t.start();
        a.close();
        QVERIFY(!a.isRunning());
    }

private:
    quint16 mPort = 0;
};

QTEST_MAIN(tst_DemoCanAdapter)
#include "tst_democanadapter.moc"
