#ifndef SIMCONSOLE_H
#define SIMCONSOLE_H

#include "simdevice.h"

#include <QByteArray>
#include <QObject>
#include <QString>

class QSocketNotifier;
class SimEmcyProducer;
class SimNmtSlave;
class SimTpdo;

// Line commands for the simulated device (cosim reads them from stdin):
// local NMT transitions, heartbeat time, emergencies, status, quit.
class SimConsole : public QObject
{
    Q_OBJECT
public:
    SimConsole(SimDevice* device, SimNmtSlave* nmt, SimEmcyProducer* emcy, SimTpdo* tpdo,
               QObject* parent = nullptr);

    // Runs one command line and returns the answer (one or more lines,
    // without the final line feed). Empty input gives an empty answer.
    QString execute(const QString& line);

    // The command summary, as shown by "help" and cosim --help.
    static QString helpText();
    static QString stateName(SimDevice::NmtState state);

    // Reads commands from stdin and writes answers and NMT state changes to
    // stdout. At end of input (or when stdin cannot be read, e.g. from the
    // background) the console stops reading and the device runs on.
    void attachStdin();

Q_SIGNALS:
    void quitRequested();

private Q_SLOTS:
    void readStdin();
    void reportState(SimDevice::NmtState state);

private:
    void print(const QString& text);

    SimDevice* mDevice;
    SimNmtSlave* mNmt;
    SimEmcyProducer* mEmcy;
    SimTpdo* mTpdo;
    QSocketNotifier* mNotifier = nullptr;
    QByteArray mPending; // input after the last complete line
    bool mEcho = false;
};

#endif
