// The thread registry and the manager's life cycle.
#include "rtthreadmanager.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "rtdebug.h"
#include "rtnothrow.h"
#include "rtdnsmanager.h"
#include "rtos.h"
#include "rtreactorwin32message.h"
#include "rtthread.h"
#include "rtthreadreactor.h"
#include "rtthreadtask.h"
#include "rtutiltemplates.h"

std::atomic<CRtThreadManager*> CRtThreadManager::s_pThreadManagerOnlyOne{nullptr};
int CRtThreadManager::s_bNewByInstance = 0;

CRtThreadManager::CRtThreadManager() : m_nUserType(TT_USER_DEFINE_BASE), m_pNetworkThread(nullptr) {
    RT_INFO_TRACE("CRtThreadManager::CRtThreadManager,"
                  << " this=" << this);
    RT_ASSERTE(!s_pThreadManagerOnlyOne.load());
    s_pThreadManagerOnlyOne.store(this);
}

CRtThreadManager* CRtThreadManager::Instance() {
    CRtThreadManager* pManager = s_pThreadManagerOnlyOne.load(std::memory_order_acquire);
    if (pManager) {
        return pManager;
    }

    RT_WARNING_TRACE("CRtThreadManager::Instance, new CRtThreadManager.");
    pManager = new CRtThreadManager();
    s_bNewByInstance = 1;
    if (RT_FAILED(pManager->InitMainThread(0, nullptr))) {
        delete pManager;
        s_pThreadManagerOnlyOne.store(nullptr);
        return nullptr;
    }
    if (::atexit(&CRtThreadManager::CleanupOnlyOne) != 0) {
        RT_ERROR_TRACE("CRtThreadManager::Instance, atexit() failed. err=" << rtos::LastError());
    }
    return s_pThreadManagerOnlyOne.load();
}

void CRtThreadManager::CleanupOnlyOne() {
    RT_INFO_TRACE("CRtThreadManager::CleanupOnlyOne");
    // A manager the host constructed stays the instance until the host deletes
    // it; forgetting it here would let the next Instance() make a second one.
    if (s_bNewByInstance) {
        delete s_pThreadManagerOnlyOne.load();
        s_bNewByInstance = 0;
        s_pThreadManagerOnlyOne.store(nullptr);
    }
    RT_INFO_TRACE("CRtThreadManager::CleanupOnlyOne, end");
}

CRtThreadManager::~CRtThreadManager() {
    RT_INFO_TRACE("CRtThreadManager::~CRtThreadManager"
                  << " this=" << this);
    StopAllThreads(nullptr);
    JoinAllThreads();

    // Singletons go while the main thread's object still exists.
    CRtCleanUpBase::CleanupAll();

    ThreadsType threads;
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
        threads.swap(m_Threads);
    }
    for (CRtThread* pThread : threads) {
        pThread->Destory(0);
    }

    uint16_t atom = CRtReactorWin32Message::RegisteredClassAtom();
    if (atom != 0) {
        if (RT_FAILED(CRtReactorWin32Message::UnregisterWindowClass())) {
            RT_INFO_TRACE(
                "CRtThreadManager::~CRtThreadManager, UnregisterClass() failed! "
                "g_atomRegisterClass="
                << atom << " g_pReactorWin3Instance=" << static_cast<void*>(nullptr)
                << " err=" << rtos::LastError());
        } else {
            RT_INFO_TRACE("CRtThreadManager::~CRtThreadManager, g_atomRegisterClass="
                          << atom << " g_pReactorWin3Instance=" << static_cast<void*>(nullptr));
        }
    }

    uint16_t dnsAtom = CRtDnsManager::RegisteredClassAtom();
    if (dnsAtom != 0) {
        if (RT_FAILED(CRtDnsManager::UnregisterWindowClass())) {
            RT_INFO_TRACE(
                "CRtThreadManager::~CRtThreadManager, UnregisterClass() failed! "
                "g_atomDnsRegisterClass="
                << dnsAtom << " err=" << rtos::LastError());
        } else {
            RT_INFO_TRACE(
                "CRtThreadManager::~CRtThreadManager, g_atomDnsRegisterClass=" << dnsAtom);
        }
    }

    SocketCleanup();

    CRtThreadManager* self = this;
    s_pThreadManagerOnlyOne.compare_exchange_strong(self, nullptr);
    m_pNetworkThread = nullptr;
    RT_INFO_TRACE("CRtThreadManager::~CRtThreadManager end"
                  << " this=" << this);
}

