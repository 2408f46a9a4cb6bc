#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"
#include "recordingcanadapter.h"
#include "scopeddebugoutput.h"

#include <QPointer>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using IdList = QList<quint32>;
using IntList = QList<int>;

namespace {
const auto ReceivedFrame = qOverload<CAN::CanRxMessage>(&CanSender::received);

CAN::CanRxMessage sampleFrame(quint32 id, bool extended)
{
    CAN::CanRxMessage rx = makeRxFrame(id, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88}, {1234, 567000});
    rx.message.extended = extended;
    rx.message.brs = true;
    return rx;
}
} // namespace

// Lives in a thread of its own (like a service) and notes where and what it received.
class ThreadReceiver : public QObject
{
    Q_OBJECT
public:
    QThread* thread = nullptr;
    CAN::CanRxMessage frame;
    std::atomic<int> count{0};
    std::mutex lock;
public Q_SLOTS:
    void onFrame(CAN::CanRxMessage message)
    {
        std::lock_guard<std::mutex> g(lock);
        thread = QThread::currentThread();
        frame = message;
        count.fetch_add(1);
    }
};

// Counts frames; connected by name so that no slot object is shared between threads.
class FrameCounter : public QObject
{
    Q_OBJECT
public:
    std::atomic<int> frames{0};
    std::atomic<int> destroyed{0};
public Q_SLOTS:
    void onFrame(CAN::CanRxMessage) { frames.fetch_add(1); }
    void onDestroyed() { destroyed.fetch_add(1); }
};

class tst_CanScheduler : public QObject
{
    Q_OBJECT
    std::unique_ptr<RecordingCanAdapter> adapter;
    std::unique_ptr<CanScheduler> scheduler;

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    // A fresh adapter and scheduler for each test; frames pass once however
    // often the scheduler is connected.
    void init()
    {
        adapter.reset(new RecordingCanAdapter);
        scheduler.reset(new CanScheduler(adapter.get()));
        scheduler->connectToAdapter(true);
        scheduler->connectToAdapter(true);
    }
    void cleanup()
    {
        scheduler.reset();
        adapter.reset();
    }

    // registered: one registration per entry; dropped: positions unregistered
    // before the frame comes; expected: emissions per registration.
    void dispatch_data()
    {
        QTest::addColumn<IdList>("registered");
        QTest::addColumn<IntList>("dropped");
        QTest::addColumn<quint32>("frameId");
        QTest::addColumn<bool>("extended");
        QTest::addColumn<IntList>("expected");
        QTest::newRow("one receiver") << IdList{0x181} << IntList{} << 0x181u << false << IntList{1};
        QTest::newRow("two receivers of 0x181") << IdList{0x181, 0x181} << IntList{} << 0x181u << false
                                                << IntList{1, 1};
        QTest::newRow("only the matching id") << IdList{0x181, 0x182, 0x183} << IntList{} << 0x182u << false
                                              << IntList{0, 1, 0};
        QTest::newRow("extended flag ignored") << IdList{0x701} << IntList{} << 0x701u << true << IntList{1};
        QTest::newRow("29-bit value") << IdList{0x18FF0701, 0x701} << IntList{} << 0x18FF0701u << true
                                      << IntList{1, 0};
        QTest::newRow("unknown id") << IdList{0x181} << IntList{} << 0x999u << false << IntList{0};
        QTest::newRow("registered then unregistered") << IdList{0x181} << IntList{0} << 0x181u << false
                                                      << IntList{0};
        QTest::newRow("one of two unregistered") << IdList{0x181, 0x181} << IntList{0} << 0x181u << false
                                                 << IntList{0, 1};
    }
    void dispatch()
    {
        QFETCH(IdList, registered);
        QFETCH(IntList, dropped);
        QFETCH(quint32, frameId);
        QFETCH(bool, extended);
        QFETCH(IntList, expected);

        QVector<QPointer<CanSender>> senders;
        std::vector<std::unique_ptr<QSignalSpy>> spies;
        for (quint32 id : registered) {
            CanSender* s = scheduler->registerCanId(id);
            senders.append(s);
            spies.emplace_back(new QSignalSpy(s, ReceivedFrame));
        }
        for (int i : dropped) {
            scheduler->unregisterCan(senders[i]);
            QVERIFY2(senders[i].isNull(), "unregisterCan destroys the sender at once");
        }

        const CAN::CanRxMessage rx = sampleFrame(frameId, extended);
        adapter->inject(rx);

        for (int i = 0; i < registered.size(); ++i) {
            QCOMPARE(spies[i]->count(), expected[i]);
            if (expected[i] == 1) {
                const auto got = spies[i]->at(0).at(0).value<CAN::CanRxMessage>();
                QCOMPARE(std::memcmp(&got, &rx, sizeof rx), 0);
            }
        }
        for (const auto& s : senders) {
            if (s)
                scheduler->unregisterCan(s);
        }
    }

