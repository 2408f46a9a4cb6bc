#ifndef CANOPENMASTER_CLASS_H
#define CANOPENMASTER_CLASS_H

#include "canopenmaster_global.h"
#include "cantypes.h"

// Created once by the application before anything is connected across
// threads: registers the frame records with the meta-type system.
class CANOPENMASTER_EXPORT CanopenMaster
{
public:
    CanopenMaster();
    // Size of CAN::CanRxMessage, for callers of the binary interface.
    static int getSizeOfCanStruct();
    // Idempotent registration, also run lazily by the library's own classes.
    static void registerMetaTypes();
};

#endif
