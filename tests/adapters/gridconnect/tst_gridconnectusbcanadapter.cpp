#include "canopenmasterclass.h"
#include "canscheduler.h"
#include "cansender.h"
#include "framecollector.h"
#include "gridconnectusbcanadapter.h"
#include "recordingcanadapter.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

using G = GridConnectUSBCanAdapter;

// A pseudo-terminal pair joined by socat: the adapter opens one end, the
// test plays the device on the other (a plain file descriptor).
class PtyPair
{
public:
    ~PtyPair()
    {
        if (mDeviceFd >= 0)
            ::close(mDeviceFd);
        if (mSocat.state() != QProcess::NotRunning) {
            mSocat.terminate();
            mSocat.waitForFinished(2000);
        }
    }
    bool start()
    {
        if (!mDir.isValid())
            return false;
        // Unique names: the serial port's lock file is named after the link.
        static int counter = 0;
        const QString tag = QStringLiteral("gc%1x%2").arg(QCoreApplication::applicationPid()).arg(++counter);
        mAdapterPath = mDir.filePath(tag + QStringLiteral("a"));
        const QString devicePath = mDir.filePath(tag + QStringLiteral("d"));
        mSocat.start(QStringLiteral("socat"),
                     {QStringLiteral("pty,raw,echo=0,link=") + mAdapterPath,
                      QStringLiteral("pty,raw,echo=0,link=") + devicePath});
        QElapsedTimer t;
        t.start();
        while (!(QFileInfo::exists(mAdapterPath) && QFileInfo::exists(devicePath))) {
            if (t.elapsed() > 5000 || mSocat.state() == QProcess::NotRunning)
                return false;
            QThread::msleep(5);
        }
        mDeviceFd = ::open(QFile::encodeName(devicePath).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        return mDeviceFd >= 0;
    }
    QString adapterPath() const { return mAdapterPath; }

    void send(const QByteArray& bytes)
    {
        [[maybe_unused]] ssize_t n = ::write(mDeviceFd, bytes.constData(), size_t(bytes.size()));
    }
    // What the adapter wrote, once `size` bytes are in or the time is up.
    QByteArray read(int size, int timeoutMs = 3000)
    {
        QElapsedTimer t;
        t.start();
        while (mData.size() < size && t.elapsed() < timeoutMs)
            readSome(20);
        return takeData(size);
    }
    // Whatever arrives within `ms`.
    QByteArray readFor(int ms)
    {
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < ms)
            readSome(10);
        return takeData(mData.size());
    }

private:
    void readSome(int waitMs)
    {
        pollfd pfd{mDeviceFd, POLLIN, 0};
        if (::poll(&pfd, 1, waitMs) <= 0)
            return;
        char buf[4096];
        const ssize_t n = ::read(mDeviceFd, buf, sizeof buf);
        if (n > 0)
            mData.append(buf, int(n));
    }
    QByteArray takeData(int size)
    {
        const QByteArray out = mData.left(size);
        mData.remove(0, out.size());
        return out;
    }

    QTemporaryDir mDir;
    QProcess mSocat;
    QString mAdapterPath;
    int mDeviceFd = -1;
    QByteArray mData;
};

class tst_GridConnectUSBCanAdapter : public QObject
{
    Q_OBJECT
private:
    static QByteArray configuration()
    {
        QByteArray all;
        for (const QByteArray& line : G::configurationLines())
            all += line;
        return all;
    }
    // After open(), the loop first throws away what is buffered: send a
    // probe until one arrives, so that later lines surely reach the loop.
    static bool loopIsReading(PtyPair& pty, FrameCollector& frames)
    {
        QElapsedTimer t;
        t.start();
        while (frames.count() == 0 && t.elapsed() < 5000) {
            pty.send(":S001N;\n");
            QThread::msleep(30);
        }
        const bool ok = frames.count() > 0;
        QThread::msleep(30); // late probes
        frames.clear();
        return ok;
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }

    void transmitLines_data()
    {
        QTest::addColumn<CAN::CanMessage>("frame");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("id 5, two bytes") << makeFrame(0x5, {0x01, 0x02}) << QByteArray("|S005N0102;\r\n");
        QTest::newRow("no data") << makeFrame(0x5, {}) << QByteArray("|S005N;\r\n");
        CAN::CanMessage remote = makeFrame(0x5, {0x01, 0x02});
        remote.rtr = true;
        QTest::newRow("remote frame: no data") << remote << QByteArray("|S005N;\r\n");
        QTest::newRow("lower-case hex") << makeFrame(0x7FF, {0xAB, 0xCD, 0xEF}) << QByteArray("|S7ffNabcdef;\r\n");
        QTest::newRow("eight bytes")
            << makeFrame(0x181, {0, 1, 2, 3, 4, 5, 6, 0xFF}) << QByteArray("|S181N00010203040506ff;\r\n");
        CAN::CanMessage extended = makeFrame(0x1234567, {0x10});
        extended.extended = true;
        extended.fd = true;
        QTest::newRow("29-bit id: more digits, flags not encoded") << extended << QByteArray("|S1234567N10;\r\n");
    }
    void transmitLines()
    {
        QFETCH(CAN::CanMessage, frame);
        QFETCH(QByteArray, line);
        QCOMPARE(G::formatTransmitLine(frame), line);
    }

