// End to end: the three SDO engines over the real virtual bus, answered by a
// scripted SDO server on a second adapter (in that adapter's receive thread).

#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "qtwarningtrap.h"
#include "scriptedsdoserver.h"
#include "sdoblockclient.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"
#include "testbus.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

namespace {
constexpr quint8 Node = 5;

QByteArray counting(int n)
{
    QByteArray b(n, '\0');
    for (int i = 0; i < n; ++i)
        b[i] = char(i * 7 + 1);
    return b;
}
} // namespace

class tst_SDOEnginesVirtualBus : public QObject
{
    Q_OBJECT

    DemoCanAdapter* master = nullptr;
    DemoCanAdapter* device = nullptr;
    CanScheduler* scheduler = nullptr;
    std::mutex serverLock; // the server runs in the device adapter's thread
    ScriptedSdoServer server;
    std::atomic<bool> deviceSilent{false};

    void setContent(const QByteArray& bytes)
    {
        std::lock_guard<std::mutex> g(serverLock);
        server.content = QByteArray(bytes.constData(), bytes.size());
    }
    QByteArray received()
    {
        std::lock_guard<std::mutex> g(serverLock);
        return QByteArray(server.received.constData(), server.received.size());
    }

private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster init;
        TestBus::usePrivatePort();
        QtWarningTrap::install();
        master = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        device = new DemoCanAdapter(QStringLiteral("Talvik Virtual"));
        connect(
            device, &AbstractCanAdapter::newCanMessage, this,
            [this](CAN::CanRxMessage* frame) {
                if (frame->message.id != 0x600u + Node || deviceSilent.load())
                    return;
                QList<QByteArray> answers;
                {
                    std::lock_guard<std::mutex> g(serverLock);
                    answers = server.answer(frame->message);
                }
                for (const QByteArray& a : answers) {
                    CAN::CanMessage m;
                    m.id = 0x580 + Node;
                    m.length = 8;
                    std::memcpy(m.data, a.constData(), 8);
                    device->write(&m);
                }
            },
            Qt::DirectConnection);
        QCOMPARE(master->open(), CAN::Ok);
        QCOMPARE(device->open(), CAN::Ok);
        QTest::qWait(30); // both receive sockets bound
        scheduler = new CanScheduler(master);
        scheduler->connectToAdapter(true);
    }

    void cleanupTestCase()
    {
        master->close();
        device->close();
        delete scheduler;
        delete master;
        delete device;
    }

    void cleanup()
    {
        deviceSilent.store(false);
        const QStringList warnings = QtWarningTrap::take();
        QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join('\n')));
    }

    void expeditedRoundTrips()
    {
        SDOExpeditedClient engine(0x580 + Node, 0x600 + Node, scheduler);
        setContent(QByteArray("\x78\x56\x34\x12", 4));
        constexpr int rounds = 300;
        QVector<qint64> micros;
        QVariant last;
        int errors = 0;
        QEventLoop loop;
        QElapsedTimer clock;
        connect(&engine, &SDOExpeditedClient::resultReceived, &loop, [&](quint16, quint8, QVariant v) {
            micros.append(clock.nsecsElapsed() / 1000);
            last = v;
            loop.quit();
        });
        connect(&engine, &SDOExpeditedClient::errorReceived, &loop, [&] {
            ++errors;
            loop.quit();
        });
        for (int i = 0; i < rounds && errors == 0; ++i) {
            clock.start();
            QCOMPARE(engine.read(0x2000, 1, CAN::UNSIGNED32), CAN::Ok);
            QTimer::singleShot(2000, &loop, &QEventLoop::quit); // bounds a lost answer
            loop.exec();
            QCOMPARE(last, QVariant(uint(0x12345678)));
        }
        QCOMPARE(errors, 0);
        QCOMPARE(micros.size(), rounds);
        std::sort(micros.begin(), micros.end());
        qInfo("expedited read round trip on the virtual bus: median %lld us, 90%% %lld us (%d reads)",
              micros.at(rounds / 2), micros.at(rounds * 9 / 10), rounds);

        QSignalSpy results(&engine, &SDOExpeditedClient::resultReceived);
        QCOMPARE(engine.write(0x2000, 2, CAN::UNSIGNED16, 0xBEEF), CAN::Ok);
        QVERIFY(results.wait(2000));
        QCOMPARE(received(), QByteArray("\xef\xbe")); // 0x2B: two bytes
        QVERIFY(!engine.isBusy());
    }

    void segmentedBothWays()
    {
        SDOSegmentedClient engine(0x580 + Node, 0x600 + Node, scheduler);
        QSignalSpy results(&engine, &SDOSegmentedClient::resultReceived);
        QSignalSpy errors(&engine, &SDOSegmentedClient::errorReceived);
        QSignalSpy progress(&engine, &SDOSegmentedClient::progress);
        setContent(counting(500));
        QCOMPARE(engine.read(0x2100, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results.count() + errors.count(), 1, 5000);
        QCOMPARE(results.count(), 1);
        QCOMPARE(results.at(0).at(2).value<QVariant>().toByteArray(), counting(500));
        QCOMPARE(engine.write(0x2100, 2, counting(333)), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results.count() + errors.count(), 2, 5000);
        QCOMPARE(errors.count(), 0);
        QCOMPARE(received(), counting(333));
        QCOMPARE(progress.last().at(0).toInt(), 100);
        QVERIFY(!engine.isBusy());
    }

    void blockBothWays()
    {
        SDOBlockClient engine(0x580 + Node, 0x600 + Node, scheduler);
        QSignalSpy results(&engine, &SDOBlockClient::resultReceived);
        QSignalSpy errors(&engine, &SDOBlockClient::errorReceived);
        setContent(counting(3000));
        QCOMPARE(engine.read(0x2200, 1), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results.count() + errors.count(), 1, 5000);
        QCOMPARE(results.count(), 1);
        QCOMPARE(results.at(0).at(2).value<QVariant>().toByteArray(), counting(3000));
        QCOMPARE(engine.write(0x2200, 2, counting(2000)), CAN::Ok);
        QTRY_COMPARE_WITH_TIMEOUT(results.count() + errors.count(), 2, 5000);
        QCOMPARE(errors.count(), 0);
        QCOMPARE(received(), counting(2000));
        QVERIFY(!engine.isBusy());
    }

    void silentDeviceEndsEveryTransferWithTheTimeout()
    {
        SDOExpeditedClient expedited(0x580 + Node, 0x600 + Node, scheduler);
        SDOSegmentedClient segmented(0x580 + Node, 0x600 + Node, scheduler);
        SDOBlockClient block(0x580 + Node, 0x600 + Node, scheduler);
        QSignalSpy e1(&expedited, &SDOExpeditedClient::errorReceived);
        QSignalSpy e2(&segmented, &SDOSegmentedClient::errorReceived);
        QSignalSpy e3(&block, &SDOBlockClient::errorReceived);
        QCOMPARE(expedited.setSdoTimeout(80), CAN::Ok);
        QCOMPARE(segmented.setSdoTimeout(80), CAN::Ok);
        QCOMPARE(block.setSdoTimeout(80), CAN::Ok);
        // The block upload starts while the device still answers, which then
        // falls silent in the middle of a block.
        setContent(counting(3000));
        {
            std::lock_guard<std::mutex> g(serverLock);
            server.silentAfter = 20;
        }
        QCOMPARE(block.read(0x2200, 1), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(block.getCurrentlyReceivedData().size() == 140, 2000);
        deviceSilent.store(true);
        QCOMPARE(expedited.read(0x2000, 1, CAN::UNSIGNED8), CAN::Ok);
        QCOMPARE(segmented.write(0x2100, 1, counting(50)), CAN::Ok);
        QTRY_VERIFY_WITH_TIMEOUT(e1.count() == 1 && e2.count() == 1 && e3.count() == 1, 3000);
        for (QSignalSpy* spy : {&e1, &e2, &e3})
            QCOMPARE(spy->at(0).at(2).toUInt(), 0x05040000u);
        QVERIFY(!expedited.isBusy());
        QVERIFY(!segmented.isBusy());
        QVERIFY(!block.isBusy());
        std::lock_guard<std::mutex> g(serverLock);
        server.silentAfter = -1;
    }
};

QTEST_MAIN(tst_SDOEnginesVirtualBus)
#include "tst_sdoenginesvirtualbus.moc"
