#include "toolprocess.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QtTest>
#include <unistd.h>

ToolProcess::ToolProcess(const QString& program, const QStringList& args, QObject* parent)
    : QObject(parent)
{
    connect(&mProcess, &QProcess::readyReadStandardOutput, this, [this]() { mOut += mProcess.readAllStandardOutput(); });
    connect(&mProcess, &QProcess::readyReadStandardError, this, [this]() { mErr += mProcess.readAllStandardError(); });
    // The tools filter the library's debug lines themselves (-v shows them):
    // the test's logging rules must not reach them.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("QT_LOGGING_RULES"));
    mProcess.setProcessEnvironment(env);
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
    // The event loop runs meanwhile: the test's own sockets (and this
    // process's stdin) keep being served.
    if (!QTest::qWaitFor([this]() { return mProcess.state() == QProcess::NotRunning; }, timeoutMs)) {
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
    if (!p.mProcess.waitForStarted(timeoutMs))
        return {-1, QString(), program + QStringLiteral(" did not start")};
    const int exitCode = p.finish(timeoutMs);
    return {exitCode, p.out(), p.err()};
}

bool ToolProcess::waitUntilBound(quint16 udpPort, int timeoutMs) const
{
    const QString fdDir = QStringLiteral("/proc/%1/fd").arg(mProcess.processId());
    auto bound = [&]() {
        // Inodes of the IPv4 UDP sockets bound to the port ...
        QFile table(QStringLiteral("/proc/net/udp"));
        if (!table.open(QIODevice::ReadOnly))
            return false;
        QSet<QString> inodes;
        const QByteArray portHex = QByteArray::number(udpPort, 16).toUpper().rightJustified(4, '0');
        for (const QByteArray& line : table.readAll().split('\n')) {
            const QList<QByteArray> f = line.simplified().split(' ');
            // sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode
            if (f.size() > 9 && f[1].endsWith(':' + portHex))
                inodes.insert(QStringLiteral("socket:[%1]").arg(QString::fromLatin1(f[9])));
        }
        // ... one of which the program holds. Sockets of this process do not
        // count: between fork and exec the child still holds them.
        auto held = [](const QString& dir) {
            QSet<QString> links;
            for (const QString& fd : QDir(dir).entryList(QDir::System | QDir::NoDotAndDotDot)) {
                char target[64];
                const ssize_t n = ::readlink(QFile::encodeName(dir + QLatin1Char('/') + fd).constData(), target, sizeof target - 1);
                if (n > 0)
                    links.insert(QString::fromLatin1(target, int(n)));
            }
            return links;
        };
        const QSet<QString> ours = held(QStringLiteral("/proc/self/fd"));
        for (const QString& link : held(fdDir)) {
            if (inodes.contains(link) && !ours.contains(link))
                return true;
        }
        return false;
    };
    return QTest::qWaitFor(bound, timeoutMs);
}
