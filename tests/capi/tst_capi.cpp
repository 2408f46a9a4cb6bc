#include "canlisterner.h"
#include "canopenmaster_c.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "testbus.h"

#include <QElapsedTimer>
#include <QThread>
#include <QtTest>
#include <climits>
#include <cstring>
#include <vector>


namespace {
CaFrame caFrame(quint32 id, std::initializer_list<quint8> data, quint8 length = 0xFF)
{
    CaFrame f;
    std::memset(&f, 0, sizeof f);
    f.id = id;
    int i = 0;
    for (quint8 b : data)
        f.data[i++] = b;
    f.length = length == 0xFF ? quint8(i) : length;
    return f;
}

// Takes frames from a handle until `n` have come, or one with identifier
// `until`, or the time is up.
QVector<CaFrame> receive(int handle, int n, quint32 until = 0xFFFFFFFF)
{
    QVector<CaFrame> got;
    QElapsedTimer t;
    t.start();
    while (got.size() < n && (got.isEmpty() || got.last().id != until) && t.elapsed() < 5000) {
        CaFrame f;
        std::memset(&f, 0, sizeof f);
        if (ca_recv(handle, &f) > 0)
            got.append(f);
        else
            QThread::msleep(1);
    }
    return got;
}

// Takes frames from a handle until one with this identifier has come.
bool receiveUntil(int handle, quint32 id)
{
    const QVector<CaFrame> got = receive(handle, INT_MAX, id);
    return !got.isEmpty() && got.last().id == id;
}
} // namespace

// Handles are positions in process-wide tables that only ever grow, so the
// test functions run in order and count what they create.
// Not covered here: ca_connect's 100 + error code (105) needs an adapter
// whose open() fails, and the factory makes only the virtual adapter, whose
// open() always succeeds.
class tst_CApi : public QObject
{
    Q_OBJECT
private:
    int mCreated = 0;
    int mA = -1, mB = -1, mObserver = -1; // three connected handles on the private bus
    quint32 mMarker = 0x7F0;

    int create()
    {
        const int h = ca_create(VirtualType, "Talvik Virtual", 500);
        if (h >= 0)
            ++mCreated;
        return h;
    }
    static constexpr int VirtualType = 6;

    QVector<int> mConnected; // handles whose adapters run; between tests their queues are empty

    QVector<int> othersThan(int handle) const
    {
        QVector<int> others = mConnected;
        others.removeAll(handle);
        return others;
    }
    // Pings from `sender` until every other connected handle has heard one
    // (their sockets are bound), then empties them up to a final marker.
    bool settle(int sender)
    {
        const QVector<int> receivers = othersThan(sender);
        QVector<bool> heard(receivers.size(), false);
        QElapsedTimer t;
        t.start();
        while (heard.contains(false)) {
            if (t.elapsed() > 5000)
                return false;
            const CaFrame ping = caFrame(0x7EF, {});
            ca_send(sender, &ping);
            QThread::msleep(5);
            for (int i = 0; i < receivers.size(); ++i) {
                CaFrame f;
                while (ca_recv(receivers[i], &f) > 0)
                    heard[i] = true;
            }
        }
        return flush(sender);
    }
    // Frames are first in, first out per socket: once a handle has the
    // marker, everything the sender wrote before it has been taken too.
    bool flush(int sender)
    {
        const quint32 marker = mMarker++;
        const CaFrame m = caFrame(marker, {});
        ca_send(sender, &m);
        for (int r : othersThan(sender)) {
            if (!receiveUntil(r, marker))
                return false;
        }
        return true;
    }
    // Returns once `handle`'s receive step has run after every frame that
    // another handle had already received: the handle sends two frames, and
    // its adapter sends at most one per pass and drains its socket in
    // between. The two frames are taken from the other handles again.
    bool settleReceiver(int handle)
    {
        const CaFrame x = caFrame(0x6F0, {}), y = caFrame(0x6F1, {});
        ca_send(handle, &x);
        ca_send(handle, &y);
        for (int r : othersThan(handle)) {
            if (!receiveUntil(r, 0x6F1))
                return false;
        }
        return true;
    }
    int connectNew()
    {
        const int h = create();
        if (ca_connect(h) != 1)
            return -1;
        mConnected.append(h);
        return h;
    }
    void ensureBus()
    {
        if (mA >= 0)
            return;
        mA = connectNew();
        mB = connectNew();
        mObserver = connectNew();
        QVERIFY(mA >= 0 && mB >= 0 && mObserver >= 0);
        QVERIFY(settle(mA));
    }
    // A sends the frames; they are then waiting at B (and have been taken
    // at the observer).
    void queueAtB(const std::vector<CaFrame>& frames)
    {
        for (const CaFrame& f : frames)
            QCOMPARE(ca_send(mA, &f), 1);
        QCOMPARE(receive(mObserver, int(frames.size())).size(), int(frames.size()));
        QVERIFY(settleReceiver(mB));
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        TestBus::usePrivatePort();
    }