    void receiveLines_data()
    {
        QTest::addColumn<QByteArray>("line");
        QTest::addColumn<bool>("taken");
        QTest::addColumn<quint32>("id");
        QTest::addColumn<QByteArray>("data");
        QTest::newRow("no data, LF") << QByteArray(":S7FFN;\n") << true << 0x7FFu << QByteArray();
        QTest::newRow("two bytes, LF") << QByteArray(":S123N1122;\n") << true << 0x123u << QByteArray("\x11\x22");
        QTest::newRow("CR LF adds a zero byte")
            << QByteArray(":S123N1122;\r\n") << true << 0x123u << QByteArray("\x11\x22\x00", 3);
        QTest::newRow("lower case") << QByteArray(":S7ffNab;\n") << true << 0x7FFu << QByteArray("\xab");
        QTest::newRow("bad pair reads 0") << QByteArray(":S100NzzA5;\n") << true << 0x100u << QByteArray("\x00\xa5", 2);
        QTest::newRow("bad identifier reads 0") << QByteArray(":SxyzN01;\n") << true << 0u << QByteArray("\x01");
        QTest::newRow("cut at NUL") << QByteArray(":S123N11\0" "2233445566;\n", 21) << true << 0x123u << QByteArray();
        QTest::newRow("short but taken") << QByteArray(":S1\n") << true << 0u << QByteArray();
        QTest::newRow("3 characters") << QByteArray(":S\n") << false << 0u << QByteArray();
        QTest::newRow("no colon") << QByteArray("S123N11;\n") << false << 0u << QByteArray();
        QTest::newRow("NUL first") << QByteArray("\0:S123N11;\n", 11) << false << 0u << QByteArray();
        QByteArray longLine = ":S123N" + QByteArray(94, 'f');
        QTest::newRow("100 characters") << longLine << true << 0x123u << QByteArray(46, char(0xFF));
    }
    void receiveLines()
    {
        QFETCH(QByteArray, line);
        QFETCH(bool, taken);
        QFETCH(quint32, id);
        QFETCH(QByteArray, data);
        CAN::CanRxMessage record;
        record.message.rtr = record.message.extended = record.message.fd = record.message.esi = true;
        QCOMPARE(G::parseReceiveLine(line, record), taken);
        if (!taken)
            return;
        QCOMPARE(record.message.id, id);
        QCOMPARE(frameData(record.message), data);
        QCOMPARE(record.message.rtr, false);
        QCOMPARE(record.message.extended, false);
        QCOMPARE(record.message.fd, false);
        QCOMPARE(record.message.esi, false);
    }

    void recordIsReused()
    {
        CAN::CanRxMessage record;
        QVERIFY(G::parseReceiveLine(":S123N11223344;\n", record));
        QVERIFY(G::parseReceiveLine(":S124N55;\n", record));
        QCOMPARE(int(record.message.length), 1);
        QCOMPARE(int(record.message.data[0]), 0x55);
        QCOMPARE(int(record.message.data[1]), 0x22); // beyond the length: left from before
    }

