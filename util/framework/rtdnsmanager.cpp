// The DNS manager's records, cache and lookups. The observers, the
// notification window and the DNS thread live in rtdnsmanagernotify.cpp.
//
// Pending lookups: in window mode the head of m_PendingRecords is the one
// request out (it holds the request's handle) and the others wait behind it; in
// thread mode the DNS thread works the queue off from the head. A synchronous
// lookup never joins the queue: it runs on a record of its own, so an answer to
// a request always finds the record that sent it.
#include <string.h>

#include <new>

#include "rtdnsmanager.h"
#include "rtnothrow.h"
#include "rtos.h"
#include "rtosfile.h"
#include "rtosnet.h"
#include "rtoswindow.h"
#include "rtthread.h"
#include "rtthreadmanager.h"
#include "rtutiltemplates.h"

namespace {

constexpr uint32_t kInaddrNone = 0xFFFFFFFFu;
// What gethostbyname reports when it fails without saying why.
constexpr int kErrAddrNotAvail = 10049;
// Results older than this go at the next expiry pass, which runs as often.
const CRtTimeValue kCacheLifetime(3L);

}  // namespace

// ---- CRtDnsRecord ---------------------------------------------------------------

CRtDnsRecord::CRtDnsRecord(const CRtString& aHostName, int aIsEL98)
    : m_strHostName(aHostName),
      m_State(RSV_IDLE),
      m_tvResolve(CRtTimeValue::GetTimeOfDay()),
      m_HandleResolve(0),
      m_bIsEL98(aIsEL98) {
    RT_ASSERTE(!m_strHostName.empty());
    ::memset(m_szBuffer, 0, sizeof(m_szBuffer));
}

CRtDnsRecord::~CRtDnsRecord() {
    if (!m_bIsEL98 && m_HandleResolve && m_State == RSV_PROCESSING) {
        rtos::AsyncCancel(m_HandleResolve);
        m_HandleResolve = 0;
    }
}

CRtDnsRecord::iterator CRtDnsRecord::begin() {
    RT_ASSERTE_RETURN(m_State == RSV_SUCCESS, iterator());
    int length = 0;
    char** addrs = rtos::HostentAddrList(reinterpret_cast<const hostent*>(m_szBuffer), &length);
    RT_ASSERTE(length == 4);
    return iterator(addrs);
}

uint32_t CRtDnsRecord::iterator::operator*() const {
    if (AtEnd_i()) {
        return kInaddrNone;
    }
    uint32_t addr;
    ::memcpy(&addr, *m_ppAddr, sizeof(addr));
    return addr;
}

CRtDnsRecord::iterator& CRtDnsRecord::iterator::operator++() {
    if (!AtEnd_i()) {
        ++m_ppAddr;
    }
    return *this;
}

bool CRtDnsRecord::iterator::operator==(const iterator& aOther) const {
    if (AtEnd_i() || aOther.AtEnd_i()) {
        return AtEnd_i() == aOther.AtEnd_i();
    }
    return m_ppAddr == aOther.m_ppAddr;
}

// ---- CRtDnsManager: construction and the cache -------------------------------------

const char* const CRtDnsManager::s_szDnsWindowClass = "RtWin32DNSNotification";
const uint32_t CRtDnsManager::s_dwResolvedMessage = 0x0400 + 133;

CRtDnsManager* CRtDnsManager::Instance() {
    return CRtSingletonT<CRtDnsManager>::Instance();
}

