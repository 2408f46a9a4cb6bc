#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "democanadapter.h"
#include "recordingcanadapter.h"
#include "rpdo.h"
#include "simconsole.h"
#include "simdevice.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"
#include "syncproducer.h"
#include "testbus.h"

#include <QProcess>
#include <QSignalSpy>
#include <QtTest>

using States = QVector<int>;
Q_DECLARE_METATYPE(States)

namespace {
constexpr quint8 Node = 5;

// The device with all its services on a recording adapter; frames are
// injected in the test's thread (as the receive thread would deliver them).
struct Rig {
    RecordingCanAdapter adapter;
    SimDevice device{Node, &adapter};
    SimNmtSlave nmt{&device};
    SimEmcyProducer emcy{&device};
    SimTpdo tpdo{&device};
    SimConsole console{&device, &nmt, &emcy, &tpdo};

    Rig()
    {
        device.setHeartbeatTime(0);
        device.start();
        adapter.clearWritten(); // the boot-up frame
    }
    // Data bytes of the frames written on `id`, as hex strings.
    QStringList sent(quint32 id) const
    {
        QStringList out;
        for (const CAN::CanMessage& m : adapter.written()) {
            if (m.id == id)
                out << QString::fromLatin1(frameData(m).toHex());
        }
        return out;
    }
    void inject(quint32 id, std::initializer_list<quint8> data, bool rtr = false)
    {
        CAN::CanRxMessage rx = makeRxFrame(id, data);
        rx.message.rtr = rtr;
        adapter.inject(rx);
    }
    void guard() { inject(0x700 + Node, {}, true); }
};

QString hex(const char* text) { return QString::fromLatin1(text); }
} // namespace

