#ifndef CANMUTEX_H
#define CANMUTEX_H

#include <QMutex>

#if defined(CANOPEN_TSAN)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

// A QMutex that tells ThreadSanitizer about its hand-overs. Qt's mutex waits
// on a futex inside the (uninstrumented) Qt library when contended, so without
// these annotations data correctly guarded by it is reported as racy.
// Usable with std::lock_guard / std::unique_lock.
// Hand-overs that happen inside Qt where ThreadSanitizer cannot see them
// (a thread's end observed through QThread::wait(), for example): the thread
// that finishes calls tsanRelease(x), the thread that observed it tsanAcquire(x).
inline void tsanRelease(void* addr)
{
#if defined(CANOPEN_TSAN)
    __tsan_release(addr);
#else
    Q_UNUSED(addr)
#endif
}
inline void tsanAcquire(void* addr)
{
#if defined(CANOPEN_TSAN)
    __tsan_acquire(addr);
#else
    Q_UNUSED(addr)
#endif
}

class CanMutex
{
public:
    void lock()
    {
        mMutex.lock();
        acquired();
    }
    bool try_lock() { return tryLock(0); }
    bool tryLock(int timeoutMs)
    {
        if (!mMutex.tryLock(timeoutMs))
            return false;
        acquired();
        return true;
    }
    void unlock()
    {
#if defined(CANOPEN_TSAN)
        __tsan_release(this);
#endif
        mMutex.unlock();
    }

private:
    void acquired()
    {
#if defined(CANOPEN_TSAN)
        __tsan_acquire(this);
#endif
    }
    QMutex mMutex;
};

#endif