CRtDnsManager::CRtDnsManager()
    : m_hwndDsnWindow(nullptr), m_bIsEL98(FALSE), m_pThreadDNS(nullptr), m_pThreadNetwork(nullptr) {
    CRtThreadManager* threads = CRtThreadManager::Instance();
    if (threads) {
        m_pThreadNetwork = threads->GetThread(CRtThreadManager::TT_NETWORK);
    }
    RT_ASSERTE(m_pThreadNetwork);

    rtos::OsVersion version;
    if (!rtos::GetOsVersion(version)) {
        RT_WARNING_TRACE("CRtDnsManager::CRtDnsManager() GetVersionEx failed, err ="
                         << rtos::LastError() << " this=" << this);
    } else if (version.platformId == rtos::kPlatformWin9x && version.major == 4 &&
               version.minor <= 10) {
        RT_INFO_TRACE("CRtDnsManager::CRtDnsManager() is win98 or lower!"
                      << " this=" << this);
        m_bIsEL98 = TRUE;
    }
    char mode[8];
    if (!m_bIsEL98 && rtos::GetEnv("KVTIX_DNS_THREAD_MODE", mode, sizeof(mode)) &&
        ::strcmp(mode, "1") == 0) {
        RT_INFO_TRACE("CRtDnsManager::CRtDnsManager, thread mode asked by KVTIX_DNS_THREAD_MODE."
                      << " this=" << this);
        m_bIsEL98 = TRUE;
    }

    if (!m_bIsEL98) {
        // The window belongs to the network thread, so it is created there;
        // without that thread there is none, and lookups fail to start.
        IRtEventQueue* network = m_pThreadNetwork ? m_pThreadNetwork->GetEventQueue() : nullptr;
        int rv = RT_ERROR_NULL_POINTER;
        if (m_pThreadNetwork &&
            CRtThreadManager::IsEqualCurrentThread(m_pThreadNetwork->GetThreadId())) {
            rv = CreateDnsWindow();
        } else if (network) {
            rv = network->SendEvent(this);
        }
        RT_ASSERTE(RT_SUCCEEDED(rv));
    }
    RT_ASSERTE(CRtThreadManager::IsEqualCurrentThread(CRtThreadManager::TT_MAIN));
    RT_INFO_TRACE("CRtDnsManager::CRtDnsManager"
                  << " this=" << this);
    m_Timer.Schedule(this, kCacheLifetime, 0);
    SetThreadLookupTarget_i(this);
}

CRtDnsManager::~CRtDnsManager() {
    // First: a DNS thread coming back from a lookup must find nobody.
    SetThreadLookupTarget_i(nullptr);
    Shutdown();
    // A window the network thread did not destroy must not lead to this object.
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (m_hwndDsnWindow) {
        rtos::WindowSetLong(m_hwndDsnWindow, 0, 0);
    }
}

CRtDnsRecord* CRtDnsManager::NewRecord_i(const CRtString& aHostName) {
    CRtDnsRecord* record = RtNewNoThrow<CRtDnsRecord>(aHostName, m_bIsEL98);
    if (!record) {
        RT_ERROR_TRACE("CRtDnsManager::NewRecord_i, out of memory. aHostName=" << aHostName
                                                                               << " this=" << this);
    }
    return record;
}

int CRtDnsManager::FindInCache_l(CRtDnsRecord*& aRecord, const CRtString& aHostName) {
    CacheRecordsType::iterator it = m_CacheRecords.find(aHostName);
    if (it == m_CacheRecords.end()) {
        return RT_ERROR_NOT_FOUND;
    }
    CRtDnsRecord* record = it->second.Get();
    RT_ASSERTE_RETURN(record, RT_ERROR_UNEXPECTED);
    RT_ASSERTE(aHostName == record->m_strHostName);
    switch (record->m_State) {
        case CRtDnsRecord::RSV_SUCCESS:
            record->AddReference();
            aRecord = record;
            return RT_OK;
        case CRtDnsRecord::RSV_FAILED:
            return RT_ERROR_NETWORK_DNS_FAILURE;
        default:
            RT_ERROR_TRACE("CRtDnsManager::FindInCache_l, error state in m_CacheRecords aHostName="
                           << aHostName << " aRecord=" << record << " state=" << record->m_State);
            RT_ASSERTE(FALSE);
            return RT_ERROR_UNEXPECTED;
    }
}

void CRtDnsManager::OnTimer(CRtTimerWrapper* /*aId*/) {
    const CRtTimeValue now = CRtTimeValue::GetTimeOfDay();
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    for (CacheRecordsType::iterator it = m_CacheRecords.begin(); it != m_CacheRecords.end();) {
        const CRtDnsRecord* record = it->second.Get();
        const bool finished = record->m_State == CRtDnsRecord::RSV_SUCCESS ||
                              record->m_State == CRtDnsRecord::RSV_FAILED;
        if (finished && now - record->m_tvResolve > kCacheLifetime) {
            it = m_CacheRecords.erase(it);
        } else {
            ++it;
        }
    }
}

