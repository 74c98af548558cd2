// The DNS manager: host names to IPv4 addresses without blocking the
// framework's threads, with a cache of a few seconds. Hosts use CRtDnsManager
// (Instance and the resolve, refresh and cancel operations) and read the
// CRtDnsRecord it hands out; CRtDnsObserverEvent is a building block.
//
// A lookup runs either as an asynchronous request answered to a hidden window
// on the network thread (window mode, the usual one), or on a DNS thread of the
// manager's own (thread mode: Windows 95/98, or KVTIX_DNS_THREAD_MODE=1 when
// the manager is created). AsyncResolve either answers from the cache (RT_OK)
// or says the lookup runs (RT_ERROR_WOULD_BLOCK); the caller's observer is then
// told, once, on the thread of the caller's choice, and asks again.
//
// Thread rules:
//   - Instance(): first call on the main thread, once the network thread runs.
//   - AsyncResolve, SyncResolve, GetLocalIps, RefreshHost, CancelResolve: any
//     thread. SyncResolve and GetLocalIps block the caller for the lookup.
//   - The manager's timer (cache expiry) runs on the thread that created it,
//     which therefore needs a timer queue; DestroyDnsWindow runs on the network
//     thread, at the end of its loop.
// One lock guards the cache, the pending lookups and the observers; it is never
// held across a blocking lookup or an observer call, so observers may call back
// into the manager.
//
// Ownership: records are counted (CRtAutoPtr); a record handed to a caller
// carries one reference the caller releases. Observers belong to the caller and
// must stay alive while registered: until they are called, or CancelResolve
// returns RT_OK.
#ifndef RTDNSMANAGER_H
#define RTDNSMANAGER_H

#include <cstdint>
#include <list>
#include <map>
#include <vector>

#include "rtdefines.h"
#include "rteventqueuebase.h"
#include "rtmutex.h"
#include "rtobserver.h"
#include "rtreferencecontrol.h"
#include "rttimerwrapper.h"
#include "rttimevalue.h"

class CRtDnsManager;
class CRtThread;
template <class T>
class CRtSingletonT;

namespace rtos {
typedef struct WindowTag* WindowHandle;  // the platform's window handle
}

// One lookup: the name and, once it succeeded, its host entry with every
// pointer leading into the record's own buffer, so any thread may read it.
// Created and changed by the manager under its lock; callers read the state
// and the addresses of records they were handed.
class RT_API CRtDnsRecord : public CRtReferenceControl {
public:
    enum RSV_STATE { RSV_IDLE = 0, RSV_PROCESSING = 1, RSV_SUCCESS = 2, RSV_FAILED = 3 };

    // The record's IPv4 addresses, in network byte order. Reads as INADDR_NONE
    // (0xFFFFFFFF) when empty or past the last address.
    class RT_API iterator {
    public:
        iterator() : m_ppAddr(nullptr) {}
        explicit iterator(char** aAddrList) : m_ppAddr(aAddrList) {}

        uint32_t operator*() const;
        iterator& operator++();
        bool operator==(const iterator& aOther) const;
        bool operator!=(const iterator& aOther) const { return !(*this == aOther); }

    private:
        bool AtEnd_i() const { return !m_ppAddr || !*m_ppAddr; }

        char** m_ppAddr;  // into the record's buffer
    };

    CRtDnsRecord(const CRtString& aHostName, int aIsEL98);

    // The first address; empty (with an assertion trace) unless RSV_SUCCESS.
    iterator begin();
    iterator end() { return iterator(); }

    const CRtString& GetHostName() const { return m_strHostName; }
    // A record handed to a caller is finished and never changes again: the
    // manager reuses a record only while nobody else holds it.
    RSV_STATE GetState() const { return static_cast<RSV_STATE>(m_State); }

    enum { kBufferSize = 1024 };  // the largest host entry an asynchronous lookup gives

protected:
    // Withdraws an outstanding asynchronous request, so that its answer never
    // lands in freed memory.
    ~CRtDnsRecord() override;

private:
    friend class CRtDnsManager;