    // Must run first: the tables are still empty.
    void handlesArePositions()
    {
        QCOMPARE(ca_create(6, "Talvik Virtual", 500), 0);
        QCOMPARE(ca_create(6, nullptr, 125), 1);
        QCOMPARE(ca_create(12, "Talvik Virtual", 500), -1);
        QCOMPARE(ca_create(21, "127.0.0.1", 500), -1);
        QCOMPARE(ca_create(6 + 256, "Talvik Virtual", 500), 2); // only the low 8 bits count
        QCOMPARE(ca_create(6, "", 0x10000 + 250), 3);
        mCreated = 4;
    }

    // The first position not handed out, and one far beyond: rejected,
    // the caller's record untouched.
    void unusedHandlesAreRejected()
    {
        for (int handle : {mCreated, mCreated + 10}) {
            CaFrame f = caFrame(0x123, {1, 2, 3});
            const CaFrame before = f;
            QCOMPARE(ca_connect(handle), 0);
            QCOMPARE(ca_send(handle, &f), 0);
            QCOMPARE(ca_recv(handle, &f), 0);
            QCOMPARE(ca_disconnnect(handle), 0);
            QCOMPARE(ca_destroy(handle), 0);
            QCOMPARE(std::memcmp(&f, &before, sizeof f), 0);
        }
    }

    void recvWithNothingWaiting()
    {
        ensureBus();
        const int h = create();
        CaFrame f = caFrame(0x55, {9, 9}, 0x33);
        const CaFrame before = f;
        QCOMPARE(ca_recv(h, &f), -1); // not connected
        QCOMPARE(ca_recv(h, nullptr), -1);
        QCOMPARE(ca_connect(h), 1);
        QCOMPARE(ca_recv(h, &f), -1);
        QCOMPARE(std::memcmp(&f, &before, sizeof f), 0);
        QCOMPARE(ca_recv(mB, &f), -1);
        QCOMPARE(ca_disconnnect(h), 1);
    }

    // The result is the number waiting before the call; the caller's length
    // byte stays as it was, the flags byte becomes 0, the first eight data
    // bytes are copied.
    void framesWaitingCountDown()
    {
        ensureBus();
        queueAtB({caFrame(0x181, {1, 2, 3, 4, 5}), caFrame(0x182, {}),
                  caFrame(0x1FFFFFFF, {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8}, 12)});
        const quint32 ids[3] = {0x181, 0x182, 0x1FFFFFFF};
        const QByteArray data[3] = {QByteArray("\x01\x02\x03\x04\x05\0\0\0", 8), QByteArray(8, '\0'),
                                    QByteArray("\xA1\xA2\xA3\xA4\xA5\xA6\xA7\xA8", 8)};
        for (int i = 0; i < 3; ++i) {
            CaFrame f;
            std::memset(&f, 0xEE, sizeof f);
            f.length = 0x5A;
            QCOMPARE(ca_recv(mB, &f), 3 - i);
            QCOMPARE(f.id, ids[i]);
            QCOMPARE(int(f.length), 0x5A);
            QCOMPARE(int(f.flags), 0);
            QCOMPARE(QByteArray(reinterpret_cast<const char*>(f.data), 8), data[i]);
        }
        CaFrame f;
        QCOMPARE(ca_recv(mB, &f), -1);
    }

