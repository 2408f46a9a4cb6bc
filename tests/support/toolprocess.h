#ifndef TOOLPROCESS_H
#define TOOLPROCESS_H

#include "canopenmasterclass.h"
#include "democanadapter.h"
#include "framecollector.h"
#include "testbus.h"

#include <QObject>
#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

// One of the programs in tools/ run as a child process, its output gathered
// as it comes (the test's event loop must run: QTRY_*, qWait).
class ToolProcess : public QObject
{
    Q_OBJECT
public:
    struct Result {
        int exitCode = -1; // -1: crashed or did not finish
        QString out;
        QString err;
    };

    ToolProcess(const QString& program, const QStringList& args, QObject* parent = nullptr);
    // Kills the program if it still runs.
    ~ToolProcess() override;

    // Runs a program to its end (at most timeoutMs).
    static Result run(const QString& program, const QStringList& args, int timeoutMs = 15000);

    QString out() const { return QString::fromLocal8Bit(mOut); }
    QString err() const { return QString::fromLocal8Bit(mErr); }
    QStringList outLines() const { return out().split(QLatin1Char('\n'), Qt::SkipEmptyParts); }
    // The output lines of a listening command after their time column ("  1.234  node ...").
    QStringList events() const { return outLines().replaceInStrings(QRegularExpression(QStringLiteral("^.{9}")), QString()); }
    void write(const QByteArray& input) { mProcess.write(input); }
    qint64 pid() const { return mProcess.processId(); }
    // Waits (running the event loop) until the program has a UDP socket bound
    // to this port, i.e. a virtual-bus adapter of it listens on that bus;
    // false after timeoutMs. Linux only (reads /proc).
    bool waitUntilBound(quint16 udpPort, int timeoutMs = 10000) const;
    // Waits for the end, running the event loop; the exit code, or -1 on a
    // crash or time-out (the program is killed then).
    int finish(int timeoutMs = 15000);

private:
    QProcess mProcess;
    QByteArray mOut;
    QByteArray mErr;
};

// The test's own adapter on a private virtual bus (the port reaches the tools
// through the environment), open, keeping every frame it receives.
struct WatchedBus {
    ~WatchedBus() { adapter.close(); } // before the collector goes
    const quint16 port = (CanopenMaster::registerMetaTypes(), TestBus::usePrivatePort());
    DemoCanAdapter adapter{QStringLiteral("v")};
    FrameCollector frames{&adapter};
    const bool opened = adapter.open() == CAN::Ok;
};

#endif