    void overAPseudoTerminal()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty())
            QSKIP("socat is not installed");
        PtyPair pty;
        QVERIFY(pty.start());
        G adapter(pty.adapterPath());
        FrameCollector frames(&adapter);

        // Frames reach the dispatcher through the base class's signal.
        CanScheduler scheduler(&adapter);
        scheduler.connectToAdapter(true);
        CanSender* sender = scheduler.registerCanId(0x123);
        int dispatched = 0;
        connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received), this,
                [&dispatched](CAN::CanRxMessage) { ++dispatched; }, Qt::QueuedConnection);

        // The device is configured for 125 kbit/s whatever was set.
        QCOMPARE(adapter.setBitrate(500), CAN::Ok);
        QCOMPARE(adapter.getBitrate(), quint16(0));
        QCOMPARE(adapter.open(), CAN::Ok);
        const QByteArray config = configuration();
        QCOMPARE(pty.read(config.size()), config);

        // Transmit lines, byte for byte.
        CAN::CanMessage a = makeFrame(0x5, {0x01, 0x02}), b = makeFrame(0x7FF, {}), c = makeFrame(0x181, {0xAB});
        QCOMPARE(adapter.write(&a), CAN::Ok);
        QCOMPARE(adapter.write(&b), CAN::Ok);
        QCOMPARE(adapter.write(&c), CAN::Ok);
        const QByteArray lines("|S005N0102;\r\n|S7ffN;\r\n|S181Nab;\r\n");
        QCOMPARE(pty.read(lines.size()), lines);

        // Received lines become frames; dropped lines leave no trace.
        QVERIFY(loopIsReading(pty, frames));
        pty.send(":S7FFN;\n:S123N1122;\r\nxx\nS123N11;\n:S0aaN0102030405060708;\n");
        QTRY_COMPARE_WITH_TIMEOUT(frames.count(), 3, 3000);
        const QVector<CAN::CanRxMessage> rx = frames.frames();
        QCOMPARE(rx[0].message.id, 0x7FFu);
        QCOMPARE(int(rx[0].message.length), 0);
        QCOMPARE(rx[1].message.id, 0x123u);
        QCOMPARE(frameData(rx[1].message), QByteArray("\x11\x22\x00", 3));
        QCOMPARE(rx[2].message.id, 0x0AAu);
        QCOMPARE(frameData(rx[2].message), QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08"));
        QCOMPARE(rx[2].timeStamp.seconds, 0u);
        QCOMPARE(rx[2].echo, false);
        QTRY_COMPARE_WITH_TIMEOUT(dispatched, 1, 3000);

        // Garbage without line ends cannot stall the loop.
        pty.send(QByteArray(300, 'z') + "\n:S222N;\n");
        QTRY_VERIFY_WITH_TIMEOUT(!frames.frames().isEmpty() && frames.frames().last().message.id == 0x222u, 3000);

        // close() ends the loop promptly; nothing is read afterwards.
        QElapsedTimer t;
        t.start();
        adapter.close();
        QVERIFY(t.elapsed() < 2000);
        QVERIFY(!adapter.isRunning());
        const int before = frames.count();
        pty.send(":S123N11;\n");
        QTest::qWait(50);
        QCOMPARE(frames.count(), before);
        QCOMPARE(adapter.write(&a), CAN::Ok); // always Ok, goes nowhere
        QCOMPARE(pty.readFor(50), QByteArray());

        // Opened again: configured again.
        QCOMPARE(adapter.open(), CAN::Ok);
        QCOMPARE(pty.read(config.size()), config);
        adapter.close();
    }

    void concurrentWritersNeverInterleave()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty())
            QSKIP("socat is not installed");
        PtyPair pty;
        QVERIFY(pty.start());
        G adapter(pty.adapterPath());
        QCOMPARE(adapter.open(), CAN::Ok);
        const QByteArray config = configuration();
        QCOMPARE(pty.read(config.size()), config);

        constexpr int Threads = 4, PerThread = 200;
        std::atomic<int> failures{0};
        std::vector<std::thread> writers;
        for (int w = 0; w < Threads; ++w) {
            writers.emplace_back([&adapter, &failures, w] {
                for (int i = 0; i < PerThread; ++i) {
                    CAN::CanMessage m = makeFrame(0x100 + quint32(w), {quint8(i), 0x5A, 0xA5, quint8(w)});
                    if (adapter.write(&m) != CAN::Ok)
                        ++failures;
                }
            });
        }
        // Each line is "|S10wN" + 8 digits + ";\r\n": 17 bytes.
        const QByteArray all = pty.read(Threads * PerThread * 17, 10000);
        for (std::thread& t : writers)
            t.join();
        QCOMPARE(failures.load(), 0);
        const QList<QByteArray> lines = all.split('\n');
        QCOMPARE(lines.size(), Threads * PerThread + 1); // and an empty tail
        int next[Threads] = {};
        for (int k = 0; k < Threads * PerThread; ++k) {
            const QByteArray& line = lines[k];
            QCOMPARE(line.size(), 16);
            const int w = line.mid(4, 1).toInt();
            QVERIFY(w >= 0 && w < Threads);
            const QByteArray expected = QStringLiteral("|S10%1N%2").arg(w).arg(next[w] & 0xFF, 2, 16, QLatin1Char('0')).toLatin1()
                + "5aa5" + QByteArray::number(w).rightJustified(2, '0') + ";\r";
            QCOMPARE(line, expected); // whole, and in each writer's order
            ++next[w];
        }
        adapter.close();
    }
};

QTEST_MAIN(tst_GridConnectUSBCanAdapter)
#include "tst_gridconnectusbcanadapter.moc"