    // ca_send passes the length byte on unchanged with the eight data bytes
    // and zeros after them; the adapter rounds the length up to the next
    // FD length. The flags byte is ignored: always a classic data frame.
    void sendHandsTheFrameOver_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("onWire");
        QTest::newRow("3") << 3 << 3;
        QTest::newRow("13") << 13 << 16;
    }
    void sendHandsTheFrameOver()
    {
        QFETCH(int, length);
        QFETCH(int, onWire);
        ensureBus();
        DemoCanAdapter observer(QStringLiteral("Talvik Virtual"));
        FrameCollector seen(&observer);
        observer.open();
        // Until the observer listens: it hears a ping of A.
        const CaFrame ping = caFrame(0x7EE, {});
        QTRY_VERIFY_WITH_TIMEOUT((ca_send(mA, &ping), seen.find(0x7EE)), 5000);

        CaFrame f = caFrame(0x1FFFFFFF, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, quint8(length));
        f.flags = 0xFF;
        QCOMPARE(ca_send(mA, &f), 1);
        CAN::CanRxMessage rx;
        QTRY_VERIFY_WITH_TIMEOUT(seen.find(0x1FFFFFFF, &rx), 5000);
        observer.close();
        QVERIFY(flush(mA));
        QCOMPARE(int(rx.message.length), onWire);
        // The receiving adapter passes on `length` bytes: the eight given
        // ones, then the zeros ca_send put after them.
        for (int i = 0; i < 64; ++i)
            QCOMPARE(int(rx.message.data[i]), i < qMin(8, onWire) ? 0x11 * (i + 1) : 0);
        QVERIFY(!rx.message.rtr && !rx.message.extended && !rx.message.fd && !rx.message.esi && !rx.message.brs);
    }

    // A handle's own frames are never received back: neither looped back
    // nor as echoes.
    void ownFramesNeverReachRecv()
    {
        ensureBus();
        const CaFrame f = caFrame(0x222, {1});
        ca_send(mA, &f);
        QVERIFY(flush(mA));
        QVERIFY(settleReceiver(mA));
        CaFrame got;
        QCOMPARE(ca_recv(mA, &got), -1);
    }

    void listenerIgnoresEchoes()
    {
        CANListerner listener;
        CAN::CanRxMessage rx;
        rx.message.id = 0x100;
        rx.message.length = 2;
        rx.echo = true;
        listener.canMessageReceived(&rx);
        QCOMPARE(listener.count(), 0);
        rx.echo = false;
        rx.message.tail[0] = 0x77;
        listener.canMessageReceived(&rx);
        listener.canMessageReceived(nullptr);
        QCOMPARE(listener.count(), 1);
        CAN::CanMessage out;
        bool taken = false;
        QCOMPARE(listener.take(&out, &taken), 1);
        QVERIFY(taken);
        QCOMPARE(out.id, 0x100u);
        QCOMPARE(int(out.tail[0]), 0);
        QCOMPARE(listener.take(&out, &taken), 0);
        QVERIFY(!taken);
    }

    // A frame taken while the caller gave no record is lost.
    void nullRecordLosesTheFrame()
    {
        ensureBus();
        queueAtB({caFrame(0x301, {1}), caFrame(0x302, {2})});
        QCOMPARE(ca_recv(mB, nullptr), -1);
        CaFrame f;
        QCOMPARE(ca_recv(mB, &f), 1);
        QCOMPARE(f.id, 0x302u);
        QCOMPARE(ca_recv(mB, &f), -1);
    }

    void disconnectAndConnectAgain()
    {
        ensureBus();
        QCOMPARE(ca_disconnnect(mB), 1);
        QCOMPARE(ca_connect(mB), 1);
        QVERIFY(settle(mA));
        queueAtB({caFrame(0x401, {4})});
        CaFrame f;
        QCOMPARE(ca_recv(mB, &f), 1);
        QCOMPARE(f.id, 0x401u);
    }

    // After ca_destroy the adapter is gone but its queue stays readable.
    void destroyedHandleStillDrains()
    {
        ensureBus();
        const int h = connectNew();
        QVERIFY(h >= 0);
        QVERIFY(settle(mA));
        const CaFrame f1 = caFrame(0x501, {5}), f2 = caFrame(0x502, {6});
        ca_send(mA, &f1);
        ca_send(mA, &f2);
        QCOMPARE(receive(mObserver, 2).size(), 2);
        QVERIFY(settleReceiver(h));
        mConnected.removeAll(h);
        QCOMPARE(ca_destroy(h), 1);
        QVERIFY(flush(mA)); // B still holds f1 and f2
        CaFrame f;
        QCOMPARE(ca_recv(h, &f), 2);
        QCOMPARE(f.id, 0x501u);
        QCOMPARE(ca_recv(h, &f), 1);
        QCOMPARE(f.id, 0x502u);
        QCOMPARE(ca_recv(h, &f), -1);
        // The position is kept: the next handle is a new one.
        const int next = create();
        QCOMPARE(next, h + 1);
        QCOMPARE(ca_destroy(next), 1);
    }

    void cleanupTestCase()
    {
        for (int h : {mA, mB, mObserver}) {
            if (h >= 0)
                ca_destroy(h);
        }
    }
};

QTEST_GUILESS_MAIN(tst_CApi)
#include "tst_capi.moc"