int CRtDnsManager::Shutdown() {
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    m_Observers.clear();
    m_CacheRecords.clear();
    if (m_bIsEL98) {
        // The DNS thread may be inside a lookup on the head record; it finishes
        // that one on its own and finds nobody to tell.
        for (PendingRecordsType::iterator it = m_PendingRecords.begin();
             it != m_PendingRecords.end();) {
            if ((*it)->m_State == CRtDnsRecord::RSV_IDLE) {
                it = m_PendingRecords.erase(it);
            } else {
                ++it;
            }
        }
        return RT_OK;
    }
    RT_ASSERTE(m_hwndDsnWindow == NULL);
    // Each record withdraws its request as it goes.
    m_PendingRecords.clear();
    return RT_OK;
}

// ---- Resolution ----------------------------------------------------------------------

int CRtDnsManager::AsyncResolve(CRtDnsRecord*& aRecord, const CRtString& aHostName,
                                IRtObserver* aObserver, int aBypassCache,
                                CRtThread* aThreadListener) {
    RT_INFO_TRACE("CRtDnsManager::AsyncResolve, aHostName="
                  << aHostName << " aObserver=" << aObserver << " aBypassCache=" << aBypassCache
                  << " aThreadListener=" << aThreadListener);
    RT_ASSERTE(!aRecord);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (!aBypassCache && FindInCache_l(aRecord, aHostName) == RT_OK) {
        return RT_OK;
    }
    RecordPtr record(NewRecord_i(aHostName));
    if (!record) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    int rv = StartResolve_l(record.Get());
    if (rv != RT_OK) {
        return rv;
    }
    // The lookup runs either way; without memory for the registration the
    // caller learns that its observer will not hear of it.
    if (TryAddObserver_l(aObserver, aThreadListener, aHostName) == RT_ERROR_OUT_OF_MEMORY) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    return RT_ERROR_WOULD_BLOCK;
}

int CRtDnsManager::SyncResolve(CRtDnsRecord*& aRecord, const CRtString& aHostName,
                               int aBypassCache) {
    RT_INFO_TRACE("CRtDnsManager::SyncResolve, aHostName=" << aHostName
                                                           << " aBypassCache=" << aBypassCache);
    RT_ASSERTE(!aRecord);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    if (!aBypassCache && FindInCache_l(aRecord, aHostName) == RT_OK) {
        return RT_OK;
    }
    // A lookup of the name still waiting its turn is done here instead, and its
    // observers hear of it as they would have. One already under way is left to
    // finish: its answer must find its own record.
    RecordPtr record;
    PendingRecordsType::iterator pending = FindPending_l(aHostName);
    const bool takeOver =
        pending != m_PendingRecords.end() && (*pending)->m_State == CRtDnsRecord::RSV_IDLE;
    if (takeOver) {
        RT_WARNING_TRACE("CRtDnsManager::SyncResolve, remove pending for hostname=" << aHostName);
        record = *pending;
        m_PendingRecords.erase(pending);
    } else {
        record = NewRecord_i(aHostName);
        if (!record) {
            return RT_ERROR_OUT_OF_MEMORY;
        }
    }
    int err = DoGetHostByName_l(record.Get());
    Finish_l(record.Get(), err);
    if (takeOver) {
        DoCallback_l(err, aHostName);
    }
    if (err != 0) {
        return RT_ERROR_NETWORK_DNS_FAILURE;
    }
    aRecord = record.Get();
    aRecord->AddReference();
    return RT_OK;
}

int CRtDnsManager::GetLocalIps(CRtDnsRecord*& aRecord) {
    char name[512];
    int err = rtos::GetHostName(name, sizeof(name));
    if (err != 0) {
        rtos::SetLastError(err);
        RT_ERROR_TRACE("CRtDnsManager::GetLocalIps, gethostname() failed! err=" << err);
        return RT_ERROR_FAILURE;
    }
    return SyncResolve(aRecord, name, FALSE);
}

