// CRtThreadManager: the process-wide registry and factory of framework threads.
// Hosts use it directly: Instance() (or construct one and call InitMainThread),
// the lookups by thread type, CreateUserTaskThread and the thread-identity
// helpers.
//
// Thread rules:
//   - Instance() takes no lock: the first call belongs on the thread that is to
//     become the main thread, before other threads use the library.
//   - The lookups, RegisterThread/UnregisterThread, GetAndIncreamUserType and
//     CreateUserTaskThread: any thread (m_Mutex guards the registry).
//   - StopAllThreads and JoinAllThreads: the main thread only, when one is
//     registered.
//   - The static identity operations: any thread.
//
// Ownership: the registry does not own the threads in it. The destructor stops,
// joins and destroys every thread still registered, the main one included.
#ifndef RTTHREADMANAGER_H
#define RTTHREADMANAGER_H

#include <atomic>
#include <vector>

#include "rtdefines.h"
#include "rtmutex.h"

class CRtThread;
class CRtTimeValue;
class IRtEventQueue;
class IRtReactor;
class IRtTimerQueue;

class RT_API CRtThreadManager {
public:
    // Thread types: the key under which a thread is registered.
    enum {
        TT_UNKNOWN = -1,
        TT_MAIN = 0,
        TT_NETWORK = 1,
        TT_CURRENT = 3,  // lookup only: the registered thread that is the caller
        TT_USER_DEFINE_BASE = 1000
    };

    // Creation flag of CRtThread::Create; only bit 0 has a meaning.
    typedef int TFlag;
    enum {
        TF_NONE = 0,
        TF_JOINABLE = 1 << 0,  // the owner joins, then Destory deletes at once
        TF_DETACHED = 1 << 1   // self-deleting: the later of Destory and the thread's end deletes
    };

    enum TModule { TM_SINGLE_MAIN = 0, TM_DEDICATED_NETWORK_THREAD = 1 };

    CRtThreadManager();
    ~CRtThreadManager();

    // The single manager; the first call creates it and adopts the calling
    // thread as the main thread. Null if that initialisation fails.
    static CRtThreadManager* Instance();
    // The manager if there is one; never creates it (any thread).
    static CRtThreadManager* InstanceIfAny() {
        return s_pThreadManagerOnlyOne.load(std::memory_order_acquire);
    }
    // Run by the exit list: deletes a manager that Instance() created.
    static void CleanupOnlyOne();

    // Adopts the calling thread as the main thread (TT_MAIN, driven by a
    // window-message reactor that the host pumps) and starts the network
    // thread (TT_NETWORK). Must come before any other thread is created. The
    // arguments are not used.
    int InitMainThread(int aArgc, char** aArgv);

    // Creates a thread whose loop is aReactor (which it takes over, also on
    // failure) and registers it under aType; TT_MAIN adopts the caller.
    int CreateReactorThread(int aType, IRtReactor* aReactor, CRtThread*& aThread);
    // A new socket-capable reactor, owned by the caller; null without memory.
    static IRtReactor* CreateNetworkReactor();

    // Creates and starts a task thread with the next user type (1001 and up).
    // aThread receives it; the caller ends it with Stop, Join and Destory
    // (or Stop and Destory for a self-deleting one).
    int CreateUserTaskThread(CRtThread*& aThread, TFlag aFlag = TF_JOINABLE,
                             int bWithTimerQueue = 1);

    int RegisterThread(CRtThread* aThread);
    int UnregisterThread(CRtThread* aThread);

    CRtThread* GetThread(int aType);
    // Null for non-reactor threads and for unknown types.
    IRtReactor* GetThreadReactor(int aType);
    IRtEventQueue* GetThreadEventQueue(int aType);
    IRtTimerQueue* GetThreadTimerQueue(int aType);

    // Stop every non-main thread, in registration order; aTimeout is passed on.
    int StopAllThreads(CRtTimeValue* aTimeout = nullptr);
    // Join every non-main thread for up to 500 ms each.
    int JoinAllThreads();

    int GetAndIncreamUserType();

    int GetSingletonMutex(CRtMutexThreadRecursive*& aMutex);
    int GetReferenceControlMutex(CRtMutexThread*& aMutex);

    static unsigned long GetThreadSelfId();
    static bool IsThreadEqual(unsigned long aLeft, unsigned long aRight);
    static bool IsEqualCurrentThread(unsigned long aTid);
    // False when no thread of that type is registered.
    static bool IsEqualCurrentThread(int aType);
    static void SleepMs(unsigned long aMsec);
    static TModule GetNetworkThreadModule() { return TM_DEDICATED_NETWORK_THREAD; }

private:
    // Threads unregister from the manager that exists, never creating one.
    friend class CRtThread;

    CRtThreadManager(const CRtThreadManager&) = delete;
    CRtThreadManager& operator=(const CRtThreadManager&) = delete;

    typedef std::vector<CRtThread*> ThreadsType;

    // Checks that the caller may stop or join all threads; copies the registry.
    int CopyThreadsFromMain_i(ThreadsType& aThreads);
    int SpawnNetworkThread_i();

    CRtMutexThreadRecursive m_SingletonMutex;
    CRtMutexThread m_ReferenceControlMutex;
    ThreadsType m_Threads;
    CRtMutexThread m_Mutex;
    int m_nUserType;
    CRtThread* m_pNetworkThread;

    static std::atomic<CRtThreadManager*> s_pThreadManagerOnlyOne;
    static int s_bNewByInstance;

    // ---- Start-up and shutdown pieces (rtthreadmanagerstartup.cpp) ----------
public:
    // Start and end the sockets (Winsock 2.2) once per process: a second start
    // and an end without a start return RT_OK and do nothing. Main thread
    // only, during initialisation and shutdown: s_bSocketInited is not locked.
    static int SocketStartup();
    static int SocketCleanup();
    static int s_bSocketInited;

private:
    // Removes the trace files in the trace directory dated more than 30 days
    // ago. Run once by InitMainThread.
    void DeleteOutOfDateLog();
    // Lets the tests run DeleteOutOfDateLog on its own.
    friend struct CRtThreadManagerTestAccess;
};

#endif  // RTTHREADMANAGER_H
