// The DNS manager's notification side: the observers and their delivery, the
// hidden window that receives the answers of asynchronous lookups on the
// network thread, and the DNS thread of thread mode.
//
// Delivery and cancellation race through one step: whoever removes an
// observer's registration (TakeObserver_i or CancelResolve) decides. The
// delivering side calls the observer only after it removed the registration
// itself, so an observer is called at most once, and never after its cancel
// returned RT_OK.
#include <atomic>
#include <mutex>
#include <new>

#include "rtdnsmanager.h"
#include "rtnothrow.h"
#include "rtos.h"
#include "rtosnet.h"
#include "rtoswindow.h"
#include "rtthread.h"
#include "rtthreadmanager.h"
#include "rtthreadreactor.h"

namespace {

const char* const kTopic = "DnsManager";
// Registered by the first window, on the network thread; unregistered by the
// thread manager once that thread has ended.
std::atomic<uint16_t> g_atomDnsRegisterClass{0};

// Outlives the manager. A shutdown gives up on a DNS thread stuck in a lookup
// after 500 ms and destroys the manager; when the lookup comes back, the
// thread must touch nothing of it. The thread holds this lock whenever it uses
// the manager, and the destructor clears the pointer under it.
struct DnsThreadLife {
    std::mutex lock;
    CRtDnsManager* manager = nullptr;
};

DnsThreadLife& Life() {
    static DnsThreadLife* s_life = new DnsThreadLife();
    return *s_life;
}

}  // namespace

// Posted to the DNS thread for each lookup; owns nothing, deletes itself.
class CRtDnsLookupEvent : public IRtEvent {
public:
    int OnEventFire() override { return CRtDnsManager::RunThreadLookups_i(); }
};

// ---- CRtDnsObserverEvent --------------------------------------------------------------

CRtDnsObserverEvent::CRtDnsObserverEvent(CRtDnsManager* aDnsManager, IRtObserver* aObserver,
                                         CRtThread* aThreadListener, int aError,
                                         const CRtString& aHostName)
    : m_pDnsManager(aDnsManager),
      m_pObserver(aObserver),
      m_pThreadListener(aThreadListener),
      m_nError(aError),
      m_strHostName(aHostName) {
    RT_ASSERTE(m_pDnsManager);
    RT_ASSERTE(m_pObserver);
    RT_ASSERTE(m_pThreadListener);
}

int CRtDnsObserverEvent::OnEventFire() {
    RT_ASSERTE(CRtThreadManager::IsEqualCurrentThread(m_pThreadListener->GetThreadId()));
    if (m_pObserver && m_pDnsManager->TakeObserver_i(m_pObserver, m_strHostName) == RT_OK) {
        m_pObserver->OnObserve(kTopic, &m_nError);
    }
    return RT_OK;
}

// ---- Observers --------------------------------------------------------------------------

int CRtDnsManager::TryAddObserver_l(IRtObserver* aObserver, CRtThread* aThreadListener,
                                    const CRtString& aHostName) {
    if (!aObserver) {
        return RT_ERROR_INVALID_ARG;
    }
    if (!aThreadListener) {
        CRtThreadManager* threads = CRtThreadManager::Instance();
        aThreadListener = threads ? threads->GetThread(CRtThreadManager::TT_CURRENT) : nullptr;
        // Nobody could ever deliver to such an entry, so none is made.
        RT_ASSERTE_RETURN(aThreadListener, RT_ERROR_INVALID_ARG);
    }
    for (const CRtDnsObserverEvent& entry : m_Observers) {
        if (entry.m_pObserver == aObserver) {
            RT_WARNING_TRACE("CRtDnsManager::TryAddObserver_l, observer already exist. aObserver="
                             << aObserver << " aThreadListener=" << aThreadListener);
            return RT_ERROR_FOUND;
        }
    }
    try {
        m_Observers.push_back(CRtDnsObserverEvent(this, aObserver, aThreadListener, 0, aHostName));
    } catch (const std::bad_alloc&) {
        RT_ERROR_TRACE("CRtDnsManager::TryAddObserver_l, out of memory. aObserver=" << aObserver);
        return RT_ERROR_OUT_OF_MEMORY;
    }
    return RT_OK;
}

int CRtDnsManager::CancelResolve(IRtObserver* aObserver) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    for (ObserversType::iterator it = m_Observers.begin(); it != m_Observers.end(); ++it) {
        if (it->m_pObserver == aObserver) {
            m_Observers.erase(it);
            return RT_OK;
        }
    }
    return RT_ERROR_NOT_FOUND;
}

