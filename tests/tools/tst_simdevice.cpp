// The simulated device's services (NMT, guarding, EMCY, TPDO, console) on a
// recording adapter: the frames it answers with. Its SDO server has its own
// test; the program cosim is run end to end in tst_cosim and tst_cotoolnet.
#include "canopenmasterclass.h"
#include "framenotation.h"
#include "recordingcanadapter.h"
#include "simconsole.h"
#include "simdevice.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"

#include <QSignalSpy>
#include <QtTest>

namespace {
constexpr quint8 Node = 5;

// The device with all its services, booted with heartbeat 0; frames are
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
    QStringList written() const
    {
        QStringList out;
        for (const CAN::CanMessage& m : adapter.written())
            out << FrameNotation::format(m);
        return out;
    }
};
} // namespace

class tst_SimDevice : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    // Frames (frame notation) or console lines ("> line", "! line" refused, "> line = answer" its
    // beginning) in turn; the frames the device wrote meanwhile and its state at the end.
    void framesAndAnswers_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<int>("state");
        QTest::addColumn<QStringList>("written");
        const int op = SimDevice::Operational, pre = SimDevice::PreOperational, stopped = SimDevice::Stopped;
        QTest::newRow("start own node") << QStringList{"000#0105"} << op << QStringList();
        QTest::newRow("start other node") << QStringList{"000#0106"} << pre << QStringList();
        QTest::newRow("stop, start all") << QStringList{"000#0205", "000#0100"} << op << QStringList();
        QTest::newRow("start, preop all") << QStringList{"000#0105", "000#8000"} << pre << QStringList();
        QTest::newRow("three bytes, one byte, unknown command: ignored") << QStringList{"000#010500", "000#01", "000#0305"} << pre << QStringList();
        // A reset sends the boot-up and starts the guarding toggle at 0 again.
        QTest::newRow("reset node, reset communication of all")
            << QStringList{"000#0100", "705#R", "000#8105", "705#R", "000#0100", "705#R", "000#8200", "705#R"} << pre
            << QStringList{"705#05", "705#00", "705#7F", "705#85", "705#00", "705#7F"};
        QTest::newRow("guarding toggles; data frames and other nodes unanswered")
            << QStringList{"705#R", "705#R", "705#R", "000#0105", "705#R", "705#R", "000#0205", "705#R", "705#05", "706#R"}
            << stopped << QStringList{"705#7F", "705#FF", "705#7F", "705#85", "705#05", "705#84"};
        // One TPDO per SYNC while operational, counting on through stop and
        // start, from 1 again after a reset.
        QTest::newRow("TPDO on SYNC")
            << QStringList{"080#", "000#0105", "080#", "080#07", "080#R", "000#0205", "080#", "000#0105", "080#",
                           "000#8205", "000#0105", "080#"}
            << op << QStringList{"185#010018FCFFFF", "185#020030F8FFFF", "185#030048F4FFFF", "705#00", "185#010018FCFFFF"};
        QTest::newRow("EMCY, manufacturer bytes") << QStringList{"> emcy 0x8110 0x11 01 02 03 04 05"} << pre << QStringList{"085#1081110102030405"};
        QTest::newRow("EMCY clear, code only") << QStringList{"> emcy clear", "> emcy ff00"} << pre
                                               << QStringList{"085#0000000000000000", "085#00FF000000000000"};
        QTest::newRow("no EMCY when stopped") << QStringList{"000#0205", "! emcy 1000 01"} << stopped << QStringList();
        QTest::newRow("console lines refused") << QStringList{"! start 5", "! heartbeat 65536", "! heartbeat x", "! emcy 10000",
                                                              "! emcy 1000 100", "! emcy 1000 01 01 02 03 04 05 06", "! emcy 1000 01 zz", "! emcy"}
                                               << pre << QStringList();
        QTest::newRow("console NMT") << QStringList{"> start", "> reset", "> stop"} << stopped << QStringList{"705#00"};
        QTest::newRow("console reports") << QStringList{"> heartbeat 200", "> status = node 5, pre-operational, heartbeat 200 ms, TPDO counter 0",
                                                        ">   STOP ", "! jump = error: unknown command 'jump'", "> quit = bye"}
                                         << stopped << QStringList();
    }
    void framesAndAnswers()
    {
        QFETCH(QStringList, steps);
        QFETCH(int, state);
        QFETCH(QStringList, written);
        Rig rig;
        QSignalSpy quit(&rig.console, &SimConsole::quitRequested);
        for (const QString& step : steps) {
            CAN::CanRxMessage rx;
            if (step.startsWith(QLatin1Char('>')) || step.startsWith(QLatin1Char('!'))) {
                const QString answer = rig.console.execute(step.section(QStringLiteral(" = "), 0, 0).mid(2));
                const QString expected = step.section(QStringLiteral(" = "), 1);
                QVERIFY2(answer.startsWith(step.contains(" = ") ? expected : step[0] == '>' ? "ok" : "error"), qPrintable(answer));
            } else {
                QVERIFY2(FrameNotation::parse(step, rx.message), qPrintable(step));
                rig.adapter.inject(rx);
            }
        }
        QCOMPARE(rig.written(), written);
        QCOMPARE(int(rig.device.nmtState()), state);
        QCOMPARE(quit.count(), steps.filter(QStringLiteral("> quit")).size());
    }
};

QTEST_GUILESS_MAIN(tst_SimDevice)
#include "tst_simdevice.moc"
