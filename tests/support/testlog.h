#ifndef TESTLOG_H
#define TESTLOG_H

#include "scopeddebugoutput.h"

// Debug output for tests that check debug lines with QTest::ignoreMessage.
namespace TestLog {
// Turns debug messages of the default category on for the rest of the run,
// whatever QT_LOGGING_RULES says (the test runner switches them off to keep
// the logs short). Not to be combined with a ScopedDebugOutput.
inline void enableDebugOutput() { static const ScopedDebugOutput on; }
} // namespace TestLog

#endif
