#ifndef SIGNALWATCHER_H
#define SIGNALWATCHER_H

#include <QObject>
#include <QList>

class QSocketNotifier;

// Turns POSIX signals (SIGINT, SIGTERM, ...) into a Qt signal in the thread
// that owns the watcher. The handler itself only writes the signal number to a
// self-pipe (write() is async-signal-safe); a QSocketNotifier on the pipe's
// read end emits signalReceived() from the event loop.
//
// Handlers are installed with SA_RESETHAND: a second Ctrl-C while the program
// is still shutting down ends it the default way. One watcher per process.
class SignalWatcher : public QObject
{
    Q_OBJECT
public:
    explicit SignalWatcher(const QList<int>& signalNumbers, QObject* parent = nullptr);
    ~SignalWatcher() override;

    // False when the pipe or a handler could not be set up.
    bool isValid() const { return mValid; }

    // Convenience: quit the application on SIGINT or SIGTERM.
    static SignalWatcher* quitOnTermination(QObject* parent);

Q_SIGNALS:
    void signalReceived(int signalNumber);

private Q_SLOTS:
    void readPipe();

private:
    QList<int> mSignals;
    QSocketNotifier* mNotifier = nullptr;
    bool mValid = false;
};

#endif