int CRtDnsManager::RefreshHost(const CRtString& aHostName) {
    RT_INFO_TRACE("CRtDnsManager::RefreshHost, aHostName=" << aHostName);
    CRtMutexGuardT<CRtMutexThread> guard(m_Mutex);
    RecordPtr record;
    CacheRecordsType::iterator cached = m_CacheRecords.find(aHostName);
    if (cached != m_CacheRecords.end()) {
        RecordPtr old = cached->second;
        m_CacheRecords.erase(cached);
        RT_ASSERTE(old->m_State == CRtDnsRecord::RSV_SUCCESS ||
                   old->m_State == CRtDnsRecord::RSV_FAILED);
        RT_ASSERTE(old->m_strHostName == aHostName);
        // Reused only when nobody else holds it: a caller reading its addresses
        // must not see the buffer rewritten under it.
        if (old->GetReference() == 1) {
            old->m_State = CRtDnsRecord::RSV_IDLE;
            record = old;
        }
    }
    if (!record) {
        record = NewRecord_i(aHostName);
        if (!record) {
            return RT_ERROR_OUT_OF_MEMORY;
        }
    }
    int rv = StartResolve_l(record.Get());
    return rv == RT_OK ? RT_ERROR_WOULD_BLOCK : rv;
}

CRtDnsManager::PendingRecordsType::iterator CRtDnsManager::FindPending_l(
    const CRtString& aHostName) {
    PendingRecordsType::iterator it = m_PendingRecords.begin();
    while (it != m_PendingRecords.end() && (*it)->m_strHostName != aHostName) {
        ++it;
    }
    return it;
}

int CRtDnsManager::BeginResolve_l(CRtDnsRecord* aRecord) {
    RT_ASSERTE_RETURN(aRecord, -999);
    if (FindPending_l(aRecord->m_strHostName) != m_PendingRecords.end()) {
        return 0;  // the lookup already on its way serves this request too
    }
    try {
        m_PendingRecords.push_back(aRecord);
    } catch (const std::bad_alloc&) {
        RT_ERROR_TRACE(
            "CRtDnsManager::BeginResolve_l, out of memory. aHostName=" << aRecord->m_strHostName);
        return kBeginNoMemory;
    }
    if (m_bIsEL98) {
        if (!m_pThreadDNS && RT_FAILED(SpawnDnsThread_l())) {
            return -1;
        }
        IRtEventQueue* queue = m_pThreadDNS->GetEventQueue();
        IRtEvent* lookup = NewLookupEvent_i();
        // A refused post releases the event, a null one included.
        if (!queue || RT_FAILED(queue->PostEvent(lookup, IRtEventQueue::EPRIORITY_NORMAL))) {
            return -1;
        }
        return 0;
    }
    return m_PendingRecords.size() == 1 ? DoAsyncHostByName_l(aRecord) : 0;
}

int CRtDnsManager::StartResolve_l(CRtDnsRecord* aRecord) {
    int rv = BeginResolve_l(aRecord);
    if (rv == kBeginNoMemory) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    if (rv != 0) {
        Resolved_l(aRecord, rv, FALSE);
        return RT_ERROR_FAILURE;
    }
    return RT_OK;
}

int CRtDnsManager::DoAsyncHostByName_l(CRtDnsRecord* aRecord) {
    RT_ASSERTE(!m_bIsEL98);
    RT_ASSERTE_RETURN(aRecord, RT_ERROR_INVALID_ARG);
    RT_ASSERTE(aRecord->m_State == CRtDnsRecord::RSV_IDLE);
    aRecord->m_State = CRtDnsRecord::RSV_PROCESSING;
    RT_ASSERTE_RETURN(m_hwndDsnWindow, RT_ERROR_NOT_INITIALIZED);
    rtos::AsyncRequest request = rtos::AsyncGetHostByName(
        m_hwndDsnWindow, s_dwResolvedMessage, aRecord->m_strHostName.c_str(), aRecord->m_szBuffer,
        sizeof(aRecord->m_szBuffer));
    if (!request) {
        int err = rtos::LastError();
        RT_ASSERTE(err != 0);
        RT_ERROR_TRACE(
            "CRtDnsManager::DoAsyncHostByName_l, WSAAsyncGetHostByName() failed. err=" << err);
        return err ? err : RT_ERROR_FAILURE;
    }
    RT_ASSERTE(aRecord->m_HandleResolve == 0);
    aRecord->m_HandleResolve = request;
    return 0;
}

