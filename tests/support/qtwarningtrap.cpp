#include "qtwarningtrap.h"

#include <mutex>

namespace {
std::mutex trapLock;
QStringList trapped;              // guarded by trapLock
QtMessageHandler previous = nullptr;
std::once_flag installed;

bool isThreadMisuse(const QString& text)
{
    static const char* const patterns[] = {
        "from another thread",          // timers, socket notifiers
        "different thread",             // events, children, moveToThread
        "Cannot queue arguments",       // queued connection with an unregistered type
        "Timers can only be used with threads started with QThread",
    };
    for (const char* p : patterns) {
        if (text.contains(QLatin1String(p)))
            return true;
    }
    return false;
}

void handler(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type != QtDebugMsg && type != QtInfoMsg && isThreadMisuse(text)) {
        std::lock_guard<std::mutex> guard(trapLock);
        trapped.append(text);
    }
    if (previous)
        previous(type, context, text);
}
} // namespace

namespace QtWarningTrap {

void install()
{
    std::call_once(installed, [] { previous = qInstallMessageHandler(handler); });
}

QStringList take()
{
    std::lock_guard<std::mutex> guard(trapLock);
    QStringList result;
    for (const QString& s : trapped)
        result.append(QString(s.constData(), s.size())); // copies of our own
    trapped.clear();
    return result;
}

} // namespace QtWarningTrap
