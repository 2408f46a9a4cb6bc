#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "scopeddebugoutput.h"
#include "testbus.h"

#include <QMetaMethod>
#include <QTime>
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
    void initTestCase()
    {
        CanopenMaster master;
        TestBus::usePrivatePort();
    }

    void baseStateAfterConstruction()
    {
        MinimalAdapter a;
        QVERIFY(!a.isSendingBlocked());
        QVERIFY(!a.useSystemTime());
        QVERIFY(!a.autoBusOn());
        QCOMPARE(a.getBitrate(), quint16(0));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::FdMode).toBool(), false);
        QVERIFY(!a.isRunning());
    }

    // What the base answers for the operations a backend may leave alone.
    void optionalOperationsDefaults_data()
    {
        QTest::addColumn<int>("result");
        QTest::addColumn<int>("expected");
        MinimalAdapter a;
        qint16 slot = -1;
        CAN::CanMessage m;
        QTest::newRow("sendCiA309Request") << int(a.sendCiA309Request(QStringLiteral("[1] r 0x1000 0 u32"), slot))
                                           << int(CAN::Error);
        QTest::newRow("request slot untouched") << int(slot) << -1;
        QTest::newRow("sendCiA309Command") << int(a.sendCiA309Command(QStringLiteral("x"))) << int(CAN::Error);
        QTest::newRow("setDataBitrate") << int(a.setDataBitrate(2000)) << int(CAN::Error);
        QTest::newRow("setSamplePoint") << int(a.setSamplePoint(87.5)) << int(CAN::Ok);
        QTest::newRow("setDataSamplePoint") << int(a.setDataSamplePoint(75.0)) << int(CAN::Ok);
        QTest::newRow("setTimingRegister") << int(a.setTimingRegister(0x1C)) << int(CAN::Error);
        QTest::newRow("setupCyclicBuffer") << int(a.setupCyclicBuffer(0, &m, 100)) << int(CAN::Error);
        QTest::newRow("controlCyclicBuffer") << int(a.controlCyclicBuffer(1)) << int(CAN::Error);
        QTest::newRow("getBusLoad") << a.getBusLoad() << 0;
    }
    void optionalOperationsDefaults()
    {
        QFETCH(int, result);
        QFETCH(int, expected);
        QCOMPARE(result, expected);
    }

    void optionQueries_data()
    {
        QTest::addColumn<int>("option");
        QTest::addColumn<bool>("fdMode");
        QTest::addColumn<bool>("expected");
        QTest::newRow("35 gateway") << int(AbstractCanAdapter::CiA309Gateway) << false << false;
        QTest::newRow("35 gateway, FD") << int(AbstractCanAdapter::CiA309Gateway) << true << false;
        QTest::newRow("17 FD off") << int(AbstractCanAdapter::FdMode) << false << false;
        QTest::newRow("17 FD on") << int(AbstractCanAdapter::FdMode) << true << true;
        QTest::newRow("0 unhandled") << int(AbstractCanAdapter::GatewayHost) << false << true;
        QTest::newRow("26 unhandled") << int(AbstractCanAdapter::SdoTransferActive) << false << true;
        QTest::newRow("29 unhandled") << int(AbstractCanAdapter::PcanAdvancedOption) << false << true;
        QTest::newRow("40 unhandled") << int(AbstractCanAdapter::VirtualBusPort) << false << true;
        QTest::newRow("99 unknown") << 99 << false << true;
    }
    void optionQueries()
    {
        QFETCH(int, option);
        QFETCH(bool, fdMode);
        QFETCH(bool, expected);
        MinimalAdapter a;
        a.setFdMode(fdMode);
        const QVariant v = a.getCanAdapterOption(AbstractCanAdapter::AdapterOption(option));
        QCOMPARE(v.userType(), int(QMetaType::Bool));
        QCOMPARE(v.toBool(), expected);
    }

    // The base accepts every option and keeps none of them.
    void setOptionStoresNothing()
    {
        MinimalAdapter a;
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::CiA309Gateway, true));
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::FdMode, true));
        QVERIFY(a.setCanAdapterOption(AbstractCanAdapter::AdapterOption(99), QStringLiteral("x")));
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool(), false);
        QCOMPARE(a.getCanAdapterOption(AbstractCanAdapter::FdMode).toBool(), false);
    }

    void autoBusOnSwitchIsStored()
    {
        MinimalAdapter a;
        a.setAutoBusOn(true);
        QVERIFY(a.autoBusOn());
        a.setAutoBusOn(false);
        QVERIFY(!a.autoBusOn());
    }

    void setUseSystemTimeLogsAndStores_data()
    {
        QTest::addColumn<bool>("on");
        QTest::addColumn<QString>("line");
        QTest::newRow("true") << true << "virtual void AbstractCanAdapter::setUseSystemTime(bool) true";
        QTest::newRow("false") << false << "virtual void AbstractCanAdapter::setUseSystemTime(bool) false";
    }
    void setUseSystemTimeLogsAndStores()
    {
        QFETCH(bool, on);
        QFETCH(QString, line);
        ScopedDebugOutput debug;
        MinimalAdapter a;
        a.setUseSystemTime(!on);
        QTest::ignoreMessage(QtDebugMsg, qPrintable(line));
        a.setUseSystemTime(on);
        QCOMPARE(a.useSystemTime(), on);
    }

    // Signals and the write slot, in the meta-object's method order (users
    // of the interface look them up by index).
    void signalOrder()
    {
        const QMetaObject& mo = AbstractCanAdapter::staticMetaObject;
        const QStringList expected = {"newCanMessage(CAN::CanRxMessage*)",  "newTxCanMessage(CAN::CanRxMessage)",
                                      "newCanState(CAN::CanState)",         "interfaceError()",
                                      "newCiA309Response(QString)",         "newCiA309RequestSent(QString)",
                                      "write(CAN::CanMessage*)"};
        QStringList actual;
        for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
            actual << QString::fromLatin1(mo.method(i).methodSignature());
        QCOMPARE(actual, expected);
        QCOMPARE(mo.method(mo.methodOffset() + 6).methodType(), QMetaMethod::Slot);
        QCOMPARE(QString::fromLatin1(mo.method(mo.methodOffset() + 6).typeName()), QStringLiteral("CAN::RetType"));
    }

    // On the virtual bus: the switch set before open() stamps the first
    // frame with the host's time of day (seconds since midnight, whole
    // milliseconds); without it the stamp counts from the adapter's start.
    void systemTimeStampsReceivedFrames()
    {
        DemoCanAdapter writer(QStringLiteral("Talvik Virtual"));
        DemoCanAdapter hostTime(QStringLiteral("Talvik Virtual"));
        DemoCanAdapter ownTime(QStringLiteral("Talvik Virtual"));
        hostTime.setUseSystemTime(true);
        FrameCollector hostFrames(&hostTime), ownFrames(&ownTime);
        writer.open();
        hostTime.open();
        ownTime.open();

        const QTime before = QTime::currentTime();
        // Sent until both listeners are up and have one.
        CAN::CanMessage m;
        m.id = 0x100;
        QTRY_VERIFY_WITH_TIMEOUT((writer.write(&m), hostFrames.count() > 0 && ownFrames.count() > 0), 5000);
        const QTime after = QTime::currentTime();
        writer.close();
        hostTime.close();
        ownTime.close();
        if (after < before)
            QSKIP("midnight passed during the test");

        const CAN::CanRxMessage host = hostFrames.frames().first();
        const int beforeSec = before.msecsSinceStartOfDay() / 1000;
        const int afterSec = after.msecsSinceStartOfDay() / 1000;
        QVERIFY2(int(host.timeStamp.seconds) >= beforeSec && int(host.timeStamp.seconds) <= afterSec,
                 qPrintable(QStringLiteral("%1 not in [%2, %3]").arg(host.timeStamp.seconds).arg(beforeSec).arg(afterSec)));
        QCOMPARE(host.timeStamp.microseconds % 1000, 0);
        QVERIFY(host.timeStamp.microseconds >= 0 && host.timeStamp.microseconds < 1000000);

        const CAN::CanRxMessage own = ownFrames.frames().first();
        QVERIFY2(own.timeStamp.seconds <= 10, "seconds since the adapter was made");
        QVERIFY(own.timeStamp.microseconds >= 0 && own.timeStamp.microseconds < 1000000);
    }
};

QTEST_GUILESS_MAIN(tst_AbstractCanAdapter)
#include "tst_abstractcanadapter.moc"
