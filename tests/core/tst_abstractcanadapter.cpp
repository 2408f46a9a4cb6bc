#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "scopeddebugoutput.h"
#include "testbus.h"

#include <QTime>
#include <QScopeGuard>
#include <QtTest>

// Provides only what every backend must provide, so that everything else
// answers with the base's defaults.
class MinimalAdapter : public AbstractCanAdapter
{
    Q_OBJECT
public:
    CAN::RetType open() override { return CAN::Ok; }
    CAN::RetType setBitrate(quint16) override { return CAN::Ok; }
    CAN::RetType clearTxQueue() override { return CAN::Ok; }
    CAN::RetType clearRxQueue() override { return CAN::Ok; }
    int getTxQueueCount() override { return 0; }
    int getRxQueueCount() override { return 0; }
    CAN::RetType resetDriver() override { return CAN::Ok; }
    CAN::CanState getState() override { return CAN::Stopped; }
    CAN::RetType setEcho(bool) override { return CAN::Ok; }
    void close() override {}
    void setFdMode(bool on) { mFdMode = on; }

public Q_SLOTS:
    CAN::RetType write(CAN::CanMessage*) override { return CAN::Ok; }
};

class tst_AbstractCanAdapter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Runs first: nothing in this process has registered the frame types yet.
    void initTestCase()
    {
        const char* names[] = {"CAN::CanRxMessage", "CAN::CanMessage", "CAN::CanState", "CAN::RetType"};
        for (const char* name : names)
            QCOMPARE(QMetaType::type(name), int(QMetaType::UnknownType));
        CanopenMaster master;
        for (const char* name : names)
            QVERIFY2(QMetaType::type(name) != QMetaType::UnknownType, name);
        TestBus::usePrivatePort();
    }

    // Every FD range boundary, and the DLC code of each length sent back.
    void lengthToDlc_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("dlc");
        const int rows[][2] = {{0, 0},   {8, 8},   {9, 9},   {12, 9},  {13, 10}, {16, 10}, {17, 11}, {20, 11},
                               {21, 12}, {24, 12}, {25, 13}, {32, 13}, {33, 14}, {48, 14}, {49, 15}, {255, 15}};
        for (const auto& r : rows)
            QTest::addRow("%d", r[0]) << r[0] << r[1];
    }
    void lengthToDlc()
    {
        QFETCH(int, length);
        QFETCH(int, dlc);
        QCOMPARE(int(AbstractCanAdapter::lengthToDlc(quint8(length))), dlc);
    }

    // Only the low nibble of a code counts.
    void dlcToLength()
    {
        const int lengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
        for (int code = 0; code < 32; ++code)
            QCOMPARE(int(AbstractCanAdapter::dlcToLength(quint8(code))), lengths[code & 0x0F]);
    }

    // What the base answers for what a backend may leave alone.
    void baseDefaults()
    {
        MinimalAdapter a;
        qint16 slot = -1;
        CAN::CanMessage m;
        QCOMPARE(a.sendCiA309Request(QStringLiteral("[1] r 0x1000 0 u32"), slot), CAN::Error);
        QCOMPARE(slot, qint16(-1));
        QCOMPARE(a.sendCiA309Command(QStringLiteral("x")), CAN::Error);
        QCOMPARE(a.setDataBitrate(2000), CAN::Error);
        QCOMPARE(a.setSamplePoint(87.5), CAN::Ok);
        QCOMPARE(a.setDataSamplePoint(75.0), CAN::Ok);
        QCOMPARE(a.setTimingRegister(0x1C), CAN::Error);
        QCOMPARE(a.setupCyclicBuffer(0, &m, 100), CAN::Error);
        QCOMPARE(a.controlCyclicBuffer(1), CAN::Error);
        QCOMPARE(a.getBusLoad(), 0);
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::CiA309Gateway, true)); // accepted, not kept
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::CiA309Gateway), QVariant(false));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::FdMode), QVariant(false));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::SdoTransferActive), QVariant(true)); // unhandled
        a.setFdMode(true);
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::FdMode), QVariant(true));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::CiA309Gateway), QVariant(false));
    }

    void setUseSystemTimeLogsAndStores()
    {
        ScopedDebugOutput debug;
        MinimalAdapter a;
        QTest::ignoreMessage(QtDebugMsg, "virtual void AbstractCanAdapter::setUseSystemTime(bool) true");
        a.setUseSystemTime(true);
        QVERIFY(a.useSystemTime());
    }

    // On the virtual bus: the switch set before open() stamps frames with
    // the host's time of day (seconds since midnight, whole milliseconds);
    // without it the stamp counts from the adapter's start.
    void systemTimeStampsReceivedFrames()
    {
        DemoCanAdapter writer(QStringLiteral("Talvik Virtual"));
        DemoCanAdapter hostTime(QStringLiteral("Talvik Virtual"));
        DemoCanAdapter ownTime(QStringLiteral("Talvik Virtual"));
        hostTime.setUseSystemTime(true);
        FrameCollector hostFrames(&hostTime), ownFrames(&ownTime);
        // The listeners stop before their collectors go, whatever way the test ends.
        const auto closeFirst = qScopeGuard([&] {
            hostTime.close();
            ownTime.close();
        });
        writer.open();
        hostTime.open();
        ownTime.open();
        const QTime before = QTime::currentTime();
        CAN::CanMessage m;
        m.id = 0x100;
        // Sent until both listeners are up and have one.
        QTRY_VERIFY_WITH_TIMEOUT((writer.write(&m), hostFrames.count() > 0 && ownFrames.count() > 0), 5000);
        const QTime after = QTime::currentTime();
        if (after < before)
            QSKIP("midnight passed during the test");
        const CAN::CanTimeStamp host = hostFrames.frames().first().timeStamp;
        QVERIFY(int(host.seconds) >= before.msecsSinceStartOfDay() / 1000);
        QVERIFY(int(host.seconds) <= after.msecsSinceStartOfDay() / 1000);
        QCOMPARE(host.microseconds % 1000, 0);
        QVERIFY(host.microseconds >= 0 && host.microseconds < 1000000);
        QVERIFY2(ownFrames.frames().first().timeStamp.seconds <= 10, "seconds since the adapter was made");
    }
};

QTEST_GUILESS_MAIN(tst_AbstractCanAdapter)
#include "tst_abstractcanadapter.moc"
