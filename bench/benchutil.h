#ifndef BENCHUTIL_H
#define BENCHUTIL_H

// Small helpers shared by the benchmark programs: clocks, process figures and
// uniform output. Benchmarks print figures; they never fail on them.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QString>
#include <QUdpSocket>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sys/resource.h>

namespace Bench {

inline double seconds()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// CPU time (user + system) of the whole process, in seconds.
inline double processCpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// CPU time (user + system, seconds) of each thread of this process, by
// thread id, with the thread's name (Qt names threads after their class).
struct ThreadCpu {
    QString name;
    double seconds = 0;
};
inline QMap<int, ThreadCpu> threadCpu()
{
    QMap<int, ThreadCpu> result;
    const double tick = double(sysconf(_SC_CLK_TCK));
    const QStringList tids = QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& tid : tids) {
        QFile f(QStringLiteral("/proc/self/task/%1/stat").arg(tid));
        if (!f.open(QIODevice::ReadOnly))
            continue;
        const QByteArray stat = f.readAll();
        const int open = stat.indexOf('('), close = stat.lastIndexOf(')');
        const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
        if (open < 0 || close < 0 || fields.size() < 13)
            continue;
        ThreadCpu t;
        t.name = QString::fromLatin1(stat.mid(open + 1, close - open - 1));
        t.seconds = (fields[11].toDouble() + fields[12].toDouble()) / tick; // utime, stime
        result.insert(tid.toInt(), t);
    }
    return result;
}

// A /proc/self/status field in kB (VmRSS, VmHWM, ...), -1 if not found.
inline long statusKiB(const char* field)
{
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray key = QByteArray(field) + ':';
    for (const QByteArray& line : f.readAll().split('\n')) {
        if (line.startsWith(key))
            return line.mid(key.size()).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

// A UDP port free right now, for a private virtual bus.
inline quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress(QHostAddress::AnyIPv4), 0);
    return probe.localPort();
}

inline void heading(const char* text)
{
    std::printf("\n== %s ==\n", text);
    std::fflush(stdout);
}

// One figure per line: "  label ............ value unit".
inline void figure(const QString& label, double value, const char* unit, int decimals = 0)
{
    std::printf("  %-62s %12.*f %s\n", qPrintable(label), decimals, value, unit);
    std::fflush(stdout);
}

inline void note(const QString& text)
{
    std::printf("  %s\n", qPrintable(text));
    std::fflush(stdout);
}

inline const char* verdict(bool met)
{
    return met ? "met" : "NOT met";
}

} // namespace Bench

#endif
