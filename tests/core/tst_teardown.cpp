// Teardown in any order while frames stream in, over the real virtual bus: an
// adapter, its scheduler, services and an SDO engine with a segmented upload
// running are deleted in every order (the scheduler also from a receiver's
// slot in the adapter's thread). Nothing may crash, and the survivors answer
// their operations with error codes.

#include "canmessagetransmitter.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "emcyconsumer.h"
#include "nmtslave.h"
#include "rpdo.h"
#include "scriptedsdoserver.h"
#include "sdosegmentedclient.h"
#include "syncproducer.h"
#include "testbus.h"

#include <QtTest>
#include <algorithm>
#include <thread>

namespace {
constexpr quint8 Node = 5;
enum Part { Adapter, Scheduler, Services, Engine };
const char* const PartNames[] = {"adapter", "scheduler", "services", "sdo"};

// The services of a row; the transmitter sends a frame every millisecond and
// the SYNC producer one from its timer thread.
struct ServiceSet {
    explicit ServiceSet(CanScheduler* s)
        : nmt(Node, s), emcy(0x80 + Node, s), rpdo(0x180 + Node, {CAN::UNSIGNED8, CAN::UNSIGNED16}, s),
          sync(0x80, 1000, s)
    {
        cmt.setCanScheduler(s);
        cmt.setTranmissionParameter(CAN::CanMessage{0x200 + Node}, 1, 0);
        cmt.startTransmission();
    }
    NMTSlave nmt;
    EMCYConsumer emcy;
    RPDO rpdo;
    SYNCProducer sync;
    CanMessageTransmitter cmt;
};
} // namespace

class tst_Teardown : public QObject
{
    Q_OBJECT

    DemoCanAdapter* device = nullptr; // plays the node: streams frames, answers SDO
    ScriptedSdoServer server; // used in the device's receive thread only
    std::atomic<bool> streaming{true};
    std::thread streamer;

    // What one row builds.
    std::unique_ptr<DemoCanAdapter> adapter;
    std::unique_ptr<CanScheduler> scheduler;
    std::unique_ptr<ServiceSet> services;
    std::unique_ptr<SDOSegmentedClient> sdo;
    QPointer<CanSender> probe;
    CAN::CanMessage anyFrame;
    enum { Idle, Armed, Done };
    std::atomic<int> inDispatch{Idle}; // the probe deletes the scheduler when Armed

    void deviceSend(quint32 id, const QByteArray& bytes)
    {
        CAN::CanMessage m{id, quint8(bytes.size())};
        std::copy(bytes.begin(), bytes.end(), m.data);
        device->write(&m);
    }

    void build()
    {
        adapter.reset(new DemoCanAdapter(QStringLiteral("Talvik Virtual")));
        scheduler.reset(new CanScheduler(adapter.get()));
        scheduler->connectToAdapter(true);
        probe = scheduler->registerCanId(0x700 + Node);
        connect(probe, qOverload<CAN::CanRxMessage>(&CanSender::received), [this] {
            if (inDispatch.exchange(Idle) == Armed) {
                scheduler.reset();
                inDispatch.store(Done);
            }
        });
        services.reset(new ServiceSet(scheduler.get()));
        sdo.reset(new SDOSegmentedClient(0x580 + Node, 0x600 + Node, scheduler.get()));
        QCOMPARE(adapter->open(), CAN::Ok); // its thread starts after the connections above
        QVERIFY(QSignalSpy(&services->rpdo, &RPDO::newPDOData).wait(3000)); // the stream reaches the services
        QSignalSpy progress(sdo.get(), &SDOSegmentedClient::progress);
        QCOMPARE(services->sync.start(), CAN::Ok);
        QCOMPARE(sdo->read(0x2000, 0), CAN::Ok);
        QVERIFY(progress.wait(3000)); // the upload runs
    }

    // Operations of the survivors: error codes once their path is cut.
    void checkSurvivors()
    {
        if ((!scheduler || !adapter) && services) {
            QCOMPARE(services->nmt.startNode(), CAN::Error);
            QCOMPARE(services->sync.oneSync(), CAN::Error);
        }
        if ((!scheduler || !adapter) && sdo) {
            sdo->abort(0);
            QCOMPARE(sdo->read(0x2000, 0), CAN::Error);
        }
        if (scheduler && !adapter)
            QCOMPARE(scheduler->write(&anyFrame), CAN::Error);
        if (services && !adapter) // the transmitter's loop ends with its adapter
            QTRY_VERIFY_WITH_TIMEOUT(!services->cmt.isRunning(), 2000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        TestBus::usePrivatePort();
        server.content = QByteArray(200000, 'x');
        device = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        connect(device, &AbstractCanAdapter::newCanMessage, this, [this](CAN::CanRxMessage* frame) {
            if (frame->message.id == 0x600u + Node)
                for (const QByteArray& a : server.answer(frame->message))
                    deviceSend(0x580 + Node, a);
        }, Qt::DirectConnection);
        QCOMPARE(device->open(), CAN::Ok);
        streamer = std::thread([this] {
            while (streaming.load()) {
                deviceSend(0x700 + Node, QByteArray(1, 0x05));                          // heartbeat
                deviceSend(0x80 + Node, QByteArray::fromHex("1081010102030405"));      // EMCY
                deviceSend(0x180 + Node, QByteArray::fromHex("010203"));               // PDO
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
    }

    void cleanupTestCase()
    {
        streaming.store(false);
        streamer.join();
        delete device;
    }

    void deleteInAnyOrder_data()
    {
        QTest::addColumn<QVector<int>>("order");
        QTest::addColumn<bool>("fromDispatch"); // the scheduler goes in a receiver's slot
        QVector<int> order{Adapter, Scheduler, Services, Engine};
        do {
            for (int rep = 0; rep < 3; ++rep)
                QTest::addRow("%s,%s,%s,%s #%d", PartNames[order[0]], PartNames[order[1]], PartNames[order[2]],
                              PartNames[order[3]], rep) << order << (rep == 1);
        } while (std::next_permutation(order.begin(), order.end()));
    }

    void deleteInAnyOrder()
    {
        QFETCH(QVector<int>, order);
        QFETCH(bool, fromDispatch);
        build();
        for (int part : order) {
            QTest::qWait(1); // frames stream on between the steps
            if (part == Scheduler && fromDispatch && adapter) {
                // No event loop meanwhile: the main thread keeps off the scheduler.
                inDispatch.store(Armed);
                for (int i = 0; i < 3000 && inDispatch.load() != Done; ++i)
                    QThread::msleep(1);
                QVERIFY(inDispatch.exchange(Idle) == Done);
            }
            part == Adapter ? adapter.reset() : part == Scheduler ? scheduler.reset()
                : part == Services ? services.reset() : sdo.reset();
            checkSurvivors();
        }
        delete probe.data(); // registered senders outlive their scheduler
    }
};

QTEST_MAIN(tst_Teardown)
#include "tst_teardown.moc"
