#include "signalwatcher.h"

#include <QSignalSpy>
#include <QtTest>
#include <csignal>

class tst_SignalWatcher : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void deliversTheSignalInTheOwnersThread()
    {
        SignalWatcher watcher({SIGUSR1, SIGUSR2}); // (quitOnTermination: see tst_cosim, SIGTERM)
        QVERIFY(watcher.isValid());
        QSignalSpy spy(&watcher, &SignalWatcher::signalReceived);
        QThread* receivedIn = nullptr;
        connect(&watcher, &SignalWatcher::signalReceived, this, [&receivedIn]() { receivedIn = QThread::currentThread(); });
        ::raise(SIGUSR2);
        QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, 2000);
        QCOMPARE(spy.at(0).at(0).toInt(), SIGUSR2);
        QCOMPARE(receivedIn, QThread::currentThread());

        // One-shot: a second signal of the same kind takes its default
        // action (a second Ctrl-C ends a program that hangs while stopping).
        struct sigaction now = {};
        QCOMPARE(::sigaction(SIGUSR2, nullptr, &now), 0);
        QVERIFY(now.sa_handler == SIG_DFL);
    }
};

QTEST_GUILESS_MAIN(tst_SignalWatcher)
#include "tst_signalwatcher.moc"
