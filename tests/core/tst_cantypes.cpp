#include "abstractcanadapter.h"
#include "canopenmasterclass.h"
#include "cantypes.h"

#include <QThread>
#include <QVariant>
#include <QtTest>
#include <cstddef>
#include <cstring>
#include <new>


// Emits the frame records from whatever thread calls send().
class RecordEmitter : public QObject
{
    Q_OBJECT
public:
    void send(const CAN::CanRxMessage& rx, const CAN::CanMessage& tx, CAN::CanState state)
    {
        Q_EMIT rxFrame(rx);
        Q_EMIT txFrame(tx);
        Q_EMIT stateChanged(state);
    }
Q_SIGNALS:
    void rxFrame(CAN::CanRxMessage message);
    void txFrame(CAN::CanMessage message);
    void stateChanged(CAN::CanState state);
};

namespace {
template <typename T>
bool allBytesZero(const T& value)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        if (bytes[i] != 0)
            return false;
    }
    return true;
}

CAN::CanRxMessage patternedRx()
{
    CAN::CanRxMessage rx;
    rx.timeStamp.seconds = 0x01020304;
    rx.timeStamp.microseconds = 999999;
    rx.message.id = 0x1FFFFFFF;
    rx.message.length = 64;
    for (int i = 0; i < 64; ++i)
        rx.message.data[i] = quint8(0xA0 + i);
    rx.message.rtr = false;
    rx.message.extended = true;
    rx.message.fd = true;
    rx.message.esi = true;
    rx.message.brs = true;
    rx.echo = true;
    rx.reserved = 0xCAFEF00D;
    return rx;
}
} // namespace