    // Every registration change reaches the very next frame.
    void everyChangeReachesTheNextFrame()
    {
        QVector<QByteArray> seen; // "<receiver><first byte>" per delivery
        auto add = [&](quint32 id, char name) {
            QPointer<CanSender> s = scheduler->registerCanId(id);
            connect(s, ReceivedFrame, this, [&seen, name](CAN::CanRxMessage m) {
                seen << QByteArray(1, name) + char('0' + m.message.data[0]);
            });
            return s;
        };
        QPointer<CanSender> a = add(0x181, 'a');
        adapter->inject(0x181, {1});
        QPointer<CanSender> b = add(0x181, 'b'), c = add(0x182, 'c');
        adapter->inject(0x182, {2});
        scheduler->unregisterCan(a);
        QVERIFY2(a.isNull(), "destroyed at once outside a dispatch");
        scheduler->unregisterCan(nullptr); // changes nothing
        adapter->inject(0x181, {3});
        scheduler->unregisterCan(b);
        adapter->inject(0x181, {4}); // nobody left for 0x181
        QPointer<CanSender> d = add(0x181, 'd');
        adapter->inject(0x181, {5});
        QCOMPARE(seen, (QVector<QByteArray>{"a1", "c2", "b3", "d5"}));
        scheduler->unregisterCan(c);
        scheduler->unregisterCan(d);
    }

    // Each frame for a registered identifier is numbered when its dispatch
    // begins; receivers see the number of the frame they are handed, also
    // across a nested dispatch, and only for their own scheduler->
    void framesAreNumberedAsTheirDispatchBegins()
    {
        RecordingCanAdapter otherAdapter;
        CanScheduler other(&otherAdapter);
        other.connectToAdapter(true);
        QCOMPARE(scheduler->dispatchCount(), quint64(0));
        QCOMPARE(CanScheduler::currentDispatch(scheduler.get()), quint64(0));

        CanSender* s = scheduler->registerCanId(0x181);
        CanSender* o = other.registerCanId(0x182);
        QList<quint64> seen; // at 0x181 for both schedulers (and after a nested frame), at 0x182 for both
        connect(s, ReceivedFrame, this, [&](CAN::CanRxMessage m) {
            seen << CanScheduler::currentDispatch(scheduler.get()) << CanScheduler::currentDispatch(&other);
            if (m.message.data[0] == 0x11) {
                otherAdapter.inject(makeRxFrame(0x182, {0x22}));
                seen << CanScheduler::currentDispatch(scheduler.get());
            }
        }, Qt::DirectConnection);
        connect(o, ReceivedFrame, this, [&] {
            seen << CanScheduler::currentDispatch(&other) << CanScheduler::currentDispatch(scheduler.get());
        }, Qt::DirectConnection);

        adapter->inject(makeRxFrame(0x181, {0x33}));
        adapter->inject(makeRxFrame(0x700, {0x05})); // nobody listens: not dispatched, no number
        adapter->inject(makeRxFrame(0x181, {0x11}));
        QCOMPARE(seen, (QList<quint64>{1, 0, 2, 0, 1, 0, 2}));
        QCOMPARE(scheduler->dispatchCount(), quint64(2));
        QCOMPARE(other.dispatchCount(), quint64(1));
        QCOMPARE(CanScheduler::currentDispatch(scheduler.get()), quint64(0));
        QCOMPARE(CanScheduler::currentDispatch(&other), quint64(0));
        QCOMPARE(CanScheduler::currentDispatch(nullptr), quint64(0));
        scheduler->unregisterCan(s);
        other.unregisterCan(o);
    }