    CRtString m_strHostName;
    int32_t m_State;
    CRtTimeValue m_tvResolve;   // creation, then arrival of the result
    uintptr_t m_HandleResolve;  // the outstanding asynchronous request, 0 when none
    int32_t m_bIsEL98;
    alignas(void*) char m_szBuffer[kBufferSize];  // the host entry
};

// An observer waiting for a name, and (as a posted copy) its notification on
// the listener thread. The registry holds entries by value; a posted copy
// belongs to the listener's queue, which deletes it.
class RT_API CRtDnsObserverEvent : public IRtEvent {
public:
    CRtDnsObserverEvent(CRtDnsManager* aDnsManager, IRtObserver* aObserver,
                        CRtThread* aThreadListener, int aError, const CRtString& aHostName);
    CRtDnsObserverEvent(const CRtDnsObserverEvent& aOther) = default;
    CRtDnsObserverEvent& operator=(const CRtDnsObserverEvent& aOther) = default;
    ~CRtDnsObserverEvent() override = default;

    // On the listener thread: calls the observer unless it cancelled meanwhile.
    int OnEventFire() override;

private:
    friend class CRtDnsManager;

    CRtDnsManager* m_pDnsManager;
    IRtObserver* m_pObserver;
    CRtThread* m_pThreadListener;
    int m_nError;
    CRtString m_strHostName;
};

class RT_API CRtDnsManager : public IRtEvent, public CRtTimerWrapperSink {
public:
    static CRtDnsManager* Instance();

    // RT_OK with a cached, successful record in aRecord (which must be null on
    // entry); RT_ERROR_WOULD_BLOCK when a lookup runs (a new one, or one already
    // running for the name), after which aObserver, if given, is called once
    // on aThreadListener (null: the calling thread) with "DnsManager" and a
    // pointer to the lookup's error; RT_ERROR_FAILURE when no lookup could be
    // started; RT_ERROR_OUT_OF_MEMORY. A cached failure is looked up again. An
    // observer waits for one name at a time: a second registration is refused.
    int AsyncResolve(CRtDnsRecord*& aRecord, const CRtString& aHostName,
                     IRtObserver* aObserver = nullptr, int aBypassCache = FALSE,
                     CRtThread* aThreadListener = nullptr);
    // Looks the name up on the calling thread: RT_OK with the record, or
    // RT_ERROR_NETWORK_DNS_FAILURE. Takes over a lookup of the name that waits
    // in the queue (its observers are told); one already under way elsewhere
    // goes on and ends on its own.
    int SyncResolve(CRtDnsRecord*& aRecord, const CRtString& aHostName, int aBypassCache = FALSE);
    // The local host name, looked up synchronously; RT_ERROR_FAILURE (the
    // error in errno) when the system will not give the name.
    int GetLocalIps(CRtDnsRecord*& aRecord);
    // Drops the cached result and looks the name up again: RT_ERROR_WOULD_BLOCK
    // or RT_ERROR_FAILURE. Registers no observer.
    int RefreshHost(const CRtString& aHostName);
    // RT_OK, after which aObserver is not called for the lookup it waited for;
    // RT_ERROR_NOT_FOUND when it waits for none.
    int CancelResolve(IRtObserver* aObserver);
    // Forgets every observer, cached result and waiting lookup; no observer is
    // called afterwards. Window mode expects the window gone; in thread mode a
    // lookup under way on the DNS thread finishes unheard.
    int Shutdown();

    // Cache expiry, every 3 seconds on the creating thread.
    void OnTimer(CRtTimerWrapper* aId) override;

    // Window mode: sent to the network thread to create the window there.
    // (Thread mode posts a small event of its own to the DNS thread, which
    // may outlive the manager.)
    int OnEventFire() override;
    // The manager outlives every queue it is posted to; nothing to release.
    void OnDestorySelf() override;

    // Network thread, when its loop has ended: no answer arrives afterwards.
    void DestroyDnsWindow();

    // The notification window class's atom while registered, else 0. It stays
    // registered until the thread manager goes, which unregisters it.
    static uint16_t RegisteredClassAtom();
    static int UnregisterWindowClass();

