#include "scriptedresponder.h"
#include "recordingcanadapter.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <chrono>
#include <cstring>

ScriptedResponder::ScriptedResponder(RecordingCanAdapter* adapter, quint32 answerId, Script script)
    : ScriptedResponder(adapter, answerId, MultiScript([script](const CAN::CanMessage& request) {
        const QByteArray answer = script(request);
        return answer.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{answer};
    }))
{
}

ScriptedResponder::ScriptedResponder(RecordingCanAdapter* adapter, quint32 answerId, MultiScript script)
    : mAdapter(adapter)
    , mAnswerId(answerId)
    , mScript(std::move(script))
{
}

ScriptedResponder::~ScriptedResponder()
{
    stop();
}

int ScriptedResponder::serveWaiting()
{
    const int count = mAdapter->writtenCount();
    int seen = 0;
    while (mSeen < count) {
        const QList<QByteArray> answers = mScript(mAdapter->writtenAt(mSeen++));
        ++seen;
        for (const QByteArray& answer : answers) {
            CAN::CanRxMessage rx;
            rx.message.id = mAnswerId;
            rx.message.length = quint8(qMin(answer.size(), 64));
            std::memcpy(rx.message.data, answer.constData(), rx.message.length);
            mAdapter->inject(rx);
        }
    }
    return seen;
}

bool ScriptedResponder::serveUntil(const std::function<bool()>& done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents();
        if (serveWaiting() == 0)
            QThread::usleep(100);
    }
    return true;
}

void ScriptedResponder::start()
{
    mStop.store(false);
    mThread = std::thread([this] {
        while (!mStop.load()) {
            if (serveWaiting() == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
}

void ScriptedResponder::stop()
{
    mStop.store(true);
    if (mThread.joinable())
        mThread.join();
}
