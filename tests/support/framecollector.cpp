#include "framecollector.h"

#include <mutex>

FrameCollector::FrameCollector(AbstractCanAdapter* adapter, QObject* parent)
    : QObject(parent)
{
    connect(adapter, &AbstractCanAdapter::newCanMessage, this, [this](CAN::CanRxMessage* message) {
        std::lock_guard<CanMutex> guard(mLock);
        mFrames.append(*message);
    }, Qt::DirectConnection);
}

QVector<CAN::CanRxMessage> FrameCollector::frames() const
{
    std::lock_guard<CanMutex> guard(mLock);
    // A deep copy made under the lock: nothing implicitly shared leaves it.
    return QVector<CAN::CanRxMessage>(mFrames.cbegin(), mFrames.cend());
}

QVector<CAN::CanRxMessage> FrameCollector::frames(quint32 id) const
{
    QVector<CAN::CanRxMessage> result;
    std::lock_guard<CanMutex> guard(mLock);
    for (const CAN::CanRxMessage& f : mFrames) {
        if (f.message.id == id)
            result.append(f);
    }
    return result;
}

int FrameCollector::count() const
{
    std::lock_guard<CanMutex> guard(mLock);
    return mFrames.size();
}

bool FrameCollector::find(quint32 id, CAN::CanRxMessage* out) const
{
    const QVector<CAN::CanRxMessage> found = frames(id);
    if (out && !found.isEmpty())
        *out = found.first();
    return !found.isEmpty();
}

void FrameCollector::clear()
{
    std::lock_guard<CanMutex> guard(mLock);
    mFrames.clear();
}

QString FrameCollector::describe(const CAN::CanMessage& m)
{
    QString s = QString::number(m.id, 16).toUpper();
    const std::pair<bool, const char*> flags[] = {
        {m.extended, " ext"}, {m.rtr, " rtr"}, {m.fd, " fd"}, {m.brs, " brs"}, {m.esi, " esi"}};
    for (const auto& f : flags)
        s += f.first ? QLatin1String(f.second) : QLatin1String();
    s += QStringLiteral(" [%1]").arg(m.length);
    const QByteArray data(reinterpret_cast<const char*>(m.data), qMin(int(m.length), 64));
    if (m.length && !m.rtr)
        s += QLatin1Char(' ') + QString::fromLatin1(data.toHex().toUpper());
    return s;
}
