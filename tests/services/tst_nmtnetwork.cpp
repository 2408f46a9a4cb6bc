#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "nmtnetwork.h"
#include "recordingcanadapter.h"

#include <QtTest>

class tst_NMTNetwork : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void cleanup() { CANopenService::activateCANopenFD(false); }

    void commandFramesOnCan_data()
    {
        QTest::addColumn<int>("command");
        QTest::addColumn<quint8>("specifier");
        QTest::addColumn<bool>("fd");
        QTest::newRow("start") << 1 << quint8(0x01) << false;
        QTest::newRow("stop") << 2 << quint8(0x02) << false;
        QTest::newRow("preop") << 128 << quint8(0x80) << false;
        QTest::newRow("reset node") << 129 << quint8(0x81) << false;
        QTest::newRow("reset comm") << 130 << quint8(0x82) << false;
        QTest::newRow("preop, CANopen FD") << 128 << quint8(0x80) << true;
        QTest::newRow("value outside the table") << 3 << quint8(0x03) << false;
    }
    void commandFramesOnCan()
    {
        QFETCH(int, command);
        QFETCH(quint8, specifier);
        QFETCH(bool, fd);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        NMTNetwork nmt(&scheduler);
        CANopenService::activateCANopenFD(fd);

        CAN::RetType result;
        switch (command) { // through the convenience calls where there is one
        case 1: result = nmt.start(); break;
        case 2: result = nmt.stop(); break;
        case 128: result = nmt.preop(); break;
        case 129: result = nmt.resetAppl(); break;
        case 130: result = nmt.resetComm(); break;
        default: result = nmt.sendCommand(NMTNetwork::NmtCommands(command)); break;
        }
        QCOMPARE(result, CAN::Ok);
        QCOMPARE(adapter.writtenCount(), 1);
        const CAN::CanMessage m = adapter.lastWritten();
        QCOMPARE(m.id, 0u);
        QCOMPARE(int(m.length), 2);
        QCOMPARE(frameData(m), QByteArray(1, char(specifier)) + char(0)); // node 0: all nodes
        QCOMPARE(m.fd, fd);
        QCOMPARE(m.rtr, false);
        QCOMPARE(m.extended, false);
        QCOMPARE(m.brs, false);
    }

    void commandLinesOnTheGateway_data()
    {
        QTest::addColumn<int>("command");
        QTest::addColumn<QString>("line");
        QTest::newRow("start") << 1 << "0 start";
        QTest::newRow("stop") << 2 << "0 stop";
        QTest::newRow("preop") << 128 << "0 preop";
        QTest::newRow("reset node") << 129 << "0 reset node";
        QTest::newRow("reset comm") << 130 << "0 reset comm";
        QTest::newRow("value outside the table: empty line") << 3 << "";
    }
    void commandLinesOnTheGateway()
    {
        QFETCH(int, command);
        QFETCH(QString, line);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        CanScheduler scheduler(&adapter);
        NMTNetwork nmt;
        QCOMPARE(nmt.setCanScheduler(&scheduler), CAN::Ok);
        QCOMPARE(nmt.sendCommand(NMTNetwork::NmtCommands(command)), CAN::Ok);
        QCOMPARE(adapter.requests(), QStringList{line});
        QCOMPARE(adapter.writtenCount(), 0);
    }

    void errorsOfTheAdapterComeBackUnchanged_data()
    {
        QTest::addColumn<bool>("gateway");
        QTest::addColumn<int>("failure");
        QTest::newRow("CAN, queue full") << false << int(CAN::TxQueueFull);
        QTest::newRow("CAN, not ready") << false << int(CAN::NotReady);
        QTest::newRow("gateway, error") << true << int(CAN::Error);
    }
    void errorsOfTheAdapterComeBackUnchanged()
    {
        QFETCH(bool, gateway);
        QFETCH(int, failure);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, gateway);
        adapter.failWrites(CAN::RetType(failure));
        CanScheduler scheduler(&adapter);
        NMTNetwork nmt(&scheduler);
        QCOMPARE(int(nmt.stop()), failure);
    }

    void withoutSchedulerOrAdapterNothingIsSent()
    {
        NMTNetwork lonely;
        QCOMPARE(lonely.start(), CAN::Error);
        QCOMPARE(lonely.sendCiA309Command(NMTNetwork::Start), CAN::Error);

        CanScheduler noAdapter(nullptr);
        NMTNetwork nmt(&noAdapter);
        QCOMPARE(nmt.preop(), CAN::Error);

        RecordingCanAdapter adapter;
        auto* scheduler = new CanScheduler(&adapter);
        NMTNetwork orphan(scheduler);
        delete scheduler; // the guarded pointer notices
        QCOMPARE(orphan.resetComm(), CAN::Error);
        QCOMPARE(adapter.writtenCount(), 0);
    }
};

QTEST_MAIN(tst_NMTNetwork)
#include "tst_nmtnetwork.moc"
