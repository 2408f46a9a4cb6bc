#ifndef TESTBUS_H
#define TESTBUS_H

#include <QtGlobal>

// Virtual-bus helpers for end-to-end tests.
namespace TestBus {
// A UDP port that is free right now, for a private virtual bus. Also
// exported as CANOPEN_VBUS_PORT so that adapters created afterwards (and
// child processes) use it.
quint16 usePrivatePort();
} // namespace TestBus

#endif
