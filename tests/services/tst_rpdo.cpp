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
CAN::CanRxMessage frameOf(quint32 id, const QByteArray& data, int length)
{
    CAN::CanRxMessage rx;
    rx.message.id = id;
    rx.message.length = quint8(length);
    for (int i = 0; i < data.size() && i < 64; ++i)
        rx.message.data[i] = quint8(data[i]);
    return rx;
}

// Signals of one RPDO in emission order: "data" or "error <n>".
struct Recorder : QObject {
    QStringList order;
    explicit Recorder(RPDO* pdo)
    {
        connect(pdo, &RPDO::newPDOData, this, [this] { order << QStringLiteral("data"); });
        connect(pdo, &RPDO::newPDOError, this, [this](PDO::PdoError e) {
            order << QStringLiteral("error %1").arg(int(e));
        });
    }
};
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
        QTest::addColumn<QVariantList>("values");
        QTest::addColumn<bool>("lengthError");

        const Mapping u16i8{CAN::UNSIGNED16, CAN::INTEGER8};
        QTest::newRow("u16 i8, exact") << u16i8 << QByteArray::fromHex("3412ff") << 3
                                       << QVariantList{0x1234, -1} << false;
        QTest::newRow("u16 i8, frame too short: missing byte is 0")
            << u16i8 << QByteArray::fromHex("3412") << 2 << QVariantList{0x1234, 0} << true;
        QTest::newRow("u16 i8, frame too long") << u16i8 << QByteArray::fromHex("3412ff01") << 4
                                                << QVariantList{0x1234, -1} << true;
        QTest::newRow("empty mapping, empty frame") << Mapping{} << QByteArray() << 0 << QVariantList{} << false;
        QTest::newRow("empty mapping, 1 byte") << Mapping{} << QByteArray(1, 'x') << 1 << QVariantList{} << true;

        QTest::newRow("i8 sign") << Mapping{CAN::INTEGER8, CAN::INTEGER8} << QByteArray::fromHex("807f") << 2
                                 << QVariantList{-128, 127} << false;
        QTest::newRow("i16 sign") << Mapping{CAN::INTEGER16, CAN::INTEGER16} << QByteArray::fromHex("0080ff7f")
                                  << 4 << QVariantList{-32768, 32767} << false;
        QTest::newRow("i32 sign") << Mapping{CAN::INTEGER32, CAN::INTEGER32}
                                  << QByteArray::fromHex("00000080feffffff") << 8
                                  << QVariantList{int(0x80000000u), -2} << false;
        QTest::newRow("u8 u16 stay positive") << Mapping{CAN::UNSIGNED8, CAN::UNSIGNED16}
                                              << QByteArray::fromHex("ffffff") << 3
                                              << QVariantList{255, 65535} << false;
        QTest::newRow("u32 full range") << Mapping{CAN::UNSIGNED32, CAN::UNSIGNED32}
                                        << QByteArray::fromHex("ffffffff78563412") << 8
                                        << QVariantList{4294967295u, 0x12345678u} << false;
        QTest::newRow("mixed, byte positions")
            << Mapping{CAN::UNSIGNED8, CAN::INTEGER32, CAN::UNSIGNED16, CAN::INTEGER8}
            << QByteArray::fromHex("01efcdab89bbaafe") << 8 << QVariantList{1, int(0x89abcdefu), 0xaabb, -2}
            << false;
        // FD frame: a 64-byte mapping, length 64.
        Mapping sixteen(16, CAN::UNSIGNED32);
        QByteArray bytes64;
        QVariantList values16;
        for (int i = 0; i < 16; ++i) {
            bytes64 += QByteArray::fromHex(QByteArray::number(i + 1, 16).rightJustified(2, '0') + "000000");
            values16 << uint(i + 1);
        }
        QTest::newRow("64 bytes") << sixteen << bytes64 << 64 << values16 << false;
        // Mapped past the 64 data bytes: the rest reads as 0, nothing beyond is read.
        Mapping seventeen(17, CAN::UNSIGNED32);
        QVariantList values17 = values16;
        values17 << 0u;
        QTest::newRow("mapped past 64 bytes") << seventeen << bytes64 << 64 << values17 << true;
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
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        QSignalSpy errorSpy(&pdo, &RPDO::newPDOError);
        Recorder order(&pdo);
        adapter.inject(frameOf(0x181, data, length));

        QCOMPARE(dataSpy.count(), 1);
        const QVector<QVariant> got = dataSpy.at(0).at(0).value<QVector<QVariant>>();
        QCOMPARE(got.size(), values.size());
        for (int i = 0; i < values.size(); ++i) {
            QCOMPARE(got[i].userType(), values[i].userType()); // int or unsigned int
            QCOMPARE(got[i], values[i]);
        }
        QCOMPARE(errorSpy.count(), lengthError ? 1 : 0);
        if (lengthError) {
            QCOMPARE(errorSpy.at(0).at(0).value<PDO::PdoError>(), PDO::LengthMismatch);
            QCOMPARE(order.order, (QStringList{"data", "error 1"})); // the data comes first
        }
    }

    void unsupportedTypeEmitsNothing_data()
    {
        QTest::addColumn<Mapping>("mapping");
        QTest::newRow("BOOLEAN") << Mapping{CAN::BOOLEAN};
        QTest::newRow("REAL32 after u8") << Mapping{CAN::UNSIGNED8, CAN::REAL32};
        QTest::newRow("INTEGER64") << Mapping{CAN::INTEGER64};
        QTest::newRow("type 0") << Mapping{CAN::CANopenDataType(0)};
        QTest::newRow("type 28") << Mapping{CAN::CANopenDataType(28)};
    }
    void unsupportedTypeEmitsNothing()
    {
        QFETCH(Mapping, mapping);
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        RPDO pdo(0x181, mapping, &scheduler);
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        QSignalSpy errorSpy(&pdo, &RPDO::newPDOError);
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("Currently not supported")));
        adapter.inject(0x181, {1, 2, 3, 4, 5, 6, 7, 8});
        QCOMPARE(dataSpy.count(), 0);
        QCOMPARE(errorSpy.count(), 0);
        QTest::ignoreMessage(QtDebugMsg, QRegularExpression(QStringLiteral("Currently not supported")));
        QCOMPARE(pdo.mappedLength(), 0);
    }

    void mappedLengthSumsTheTypes()
    {
        RPDO pdo;
        QCOMPARE(pdo.mappedLength(), 0);
        QCOMPARE(pdo.setMapping({CAN::UNSIGNED8, CAN::INTEGER16, CAN::UNSIGNED32, CAN::INTEGER8}), CAN::Ok);
        QCOMPARE(pdo.mappedLength(), 8);
    }

    void setCobIdMovesTheRegistration()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        RPDO pdo(0x181, {CAN::UNSIGNED8}, &scheduler);
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        adapter.inject(0x181, {1});
        QCOMPARE(dataSpy.count(), 1);
        QCOMPARE(pdo.setCobId(0x182), CAN::Ok);
        QCOMPARE(pdo.cobId(), 0x182u);
        adapter.inject(0x181, {2});
        QCOMPARE(dataSpy.count(), 1);
        adapter.inject(0x182, {3});
        QCOMPARE(dataSpy.count(), 2);
        QCOMPARE(dataSpy.at(1).at(0).value<QVector<QVariant>>().at(0), QVariant(3));
        // A frame handed to the slot with another identifier is dropped.
        pdo.newCanMessageReceived(makeRxFrame(0x181, {4}));
        QCOMPARE(dataSpy.count(), 2);
    }

    void schedulerGivenLaterRegistersAtSetCobId()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        RPDO pdo;
        pdo.setMapping({CAN::INTEGER16});
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        QCOMPARE(pdo.setCanScheduler(&scheduler), CAN::Ok);
        adapter.inject(0x0, {1, 2});
        QCOMPARE(dataSpy.count(), 0); // COB-ID 0 is not registered by setCanScheduler
        QCOMPARE(pdo.setCobId(0x201), CAN::Ok);
        adapter.inject(0x201, {0xfe, 0xff});
        QCOMPARE(dataSpy.count(), 1);
        QCOMPARE(dataSpy.at(0).at(0).value<QVector<QVariant>>().at(0), QVariant(-2));
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
            QCOMPARE(dataSpy.at(i).at(0).value<QVector<QVariant>>().at(0), QVariant(i));
    }

    void destructionUnregisters()
    {
        RecordingCanAdapter adapter;
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        {
            RPDO pdo(0x181, {CAN::UNSIGNED8}, &scheduler);
        }
        adapter.inject(0x181, {1}); // no receiver left: must not touch the dead RPDO
        RPDO pdo(0x182, {CAN::UNSIGNED8}, &scheduler);
        QSignalSpy dataSpy(&pdo, &RPDO::newPDOData);
        adapter.inject(0x182, {1});
        QCOMPARE(dataSpy.count(), 1);
    }
};

QTEST_MAIN(tst_RPDO)
#include "tst_rpdo.moc"