int CRtDnsManager::TakeObserver_i(IRtObserver* aObserver, const CRtString& aHostName) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    for (ObserversType::iterator it = m_Observers.begin(); it != m_Observers.end(); ++it) {
        if (it->m_pObserver == aObserver) {
            // Cancelled and registered again for another name: not this lookup's.
            if (it->m_strHostName != aHostName) {
                return RT_ERROR_NOT_FOUND;
            }
            m_Observers.erase(it);
            return RT_OK;
        }
    }
    return RT_ERROR_NOT_FOUND;
}

int CRtDnsManager::DoCallback_l(int aError, const CRtString& aHostName) {
    if (m_Observers.empty()) {
        return 0;
    }
    // Observers may call back into the manager: they run on a copy, unlocked.
    const ObserversType observers(m_Observers);
    const CRtString hostName(aHostName);
    m_Mutex.UnLock();
    for (const CRtDnsObserverEvent& entry : observers) {
        if (entry.m_strHostName != hostName) {
            continue;
        }
        if (CRtThreadManager::IsEqualCurrentThread(entry.m_pThreadListener->GetThreadId())) {
            if (entry.m_pObserver && TakeObserver_i(entry.m_pObserver, hostName) == RT_OK) {
                int error = aError;
                entry.m_pObserver->OnObserve(kTopic, &error);
            }
            continue;
        }
        IRtEventQueue* queue = entry.m_pThreadListener->GetEventQueue();
        if (!queue) {
            continue;  // the registration stays; nobody can deliver it
        }
        CRtDnsObserverEvent* event = RtNewNoThrow<CRtDnsObserverEvent>(entry);
        if (!event) {
            RT_ERROR_TRACE("CRtDnsManager::DoCallback_l, out of memory. aObserver="
                           << entry.m_pObserver << " this=" << this);
            continue;
        }
        event->m_nError = aError;
        // The queue owns the event from here, whether it takes it or not.
        queue->PostEvent(event, IRtEventQueue::EPRIORITY_NORMAL);
    }
    m_Mutex.Lock();
    return 0;
}

// ---- The manager as an event ---------------------------------------------------------

int CRtDnsManager::OnEventFire() {
    RT_ASSERTE_RETURN(!m_bIsEL98, RT_ERROR_UNEXPECTED);
    RT_ASSERTE(CRtThreadManager::IsEqualCurrentThread(m_pThreadNetwork->GetThreadId()));
    return CreateDnsWindow();
}

IRtEvent* CRtDnsManager::NewLookupEvent_i() {
    return new (std::nothrow) CRtDnsLookupEvent();
}

void CRtDnsManager::SetThreadLookupTarget_i(CRtDnsManager* aManager) {
    std::lock_guard<std::mutex> life(Life().lock);
    Life().manager = aManager;
}

int CRtDnsManager::RunThreadLookups_i() {
    std::unique_lock<std::mutex> life(Life().lock);
    CRtDnsManager* self = Life().manager;
    if (!self) {
        return RT_ERROR_NOT_AVAILABLE;
    }
    RT_ASSERTE(CRtThreadManager::IsEqualCurrentThread(self->m_pThreadDNS->GetThreadId()));
    // One event works off the whole queue; later ones may find it empty.
    self->m_Mutex.Lock();
    while (!self->m_PendingRecords.empty()) {
        RecordPtr record = self->m_PendingRecords.front();
        self->PrepareLookup_l(record.Get());
        self->m_Mutex.UnLock();
        life.unlock();
        int err = LookUp_i(record.Get());
        life.lock();
        if (Life().manager != self) {
            return RT_ERROR_NOT_AVAILABLE;  // the record goes with our reference
        }
        self->m_Mutex.Lock();
        self->Resolved_l(record.Get(), err, TRUE);
    }
    self->m_Mutex.UnLock();
    return RT_OK;
}

void CRtDnsManager::OnDestorySelf() {}

// ---- Thread mode -----------------------------------------------------------------------

int CRtDnsManager::SpawnDnsThread_l() {
    RT_ASSERTE(!m_pThreadDNS);
    CRtThreadManager* threads = CRtThreadManager::Instance();
    int rv = threads ? threads->CreateUserTaskThread(m_pThreadDNS, CRtThreadManager::TF_JOINABLE, 0)
                     : RT_ERROR_NULL_POINTER;
    if (RT_FAILED(rv)) {
        RT_ERROR_TRACE("CRtDnsManager::SpawnDnsThread_l, create DNS thread failed!");
        m_pThreadDNS = nullptr;
    } else {
        RT_INFO_TRACE("CRtDnsManager::SpawnDnsThread_l, create DNS thread.");
    }
    return rv;
}