class tst_CanTypes : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // Must run first: nothing in this process has registered the types yet.
    void masterRegistersFrameTypesInOrder()
    {
        QCOMPARE(QMetaType::type("CAN::CanRxMessage"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("CAN::CanMessage"), int(QMetaType::UnknownType));
        QCOMPARE(QMetaType::type("CAN::CanState"), int(QMetaType::UnknownType));

        CanopenMaster master;
        const int rx = QMetaType::type("CAN::CanRxMessage");
        const int tx = QMetaType::type("CAN::CanMessage");
        const int state = QMetaType::type("CAN::CanState");
        QVERIFY(rx != QMetaType::UnknownType);
        QVERIFY(rx < tx);
        QVERIFY(tx < state);
        QCOMPARE(QMetaType::sizeOf(rx), 92);
        QCOMPARE(QMetaType::sizeOf(tx), 76);
        QCOMPARE(QMetaType::sizeOf(state), 4);

        // A second master changes nothing.
        CanopenMaster again;
        QCOMPARE(QMetaType::type("CAN::CanRxMessage"), rx);
        QCOMPARE(QMetaType::type("CAN::CanState"), state);
    }

    void layout_data()
    {
        QTest::addColumn<std::size_t>("actual");
        QTest::addColumn<std::size_t>("expected");
        QTest::newRow("sizeof CanMessage") << sizeof(CAN::CanMessage) << std::size_t(76);
        QTest::newRow("alignof CanMessage") << alignof(CAN::CanMessage) << std::size_t(4);
        QTest::newRow("id") << offsetof(CAN::CanMessage, id) << std::size_t(0);
        QTest::newRow("length") << offsetof(CAN::CanMessage, length) << std::size_t(4);
        QTest::newRow("data") << offsetof(CAN::CanMessage, data) << std::size_t(5);
        QTest::newRow("rtr") << offsetof(CAN::CanMessage, rtr) << std::size_t(69);
        QTest::newRow("extended") << offsetof(CAN::CanMessage, extended) << std::size_t(70);
        QTest::newRow("fd") << offsetof(CAN::CanMessage, fd) << std::size_t(71);
        QTest::newRow("esi") << offsetof(CAN::CanMessage, esi) << std::size_t(72);
        QTest::newRow("brs") << offsetof(CAN::CanMessage, brs) << std::size_t(73);
        QTest::newRow("tail") << offsetof(CAN::CanMessage, tail) << std::size_t(74);
        QTest::newRow("sizeof CanTimeStamp") << sizeof(CAN::CanTimeStamp) << std::size_t(8);
        QTest::newRow("seconds") << offsetof(CAN::CanTimeStamp, seconds) << std::size_t(0);
        QTest::newRow("microseconds") << offsetof(CAN::CanTimeStamp, microseconds) << std::size_t(4);
        QTest::newRow("sizeof CanRxMessage") << sizeof(CAN::CanRxMessage) << std::size_t(92);
        QTest::newRow("timeStamp") << offsetof(CAN::CanRxMessage, timeStamp) << std::size_t(0);
        QTest::newRow("message") << offsetof(CAN::CanRxMessage, message) << std::size_t(8);
        QTest::newRow("echo") << offsetof(CAN::CanRxMessage, echo) << std::size_t(84);
        QTest::newRow("reserved") << offsetof(CAN::CanRxMessage, reserved) << std::size_t(88);
        QTest::newRow("sizeof CanState") << sizeof(CAN::CanState) << std::size_t(4);
        QTest::newRow("sizeof RetType") << sizeof(CAN::RetType) << std::size_t(4);
        QTest::newRow("sizeof CANopenDataType") << sizeof(CAN::CANopenDataType) << std::size_t(4);
        QTest::newRow("getSizeOfCanStruct") << std::size_t(CanopenMaster::getSizeOfCanStruct()) << std::size_t(92);
    }
    void layout()
    {
        QFETCH(std::size_t, actual);
        QFETCH(std::size_t, expected);
        QCOMPARE(actual, expected);
    }

    // Default-initialised records (no value-initialisation) on dirty memory:
    // every byte, tails and padding included, must come out zero.
    void defaultRecordsAreAllZero()
    {
        alignas(CAN::CanRxMessage) unsigned char raw[sizeof(CAN::CanRxMessage)];

        std::memset(raw, 0xA5, sizeof raw);
        auto* tx = new (raw) CAN::CanMessage;
        QVERIFY(allBytesZero(*tx));
        QCOMPARE(tx->id, 0u);
        QCOMPARE(int(tx->length), 0);
        QVERIFY(!tx->rtr && !tx->extended && !tx->fd && !tx->esi && !tx->brs);
        tx->~CanMessage();

        std::memset(raw, 0xA5, sizeof raw);
        auto* rx = new (raw) CAN::CanRxMessage;
        QVERIFY(allBytesZero(*rx));
        QVERIFY(!rx->echo);
        rx->~CanRxMessage();

        std::memset(raw, 0xA5, sizeof raw);
        auto* ts = new (raw) CAN::CanTimeStamp;
        QVERIFY(allBytesZero(*ts));
        ts->~CanTimeStamp();
    }

    void enumValues_data()
    {
        QTest::addColumn<int>("actual");
        QTest::addColumn<int>("expected");
        QTest::newRow("Stopped") << int(CAN::Stopped) << 0;
        QTest::newRow("ErrorActive") << int(CAN::ErrorActive) << 1;
        QTest::newRow("ErrorPassive") << int(CAN::ErrorPassive) << 2;
        QTest::newRow("BusOff") << int(CAN::BusOff) << 3;
        QTest::newRow("Closed") << int(CAN::Closed) << 4;
        QTest::newRow("Ok") << int(CAN::Ok) << 0;
        QTest::newRow("Busy") << int(CAN::Busy) << 1;
        QTest::newRow("NotSupported") << int(CAN::NotSupported) << 2;
        QTest::newRow("InvalidValue") << int(CAN::InvalidValue) << 3;
        QTest::newRow("Error") << int(CAN::Error) << 5;
        QTest::newRow("TxQueueFull") << int(CAN::TxQueueFull) << 6;
        QTest::newRow("NotReady") << int(CAN::NotReady) << 7;
        QTest::newRow("BOOLEAN") << int(CAN::BOOLEAN) << 1;
        QTest::newRow("VISIBLE_STRING") << int(CAN::VISIBLE_STRING) << 9;
        QTest::newRow("TIME_DIFFERENCE") << int(CAN::TIME_DIFFERENCE) << 13;
        QTest::newRow("DOMAIN") << int(CAN::DOMAIN) << 15;
        QTest::newRow("INTEGER24") << int(CAN::INTEGER24) << 16;
        QTest::newRow("INTEGER64") << int(CAN::INTEGER64) << 21;
        QTest::newRow("UNSIGNED24") << int(CAN::UNSIGNED24) << 22;
        QTest::newRow("UNSIGNED40") << int(CAN::UNSIGNED40) << 24;
        QTest::newRow("UNSIGNED64") << int(CAN::UNSIGNED64) << 27;
    }
    void enumValues()
    {
        QFETCH(int, actual);
        QFETCH(int, expected);
        QCOMPARE(actual, expected);
    }

    // Every byte count 0..255 against the CAN FD DLC ranges.
    void lengthToDlc_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("dlc");
        struct Range { int from, to, dlc; };
        const Range ranges[] = {{9, 12, 9},  {13, 16, 10}, {17, 20, 11}, {21, 24, 12},
                                {25, 32, 13}, {33, 48, 14}, {49, 255, 15}};
        for (int n = 0; n <= 8; ++n)
            QTest::addRow("%d", n) << n << n;
        for (const Range& r : ranges) {
            for (int n = r.from; n <= r.to; ++n)
                QTest::addRow("%d", n) << n << r.dlc;
        }
    }
    void lengthToDlc()
    {
        QFETCH(int, length);
        QFETCH(int, dlc);
        QCOMPARE(int(AbstractCanAdapter::lengthToDlc(quint8(length))), dlc);
    }

    // Every code 0..255: only the low nibble counts.
    void dlcToLength_data()
    {
        QTest::addColumn<int>("dlc");
        QTest::addColumn<int>("length");
        const int lengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
        for (int code = 0; code <= 255; ++code)
            QTest::addRow("0x%02X", code) << code << lengths[code & 0x0F];
    }
    void dlcToLength()
    {
        QFETCH(int, dlc);
        QFETCH(int, length);
        QCOMPARE(int(AbstractCanAdapter::dlcToLength(quint8(dlc))), length);
    }

    // What an adapter sends: the smallest valid FD length not below the count.
    void lengthIsRoundedUpToNextFdLength_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<int>("sent");
        QTest::newRow("0") << 0 << 0;
        QTest::newRow("8") << 8 << 8;
        QTest::newRow("9") << 9 << 12;
        QTest::newRow("12") << 12 << 12;
        QTest::newRow("13") << 13 << 16;
        QTest::newRow("25") << 25 << 32;
        QTest::newRow("33") << 33 << 48;
        QTest::newRow("49") << 49 << 64;
        QTest::newRow("64") << 64 << 64;
        QTest::newRow("200") << 200 << 64;
    }
    void lengthIsRoundedUpToNextFdLength()
    {
        QFETCH(int, length);
        QFETCH(int, sent);
        QCOMPARE(int(AbstractCanAdapter::dlcToLength(AbstractCanAdapter::lengthToDlc(quint8(length)))), sent);
    }

    void recordsTravelInQVariant()
    {
        CanopenMaster master;
        const CAN::CanRxMessage rx = patternedRx();
        const QVariant v = QVariant::fromValue(rx);
        QCOMPARE(v.userType(), QMetaType::type("CAN::CanRxMessage"));
        QVERIFY(v.canConvert<CAN::CanRxMessage>());
        const CAN::CanRxMessage back = v.value<CAN::CanRxMessage>();
        QCOMPARE(std::memcmp(&back, &rx, sizeof rx), 0);

        const QVariant tv = QVariant::fromValue(rx.message);
        QCOMPARE(tv.userType(), QMetaType::type("CAN::CanMessage"));
        const CAN::CanMessage tx = tv.value<CAN::CanMessage>();
        QCOMPARE(std::memcmp(&tx, &rx.message, sizeof tx), 0);

        const QVariant sv = QVariant::fromValue(CAN::BusOff);
        QCOMPARE(sv.value<CAN::CanState>(), CAN::BusOff);
    }

    // From a worker thread to this one through queued connections: the
    // records arrive whole, in the receiver's thread.
    void recordsTravelThroughQueuedConnections()
    {
        CanopenMaster master;
        RecordEmitter emitter;
        QObject context;
        CAN::CanRxMessage gotRx;
        CAN::CanMessage gotTx;
        CAN::CanState gotState = CAN::Stopped;
        QThread* rxThread = nullptr;
        int arrived = 0;
        connect(&emitter, &RecordEmitter::rxFrame, &context, [&](CAN::CanRxMessage m) {
            gotRx = m;
            rxThread = QThread::currentThread();
            ++arrived;
        }, Qt::QueuedConnection);
        connect(&emitter, &RecordEmitter::txFrame, &context, [&](CAN::CanMessage m) {
            gotTx = m;
            ++arrived;
        }, Qt::QueuedConnection);
        connect(&emitter, &RecordEmitter::stateChanged, &context, [&](CAN::CanState s) {
            gotState = s;
            ++arrived;
        }, Qt::QueuedConnection);

        const CAN::CanRxMessage rx = patternedRx();
        CAN::CanMessage tx = rx.message;
        tx.id = 0x7FF;
        QScopedPointer<QThread> worker(QThread::create([&] { emitter.send(rx, tx, CAN::ErrorPassive); }));
        worker->start();
        QVERIFY(worker->wait(5000));
        QTRY_COMPARE_WITH_TIMEOUT(arrived, 3, 5000);
        QCOMPARE(rxThread, QThread::currentThread());
        QCOMPARE(std::memcmp(&gotRx, &rx, sizeof rx), 0);
        QCOMPARE(std::memcmp(&gotTx, &tx, sizeof tx), 0);
        QCOMPARE(gotState, CAN::ErrorPassive);
    }
};

QTEST_GUILESS_MAIN(tst_CanTypes)
#include "tst_cantypes.moc"