int CRtThreadManager::InitMainThread(int aArgc, char** aArgv) {
    (void)aArgc;
    (void)aArgv;
    RT_INFO_TRACE("CRtThreadManager::InitMainThread,"
                  << " this=" << this);
    {
        CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
        if (!m_Threads.empty()) {
            RT_ASSERTE(m_Threads.empty());
            RT_ERROR_TRACE(
                "CRtThreadManager::InitMainThread, You should InitMainThread before creating other "
                "thread!");
            return RT_ERROR_ALREADY_INITIALIZED;
        }
    }

    int rv = SocketStartup();
    if (RT_FAILED(rv)) {
        return rv;
    }
    DeleteOutOfDateLog();

    IRtReactor* pReactor = RtNewNoThrow<CRtReactorWin32Message>();
    CRtThread* pMain = nullptr;
    if (pReactor) {
        rv = CreateReactorThread(TT_MAIN, pReactor, pMain);
    } else {
        pMain = RtNewNoThrow<CRtThreadTask>();
        rv = pMain ? pMain->Create(TT_MAIN, TF_JOINABLE) : RT_ERROR_OUT_OF_MEMORY;
    }
    if (RT_FAILED(rv)) {
        if (pMain) {
            pMain->Destory(rv);
        }
        return rv;
    }

    if (RT_FAILED(SpawnNetworkThread_i())) {
        pMain->Destory(0);
        return RT_ERROR_UNEXPECTED;
    }
    // A main reactor thread opened its reactor in Create; a main task thread
    // sets up its queues here.
    pMain->OnThreadInit();
    return RT_OK;
}

int CRtThreadManager::SpawnNetworkThread_i() {
    if (m_pNetworkThread) {
        return RT_OK;
    }
    return CreateReactorThread(TT_NETWORK, CreateNetworkReactor(), m_pNetworkThread);
}

IRtReactor* CRtThreadManager::CreateNetworkReactor() {
    return RtNewNoThrow<CRtReactorWin32AsyncSelect>();
}

int CRtThreadManager::CreateReactorThread(int aType, IRtReactor* aReactor, CRtThread*& aThread) {
    RT_ASSERTE_RETURN(aReactor, RT_ERROR_INVALID_ARG);
    RT_ASSERTE(!aThread);

    CRtThreadReactor* pThread = RtNewNoThrow<CRtThreadReactor>();
    if (!pThread) {
        delete aReactor;
        return RT_ERROR_OUT_OF_MEMORY;
    }
    int rv = pThread->Init(aReactor);
    if (RT_FAILED(rv)) {
        // Not taken over: the reactor goes with the failed call.
        delete aReactor;
        pThread->Destory(rv);
        return rv;
    }
    rv = pThread->Create(aType, TF_JOINABLE);
    if (RT_FAILED(rv)) {
        pThread->Destory(rv);
        return rv;
    }
    aThread = pThread;
    return RT_OK;
}

int CRtThreadManager::CreateUserTaskThread(CRtThread*& aThread, TFlag aFlag, int bWithTimerQueue) {
    RT_ASSERTE(!aThread);
    CRtThread* pThread = bWithTimerQueue ? static_cast<CRtThread*>(RtNewNoThrow<CRtThreadTask>())
                                         : RtNewNoThrow<CRtThreadTaskWithEventQueueOnly>();
    RT_ASSERTE_RETURN(pThread, RT_ERROR_OUT_OF_MEMORY);

    int rv = pThread->Create(GetAndIncreamUserType(), aFlag);
    if (RT_FAILED(rv)) {
        pThread->Destory(rv);
        return rv;
    }
    aThread = pThread;
    return RT_OK;
}

int CRtThreadManager::RegisterThread(CRtThread* aThread) {
    RT_ASSERTE_RETURN(aThread, RT_ERROR_INVALID_ARG);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    for (CRtThread* pThread : m_Threads) {
        if (pThread == aThread || pThread->GetThreadType() == aThread->GetThreadType()) {
            RT_ERROR_TRACE("CRtThreadManager::RegisterThread, have registered. aThread="
                           << aThread << " tid=" << aThread->GetThreadId()
                           << " type=" << aThread->GetThreadType());
            RT_ASSERTE(FALSE);
            return RT_ERROR_FOUND;
        }
    }
    try {
        m_Threads.push_back(aThread);
    } catch (const std::bad_alloc&) {
        RT_ERROR_TRACE("CRtThreadManager::RegisterThread, out of memory. aThread=" << aThread);
        return RT_ERROR_OUT_OF_MEMORY;
    }
    return RT_OK;
}

