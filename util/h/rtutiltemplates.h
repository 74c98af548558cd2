// Small building blocks shared across the library.
// Hosts use CRtSingletonT (for singletons destroyed with the library's own),
// CRtEnsureSingleThread (to check an object's thread rules the way the library
// checks its own), CRtBaseObj and CRtSignalStop. CRtCleanUpBase and CRtStopFlag
// are building blocks of the singletons and the event loops.
//
// Thread rules:
//   - CRtSingletonT::Instance and the clean-up chain: any thread; serialised by
//     the thread manager's recursive singleton lock.
//   - CRtEnsureSingleThread and CRtStopFlag: the owner thread; other callers are
//     reported, never blocked.
//   - CRtSignalStop: any thread.
#ifndef RTUTILTEMPLATES_H
#define RTUTILTEMPLATES_H

#include <atomic>
#include <cstdint>

#include "rtdebug.h"
#include "rtdefines.h"
#include "rteventqueuebase.h"
#include "rtmutex.h"

// An object with a text key of up to 63 characters.
class RT_API CRtBaseObj {
public:
    CRtBaseObj();
    CRtBaseObj(const CRtBaseObj& aOther);
    CRtBaseObj& operator=(const CRtBaseObj& aOther);
    virtual ~CRtBaseObj();

    // A key of 64 characters or more is ignored; the old key stays.
    void SetObjKey(const char* aKey);
    const char* GetObjKey() const { return m_szObjKey; }

protected:
    char m_szObjKey[64];
};

// A link of the clean-up chain: every registered object is destroyed by
// CleanupAll, newest first. The thread manager's destructor runs it.
class RT_API CRtCleanUpBase {
public:
    static void CleanupAll();

protected:
    // Registers the object at the head of the chain.
    CRtCleanUpBase();
    virtual ~CRtCleanUpBase();
    // Deletes the object.
    virtual void CleanUp();

    // The thread manager's singleton lock, or null (traced) without a manager.
    static CRtMutexThreadRecursive* GetSingletonMutex_i();

private:
    CRtCleanUpBase(const CRtCleanUpBase&) = delete;
    CRtCleanUpBase& operator=(const CRtCleanUpBase&) = delete;

    CRtCleanUpBase* m_pNext;
    static CRtCleanUpBase* s_pHeader;
};

// The one T of the process, created on first use and destroyed by the clean-up
// chain. T makes CRtSingletonT<T> a friend when its constructor is private.
// After CleanupAll a later Instance() creates a new T.
template <class T>
class CRtSingletonT : public CRtCleanUpBase {
public:
    static T* Instance() {
        CRtSingletonT* pHolder = s_pInstance.load(std::memory_order_acquire);
        if (pHolder) {
            return &pHolder->m_Instance;
        }
        CRtMutexThreadRecursive* pMutex = GetSingletonMutex_i();
        if (pMutex) {
            pMutex->Lock();
        }
        pHolder = s_pInstance.load(std::memory_order_acquire);
        if (!pHolder) {
            pHolder = new CRtSingletonT();
            s_pInstance.store(pHolder, std::memory_order_release);
        }
        if (pMutex) {
            pMutex->UnLock();
        }
        RT_ASSERTE(s_pInstance.load(std::memory_order_relaxed));
        return &pHolder->m_Instance;
    }

protected:
    CRtSingletonT() = default;
    ~CRtSingletonT() override { s_pInstance.store(nullptr, std::memory_order_release); }

private:
    T m_Instance;
    static std::atomic<CRtSingletonT*> s_pInstance;
};

template <class T>
std::atomic<CRtSingletonT<T>*> CRtSingletonT<T>::s_pInstance{nullptr};

// Records the thread that owns an object and traces an assertion when another
// thread uses it. It never blocks or fails: a violation is reported, and the
// call goes on.
class RT_API CRtEnsureSingleThread {
public:
    CRtEnsureSingleThread();

    void EnsureSingleThread() const;
    void Reset2CurrentThreadId();
    void Reset2ThreadId(unsigned long aTid);

private:
    uint32_t m_ThreadIdOpen;
};

// The stop flag of an event loop: stopped until the loop starts, tested on
// every pass, set to end it. The operations belong to the owner thread; the
// loop rebinds m_Est with Reset2CurrentThreadId when it starts on a new thread.
// A reactor's stop stores m_bStoppedFlag directly from any thread, which is why
// the flag is atomic.
class RT_API CRtStopFlag {
public:
    CRtStopFlag();

    int IsFlagStopped() const;
    void SetStartFlag();
    void SetStopFlag();

    CRtEnsureSingleThread m_Est;
    std::atomic<int> m_bStoppedFlag;
};

// Stops the main thread, now (Launch) or as an event run on some thread. The
// one object is static and never deleted.
class RT_API CRtSignalStop : public IRtEvent {
public:
    static CRtSignalStop* Instance();

    // The argument is not used. RT_ERROR_FAILURE without a main thread.
    int Launch(int aSignal);
    // RT_ERROR_NULL_POINTER without a main thread.
    int OnEventFire() override;
    void OnDestorySelf() override;

protected:
    ~CRtSignalStop() override;

private:
    CRtSignalStop();
    CRtSignalStop(const CRtSignalStop&) = delete;
    CRtSignalStop& operator=(const CRtSignalStop&) = delete;

    static CRtSignalStop s_rtSignalStopSingleton;
};

#endif  // RTUTILTEMPLATES_H
