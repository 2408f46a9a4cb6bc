#include "canopenmasterclass.h"
#include "canopenservice.h"
#include "canscheduler.h"
#include "recordingcanadapter.h"

#include <QPointer>
#include <QtTest>
#include <mutex>

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

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override
    {
        std::lock_guard<std::mutex> g(mLock);
        mIds.append(message.message.id);
    }

private:
    quint32 mRxId;
    Qt::ConnectionType mType;
    QPointer<CanSender> mReceiver;
    std::mutex mLock;
    QVector<quint32> mIds;
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

    // Attached, moved to another identifier and another scheduler, detached:
    // each step leaves exactly one registration (the old one is destroyed).
    void registrationFollowsTheService()
    {
        Bus one, two;
        TestService service(0x581);
        QCOMPARE(service.setCanScheduler(&one.scheduler), CAN::Ok);
        QCOMPARE(service.currentAdapter(), &one.adapter);
        one.adapter.inject(0x581, {1});
        one.adapter.inject(0x582, {1});
        QCOMPARE(service.send(0x2A), CAN::Ok);
        QCOMPARE(one.adapter.writtenHex(), QList<QByteArray>{"600:2a"});
        one.adapter.failWrites(CAN::TxQueueFull); // the adapter's answer comes back unchanged
        QCOMPARE(service.send(1), CAN::TxQueueFull);

        QPointer<CanSender> old = service.receiver();
        QCOMPARE(service.setRxId(0x585), CAN::Ok);
        QVERIFY(old.isNull());
        QCOMPARE(service.setRxId(0x585), CAN::Ok); // same again: still one registration
        one.adapter.inject(0x581, {2});
        one.adapter.inject(0x585, {2});

        old = service.receiver();
        QCOMPARE(service.setCanScheduler(&two.scheduler), CAN::Ok);
        QVERIFY(old.isNull());
        one.adapter.inject(0x585, {3});
        two.adapter.inject(0x585, {3});
        QCOMPARE(service.send(7), CAN::Ok);
        QCOMPARE(two.adapter.writtenHex(), QList<QByteArray>{"600:07"});

        old = service.receiver();
        QCOMPARE(service.setCanScheduler(nullptr), CAN::Ok);
        QVERIFY(old.isNull());
        two.adapter.inject(0x585, {4});
        QCOMPARE(service.send(1), CAN::Error);
        QCOMPARE(service.receivedIds(), (QVector<quint32>{0x581, 0x585, 0x585}));
    }

    // A scheduler that is gone is forgotten, never used: its receiver (the
    // service's) is left alone.
    void vanishedSchedulerMakesOperationsFail()
    {
        auto* bus = new Bus;
        TestService service(0x581);
        QCOMPARE(service.send(1), CAN::Error); // none yet
        service.setCanScheduler(&bus->scheduler);
        QPointer<CanSender> receiver = service.receiver();
        delete bus;
        QVERIFY(!service.currentAdapter());
        QCOMPARE(service.send(1), CAN::Error);
        QCOMPARE(service.setRxId(0x582), CAN::Error);
        QVERIFY(!service.gateway());
        service.release();
        QVERIFY(receiver);
        delete receiver.data();
        Bus fresh;
        QCOMPARE(service.setCanScheduler(&fresh.scheduler), CAN::Ok);
        fresh.adapter.inject(0x582, {1}); // the identifier set while detached
        QCOMPARE(service.receivedIds().size(), 1);
        service.release();
    }

    // Option 35 makes a gateway; the process-wide FD switch reaches every
    // service's next frame.
    void gatewayOptionAndFdSwitch()
    {
        Bus bus;
        TestService a(0x581), b(0x582);
        a.setCanScheduler(&bus.scheduler);
        b.setCanScheduler(&bus.scheduler);
        QVERIFY(!a.gateway());
        bus.adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        QVERIFY(a.gateway());
        a.send(1);
        CANopenService::activateCANopenFD(true);
        a.send(2);
        b.send(2);
        CANopenService::activateCANopenFD(false);
        b.send(3);
        QVector<bool> fd;
        for (const CAN::CanMessage& m : bus.adapter.written())
            fd << m.fd;
        QCOMPARE(fd, (QVector<bool>{false, true, true, false}));
        a.release();
        b.release();
    }
};

QTEST_GUILESS_MAIN(tst_CANopenService)
#include "tst_canopenservice.moc"
