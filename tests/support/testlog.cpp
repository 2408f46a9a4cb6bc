#include "testlog.h"

#include <QLoggingCategory>
#include <cstring>

namespace TestLog {

namespace {
QLoggingCategory::CategoryFilter previousFilter = nullptr;

void filter(QLoggingCategory* category)
{
    if (previousFilter)
        previousFilter(category);
    if (std::strcmp(category->categoryName(), "default") == 0)
        category->setEnabled(QtDebugMsg, true);
}
} // namespace

void enableDebugOutput()
{
    if (!previousFilter)
        previousFilter = QLoggingCategory::installFilter(filter);
}

} // namespace TestLog