class tst_SimDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        qRegisterMetaType<SimDevice::NmtState>();
        mPort = TestBus::usePrivatePort();
    }

    void nmtCommands_data()
    {
        QTest::addColumn<QByteArray>("before"); // commands carried out first
        QTest::addColumn<QByteArray>("frame");  // NMT frame data
        QTest::addColumn<bool>("rtr");
        QTest::addColumn<int>("state");
        QTest::newRow("start all") << QByteArray() << QByteArray::fromHex("0100") << false
                                   << int(SimDevice::Operational);
        QTest::newRow("start own node") << QByteArray() << QByteArray::fromHex("0105") << false
                                        << int(SimDevice::Operational);
        QTest::newRow("start other node") << QByteArray() << QByteArray::fromHex("0106") << false
                                          << int(SimDevice::PreOperational);
        QTest::newRow("stop") << QByteArray() << QByteArray::fromHex("0205") << false << int(SimDevice::Stopped);
        QTest::newRow("preop from operational") << QByteArray::fromHex("01") << QByteArray::fromHex("8000")
                                                << false << int(SimDevice::PreOperational);
        QTest::newRow("start from stopped") << QByteArray::fromHex("02") << QByteArray::fromHex("0100") << false
                                            << int(SimDevice::Operational);
        QTest::newRow("stop from operational") << QByteArray::fromHex("01") << QByteArray::fromHex("0200")
                                               << false << int(SimDevice::Stopped);
        QTest::newRow("three bytes ignored") << QByteArray() << QByteArray::fromHex("010500") << false
                                             << int(SimDevice::PreOperational);
        QTest::newRow("one byte ignored") << QByteArray() << QByteArray::fromHex("01") << false
                                          << int(SimDevice::PreOperational);
        QTest::newRow("unknown command ignored") << QByteArray() << QByteArray::fromHex("0305") << false
                                                 << int(SimDevice::PreOperational);
        QTest::newRow("remote frame ignored") << QByteArray() << QByteArray::fromHex("0105") << true
                                              << int(SimDevice::PreOperational);
    }
    void nmtCommands()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, frame);
        QFETCH(bool, rtr);
        QFETCH(int, state);
        Rig rig;
        for (char c : before)
            QVERIFY(rig.nmt.execute(quint8(c)));
        QSignalSpy changes(&rig.device, &SimDevice::nmtStateChanged);
        CAN::CanRxMessage rx;
        rx.message.length = quint8(frame.size());
        memcpy(rx.message.data, frame.constData(), size_t(frame.size()));
        rx.message.rtr = rtr;
        const SimDevice::NmtState old = rig.device.nmtState();
        rig.adapter.inject(rx);
        QCOMPARE(int(rig.device.nmtState()), state);
        QCOMPARE(changes.count(), state == int(old) ? 0 : 1);
        QCOMPARE(rig.adapter.writtenCount(), 0); // NMT commands are never answered
    }

    void resetSendsBootUpAndEndsInPreOperational_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::newRow("reset node, own id") << QByteArray::fromHex("8105");
        QTest::newRow("reset node, all") << QByteArray::fromHex("8100");
        QTest::newRow("reset communication, own id") << QByteArray::fromHex("8205");
        QTest::newRow("reset communication, all") << QByteArray::fromHex("8200");
    }
    void resetSendsBootUpAndEndsInPreOperational()
    {
        QFETCH(QByteArray, frame);
        Rig rig;
        rig.inject(0x000, {0x01, 0x00});
        rig.guard(); // toggle now 1
        QCOMPARE(rig.sent(0x705), QStringList{hex("05")});
        rig.adapter.clearWritten();
        QSignalSpy changes(&rig.device, &SimDevice::nmtStateChanged);
        rig.inject(0x000, {quint8(frame[0]), quint8(frame[1])});
        const QVector<CAN::CanMessage> written = rig.adapter.written();
        QCOMPARE(written.size(), 1);
        QCOMPARE(written[0].id, 0x705u);
        QCOMPARE(frameData(written[0]), QByteArray(1, '\0')); // boot-up
        QCOMPARE(written[0].rtr, false);
        QCOMPARE(changes.count(), 2);
        QCOMPARE(changes.at(0).at(0).value<SimDevice::NmtState>(), SimDevice::Initialising);
        QCOMPARE(changes.at(1).at(0).value<SimDevice::NmtState>(), SimDevice::PreOperational);
        rig.adapter.clearWritten();
        rig.guard(); // toggle starts at 0 again
        QCOMPARE(rig.sent(0x705), QStringList{hex("7f")});
    }

    void guardingAnswersWithAlternatingToggle()
    {
        Rig rig;
        rig.guard();
        rig.guard();
        rig.guard();
        rig.nmt.execute(SimNmtSlave::Start);
        rig.guard();
        rig.guard();
        rig.nmt.execute(SimNmtSlave::Stop);
        rig.guard();
        QCOMPARE(rig.sent(0x705), (QStringList{"7f", "ff", "7f", "85", "05", "84"}));
        for (const CAN::CanMessage& m : rig.adapter.written())
            QVERIFY(!m.rtr && m.length == 1);
        // A data frame on the own id, or a request to another node: no answer.
        rig.adapter.clearWritten();
        rig.inject(0x705, {0x05});
        rig.inject(0x706, {}, true);
        QCOMPARE(rig.adapter.writtenCount(), 0);
    }

    void emergencies_data()
    {
        QTest::addColumn<int>("command"); // NMT command carried out first, 0 for none
        QTest::addColumn<int>("code");    // -1: clear()
        QTest::addColumn<int>("reg");
        QTest::addColumn<QByteArray>("manufacturer");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("frame"); // empty: nothing sent
        QTest::newRow("pre-operational") << 0 << 0x1000 << 0x01 << QByteArray(5, '\0') << int(CAN::Ok)
                                         << "0010010000000000";
        QTest::newRow("operational, manufacturer bytes") << 1 << 0x8110 << 0x11 << QByteArray::fromHex("0102030405")
                                                         << int(CAN::Ok) << "1081110102030405";
        QTest::newRow("clear") << 1 << -1 << 0 << QByteArray(5, '\0') << int(CAN::Ok) << "0000000000000000";
        QTest::newRow("stopped: silent") << 2 << 0x1000 << 0x01 << QByteArray(5, '\0') << int(CAN::NotReady)
                                         << QString();
    }
    void emergencies()
    {
        QFETCH(int, command);
        QFETCH(int, code);
        QFETCH(int, reg);
        QFETCH(QByteArray, manufacturer);
        QFETCH(int, result);
        QFETCH(QString, frame);
        Rig rig;
        if (command)
            rig.nmt.execute(quint8(command));
        SimEmcyProducer::ManufacturerData data{};
        for (int i = 0; i < 5; ++i)
            data[size_t(i)] = quint8(manufacturer[i]);
        const CAN::RetType r = code < 0 ? rig.emcy.clear() : rig.emcy.raise(quint16(code), quint8(reg), data);
        QCOMPARE(int(r), result);
        QCOMPARE(rig.adapter.writtenCount(), frame.isEmpty() ? 0 : 1);
        if (!frame.isEmpty()) {
            QCOMPARE(rig.sent(0x85), QStringList{frame});
            QCOMPARE(rig.adapter.lastWritten().length, quint8(8));
        }
    }

    void tpdoOnSyncOnlyWhenOperational()
    {
        Rig rig;
        rig.inject(0x80, {});
        QCOMPARE(rig.adapter.writtenCount(), 0); // pre-operational
        rig.nmt.execute(SimNmtSlave::Start);
        rig.inject(0x80, {});
        rig.inject(0x80, {0x07}); // SYNC with counter byte
        rig.inject(0x80, {}, true); // a remote frame is no SYNC
        QCOMPARE(rig.sent(0x185), (QStringList{"010018fcffff", "020030f8ffff"}));
        QCOMPARE(rig.adapter.lastWritten().length, quint8(6));
        rig.nmt.execute(SimNmtSlave::Stop);
        rig.inject(0x80, {});
        rig.nmt.execute(SimNmtSlave::Start); // stop/start keeps counting
        rig.inject(0x80, {});
        QCOMPARE(rig.sent(0x185).size(), 3);
        QCOMPARE(rig.sent(0x185).last(), hex("030048f4ffff"));
        rig.inject(0x000, {0x82, 0x05}); // reset communication: counting starts over
        rig.nmt.execute(SimNmtSlave::Start);
        rig.inject(0x80, {});
        QCOMPARE(rig.sent(0x185).last(), hex("010018fcffff"));
        QCOMPARE(rig.tpdo.counter(), quint16(1));
        // Wrap of the counter, through the pure frame builder.
        QCOMPARE(frameData(SimTpdo::buildFrame(Node, 65535)).toHex(), QByteArray("ffffe803" "18fc"));
    }

    void consoleCommands_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("answer"); // prefix of the answer
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("heartbeat");
        QTest::addColumn<QStringList>("frames"); // written: "id:data"
        const int pre = SimDevice::PreOperational;
        QTest::newRow("start") << "start" << "ok" << int(SimDevice::Operational) << 0 << QStringList();
        QTest::newRow("stop, spaces, case") << "  STOP " << "ok" << int(SimDevice::Stopped) << 0 << QStringList();
        QTest::newRow("preop") << "preop" << "ok" << pre << 0 << QStringList();
        QTest::newRow("start with argument") << "start 5" << "error:" << pre << 0 << QStringList();
        QTest::newRow("reset") << "reset" << "ok" << pre << 0 << QStringList{"705:00"};
        QTest::newRow("resetcomm") << "resetcomm" << "ok" << pre << 0 << QStringList{"705:00"};
        QTest::newRow("heartbeat") << "heartbeat 200" << "ok" << pre << 200 << QStringList();
        QTest::newRow("heartbeat too big") << "heartbeat 65536" << "error:" << pre << 0 << QStringList();
        QTest::newRow("heartbeat no number") << "heartbeat x" << "error:" << pre << 0 << QStringList();
        QTest::newRow("emcy code reg") << "emcy 1000 01" << "ok" << pre << 0 << QStringList{"85:0010010000000000"};
        QTest::newRow("emcy code only") << "emcy ff00" << "ok" << pre << 0 << QStringList{"85:00ff000000000000"};
        QTest::newRow("emcy all bytes, 0x") << "emcy 0x8110 0x11 01 02 03 04 05" << "ok" << pre << 0
                                            << QStringList{"85:1081110102030405"};
        QTest::newRow("emcy clear") << "emcy clear" << "ok" << pre << 0 << QStringList{"85:0000000000000000"};
        QTest::newRow("emcy code too big") << "emcy 10000" << "error:" << pre << 0 << QStringList();
        QTest::newRow("emcy register too big") << "emcy 1000 100" << "error:" << pre << 0 << QStringList();
        QTest::newRow("emcy six bytes") << "emcy 1000 01 01 02 03 04 05 06" << "error:" << pre << 0 << QStringList();
        QTest::newRow("emcy bad byte") << "emcy 1000 01 zz" << "error:" << pre << 0 << QStringList();
        QTest::newRow("emcy alone") << "emcy" << "error:" << pre << 0 << QStringList();
        QTest::newRow("status") << "status" << "node 5, pre-operational, heartbeat 0 ms, TPDO counter 0" << pre << 0
                                << QStringList();
        QTest::newRow("help") << "help" << "Commands" << pre << 0 << QStringList();
        QTest::newRow("unknown") << "jump" << "error: unknown command 'jump'" << pre << 0 << QStringList();
        QTest::newRow("empty") << "   " << "" << pre << 0 << QStringList();
    }
    void consoleCommands()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        QFETCH(int, state);
        QFETCH(int, heartbeat);
        QFETCH(QStringList, frames);
        Rig rig;
        const QString got = rig.console.execute(line);
        if (answer.isEmpty())
            QVERIFY2(got.isEmpty(), qPrintable(got));
        else
            QVERIFY2(got.startsWith(answer), qPrintable(got));
        QCOMPARE(int(rig.device.nmtState()), state);
        QCOMPARE(int(rig.device.heartbeatTime()), heartbeat);
        QStringList written;
        for (const CAN::CanMessage& m : rig.adapter.written())
            written << QStringLiteral("%1:%2").arg(m.id, 0, 16).arg(QString::fromLatin1(frameData(m).toHex()));
        QCOMPARE(written, frames);
    }

    void consoleQuitIsAskedFor()
    {
        Rig rig;
        QSignalSpy quit(&rig.console, &SimConsole::quitRequested);
        rig.console.execute(QStringLiteral("status"));
        QCOMPARE(quit.count(), 0);
        rig.console.execute(QStringLiteral("quit"));
        QCOMPARE(quit.count(), 1);
    }

    void removedComponentGetsNoFrames()
    {
        RecordingCanAdapter adapter;
        SimDevice device(Node, &adapter);
        device.setHeartbeatTime(0);
        SimNmtSlave nmt(&device);
        {
            SimTpdo tpdo(&device);
        }
        device.start();
        nmt.execute(SimNmtSlave::Start);
        adapter.clearWritten();
        adapter.inject(0x80, {}); // the TPDO's handler is gone (ASan would see a use after free)
        QCOMPARE(adapter.writtenCount(), 0);
    }

    // Master and device on the real virtual bus: the master's SYNC producer
    // drives the device's TPDO, which the master's RPDO decodes.
    void masterRpdoDecodesDeviceTpdoOnSync()
    {
        DemoCanAdapter masterBus(QStringLiteral("Talvik Virtual"));
        DemoCanAdapter deviceBus(QStringLiteral("Talvik Virtual"));
        {
            SimDevice device(Node, &deviceBus);
            device.setHeartbeatTime(0);
            SimNmtSlave nmt(&device);
            SimTpdo tpdo(&device);
            QCOMPARE(masterBus.open(), CAN::Ok);
            QCOMPARE(deviceBus.open(), CAN::Ok);
            QTest::qWait(20); // both receive sockets bound
            device.start();

            CanScheduler scheduler(&masterBus);
            scheduler.connectToAdapter(true);
            RPDO rpdo(0x180 + Node, {CAN::UNSIGNED16, CAN::INTEGER32}, &scheduler);
            QSignalSpy data(&rpdo, &RPDO::newPDOData);
            QSignalSpy errors(&rpdo, &RPDO::newPDOError);

            // SYNC while pre-operational: no TPDO.
            SYNCProducer sync(0x80, 10000, &scheduler);
            QCOMPARE(sync.oneSync(), CAN::Ok);
            QTest::qWait(50);
            QCOMPARE(data.count(), 0);

            CAN::CanMessage start = makeFrame(0x000, {0x01, Node});
            QCOMPARE(masterBus.write(&start), CAN::Ok);
            QTRY_COMPARE_WITH_TIMEOUT(device.nmtState(), SimDevice::Operational, 3000);
            QCOMPARE(sync.start(), CAN::Ok);
            QTRY_VERIFY_WITH_TIMEOUT(data.count() >= 5, 5000);
            sync.stop();
            masterBus.close();
            deviceBus.close();

            QCOMPARE(errors.count(), 0);
            for (int i = 0; i < data.count(); ++i) {
                const QVector<QVariant> values = data.at(i).at(0).value<QVector<QVariant>>();
                QCOMPARE(values.size(), 2);
                QCOMPARE(values[0], QVariant(i + 1)); // counter, no frame lost
                QCOMPARE(values[1], QVariant(-1000 * (i + 1)));
            }
        }
    }

    // The cosim program: commands on stdin, answers on stdout, frames on the bus.
    void cosimReadsCommandsFromStdin()
    {
        DemoCanAdapter bus(QStringLiteral("Talvik Virtual"));
        CanScheduler scheduler(&bus);
        scheduler.connectToAdapter(true);
        QStringList frames; // "id:data", in the test's thread
        QObject sink;       // its end drops deliveries still queued
        QVector<CanSender*> senders;
        for (quint32 id : {0x707u, 0x87u}) {
            CanSender* sender = scheduler.registerCanId(id);
            senders << sender;
            connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received), &sink,
                    [&frames](CAN::CanRxMessage rx) {
                        frames << QStringLiteral("%1:%2").arg(rx.message.id, 0, 16).arg(
                            QString::fromLatin1(frameData(rx.message).toHex()));
                    }, Qt::QueuedConnection);
        }
        QCOMPARE(bus.open(), CAN::Ok);
        QTest::qWait(20);

        QProcess cosim;
        cosim.start(QStringLiteral(COSIM_PATH), {QStringLiteral("--node"), QStringLiteral("7"),
                                                 QStringLiteral("--heartbeat"), QStringLiteral("0"),
                                                 QStringLiteral("--port"), QString::number(mPort)});
        QVERIFY(cosim.waitForStarted(5000));
        QTRY_COMPARE_WITH_TIMEOUT(frames, QStringList{"707:00"}, 5000); // boot-up
        cosim.write("status\nemcy 8110 11 01 02 03 04 05\nbogus\n");
        QTRY_COMPARE_WITH_TIMEOUT(frames.size(), 2, 5000);
        QCOMPARE(frames.at(1), QStringLiteral("87:1081110102030405"));
        cosim.write("quit\n");
        QVERIFY(cosim.waitForFinished(5000));
        QCOMPARE(cosim.exitStatus(), QProcess::NormalExit);
        QCOMPARE(cosim.exitCode(), 0);
        const QString out = QString::fromLocal8Bit(cosim.readAllStandardOutput());
        QVERIFY2(out.contains(QLatin1String("node 7, pre-operational, heartbeat 0 ms, TPDO counter 0\nok\n"
                                            "error: unknown command 'bogus'")),
                 qPrintable(out));
        QVERIFY2(out.contains(QLatin1String("bye")), qPrintable(out));
        bus.close();
        for (CanSender* sender : senders)
            scheduler.unregisterCan(sender);
    }

private:
    quint16 mPort = 0;
};

QTEST_MAIN(tst_SimDevice)
#include "tst_simdevice.moc"