    // A receiver connected directly unregisters the other receiver of the
    // same frame while the walk is running: the walk stops at the
    // unregistered one with "2: Message Lost" and never touches it again;
    // it is destroyed once the walk is over.
    void receiverUnregisteredDuringTheWalk()
    {
        ScopedDebugOutput debug;
        QPointer<CanSender> a = scheduler->registerCanId(0x181);
        QPointer<CanSender> b = scheduler->registerCanId(0x181);
        int emissions = 0;
        auto dropOther = [&](QPointer<CanSender>& other) {
            ++emissions;
            if (other) {
                scheduler->unregisterCan(other);
                QVERIFY2(other, "deletion waits for the end of the walk");
                other.clear();
            }
        };
        QPointer<CanSender> aWatch = a, bWatch = b;
        connect(a, ReceivedFrame, this, [&] { dropOther(b); }, Qt::DirectConnection);
        connect(b, ReceivedFrame, this, [&] { dropOther(a); }, Qt::DirectConnection);

        QTest::ignoreMessage(QtDebugMsg,
                             "void CanScheduler::newRawCanMessage(CAN::CanRxMessage*) 2: Message Lost 385");
        adapter->inject(sampleFrame(0x181, false));
        QCOMPARE(emissions, 1);
        QVERIFY(aWatch.isNull() != bWatch.isNull());
        // The survivor still gets frames; the dropped one is gone.
        adapter->inject(sampleFrame(0x181, false));
        QCOMPARE(emissions, 2);
        scheduler->unregisterCan(aWatch ? aWatch.data() : bWatch.data());
    }

    // Dispatch runs in the thread that emits newCanMessage (the adapter's);
    // an automatic connection carries the frame into the receiver's thread.
    void queuedDeliveryIntoTheReceiversThread()
    {
        CanSender* s = scheduler->registerCanId(0x281);

        QThread serviceThread;
        ThreadReceiver receiver;
        receiver.moveToThread(&serviceThread);
        connect(s, ReceivedFrame, &receiver, &ThreadReceiver::onFrame);
        serviceThread.start();

        const CAN::CanRxMessage rx = sampleFrame(0x281, false);
        std::thread adapterThread([&] {
            CAN::CanRxMessage local = rx;
            adapter->inject(local);
            std::memset(static_cast<void*>(&local), 0xEE, sizeof local); // the adapter reuses its record at once
        });
        adapterThread.join();
        QTRY_COMPARE_WITH_TIMEOUT(receiver.count.load(), 1, 5000);
        serviceThread.quit();
        QVERIFY(serviceThread.wait(5000));
        std::lock_guard<std::mutex> g(receiver.lock);
        QCOMPARE(receiver.thread, &serviceThread);
        QCOMPARE(std::memcmp(&receiver.frame, &rx, sizeof rx), 0);
        scheduler->unregisterCan(s);
    }

    // One thread dispatches frames while another registers and unregisters
    // receivers of the same identifiers as fast as it can. Frames may be
    // lost ("1: Message Lost"/"2: Message Lost"), but nothing may crash, no
    // destroyed sender may be touched (ASan) and no data race may occur
    // (TSan); every unregistered sender is destroyed in the end.
    void registrationRacesDispatch()
    {
        FrameCounter steadyCounter, transientCounter;
        CanSender* steady = scheduler->registerCanId(0x181);
        connect(steady, ReceivedFrame, &steadyCounter, &FrameCounter::onFrame, Qt::DirectConnection);

        constexpr int Cycles = 20000;
        std::atomic<bool> registrarDone{false};
        std::atomic<int> created{0};
        int injected181 = 0;

        std::thread injector([&] {
            for (int i = 0; !registrarDone.load() || i < 1000; ++i) {
                const quint32 id = (i & 1) ? 0x182 : 0x181;
                adapter->inject(id, {quint8(i), quint8(i >> 8)});
                if (id == 0x181)
                    ++injected181;
            }
        });
        std::thread registrar([&] {
            for (int i = 0; i < Cycles; ++i) {
                CanSender* s = scheduler->registerCanId((i & 1) ? 0x182 : 0x181);
                created.fetch_add(1);
                // By name: no slot object is handed between threads behind Qt's back.
                QObject::connect(s, SIGNAL(received(CAN::CanRxMessage)), &transientCounter,
                                 SLOT(onFrame(CAN::CanRxMessage)), Qt::DirectConnection);
                QObject::connect(s, SIGNAL(destroyed()), &transientCounter, SLOT(onDestroyed()),
                                 Qt::DirectConnection);
                if (i % 8 == 0)
                    std::this_thread::yield();
                scheduler->unregisterCan(s);
            }
            registrarDone.store(true);
        });
        registrar.join();
        injector.join();

        QVERIFY(steadyCounter.frames.load() > 0);
        QVERIFY(steadyCounter.frames.load() <= injected181);
        // Without contention nothing is lost, and the walk's end frees any
        // sender whose deletion was left to a walk.
        const int before = steadyCounter.frames.load();
        adapter->inject(0x181, {0xFF});
        QCOMPARE(steadyCounter.frames.load(), before + 1);
        QCOMPARE(transientCounter.destroyed.load(), created.load());
        scheduler->unregisterCan(steady);
    }
};

QTEST_GUILESS_MAIN(tst_CanScheduler)
#include "tst_canscheduler.moc"
