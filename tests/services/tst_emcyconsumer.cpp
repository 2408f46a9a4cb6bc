#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "emcyconsumer.h"
#include "recordingcanadapter.h"

#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>
#include <memory>

namespace {
// "code reg m0 m1 m2 m3 m4" in hexadecimal, for compact expectations.
QString text(const EMCYConsumer::EMCYData& d)
{
    QString s = QStringLiteral("%1 %2").arg(d.errorCode, 4, 16, QLatin1Char('0')).arg(d.errorRegister, 2, 16, QLatin1Char('0'));
    for (quint8 b : d.manufacturerData)
        s += QStringLiteral(" %1").arg(b, 2, 16, QLatin1Char('0'));
    return s;
}

QStringList records(const QSignalSpy& spy)
{
    QStringList list;
    for (const QList<QVariant>& args : spy)
        list << text(args.at(0).value<EMCYConsumer::EMCYData>());
    return list;
}
} // namespace

class tst_EMCYConsumer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void framesOnCan_data()
    {
        QTest::addColumn<CAN::CanRxMessage>("frame");
        QTest::addColumn<QString>("record");
        QTest::newRow("full frame")
            << makeRxFrame(0x85, {0x10, 0x81, 0x11, 0x01, 0x02, 0x03, 0x04, 0x05}) << "8110 11 01 02 03 04 05";
        QTest::newRow("length 2: the rest is zero") << makeRxFrame(0x85, {0x10, 0x81}) << "8110 00 00 00 00 00 00";
        QTest::newRow("longer FD frame: 8 bytes used")
            << makeRxFrame(0x85, {0x00, 0x50, 0x01, 1, 2, 3, 4, 5, 0xAA, 0xBB}) << "5000 01 01 02 03 04 05";
    }
    void framesOnCan()
    {
        QFETCH(CAN::CanRxMessage, frame);
        QFETCH(QString, record);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        EMCYConsumer consumer(0x85, &scheduler);
        QSignalSpy spy(&consumer, &EMCYConsumer::newEmcyData);
        adapter.inject(frame);
        QCOMPARE(records(spy), QStringList{record});
    }

    // setCanScheduler() alone delivers no frames (kept as it always was);
    // setCobId() registers and moves the registration; a frame of another
    // identifier handed to the slot is not decoded.
    void cobIdRegistration()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        EMCYConsumer consumer(0x85);
        QSignalSpy spy(&consumer, &EMCYConsumer::newEmcyData);
        consumer.setCanScheduler(&scheduler);
        adapter.inject(0x85, {0x01});
        QCOMPARE(spy.count(), 0);
        consumer.setCobId(0x85);
        adapter.inject(0x85, {0x10, 0x81, 0x11});
        consumer.setCobId(0x86);
        QCOMPARE(consumer.cobId(), 0x86u);
        adapter.inject(0x85, {0x01});
        adapter.inject(0x86, {0x02});
        consumer.newCanMessageReceived(makeRxFrame(0x87, {1, 2, 3}));
        QCOMPARE(records(spy), (QStringList{"8110 11 00 00 00 00 00", "0002 00 00 00 00 00 00"}));
    }

    void gatewayLines_data()
    {
        QTest::addColumn<QString>("response");
        QTest::addColumn<QStringList>("records");
        QTest::newRow("9 tokens") << "5 emcy 0x8110 0x11 1 2 3 4 5" << QStringList{"8110 11 01 02 03 04 05"};
        QTest::newRow("two lines, in order")
            << "5 emcy 0x1000 1 0 0 0 0 0\n5 emcy 0x2000 2 0 0 0 0 9\n"
            << QStringList{"1000 01 00 00 00 00 00", "2000 02 00 00 00 00 09"};
        QTest::newRow("CR LF ends no token") << "5 emcy 0x8110 0x11 1 2 3 4 5\r\n"
                                             << QStringList{"8110 11 01 02 03 04 05"};
        QTest::newRow("8 tokens: last byte 0") << "5 emcy 0x8110 0x11 1 2 3 4" << QStringList{"8110 11 01 02 03 04 00"};
        QTest::newRow("8 tokens and CR LF") << "5 emcy 0x8110 0x11 1 2 3 4\r\n"
                                            << QStringList{"8110 11 01 02 03 04 00"};
        QTest::newRow("7 tokens") << "5 emcy 0x8110 0x11 1 2 3" << QStringList{};
        QTest::newRow("7 tokens, blank before CR LF") << "5 emcy 0x8110 0x11 1 2 3 \r\n" << QStringList{};
        QTest::newRow("other node") << "6 emcy 0x8110 0x11 1 2 3 4 5" << QStringList{};
        QTest::newRow("no word emcy") << "5 xxxx 0x8110 0x11 1 2 3 4 5" << QStringList{};
        QTest::newRow("upper-case EMCY") << "5 EMCY 0x8110 0x11 1 2 3 4 5" << QStringList{"8110 11 01 02 03 04 05"};
        QTest::newRow("automatic number base") << "0x05 emcy 010 0x1F 9 0x0a 012 255 256"
                                               << QStringList{"0008 1f 09 0a 0a ff 00"};
        QTest::newRow("node field low 8 bits") << "261 emcy 1 2 3 4 5 6 7" << QStringList{"0001 02 03 04 05 06 07"};
        QTest::newRow("unreadable tokens read 0") << "5 emcy zz 0xZZ -1 a 9x 08 ." << QStringList{"0000 00 00 00 00 00 00"};
        QTest::newRow("runs of blanks") << "  5  emcy   0x8110 0x11 1 2 3 4 5  " << QStringList{"8110 11 01 02 03 04 05"};
        QTest::newRow("extra tokens ignored") << "5 emcy 1 2 3 4 5 6 7 8 9" << QStringList{"0001 02 03 04 05 06 07"};
        QTest::newRow("word in the last token") << "5 x 1 2 3 4 5 6 emcy" << QStringList{"0001 02 03 04 05 06 00"};
        QTest::newRow("answer lines mixed in")
            << "[3] OK\r\n5 emcy 0x8110 0x11 1 2 3 4 5\r\n[4] ERROR: 100\r\n" << QStringList{"8110 11 01 02 03 04 05"};
        QTest::newRow("empty") << "" << QStringList{};
        QTest::newRow("only line ends") << "\n\n\r\n\r" << QStringList{};
    }
    void gatewayLines()
    {
        QFETCH(QString, response);
        QFETCH(QStringList, records);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        CanScheduler scheduler(&adapter);
        EMCYConsumer consumer(0x85, &scheduler);
        QSignalSpy spy(&consumer, &EMCYConsumer::newEmcyData);
        Q_EMIT adapter.newCiA309Response(response);
        QCOMPARE(::records(spy), records);
    }

    void gatewayLinesReachOnlyGatewayConsumers_data()
    {
        QTest::addColumn<bool>("gateway");
        QTest::addColumn<bool>("bySetCanScheduler");
        QTest::addColumn<int>("emissions");
        QTest::newRow("gateway, constructor") << true << false << 1;
        QTest::newRow("gateway, setCanScheduler") << true << true << 1;
        QTest::newRow("CAN adapter") << false << false << 0;
    }
    void gatewayLinesReachOnlyGatewayConsumers()
    {
        QFETCH(bool, gateway);
        QFETCH(bool, bySetCanScheduler);
        QFETCH(int, emissions);
        RecordingCanAdapter adapter;
        adapter.setOptionAnswer(AbstractCanAdapter::CiA309Gateway, gateway);
        CanScheduler scheduler(&adapter);
        std::unique_ptr<EMCYConsumer> consumer;
        if (bySetCanScheduler) {
            consumer.reset(new EMCYConsumer(0x85));
            consumer->setCanScheduler(&scheduler);
            consumer->setCanScheduler(&scheduler); // connected once, not twice
        } else {
            consumer.reset(new EMCYConsumer(0x85, &scheduler));
        }
        QSignalSpy spy(consumer.get(), &EMCYConsumer::newEmcyData);
        Q_EMIT adapter.newCiA309Response(QStringLiteral("5 emcy 0x8110 0x11 1 2 3 4 5\n"));
        QCOMPARE(spy.count(), emissions);

        consumer->setCanScheduler(nullptr); // leaves the gateway
        Q_EMIT adapter.newCiA309Response(QStringLiteral("5 emcy 0x8110 0x11 1 2 3 4 5\n"));
        QCOMPARE(spy.count(), emissions);
    }

    // Half of the lines look like emergency reports of our node with any
    // number of odd tokens, the rest is noise; that nothing is read out of
    // bounds is the sanitizer builds' check.
    void malformedTextNeverCrashes()
    {
        EMCYConsumer consumer(0x85);
        QSignalSpy spy(&consumer, &EMCYConsumer::newEmcyData);
        QRandomGenerator rng(309);
        const QString alphabet = QStringLiteral(" \r\n\t0123456789xabcdefemcyEMCY-[]\0");
        for (int round = 0; round < 3000; ++round) {
            QString s = round % 2 == 0 ? QStringLiteral("5 emcy ") : QString();
            const int len = int(rng.bounded(round % 2 == 0 ? 40 : 80));
            for (int i = 0; i < len; ++i)
                s += alphabet.at(int(rng.bounded(alphabet.size())));
            consumer.newCiA309Response(s);
        }
        QVERIFY(spy.count() > 0); // the decoding path was taken
    }
};

QTEST_MAIN(tst_EMCYConsumer)
#include "tst_emcyconsumer.moc"
