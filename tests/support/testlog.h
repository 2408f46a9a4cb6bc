#ifndef TESTLOG_H
#define TESTLOG_H

// Debug output for tests that check debug lines with QTest::ignoreMessage.
namespace TestLog {
// Turns debug messages of the default category on, whatever QT_LOGGING_RULES
// says (the test runner switches them off to keep the logs short).
void enableDebugOutput();
} // namespace TestLog

#endif
