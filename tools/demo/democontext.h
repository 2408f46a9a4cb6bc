#ifndef DEMOCONTEXT_H
#define DEMOCONTEXT_H

#include "cantypes.h"

#include <QElapsedTimer>
#include <QString>
#include <QVector>
#include <functional>

class AbstractCanAdapter;
class CanScheduler;

// What the demo's steps share: options, the opened adapter and scheduler,
// the frames seen so far, and output and waiting helpers.
class DemoContext
{
public:
    quint16 busPort = 0;          // virtual bus UDP port
    quint8 nodeId = 5;            // the simulated device's node-ID
    int bootWaitMs = 5000;        // how long to wait for the first frame
    int heartbeatsToShow = 4;     // heartbeats after the boot-up
    QString deviceConsole;        // a pipe to the device's stdin console, if any
    quint16 gatewayPort = 0;      // cogateway's TCP port on 127.0.0.1, 0: none

    AbstractCanAdapter* adapter = nullptr; // owned by the context once set
    CanScheduler* scheduler = nullptr;     // owned by the context once set
    int cHandle = -1;                      // C interface handle, -1 if none
    // Heartbeat frames of the device as the C++ interface delivered them.
    QVector<CAN::CanRxMessage> heartbeats;

    DemoContext();
    ~DemoContext();

    // Seconds since the demo started, for the output.
    QString now() const;
    void heading(int number, const QString& title) const;
    void say(const QString& text) const;
    // Runs the event loop until done() is true or ms have passed; false on
    // timeout or Ctrl-C.
    bool waitUntil(const std::function<bool()>& done, int ms) const;
    void wait(int ms) const;
    // Sends one command line to the device's console; false (with a note
    // said) when there is no console pipe.
    bool tellDevice(const QString& line) const;

    static bool interrupted();
    static void setInterrupted();
    // Human-readable NMT state of a heartbeat byte.
    static QString nmtStateName(quint8 state);

private:
    QElapsedTimer mClock;
};

#endif
