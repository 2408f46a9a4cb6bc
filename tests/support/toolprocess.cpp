#include "toolprocess.h"

#include <QEventLoop>
#include <QTimer>

ToolProcess::ToolProcess(const QString& program, const QStringList& args, QObject* parent)
    : QObject(parent)
{
    connect(&mProcess, &QProcess::readyReadStandardOutput, this, [this]() { mOut += mProcess.readAllStandardOutput(); });
    connect(&mProcess, &QProcess::readyReadStandardError, this, [this]() { mErr += mProcess.readAllStandardError(); });
    mProcess.start(program, args);
}

ToolProcess::~ToolProcess()
{
    if (mProcess.state() != QProcess::NotRunning) {
        mProcess.kill();
        mProcess.waitForFinished(5000);
    }
}

int ToolProcess::finish(int timeoutMs)
{
    // An event loop rather than waitForFinished(): the test's own sockets
    // (and this process's stdin) keep being served meanwhile.
    if (mProcess.state() != QProcess::NotRunning) {
        QEventLoop loop;
        connect(&mProcess, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop, &QEventLoop::quit);
        QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (mProcess.state() != QProcess::NotRunning) {
        mProcess.kill();
        mProcess.waitForFinished(5000);
        return -1;
    }
    mOut += mProcess.readAllStandardOutput();
    mErr += mProcess.readAllStandardError();
    return mProcess.exitStatus() == QProcess::NormalExit ? mProcess.exitCode() : -1;
}

ToolProcess::Result ToolProcess::run(const QString& program, const QStringList& args, int timeoutMs)
{
    ToolProcess p(program, args);
    Result r;
    if (!p.mProcess.waitForStarted(timeoutMs)) {
        r.err = QStringLiteral("%1 did not start").arg(program);
        return r;
    }
    r.exitCode = p.finish(timeoutMs);
    r.out = p.out();
    r.err = p.err();
    return r;
}
