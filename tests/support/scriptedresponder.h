#ifndef SCRIPTEDRESPONDER_H
#define SCRIPTEDRESPONDER_H

#include "cantypes.h"

#include <QByteArray>
#include <QList>
#include <atomic>
#include <functional>
#include <thread>

class RecordingCanAdapter;

// Plays a device in unit tests: every frame the recording adapter takes
// (in order, each once) is passed to the script, and the frames it returns
// are injected as the device's answer on `answerId`. Serves either
// from the test's thread (serveUntil, which also runs the event loop) or
// from a thread of its own (start), as an adapter's receive loop would.
class ScriptedResponder
{
public:
    // The answer frames to one request (none, one or several).
    using Script = std::function<QList<QByteArray>(const CAN::CanMessage& request)>;

    ScriptedResponder(RecordingCanAdapter* adapter, quint32 answerId, Script script)
        : mAdapter(adapter), mAnswerId(answerId), mScript(std::move(script))
    {
    }
    ~ScriptedResponder() { stop(); } // stops and joins the thread

    // Answers the frames written since the last call; returns how many were seen.
    int serveWaiting();
    // Serves and runs the event loop until done() or the time-out; true when done.
    bool serveUntil(const std::function<bool()>& done, int timeoutMs = 5000);
    // Serves from a thread of its own until stop() or destruction.
    void start();
    void stop();

private:
    RecordingCanAdapter* mAdapter;
    quint32 mAnswerId;
    Script mScript;
    int mSeen = 0; // used by one thread at a time
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

#endif
