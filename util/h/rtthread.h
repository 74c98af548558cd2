// CRtThread: the base of every framework thread (main, network, reactor and
// task threads). Hosts get threads from CRtThreadManager and use Stop, Join,
// Destory and the queue accessors; deriving a thread class of one's own is for
// loops the library does not offer.
//
// Thread rules:
//   - Create: once, on the creating thread. OnThreadInit runs on the new thread
//     before Create returns.
//   - Stop, Join, Destory and the accessors: any thread other than the thread
//     itself for Join; Stop is made thread-safe by each derived loop.
//
// Ownership and the two ways of ending:
//   - Join-able (TF_JOINABLE, the default): the owner stops, joins, then calls
//     Destory, which deletes the object at once.
//   - Self-deleting (bit 0 clear, e.g. TF_DETACHED): the owner stops and calls
//     Destory without joining; the later of Destory and the end of the thread
//     deletes the object. The owner must not touch it after Destory.
//   A thread that outlives its join is left running and its object is never
//   freed while it may still run: it is deleted when the thread does end.
#ifndef RTTHREAD_H
#define RTTHREAD_H

#include <atomic>
#include <cstdint>

#include "rtdefines.h"
#include "rtthreadmanager.h"

class CRtEventThread;
class CRtTimeValue;
class IRtEventQueue;
class IRtReactor;
class IRtTimerQueue;

typedef void* RT_THREAD_HANDLE;

class RT_API CRtThread {
public:
    // Starts the thread (adopts the caller for TT_MAIN) and registers it under
    // aType. RT_ERROR_FOUND if that type is taken: the new thread is then
    // stopped and joined, and the caller Destorys the object.
    virtual int Create(int aType, CRtThreadManager::TFlag aFlag = CRtThreadManager::TF_JOINABLE);
    // Asks the loop to end; does not wait.
    virtual int Stop(CRtTimeValue* aTimeout = nullptr);
    // On the new thread, before Create returns (the manager calls it on the
    // main thread itself).
    virtual void OnThreadInit();
    // The thread's loop.
    virtual void OnThreadRun() = 0;

    virtual IRtReactor* GetReactor();
    virtual IRtEventQueue* GetEventQueue();
    virtual IRtTimerQueue* GetTimerQueue();

    // Waits up to aTimeout ms (0xFFFFFFFF: no limit). RT_ERROR_TIMEOUT when the
    // thread has not ended; it is then left running. A thread never joins
    // itself (RT_ERROR_FAILURE).
    int Join(unsigned long aTimeout = 0xFFFFFFFF);
    // Unregisters the thread and deletes the object now or, for a thread that
    // may still run, when it ends. aReason is only traced.
    int Destory(int aReason);

    unsigned long GetThreadId() const { return m_Tid; }
    int GetThreadType() const { return m_Type; }
    RT_THREAD_HANDLE GetThreadHandle() const { return m_Handle; }

protected:
    CRtThread();
    virtual ~CRtThread();

    CRtThread(const CRtThread& aOther);
    CRtThread& operator=(const CRtThread& aOther);

    uint32_t m_Tid;
    RT_THREAD_HANDLE m_Handle;
    int m_Type;
    CRtThreadManager::TFlag m_Flag;
    CRtEventThread* m_pEvent4Start;
    int m_bRegistered;
    // The end of the thread procedure always votes; Destory votes for a thread
    // that may still be running. The second vote deletes.
    std::atomic<int> m_nDeleteVotes;

private:
    static unsigned ThreadProc(void* aPara);
    // Votes for deletion; true when this vote was the second.
    bool VoteDelete_i();
    void CloseHandle_i();
    int UnregisterFromManager_i();

    // Set once a thread procedure has been started for this object: only then
    // does the thread's end vote.
    int m_bStarted;
    // Set when a join gave up on the thread, so that Destory leaves the object
    // to the thread's own end.
    int m_bAbandoned;
};

#endif  // RTTHREAD_H
