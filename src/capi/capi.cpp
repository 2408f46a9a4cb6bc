// The seven C entry points over adapter handles.
#include "canopenmaster_c.h"

#include "abstractcanadapter.h"
#include "canadapterfactory.h"
#include "canlisterner.h"
#include "canopenmasterclass.h"

#include <QCoreApplication>
#include <QDebug>
#include <QVector>
#include <cstring>

namespace {
// A handle is a position in both tables; positions are never reused.
QVector<AbstractCanAdapter*> adapters;
QVector<CANListerner*> listeners;

bool validHandle(int32_t handle)
{
    // Only the upper bound is checked, as documented: callers pass handles
    // that ca_create returned.
    return handle < adapters.size();
}
} // namespace

extern "C" {

void qca(void)
{
    static int argc = 0;
    static char arg0[] = "hh";
    static char* argv[] = {arg0, nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv); // kept for the life of the process
}

int32_t ca_create(int32_t type, const char* name, int32_t bitrate)
{
    const QString interfaceName = name ? QString::fromLocal8Bit(name) : QString();
    qDebug() << interfaceName;
    CanopenMaster::registerMetaTypes();
    AbstractCanAdapter* adapter = CanAdapterFactory::createCanAdapter(
        CanAdapterFactory::CanAdapterType(type & 0xFF), interfaceName);
    if (!adapter)
        return -1;
    adapter->setAutoBusOn(true);
    adapter->setBitrate(quint16(bitrate & 0xFFFF));
    adapter->setSendingBlocked(false);
    adapter->setEcho(false);
    adapters.append(adapter);
    auto* listener = new CANListerner();
    QObject::connect(adapter, &AbstractCanAdapter::newCanMessage, listener,
                     &CANListerner::canMessageReceived, Qt::DirectConnection);
    listeners.append(listener);
    return int32_t(adapters.size() - 1);
}

int32_t ca_connect(int32_t handle)
{
    if (!validHandle(handle))
        return 0;
    const CAN::RetType r = adapters[handle]->open();
    return r == CAN::Ok ? 1 : 100 + int32_t(r);
}

int32_t ca_send(int32_t handle, const CaFrame* frame)
{
    QCoreApplication::processEvents();
    if (!validHandle(handle))
        return 0;
    CAN::CanMessage msg;
    if (frame) {
        msg.id = frame->id;
        msg.length = frame->length;
        std::memcpy(msg.data, frame->data, 8);
    }
    adapters[handle]->write(&msg);
    return 1;
}

int32_t ca_recv(int32_t handle, CaFrame* frame)
{
    QCoreApplication::processEvents();
    if (!validHandle(handle))
        return 0;
    CAN::CanMessage msg;
    bool taken = false;
    const int before = listeners[handle]->take(&msg, &taken);
    // A frame taken while the pointer is null is lost: that order is required.
    if (!taken || !frame)
        return -1;
    frame->id = msg.id;
    frame->flags = 0; // the length byte stays as the caller had it
    std::memcpy(frame->data, msg.data, 8);
    return before;
}

int32_t ca_disconnnect(int32_t handle)
{
    if (!validHandle(handle))
        return 0;
    adapters[handle]->close();
    return 1;
}

int32_t ca_destroy(int32_t handle)
{
    if (!validHandle(handle))
        return 0;
    // close() comes before the null test: a destroyed handle must not be
    // destroyed again (only ca_recv stays usable on it).
    adapters[handle]->close();
    delete adapters[handle];
    adapters[handle] = nullptr;
    return 1;
}

} // extern "C"
