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

    // The broadcast frame on CAN (node 0: all nodes) and the line on the
    // gateway; a value outside the table goes out as given, or as an empty line.
    void commands_data()
    {
        QTest::addColumn<int>("command");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<QString>("line");
        QTest::newRow("start") << 1 << false << "0 start";
        QTest::newRow("stop") << 2 << false << "0 stop";
        QTest::newRow("preop, CANopen FD") << 128 << true << "0 preop";
        QTest::newRow("reset node") << 129 << false << "0 reset node";
        QTest::newRow("reset comm") << 130 << false << "0 reset comm";
        QTest::newRow("outside the table") << 3 << false << "";
    }
    void commands()
    {
        QFETCH(int, command);
        QFETCH(bool, fd);
        QFETCH(QString, line);
        RecordingCanAdapter adapter, gatewayAdapter;
        gatewayAdapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        CanScheduler scheduler(&adapter), gatewayScheduler(&gatewayAdapter);
        NMTNetwork nmt(&scheduler), gateway;
        QCOMPARE(gateway.setCanScheduler(&gatewayScheduler), CAN::Ok);
        CANopenService::activateCANopenFD(fd);
        QCOMPARE(nmt.sendCommand(NMTNetwork::NmtCommands(command)), CAN::Ok);
        QCOMPARE(adapter.writtenHex(), QList<QByteArray>{"0:" + (QByteArray(1, char(command)) + '\0').toHex()});
        const CAN::CanMessage m = adapter.lastWritten();
        QCOMPARE(m.fd, fd);
        QVERIFY(!m.rtr && !m.extended && !m.brs);
        QCOMPARE(gateway.sendCommand(NMTNetwork::NmtCommands(command)), CAN::Ok);
        QCOMPARE(gatewayAdapter.requests(), QStringList{line});
        QCOMPARE(gatewayAdapter.writtenCount(), 0);
    }

    // The adapter's failures come back unchanged; without scheduler or
    // adapter (also one that vanished) nothing is sent.
    void failures()
    {
        RecordingCanAdapter adapter, gatewayAdapter;
        adapter.failWrites(CAN::TxQueueFull);
        gatewayAdapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        gatewayAdapter.failWrites(CAN::Error);
        CanScheduler scheduler(&adapter), gatewayScheduler(&gatewayAdapter);
        QCOMPARE(NMTNetwork(&scheduler).stop(), CAN::TxQueueFull);
        QCOMPARE(NMTNetwork(&gatewayScheduler).stop(), CAN::Error);

        NMTNetwork lonely;
        QCOMPARE(lonely.start(), CAN::Error);
        QCOMPARE(lonely.sendCiA309Command(NMTNetwork::Start), CAN::Error);
        CanScheduler noAdapter(nullptr);
        QCOMPARE(NMTNetwork(&noAdapter).preop(), CAN::Error);
        RecordingCanAdapter quiet;
        auto* gone = new CanScheduler(&quiet);
        NMTNetwork orphan(gone);
        delete gone; // the guarded pointer notices
        QCOMPARE(orphan.resetComm(), CAN::Error);
        QCOMPARE(quiet.writtenCount(), 0);
    }
};

QTEST_MAIN(tst_NMTNetwork)
#include "tst_nmtnetwork.moc"
