// Dispatch after registration changes: the scheduler groups its receivers by
// identifier and must see every register/unregister before the next frame.
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"
#include "recordingcanadapter.h"

#include <QPointer>
#include <QSignalSpy>
#include <QtTest>
#include <memory>

class tst_CanSchedulerIndex : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void everyChangeReachesTheNextFrame()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        auto spyOn = [](CanSender* s) {
            return std::make_unique<QSignalSpy>(s, qOverload<CAN::CanRxMessage>(&CanSender::received));
        };

        QPointer<CanSender> a = scheduler.registerCanId(0x181);
        auto spyA = spyOn(a);
        adapter.inject(0x181, {1});
        QCOMPARE(spyA->count(), 1);

        // A second receiver of the same identifier, and one of another.
        QPointer<CanSender> b = scheduler.registerCanId(0x181);
        QPointer<CanSender> c = scheduler.registerCanId(0x182);
        auto spyB = spyOn(b);
        auto spyC = spyOn(c);
        adapter.inject(0x181, {2});
        QCOMPARE(spyA->count(), 2);
        QCOMPARE(spyB->count(), 1);
        QCOMPARE(spyC->count(), 0);
        adapter.inject(0x182, {3});
        QCOMPARE(spyC->count(), 1);
        QCOMPARE(spyC->at(0).at(0).value<CAN::CanRxMessage>().message.data[0], quint8(3));
        QCOMPARE(spyA->count(), 2);

        // Unregistered: destroyed at once and never reached again.
        scheduler.unregisterCan(a);
        QVERIFY(a.isNull());
        adapter.inject(0x181, {4});
        QCOMPARE(spyB->count(), 2);
        QCOMPARE(spyB->at(1).at(0).value<CAN::CanRxMessage>().message.data[0], quint8(4));

        // No receiver left for 0x181: the frame passes the filter and is dropped.
        scheduler.unregisterCan(b);
        adapter.inject(0x181, {5});
        QCOMPARE(spyC->count(), 1);

        // Registered again: reached again.
        QPointer<CanSender> d = scheduler.registerCanId(0x181);
        auto spyD = spyOn(d);
        adapter.inject(0x181, {6});
        QCOMPARE(spyD->count(), 1);
        QCOMPARE(spyD->at(0).at(0).value<CAN::CanRxMessage>().message.data[0], quint8(6));

        // Unregistering something not registered changes nothing.
        scheduler.unregisterCan(nullptr);
        adapter.inject(0x181, {7});
        QCOMPARE(spyD->count(), 2);
        scheduler.unregisterCan(c);
        scheduler.unregisterCan(d);
    }

    void manyIdentifiersEachReachOnlyTheirReceiver_data()
    {
        QTest::addColumn<int>("ids");
        QTest::newRow("1") << 1;
        QTest::newRow("10") << 10;
        QTest::newRow("100") << 100;
    }
    void manyIdentifiersEachReachOnlyTheirReceiver()
    {
        QFETCH(int, ids);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        QVector<CanSender*> senders;
        std::vector<std::unique_ptr<QSignalSpy>> spies;
        for (int i = 0; i < ids; ++i) {
            senders << scheduler.registerCanId(0x100u + quint32(i));
            spies.push_back(std::make_unique<QSignalSpy>(senders.last(), qOverload<CAN::CanRxMessage>(&CanSender::received)));
        }
        for (int round = 0; round < 2; ++round) {
            for (int i = ids - 1; i >= 0; --i)
                adapter.inject(0x100u + quint32(i), {quint8(i), quint8(round)});
        }
        for (int i = 0; i < ids; ++i) {
            QCOMPARE(spies[size_t(i)]->count(), 2);
            for (int round = 0; round < 2; ++round) {
                const CAN::CanRxMessage rx = spies[size_t(i)]->at(round).at(0).value<CAN::CanRxMessage>();
                QCOMPARE(rx.message.id, 0x100u + quint32(i));
                QCOMPARE(int(rx.message.data[0]), i);
                QCOMPARE(int(rx.message.data[1]), round);
            }
        }
        for (CanSender* s : senders)
            scheduler.unregisterCan(s);
    }
};

QTEST_MAIN(tst_CanSchedulerIndex)
#include "tst_canschedulerindex.moc"
