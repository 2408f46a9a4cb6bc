#ifndef DELETELATER_H
#define DELETELATER_H

#include <QObject>

// Deleter for shared pointers to QObjects that may still be on the call
// stack when the last owner lets go (replaced from inside one of their own
// signals): the object goes from the event loop of its thread.
struct DeleteLater {
    void operator()(QObject* object) const { object->deleteLater(); }
};

#endif
