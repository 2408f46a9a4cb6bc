#include "canopenmasterclass.h"
#include "canopenservice.h"
#include "canscheduler.h"
#include "recordingcanadapter.h"

#include <QPointer>
#include <QThread>
#include <QtTest>
#include <atomic>
#include <mutex>
#include <thread>

// The smallest service on the common base: receives on one identifier,
// sends one frame on another, and follows the CANopen FD switch.
class TestService : public CANopenService
{
    Q_OBJECT
public:
    explicit TestService(quint32 rxId, Qt::ConnectionType type = Qt::AutoConnection)
        : mRxId(rxId), mType(type)
    {
    }
    CAN::RetType setCanScheduler(CanScheduler* scheduler)
    {
        return attachScheduler(scheduler, mRxId, mReceiver, mType);
    }
    CAN::RetType setRxId(quint32 id)
    {
        mRxId = id;
        return reregister(id, mReceiver, mType);
    }
    void release() { releaseReceiver(mReceiver); }
    CAN::RetType send(quint8 value)
    {
        CAN::CanMessage m;
        m.id = 0x600;
        m.length = 1;
        m.data[0] = value;
        m.fd = mUseCANopenFD.load();
        return writeFrame(m);
    }
    bool gateway() const { return onGateway(); }
    AbstractCanAdapter* currentAdapter() const { return adapter(); }
    CanSender* receiver() const { return mReceiver.data(); }

    QVector<quint32> receivedIds()
    {
        std::lock_guard<std::mutex> g(mLock);
        return mIds;
    }
    QThread* lastThread()
    {
        std::lock_guard<std::mutex> g(mLock);
        return mThread;
    }

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override
    {
        std::lock_guard<std::mutex> g(mLock);
        mIds.append(message.message.id);
        mThread = QThread::currentThread();
    }

private:
    quint32 mRxId;
    Qt::ConnectionType mType;
    QPointer<CanSender> mReceiver;
    std::mutex mLock;
    QVector<quint32> mIds;
    QThread* mThread = nullptr;
};

// An adapter with its scheduler, connected.
struct Bus {
    RecordingCanAdapter adapter;
    CanScheduler scheduler{&adapter};
    Bus() { scheduler.connectToAdapter(true); }
};

