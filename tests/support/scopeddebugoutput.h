#ifndef SCOPEDDEBUGOUTPUT_H
#define SCOPEDDEBUGOUTPUT_H

#include <QLoggingCategory>

// The test runs switch debug output off (QT_LOGGING_RULES). A test that
// checks a debug line with QTest::ignoreMessage() switches the default
// category's debug output back on for as long as this object lives.
class ScopedDebugOutput
{
public:
    ScopedDebugOutput();
    ~ScopedDebugOutput();
    ScopedDebugOutput(const ScopedDebugOutput&) = delete;
    ScopedDebugOutput& operator=(const ScopedDebugOutput&) = delete;

private:
    QLoggingCategory::CategoryFilter mPrevious = nullptr;
};

#endif
