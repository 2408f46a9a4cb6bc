#include "scopeddebugoutput.h"

namespace {
QLoggingCategory::CategoryFilter gPrevious = nullptr;

void enableDefaultDebug(QLoggingCategory* category)
{
    if (gPrevious)
        gPrevious(category);
    if (qstrcmp(category->categoryName(), "default") == 0)
        category->setEnabled(QtDebugMsg, true);
}
} // namespace

ScopedDebugOutput::ScopedDebugOutput()
{
    // Learn the present filter first (installing null puts Qt's own filter in
    // its place for a moment), so that ours can chain to it from the start.
    mPrevious = QLoggingCategory::installFilter(nullptr);
    gPrevious = mPrevious;
    QLoggingCategory::installFilter(enableDefaultDebug);
}

ScopedDebugOutput::~ScopedDebugOutput()
{
    // Re-applies the earlier filter (the logging rules) to every category.
    QLoggingCategory::installFilter(mPrevious);
    gPrevious = nullptr;
}
