#include "signalwatcher.h"

#include <QSignalSpy>
#include <QtTest>
#include <csignal>

class tst_SignalWatcher : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void deliversTheSignalInTheOwnersThread_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGUSR1") << int(SIGUSR1);
        QTest::newRow("SIGUSR2") << int(SIGUSR2);
    }
    void deliversTheSignalInTheOwnersThread()
    {
        QFETCH(int, signalNumber);
        SignalWatcher watcher({SIGUSR1, SIGUSR2});
        QVERIFY(watcher.isValid());
        QSignalSpy spy(&watcher, &SignalWatcher::signalReceived);
        QThread* receivedIn = nullptr;
        connect(&watcher, &SignalWatcher::signalReceived, this, [&receivedIn]() { receivedIn = QThread::currentThread(); });
        ::raise(signalNumber);
        QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
        QCOMPARE(spy.at(0).at(0).toInt(), signalNumber);
        QCOMPARE(receivedIn, QThread::currentThread());

        // One-shot: a second signal of the same kind takes its default
        // action (a second Ctrl-C ends a program that hangs while stopping).
        struct sigaction now = {};
        QCOMPARE(::sigaction(signalNumber, nullptr, &now), 0);
        QVERIFY(now.sa_handler == SIG_DFL);
    }

    void quitOnTerminationEndsTheEventLoop()
    {
        SignalWatcher* watcher = SignalWatcher::quitOnTermination(this);
        QVERIFY(watcher->isValid());
        bool watchdogFired = false;
        QTimer::singleShot(0, []() { ::raise(SIGTERM); });
        QTimer::singleShot(10000, [&watchdogFired]() {
            watchdogFired = true;
            QCoreApplication::quit();
        });
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(!watchdogFired);
        delete watcher;
    }
};

QTEST_GUILESS_MAIN(tst_SignalWatcher)
#include "tst_signalwatcher.moc"
