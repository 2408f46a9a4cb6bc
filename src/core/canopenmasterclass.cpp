#include "canopenmasterclass.h"

CanopenMaster::CanopenMaster()
{
    registerMetaTypes();
}

int CanopenMaster::getSizeOfCanStruct()
{
    return int(sizeof(CAN::CanRxMessage));
}

void CanopenMaster::registerMetaTypes()
{
    // Registered in this order: received frame, transmit frame, state.
    static const bool done = [] {
        qRegisterMetaType<CAN::CanRxMessage>("CAN::CanRxMessage");
        qRegisterMetaType<CAN::CanMessage>("CAN::CanMessage");
        qRegisterMetaType<CAN::CanState>("CAN::CanState");
        qRegisterMetaType<CAN::RetType>("CAN::RetType");
        return true;
    }();
    Q_UNUSED(done)
}
