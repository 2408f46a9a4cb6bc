#ifndef QTWARNINGTRAP_H
#define QTWARNINGTRAP_H

#include <QStringList>

// Catches the warnings with which Qt reports objects used from the wrong
// thread ("QObject::startTimer: Timers cannot be started from another
// thread", "Cannot send events to objects owned by a different thread", ...)
// and arguments that cannot be queued. Qt only prints them; a test calls
// take() (for example in cleanup()) and fails when the list is not empty.
namespace QtWarningTrap {
// Installs the message handler once; every message still reaches the
// handler that was installed before.
void install();
// The trapped messages since the last call, from any thread.
QStringList take();
} // namespace QtWarningTrap

#endif