int CRtDnsManager::DoGetHostByName_l(CRtDnsRecord* aRecord) {
    RT_ASSERTE_RETURN(aRecord, RT_ERROR_INVALID_ARG);
    PrepareLookup_l(aRecord);
    // The record is ours while it is PROCESSING; only the lock goes.
    m_Mutex.UnLock();
    int err = LookUp_i(aRecord);
    m_Mutex.Lock();
    return err;
}

void CRtDnsManager::PrepareLookup_l(CRtDnsRecord* aRecord) {
    RT_ASSERTE(aRecord->m_State == CRtDnsRecord::RSV_IDLE);
    aRecord->m_State = CRtDnsRecord::RSV_PROCESSING;
    ::memset(aRecord->m_szBuffer, 0, sizeof(aRecord->m_szBuffer));
}

int CRtDnsManager::LookUp_i(CRtDnsRecord* aRecord) {
    hostent* host = nullptr;
    int err = rtos::GetHostByName(aRecord->m_strHostName.c_str(), aRecord->m_szBuffer,
                                  sizeof(aRecord->m_szBuffer), &host);
    if (err == 0 && !host) {
        err = kErrAddrNotAvail;
    }
    if (err != 0) {
        RT_ERROR_TRACE("CRtDnsManager::DoGetHostByName_l, gethostbyname() failed. host="
                       << aRecord->m_strHostName << " err=" << err);
    }
    return err;
}

void CRtDnsManager::Finish_l(CRtDnsRecord* aRecord, int aError) {
    RT_INFO_TRACE("CRtDnsManager::Resolved_l, pRecord="
                  << aRecord << " hostname=" << aRecord->m_strHostName << " aError=" << aError);
    aRecord->m_State = aError == 0 ? CRtDnsRecord::RSV_SUCCESS : CRtDnsRecord::RSV_FAILED;
    aRecord->m_tvResolve = CRtTimeValue::GetTimeOfDay();
    try {
        m_CacheRecords[aRecord->m_strHostName] = aRecord;
    } catch (const std::bad_alloc&) {
        // Only the cache misses it: the record still reaches whoever holds it.
        RT_ERROR_TRACE("CRtDnsManager::Finish_l, out of memory, not cached. hostname="
                       << aRecord->m_strHostName);
    }
}

int CRtDnsManager::Resolved_l(CRtDnsRecord* aRecord, int aError, int aCallback) {
    RT_ASSERTE_RETURN(aRecord, RT_ERROR_INVALID_ARG);
    // A lookup that could not even start may still be idle.
    RT_ASSERTE(aRecord->m_State == CRtDnsRecord::RSV_PROCESSING ||
               aRecord->m_State == CRtDnsRecord::RSV_IDLE);
    // Hold it: the queue's reference goes below.
    RecordPtr record(aRecord);
    Finish_l(aRecord, aError);
    PendingRecordsType::iterator it = m_PendingRecords.begin();
    while (it != m_PendingRecords.end() && it->Get() != aRecord) {
        ++it;
    }
    if (it != m_PendingRecords.end()) {
        m_PendingRecords.erase(it);
    } else {
        RT_ERROR_TRACE(
            "CRtDnsManager::Resolved_l, can't find pending. maybe it's removed due to Sync and "
            "Aysnc resolve the same hostname. hsotname"
            << aRecord->m_strHostName);
        RT_ASSERTE(FALSE);
    }
    if (aCallback) {
        DoCallback_l(aError, aRecord->m_strHostName);
    }
    return 0;
}

void CRtDnsManager::StartNextRequest_l() {
    while (!m_PendingRecords.empty()) {
        RecordPtr head = m_PendingRecords.front();
        if (head->m_State == CRtDnsRecord::RSV_PROCESSING) {
            return;  // one request out at a time
        }
        int rv = DoAsyncHostByName_l(head.Get());
        if (rv == 0) {
            return;
        }
        Resolved_l(head.Get(), rv, TRUE);
    }
}