class tst_CANopenService : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void cleanup() { CANopenService::activateCANopenFD(false); }

    void withoutSchedulerNothingIsAvailable()
    {
        TestService service(0x581);
        QVERIFY(!service.canScheduler());
        QVERIFY(!service.currentAdapter());
        QVERIFY(!service.gateway());
        QCOMPARE(service.send(1), CAN::Error);
        QCOMPARE(service.setRxId(0x582), CAN::Error);
        QVERIFY(!service.receiver());
        QCOMPARE(service.setCanScheduler(nullptr), CAN::Ok);
    }

    void attachedServiceReceivesAndSends()
    {
        Bus bus;
        TestService service(0x581);
        QCOMPARE(service.setCanScheduler(&bus.scheduler), CAN::Ok);
        QCOMPARE(service.canScheduler(), &bus.scheduler);
        QCOMPARE(service.currentAdapter(), &bus.adapter);
        QVERIFY(service.receiver());
        QCOMPARE(service.receiver()->canId(), 0x581u);

        bus.adapter.inject(0x581, {0x43});
        bus.adapter.inject(0x582, {0x43});
        QCOMPARE(service.receivedIds(), QVector<quint32>({0x581}));

        QCOMPARE(service.send(0x2A), CAN::Ok);
        QCOMPARE(bus.adapter.writtenCount(), 1);
        const CAN::CanMessage m = bus.adapter.lastWritten();
        QCOMPARE(m.id, 0x600u);
        QCOMPARE(frameData(m), QByteArray("\x2A", 1));
        service.release();
    }

    // The adapter's own answer comes back unchanged.
    void sendPassesTheAdaptersResult_data()
    {
        QTest::addColumn<int>("result");
        QTest::newRow("Ok") << int(CAN::Ok);
        QTest::newRow("TxQueueFull") << int(CAN::TxQueueFull);
        QTest::newRow("NotReady") << int(CAN::NotReady);
        QTest::newRow("Error") << int(CAN::Error);
    }
    void sendPassesTheAdaptersResult()
    {
        QFETCH(int, result);
        Bus bus;
        TestService service(0x581);
        service.setCanScheduler(&bus.scheduler);
        bus.adapter.failWrites(CAN::RetType(result));
        QCOMPARE(int(service.send(1)), result);
        service.release();
    }

    void detachingUnregistersAndLaterSendsFail()
    {
        Bus bus;
        TestService service(0x581);
        service.setCanScheduler(&bus.scheduler);
        QPointer<CanSender> old = service.receiver();
        QCOMPARE(service.setCanScheduler(nullptr), CAN::Ok);
        QVERIFY2(old.isNull(), "the old receiver is unregistered (and so destroyed)");
        QVERIFY(!service.receiver());
        bus.adapter.inject(0x581, {1});
        QVERIFY(service.receivedIds().isEmpty());
        QCOMPARE(service.send(1), CAN::Error);
        QCOMPARE(bus.adapter.writtenCount(), 0);
    }

    void movingToAnotherSchedulerLeavesTheOldOne()
    {
        Bus one, two;
        TestService service(0x581);
        service.setCanScheduler(&one.scheduler);
        QPointer<CanSender> old = service.receiver();
        QCOMPARE(service.setCanScheduler(&two.scheduler), CAN::Ok);
        QVERIFY(old.isNull());
        one.adapter.inject(0x581, {1});
        QVERIFY(service.receivedIds().isEmpty());
        two.adapter.inject(0x581, {1});
        QCOMPARE(service.receivedIds().size(), 1);
        service.send(7);
        QCOMPARE(one.adapter.writtenCount(), 0);
        QCOMPARE(two.adapter.writtenCount(), 1);
        service.release();
    }

    // A new receive identifier replaces the old registration: one delivery
    // per frame on the new identifier, none on the old one.
    void reregisterMovesTheReceiver()
    {
        Bus bus;
        TestService service(0x581);
        service.setCanScheduler(&bus.scheduler);
        QPointer<CanSender> old = service.receiver();
        QCOMPARE(service.setRxId(0x585), CAN::Ok);
        QVERIFY(old.isNull());
        QCOMPARE(service.receiver()->canId(), 0x585u);
        QCOMPARE(service.setRxId(0x585), CAN::Ok); // same again: still one registration
        bus.adapter.inject(0x581, {1});
        bus.adapter.inject(0x585, {1});
        QCOMPARE(service.receivedIds(), QVector<quint32>({0x585}));
        service.release();
        QVERIFY(!service.receiver());
        bus.adapter.inject(0x585, {1});
        QCOMPARE(service.receivedIds().size(), 1);
    }

    void vanishedSchedulerMakesOperationsFail()
    {
        auto* bus = new Bus;
        TestService service(0x581);
        service.setCanScheduler(&bus->scheduler);
        QPointer<CanSender> receiver = service.receiver();
        delete bus;
        QVERIFY(!service.canScheduler());
        QVERIFY(!service.currentAdapter());
        QCOMPARE(service.send(1), CAN::Error);
        QCOMPARE(service.setRxId(0x582), CAN::Error);
        QVERIFY(!service.gateway());
        // The receiver outlives its scheduler (it was the service's); it is
        // merely forgotten, never unregistered on a scheduler that is gone.
        QVERIFY(receiver);
        service.release();
        QVERIFY(!service.receiver());
        delete receiver.data();

        Bus fresh;
        QCOMPARE(service.setCanScheduler(&fresh.scheduler), CAN::Ok);
        fresh.adapter.inject(0x582, {1}); // the identifier set while detached
        QCOMPARE(service.receivedIds().size(), 1);
        service.release();
    }

    void schedulerWithoutAdapter()
    {
        CanScheduler scheduler(nullptr);
        scheduler.connectToAdapter(true);
        TestService service(0x581);
        QCOMPARE(service.setCanScheduler(&scheduler), CAN::Ok);
        QCOMPARE(service.send(1), CAN::Error);
        QVERIFY(!service.gateway());
        service.release();
    }

    void gatewayFollowsOption35()
    {
        Bus bus;
        TestService service(0x581);
        service.setCanScheduler(&bus.scheduler);
        QVERIFY(!service.gateway());
        bus.adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        QVERIFY(service.gateway());
        service.release();
    }

    // The switch is process-wide: every service object, on every adapter,
    // already created or not, sees it at once.
    void canopenFdSwitchReachesEveryService()
    {
        Bus one, two;
        TestService a(0x581), b(0x582);
        a.setCanScheduler(&one.scheduler);
        b.setCanScheduler(&two.scheduler);
        QVERIFY(!CANopenService::mUseCANopenFD.load());
        a.send(1);
        b.send(1);
        CANopenService::activateCANopenFD(true);
        TestService later(0x583);
        later.setCanScheduler(&two.scheduler);
        a.send(2);
        b.send(2);
        later.send(2);
        CANopenService::activateCANopenFD(false);
        a.send(3);

        const auto w1 = one.adapter.written();
        const auto w2 = two.adapter.written();
        QCOMPARE(w1.size(), 3);
        QCOMPARE(w2.size(), 3);
        QCOMPARE(w1[0].fd, false);
        QCOMPARE(w2[0].fd, false);
        QCOMPARE(w1[1].fd, true);
        QCOMPARE(w2[1].fd, true);
        QCOMPARE(w2[2].fd, true);
        QCOMPARE(w1[2].fd, false);
        a.release();
        b.release();
        later.release();
    }

    // The default (automatic) connection runs the slot in the service's
    // thread whatever thread dispatches; a direct one runs it in the
    // dispatching (adapter) thread.
    void deliveryThreadFollowsConnectionType_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<bool>("inAdapterThread");
        QTest::newRow("automatic") << int(Qt::AutoConnection) << false;
        QTest::newRow("direct") << int(Qt::DirectConnection) << true;
    }
    void deliveryThreadFollowsConnectionType()
    {
        QFETCH(int, type);
        QFETCH(bool, inAdapterThread);
        Bus bus;
        TestService service(0x181, Qt::ConnectionType(type));
        service.setCanScheduler(&bus.scheduler);
        QThread* adapterThread = nullptr;
        std::thread t([&] {
            adapterThread = QThread::currentThread();
            bus.adapter.inject(0x181, {1, 2});
        });
        t.join();
        QTRY_COMPARE_WITH_TIMEOUT(service.receivedIds().size(), 1, 5000);
        QCOMPARE(service.lastThread(), inAdapterThread ? adapterThread : QThread::currentThread());
        service.release();
    }
};

QTEST_GUILESS_MAIN(tst_CANopenService)
#include "tst_canopenservice.moc"
