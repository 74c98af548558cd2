// Locks: CRtMutexThread and CRtMutexThreadRecursive (re-entrant critical
// sections) and the scoped guard CRtMutexGuardT. Hosts use all three directly.
//
// Thread rules: any thread may lock; only the holder unlocks. A lock must not
// be destroyed while held or waited for.
#ifndef RTMUTEX_H
#define RTMUTEX_H

#include "rtdefines.h"
#include "rterror.h"
#include "rtosdefs.h"

// The shared body of both locks; not instantiated on its own.
class RT_API CRtMutexBase {
public:
    int Lock();    // always RT_OK; re-entrant for the holder
    int UnLock();  // always RT_OK
    // RT_OK when taken (or re-entered), RT_ERROR_FAILURE at once when another
    // thread holds it.
    int TryLock();
    rtos::LockStorage& GetMutexType() { return m_Lock; }

protected:
    CRtMutexBase();
    ~CRtMutexBase();

    rtos::LockStorage m_Lock;

private:
    CRtMutexBase(const CRtMutexBase&) = delete;
    CRtMutexBase& operator=(const CRtMutexBase&) = delete;
};

// The library's ordinary lock (registry, event queues, DNS manager).
class RT_API CRtMutexThread : public CRtMutexBase {
public:
    CRtMutexThread() = default;
};

// The same lock, used where re-entry is part of the design (the thread
// manager's singleton lock, the trace writer's settings lock).
class RT_API CRtMutexThreadRecursive : public CRtMutexBase {
public:
    CRtMutexThreadRecursive() = default;
};

// Takes the lock for its scope; UnLock() releases it early, and then the
// destructor does nothing.
template <class MutexType>
class CRtMutexGuardT {
public:
    explicit CRtMutexGuardT(MutexType& aMutex) : m_Mutex(aMutex), m_bLocked(0) {
        m_bLocked = RT_SUCCEEDED(m_Mutex.Lock()) ? 1 : 0;
    }
    ~CRtMutexGuardT() { UnLock(); }

    int UnLock() {
        if (!m_bLocked) {
            return RT_OK;
        }
        m_bLocked = 0;
        return m_Mutex.UnLock();
    }

private:
    CRtMutexGuardT(const CRtMutexGuardT&) = delete;
    CRtMutexGuardT& operator=(const CRtMutexGuardT&) = delete;

    MutexType& m_Mutex;
    int m_bLocked;
};

#endif  // RTMUTEX_H