// ---- Window mode -----------------------------------------------------------------------

int CRtDnsManager::CreateDnsWindow() {
    RT_ASSERTE(!m_bIsEL98);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    RT_ASSERTE_RETURN(!m_hwndDsnWindow, RT_ERROR_ALREADY_INITIALIZED);
    if (g_atomDnsRegisterClass.load() == 0) {
        // Room for the manager's address at index 0.
        if (!rtos::WindowClassRegister(s_szDnsWindowClass, &DnsEventWndProc, sizeof(void*))) {
            RT_ERROR_TRACE("CRtDnsManager::CreateDnsWindow, RegisterClass() failed! err="
                           << rtos::LastError());
            return RT_ERROR_UNEXPECTED;
        }
        g_atomDnsRegisterClass.store(1);
    }
    rtos::WindowHandle wnd = rtos::WindowCreate(s_szDnsWindowClass);
    if (!wnd) {
        RT_ERROR_TRACE(
            "CRtDnsManager::CreateDnsWindow, CreateWindow() failed! err=" << rtos::LastError());
        return RT_ERROR_UNEXPECTED;
    }
    rtos::SetLastError(0);
    if (rtos::WindowSetLong(wnd, 0, reinterpret_cast<intptr_t>(this)) == 0 &&
        rtos::LastError() != 0) {
        RT_ERROR_TRACE(
            "CRtDnsManager::CreateDnsWindow, SetWindowLong() failed! err=" << rtos::LastError());
        rtos::WindowDestroy(wnd);
        return RT_ERROR_UNEXPECTED;
    }
    m_hwndDsnWindow = wnd;
    RT_ASSERTE(m_pThreadNetwork &&
               CRtThreadManager::IsEqualCurrentThread(m_pThreadNetwork->GetThreadId()));
    // The network thread destroys the window when its loop ends.
    CRtThreadReactor* network = dynamic_cast<CRtThreadReactor*>(m_pThreadNetwork);
    RT_ASSERTE(network);
    if (network) {
        network->SetDnsManager(this);
    }
    return RT_OK;
}

uint16_t CRtDnsManager::RegisteredClassAtom() {
    return g_atomDnsRegisterClass.load();
}

int CRtDnsManager::UnregisterWindowClass() {
    if (g_atomDnsRegisterClass.exchange(0) == 0) {
        return RT_OK;
    }
    return rtos::WindowClassUnregister(s_szDnsWindowClass) ? RT_OK : RT_ERROR_FAILURE;
}

void CRtDnsManager::DestroyDnsWindow() {
    rtos::WindowHandle wnd = nullptr;
    {
        // Callers on other threads read the handle to send requests.
        CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
        wnd = m_hwndDsnWindow;
        m_hwndDsnWindow = nullptr;
    }
    if (!wnd) {
        return;
    }
    bool rv = rtos::WindowDestroy(wnd);
    RT_ASSERTE(rv);
    RT_INFO_TRACE("CRtDnsManager::DestroyDnsWindow"
                  << " this=" << this);
}

intptr_t CRtDnsManager::DnsEventWndProc(rtos::WindowHandle aHwnd, uint32_t aMsg, uintptr_t aWParam,
                                        intptr_t aLParam) {
    if (aMsg != s_dwResolvedMessage) {
        return rtos::WindowDefProc(aHwnd, aMsg, aWParam, aLParam);
    }
    CRtDnsManager* pDnsManager = reinterpret_cast<CRtDnsManager*>(rtos::WindowGetLong(aHwnd, 0));
    RT_ASSERTE_RETURN(pDnsManager, 0);
    pDnsManager->OnRequestDone_i(aWParam, rtos::AsyncLookupError(aLParam));
    return 0;
}

void CRtDnsManager::OnRequestDone_i(uintptr_t aRequest, int aError) {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    RT_ASSERTE_RETURN_VOID(!m_PendingRecords.empty());
    // The answer belongs to the record that sent the request, wherever it is.
    PendingRecordsType::iterator it = m_PendingRecords.begin();
    while (it != m_PendingRecords.end() && (*it)->m_HandleResolve != aRequest) {
        ++it;
    }
    if (it == m_PendingRecords.end()) {
        RT_WARNING_TRACE("CRtDnsManager::OnRequestDone_i, no record sent the request. aRequest="
                         << aRequest << " this=" << this);
        return;
    }
    RecordPtr record = *it;
    record->m_HandleResolve = 0;
    Resolved_l(record.Get(), aError, TRUE);
    StartNextRequest_l();
}
