#include "rpdo.h"
#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "recordingcanadapter.h"
#include "testlog.h"

#include <QSignalSpy>
#include <QtTest>

using Mapping = QVector<CAN::CANopenDataType>;
Q_DECLARE_METATYPE(Mapping)

namespace {
QVariant firstValue(const QSignalSpy& spy, int i)
{
    return spy.at(i).at(0).value<QVector<QVariant>>().value(0);
}
} // namespace

class tst_RPDO : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        CanopenMaster master;
        TestLog::enableDebugOutput();
    }

    void decodesFrames_data()
    {
        QTest::addColumn<Mapping>("mapping");
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<int>("length");
        QTest::addColumn<QVariantList>("values"); // empty: nothing is emitted (type not supported)
        QTest::addColumn<bool>("lengthError");
        const Mapping u16i8{CAN::UNSIGNED16, CAN::INTEGER8};
        QTest::newRow("frame too short: missing byte is 0")
            << u16i8 << QByteArray::fromHex("3412") << 2 << QVariantList{0x1234, 0} << true;
        QTest::newRow("frame too long") << u16i8 << QByteArray::fromHex("3412ff01") << 4
                                        << QVariantList{0x1234, -1} << true;
        QTest::newRow("empty mapping, 1 byte") << Mapping{} << QByteArray(1, 'x') << 1 << QVariantList{} << true;
        QTest::newRow("signed limits") << Mapping{CAN::INTEGER8, CAN::INTEGER16, CAN::INTEGER32}
                                       << QByteArray::fromHex("80ff7f00000080") << 7
                                       << QVariantList{-128, 32767, int(0x80000000u)} << false;
        QTest::newRow("unsigned stay positive") << Mapping{CAN::UNSIGNED8, CAN::UNSIGNED16, CAN::UNSIGNED32}
                                                << QByteArray::fromHex("ffffffffffffff") << 7
                                                << QVariantList{255, 65535, 4294967295u} << false;
        QTest::newRow("mixed, byte positions")
            << Mapping{CAN::UNSIGNED8, CAN::INTEGER32, CAN::UNSIGNED16, CAN::INTEGER8}
            << QByteArray::fromHex("01efcdab89bbaafe") << 8 << QVariantList{1, int(0x89abcdefu), 0xaabb, -2}
            << false;
        QByteArray bytes64;
        QVariantList values16;
        for (int i = 0; i < 16; ++i) {
            bytes64 += QByteArray::fromHex(QByteArray::number(i + 1, 16).rightJustified(2, '0') + "000000");
            values16 << uint(i + 1);
        }
        QTest::newRow("FD, 64 bytes") << Mapping(16, CAN::UNSIGNED32) << bytes64 << 64 << values16 << false;
        // Mapped past the 64 data bytes: the rest reads as 0, nothing beyond is read.
        QTest::newRow("mapped past 64 bytes") << Mapping(17, CAN::UNSIGNED32) << bytes64 << 64
                                              << (QVariantList(values16) << 0u) << true;
        QTest::newRow("BOOLEAN not supported") << Mapping{CAN::BOOLEAN} << QByteArray(8, 1) << 8 << QVariantList{}
                                               << false;
        QTest::newRow("REAL32 after u8 not supported") << Mapping{CAN::UNSIGNED8, CAN::REAL32} << QByteArray(8, 1)
                                                       << 8 << QVariantList{} << false;
    }
    void decodesFrames()
    {
        QFETCH(Mapping, mapping);
        QFETCH(QByteArray, data);
        QFETCH(int, length);
        QFETCH(QVariantList, values);
        QFETCH(bool, lengthError);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        RPDO pdo(0x181, mapping, &scheduler);
        QStringList order; // signals in emission order
        connect(&pdo, &RPDO::newPDOData, this, [&](const QVector<QVariant>& got) {
            order << QStringLiteral("data");
            QCOMPARE(got.size(), values.size());
            for (int i = 0; i < values.size(); ++i) {
                QCOMPARE(got[i].userType(), values[i].userType()); // int or unsigned int
                QCOMPARE(got[i], values[i]);
            }
        });
        connect(&pdo, &RPDO::newPDOError, this, [&](PDO::PdoError e) { order << QStringLiteral("error %1").arg(e); });
        const bool supported = !values.isEmpty() || mapping.isEmpty();
        if (!supported)
            QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("Currently not supported")));
        CAN::CanRxMessage rx;
        rx.message.id = 0x181;
        rx.message.length = quint8(length);
        std::copy(data.begin(), data.end(), rx.message.data);
        adapter.inject(rx);
        QStringList expected;
        if (supported)
            expected << QStringLiteral("data");
        if (lengthError)
            expected << QStringLiteral("error %1").arg(PDO::LengthMismatch); // after the data
        QCOMPARE(order, expected);
    }

    // The COB-ID set later (also with a scheduler given later) moves the
    // registration; frames of another identifier are dropped, also when
    // handed to the slot directly; a destroyed RPDO is no receiver any more.
    void cobIdRegistration()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        {
            RPDO gone(0x182, {CAN::UNSIGNED8}, &scheduler);
        }
        adapter.inject(0x182, {1}); // must not touch the dead RPDO
        RPDO pdo;
        pdo.setMapping({CAN::INTEGER16});
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        QCOMPARE(pdo.setCanScheduler(&scheduler), CAN::Ok);
        adapter.inject(0x0, {1, 2});
        QCOMPARE(dataSpy.count(), 0); // COB-ID 0 is not registered by setCanScheduler
        QCOMPARE(pdo.setCobId(0x181), CAN::Ok);
        adapter.inject(0x181, {0xfe, 0xff});
        QCOMPARE(pdo.setCobId(0x182), CAN::Ok);
        QCOMPARE(pdo.cobId(), 0x182u);
        adapter.inject(0x181, {2, 0});
        adapter.inject(0x182, {3, 0});
        pdo.newCanMessageReceived(makeRxFrame(0x181, {4, 0}));
        QCOMPARE(dataSpy.count(), 2);
        QCOMPARE(firstValue(dataSpy, 0), QVariant(-2));
        QCOMPARE(firstValue(dataSpy, 1), QVariant(3));
    }

    void framesFromTheAdapterThreadArriveInTheOwnersThread()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        RPDO pdo(0x281, {CAN::UNSIGNED16}, &scheduler);
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        QThread* receivedIn = nullptr;
        connect(&pdo, &RPDO::newPDOData, this, [&] { receivedIn = QThread::currentThread(); });
        std::thread injector([&] {
            for (int i = 0; i < 50; ++i)
                adapter.inject(0x281, {quint8(i), 0});
        });
        injector.join();
        QTRY_COMPARE_WITH_TIMEOUT(dataSpy.count(), 50, 3000);
        QCOMPARE(receivedIn, QThread::currentThread());
        for (int i = 0; i < 50; ++i)
            QCOMPARE(firstValue(dataSpy, i), QVariant(i));
    }
};

QTEST_MAIN(tst_RPDO)
#include "tst_rpdo.moc"