int CRtThreadManager::UnregisterThread(CRtThread* aThread) {
    RT_ASSERTE_RETURN(aThread, RT_ERROR_INVALID_ARG);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    RT_INFO_TRACE("CRtThreadManager::UnregisterThread, thread=" << aThread << " this=" << this);
    for (auto it = m_Threads.begin(); it != m_Threads.end(); ++it) {
        if (*it == aThread || (*it)->GetThreadType() == aThread->GetThreadType()) {
            m_Threads.erase(it);
            return RT_OK;
        }
    }
    return RT_ERROR_NOT_FOUND;
}

CRtThread* CRtThreadManager::GetThread(int aType) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (aType == TT_CURRENT) {
        unsigned long self = GetThreadSelfId();
        for (CRtThread* pThread : m_Threads) {
            if (IsThreadEqual(pThread->GetThreadId(), self)) {
                return pThread;
            }
        }
        return nullptr;
    }
    for (CRtThread* pThread : m_Threads) {
        if (pThread->GetThreadType() == aType) {
            return pThread;
        }
    }
    return nullptr;
}

IRtReactor* CRtThreadManager::GetThreadReactor(int aType) {
    CRtThread* pThread = GetThread(aType);
    return pThread ? pThread->GetReactor() : nullptr;
}

IRtEventQueue* CRtThreadManager::GetThreadEventQueue(int aType) {
    CRtThread* pThread = GetThread(aType);
    return pThread ? pThread->GetEventQueue() : nullptr;
}

IRtTimerQueue* CRtThreadManager::GetThreadTimerQueue(int aType) {
    CRtThread* pThread = GetThread(aType);
    return pThread ? pThread->GetTimerQueue() : nullptr;
}

int CRtThreadManager::CopyThreadsFromMain_i(ThreadsType& aThreads) {
    CRtThread* pMain = GetThread(TT_MAIN);
    if (pMain) {
        RT_ASSERTE_RETURN(IsThreadEqual(pMain->GetThreadId(), GetThreadSelfId()), RT_ERROR_FAILURE);
    }
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    aThreads = m_Threads;
    return RT_OK;
}

int CRtThreadManager::StopAllThreads(CRtTimeValue* aTimeout) {
    RT_ASSERTE(!aTimeout);
    ThreadsType threads;
    int rv = CopyThreadsFromMain_i(threads);
    if (RT_FAILED(rv)) {
        return rv;
    }
    // Without the registry lock: a stopping thread may unregister itself.
    for (CRtThread* pThread : threads) {
        if (pThread->GetThreadType() != TT_MAIN) {
            pThread->Stop(aTimeout);
        }
    }
    return RT_OK;
}

int CRtThreadManager::JoinAllThreads() {
    ThreadsType threads;
    int rv = CopyThreadsFromMain_i(threads);
    if (RT_FAILED(rv)) {
        return rv;
    }
    for (CRtThread* pThread : threads) {
        if (pThread->GetThreadType() != TT_MAIN) {
            pThread->Join(500);
        }
    }
    return RT_OK;
}

int CRtThreadManager::GetAndIncreamUserType() {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    return ++m_nUserType;
}

int CRtThreadManager::GetSingletonMutex(CRtMutexThreadRecursive*& aMutex) {
    aMutex = &m_SingletonMutex;
    return RT_OK;
}

int CRtThreadManager::GetReferenceControlMutex(CRtMutexThread*& aMutex) {
    aMutex = &m_ReferenceControlMutex;
    return RT_OK;
}

unsigned long CRtThreadManager::GetThreadSelfId() {
    return rtos::CurrentThreadId();
}

bool CRtThreadManager::IsThreadEqual(unsigned long aLeft, unsigned long aRight) {
    return aLeft == aRight;
}

bool CRtThreadManager::IsEqualCurrentThread(unsigned long aTid) {
    return IsThreadEqual(aTid, GetThreadSelfId());
}

bool CRtThreadManager::IsEqualCurrentThread(int aType) {
    CRtThreadManager* pManager = s_pThreadManagerOnlyOne.load(std::memory_order_acquire);
    CRtThread* pThread = pManager ? pManager->GetThread(aType) : nullptr;
    return pThread && IsEqualCurrentThread(pThread->GetThreadId());
}

void CRtThreadManager::SleepMs(unsigned long aMsec) {
    rtos::SleepMs(static_cast<uint32_t>(aMsec));
}