    static const char* const s_szDnsWindowClass;
    static const uint32_t s_dwResolvedMessage;  // WM_USER + 133

protected:
    ~CRtDnsManager() override;

private:
    friend class CRtSingletonT<CRtDnsManager>;
    friend class CRtDnsObserverEvent;
    friend class CRtDnsLookupEvent;

    typedef CRtAutoPtr<CRtDnsRecord> RecordPtr;
    typedef std::map<CRtString, RecordPtr> CacheRecordsType;
    typedef std::list<RecordPtr> PendingRecordsType;
    typedef std::vector<CRtDnsObserverEvent> ObserversType;

    CRtDnsManager();
    CRtDnsManager(const CRtDnsManager&) = delete;
    CRtDnsManager& operator=(const CRtDnsManager&) = delete;

    // null when the record cannot be allocated.
    CRtDnsRecord* NewRecord_i(const CRtString& aHostName);

    int FindInCache_l(CRtDnsRecord*& aRecord, const CRtString& aHostName);
    // 0 when a lookup runs for the record's name, kBeginNoMemory when it could
    // not be queued, else the error that kept it from starting.
    int BeginResolve_l(CRtDnsRecord* aRecord);
    static constexpr int kBeginNoMemory = -2;
    // BeginResolve_l in result codes: RT_OK when a lookup runs for the name,
    // RT_ERROR_OUT_OF_MEMORY, or RT_ERROR_FAILURE with the record settled.
    int StartResolve_l(CRtDnsRecord* aRecord);
    int DoAsyncHostByName_l(CRtDnsRecord* aRecord);
    int DoGetHostByName_l(CRtDnsRecord* aRecord);
    // The two halves of a blocking lookup: marking the record under the lock,
    // and the lookup itself, which needs neither the lock nor the manager.
    void PrepareLookup_l(CRtDnsRecord* aRecord);
    static int LookUp_i(CRtDnsRecord* aRecord);
    static IRtEvent* NewLookupEvent_i();
    // Who the DNS thread's lookups work for: the manager, or null once it goes.
    static void SetThreadLookupTarget_i(CRtDnsManager* aManager);
    // Finishes a queued lookup: cached, out of the queue, observers told when
    // aCallback is set.
    int Resolved_l(CRtDnsRecord* aRecord, int aError, int aCallback);
    // Marks the record done and caches it (also a synchronous lookup's record).
    void Finish_l(CRtDnsRecord* aRecord, int aError);
    // Window mode: when no request is out, sends the next waiting one; those
    // that cannot be sent are finished as failed, with their observers told.
    void StartNextRequest_l();
    PendingRecordsType::iterator FindPending_l(const CRtString& aHostName);

    // The observer side (rtdnsmanagernotify.cpp).
    int TryAddObserver_l(IRtObserver* aObserver, CRtThread* aThreadListener,
                         const CRtString& aHostName);
    int DoCallback_l(int aError, const CRtString& aHostName);
    int SpawnDnsThread_l();
    // Thread mode, on the DNS thread: works off the waiting lookups, unless
    // the manager is gone, which it may be when a lookup comes back.
    static int RunThreadLookups_i();
    int CreateDnsWindow();
    static intptr_t DnsEventWndProc(rtos::WindowHandle aHwnd, uint32_t aMsg, uintptr_t aWParam,
                                    intptr_t aLParam);
    // Network thread: the answer to request aRequest arrived.
    void OnRequestDone_i(uintptr_t aRequest, int aError);
    // Removes aObserver's registration for aHostName; RT_ERROR_NOT_FOUND when
    // it waits for another name or none. Deciding who delivers: see DoCallback_l.
    int TakeObserver_i(IRtObserver* aObserver, const CRtString& aHostName);

    CacheRecordsType m_CacheRecords;
    PendingRecordsType m_PendingRecords;  // in lookup order
    ObserversType m_Observers;            // in registration order
    CRtMutexThread m_Mutex;
    rtos::WindowHandle m_hwndDsnWindow;  // guarded by m_Mutex
    int32_t m_bIsEL98;
    CRtThread* m_pThreadDNS;
    CRtThread* m_pThreadNetwork;
    CRtTimerWrapper m_Timer;
};

#endif  // RTDNSMANAGER_H
