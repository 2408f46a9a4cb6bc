#include "canopenmasterclass.h"
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
        mSocat.terminate();
        mSocat.waitForFinished(2000);
    }
    bool start()
    {
        static int counter = 0; // unique names: the serial port's lock file is named after the link
        const QString tag = QStringLiteral("gc%1x%2").arg(QCoreApplication::applicationPid()).arg(++counter);
        mAdapterPath = mDir.filePath(tag + QStringLiteral("a"));
        const QString devicePath = mDir.filePath(tag + QStringLiteral("d"));
        mSocat.start(QStringLiteral("socat"), {QStringLiteral("pty,raw,echo=0,link=") + mAdapterPath,
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
    void send(const QByteArray& bytes) { [[maybe_unused]] ssize_t n = ::write(mDeviceFd, bytes.constData(), size_t(bytes.size())); }
    // What the adapter wrote, once `size` bytes are in or the time is up.
    QByteArray read(int size, int timeoutMs = 3000)
    {
        QElapsedTimer t;
        t.start();
        while (mData.size() < size && t.elapsed() < timeoutMs) {
            pollfd pfd{mDeviceFd, POLLIN, 0};
            char buf[4096];
            const ssize_t n = ::poll(&pfd, 1, 10) > 0 ? ::read(mDeviceFd, buf, sizeof buf) : 0;
            mData.append(buf, int(qMax<ssize_t>(n, 0)));
        }
        const QByteArray out = mData.left(size);
        mData.remove(0, out.size());
        return out;
    }

private:
    QTemporaryDir mDir;
    QProcess mSocat;
    QString mAdapterPath;
    int mDeviceFd = -1;
    QByteArray mData;
};

class tst_GridConnectUSBCanAdapter : public QObject
{
    Q_OBJECT
    // The device behind `pty` opened by `adapter` and configured.
    static bool openConfigured(PtyPair& pty, G& adapter)
    {
        QByteArray config;
        for (const QByteArray& line : G::configurationLines())
            config += line;
        return adapter.open() == CAN::Ok && pty.read(config.size()) == config;
    }

private Q_SLOTS:
    void initTestCase() { CanopenMaster master; }
    void init()
    {
        if (QString(QTest::currentTestFunction()) != QLatin1String("lines")
            && QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty())
            QSKIP("socat is not installed");
    }

    // A frame and its transmit line, and/or a receive line and what it gives.
    void lines_data()
    {
        QTest::addColumn<CAN::CanMessage>("frame");
        QTest::addColumn<QByteArray>("txLine"); // empty: not formatted
        QTest::addColumn<QByteArray>("rxLine"); // empty: not parsed
        QTest::addColumn<bool>("taken");
        QTest::newRow("no data") << makeFrame(0x5, {}) << QByteArray("|S005N;\r\n") << QByteArray(":S005N;\n") << true;
        QTest::newRow("digits 0-9 a-f") << makeFrame(0x90a, {0x0f, 0x9a}) << QByteArray("|S90aN0f9a;\r\n")
                                        << QByteArray(":S90aN0f9a;\n") << true;
        QTest::newRow("upper case A-F") << makeFrame(0xAF0, {0xFA}) << QByteArray() << QByteArray(":SAF0NFA;\n") << true;
        CAN::CanMessage remote = makeFrame(0x5, {0x01, 0x02});
        remote.rtr = true;
        QTest::newRow("remote frame: no data") << remote << QByteArray("|S005N;\r\n") << QByteArray() << true;
        CAN::CanMessage extended = makeFrame(0x1234567, {0x10});
        extended.extended = extended.fd = true;
        QTest::newRow("29-bit id: more digits, flags not encoded") << extended << QByteArray("|S1234567N10;\r\n")
                                                                    << QByteArray() << true;
        QTest::newRow("eight bytes") << makeFrame(0x181, {0, 1, 2, 3, 4, 5, 6, 0xFF})
                                     << QByteArray("|S181N00010203040506ff;\r\n")
                                     << QByteArray(":S181N00010203040506ff;\n") << true;
        QTest::newRow("CR LF adds a zero byte") << makeFrame(0x123, {0x11, 0x22, 0}) << QByteArray()
                                                << QByteArray(":S123N1122;\r\n") << true;
        QTest::newRow("bad characters read 0") << makeFrame(0, {0, 0, 0, 0xa5}) << QByteArray()
                                               << QByteArray(":Sg/GN:/`G@ga5;\n") << true;
        QTest::newRow("cut at NUL") << makeFrame(0x123, {}) << QByteArray()
                                    << QByteArray(":S123N11\0" "2233445566;\n", 21) << true;
        QTest::newRow("short but taken") << makeFrame(0, {}) << QByteArray() << QByteArray(":S1\n") << true;
        QTest::newRow("3 characters") << CAN::CanMessage() << QByteArray() << QByteArray(":S\n") << false;
        QTest::newRow("no colon") << CAN::CanMessage() << QByteArray() << QByteArray("S123N11;\n") << false;
        QTest::newRow("NUL first") << CAN::CanMessage() << QByteArray() << QByteArray("\0:S123N11;\n", 11) << false;
        CAN::CanMessage full;
        full.id = 0x123;
        full.length = 64;
        std::fill(full.data, full.data + 64, 0xFF);
        QTest::newRow("at most 64 bytes") << full << QByteArray() << ":S123N" + QByteArray(194, 'f') << true;
    }
    void lines()
    {
        QFETCH(CAN::CanMessage, frame);
        QFETCH(QByteArray, txLine);
        QFETCH(QByteArray, rxLine);
        QFETCH(bool, taken);
        if (!txLine.isEmpty())
            QCOMPARE(G::formatTransmitLine(frame), txLine);
        if (rxLine.isEmpty())
            return;
        CAN::CanRxMessage record;
        record.message.rtr = record.message.extended = record.message.fd = record.message.esi = true;
        QCOMPARE(G::parseReceiveLine(rxLine, record), taken);
        if (!taken)
            return;
        frame.rtr = false;
        QCOMPARE(frameHex(record.message), frameHex(frame));
        QVERIFY(!record.message.rtr && !record.message.extended && !record.message.fd && !record.message.esi);
    }

    void overAPseudoTerminal()
    {
        PtyPair pty;
        QVERIFY(pty.start());
        G adapter(pty.adapterPath());
        FrameCollector frames(&adapter);
        QVERIFY(openConfigured(pty, adapter));
        CAN::CanMessage a = makeFrame(0x5, {0x01, 0x02}), b = makeFrame(0x7FF, {});
        QCOMPARE(adapter.write(&a), CAN::Ok);
        QCOMPARE(adapter.write(&b), CAN::Ok);
        const QByteArray lines("|S005N0102;\r\n|S7ffN;\r\n");
        QCOMPARE(pty.read(lines.size()), lines);
        // The loop first throws away what is buffered: probe until a frame arrives.
        QElapsedTimer t;
        t.start();
        while (frames.count() == 0 && t.elapsed() < 5000) {
            pty.send(":S001N;\n");
            QTest::qWait(30);
        }
        QTest::qWait(30); // late probes
        frames.clear();
        // Dropped lines leave no trace; garbage without line ends cannot stall the loop.
        pty.send(":S7FFN;\nxx\nS123N11;\n:S0aaN0102030405060708;\n" + QByteArray(300, 'z') + "\n:S222N;\n");
        QTRY_VERIFY_WITH_TIMEOUT(frames.find(0x222), 3000);
        const QVector<CAN::CanRxMessage> rx = frames.frames();
        QCOMPARE(frameHex(rx.first().message), QByteArray("7ff:"));
        QCOMPARE(frameHex(rx.at(1).message), QByteArray("aa:0102030405060708"));
        QCOMPARE(rx.at(1).echo, false);
        // close() ends the loop; nothing is read afterwards; opened again: configured again.
        adapter.close();
        QVERIFY(!adapter.isRunning());
        const int before = frames.count();
        pty.send(":S123N11;\n");
        QTest::qWait(50);
        QCOMPARE(frames.count(), before);
        QVERIFY(openConfigured(pty, adapter));
        adapter.close();
    }

    void concurrentWritersNeverInterleave()
    {
        PtyPair pty;
        QVERIFY(pty.start());
        G adapter(pty.adapterPath());
        QVERIFY(openConfigured(pty, adapter));
        constexpr int Threads = 4, PerThread = 200;
        std::vector<std::thread> writers;
        for (int w = 0; w < Threads; ++w) {
            writers.emplace_back([&adapter, w] {
                for (int i = 0; i < PerThread; ++i) {
                    CAN::CanMessage m = makeFrame(0x100 + quint32(w), {quint8(i), 0x5A, 0xA5, quint8(w)});
                    adapter.write(&m);
                }
            });
        }
        // Each line is "|S10wN" + 8 digits + ";\r\n": 17 bytes.
        const QList<QByteArray> lines = pty.read(Threads * PerThread * 17, 10000).split('\n');
        for (std::thread& t : writers)
            t.join();
        QCOMPARE(lines.size(), Threads * PerThread + 1); // and an empty tail
        int next[Threads] = {};
        for (int k = 0; k < Threads * PerThread; ++k) {
            const int w = qBound(0, lines[k].mid(4, 1).toInt(), Threads - 1);
            const QByteArray expected = QStringLiteral("|S10%1N%2").arg(w).arg(next[w]++ & 0xFF, 2, 16, QLatin1Char('0')).toLatin1()
                + "5aa50" + QByteArray::number(w) + ";\r";
            QCOMPARE(lines[k], expected); // whole, and in each writer's order
        }
        adapter.close();
    }
};

QTEST_MAIN(tst_GridConnectUSBCanAdapter)
#include "tst_gridconnectusbcanadapter.moc"
