#ifndef CROSSTHREADSPY_H
#define CROSSTHREADSPY_H

#include "canmutex.h"

#include <QObject>
#include <QVector>

// Counts the emissions of a signal that may come from any thread (QSignalSpy
// may only be used from the thread that emits), with the steady-clock time of
// each emission. The signal's arguments are not recorded.
class CrossThreadSpy : public QObject
{
    Q_OBJECT
public:
    template <typename Func>
    CrossThreadSpy(const typename QtPrivate::FunctionPointer<Func>::Object* sender, Func signal)
    {
        connect(sender, signal, this, [this] { record(); }, Qt::DirectConnection);
    }

    int count() const;
    // Emission times in microseconds of the steady clock, in emission order.
    QVector<qint64> timesUs() const;

private:
    void record();

    mutable CanMutex mLock;
    QVector<qint64> mTimes;
};

#endif
