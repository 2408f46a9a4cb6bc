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
    // Qt's CAN plugins warn about vendor libraries they cannot load while
    // merely listing interfaces; the tools report what matters themselves.
    if (type == QtWarningMsg && context.category && qstrncmp(context.category, "qt.canbus", 9) == 0
        && !gVerbose.load(std::memory_order_relaxed))
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
