#include "toollogging.h"

#include <QtGlobal>
#include <atomic>

namespace {
std::atomic<bool> gVerbose{false};
QtMessageHandler gPrevious = nullptr;

void filter(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if ((type == QtDebugMsg || type == QtInfoMsg) && !gVerbose.load(std::memory_order_relaxed))
        return;
    gPrevious(type, context, message);
}
} // namespace

QCommandLineOption ToolLogging::verboseOption()
{
    return QCommandLineOption({QStringLiteral("v"), QStringLiteral("verbose")},
                              QStringLiteral("Also show the library's debug messages on stderr."));
}

void ToolLogging::install(bool verbose)
{
    gVerbose.store(verbose, std::memory_order_relaxed);
    static const bool installed = [] {
        gPrevious = qInstallMessageHandler(filter);
        return true;
    }();
    Q_UNUSED(installed)
}
