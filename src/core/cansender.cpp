#include "cansender.h"

CanSender::CanSender(quint32 id, QObject* parent)
    : QObject(parent)
    , mId(id)
{
}
