// The object base, the clean-up chain, the owner-thread check, the stop flag
// and the main thread's stop signal.
#include "rtutiltemplates.h"

#include <cstring>

#include "rtthread.h"
#include "rtthreadmanager.h"

// ---- CRtBaseObj --------------------------------------------------------------

CRtBaseObj::CRtBaseObj() {
    std::memset(m_szObjKey, 0, sizeof(m_szObjKey));
}

CRtBaseObj::CRtBaseObj(const CRtBaseObj& aOther) {
    std::memcpy(m_szObjKey, aOther.m_szObjKey, sizeof(m_szObjKey));
}

CRtBaseObj& CRtBaseObj::operator=(const CRtBaseObj& aOther) {
    std::memcpy(m_szObjKey, aOther.m_szObjKey, sizeof(m_szObjKey));
    return *this;
}

CRtBaseObj::~CRtBaseObj() = default;

void CRtBaseObj::SetObjKey(const char* aKey) {
    if (!aKey) {
        return;
    }
    size_t len = std::strlen(aKey);
    if (len < sizeof(m_szObjKey)) {
        std::memcpy(m_szObjKey, aKey, len + 1);
    }
}

// ---- CRtCleanUpBase ----------------------------------------------------------

CRtCleanUpBase* CRtCleanUpBase::s_pHeader = nullptr;

CRtMutexThreadRecursive* CRtCleanUpBase::GetSingletonMutex_i() {
    CRtMutexThreadRecursive* pMutex = nullptr;
    CRtThreadManager* pManager = CRtThreadManager::Instance();
    if (pManager) {
        pManager->GetSingletonMutex(pMutex);
    }
    RT_ASSERTE(pMutex);
    return pMutex;
}

CRtCleanUpBase::CRtCleanUpBase() : m_pNext(nullptr) {
    CRtMutexThreadRecursive* pMutex = GetSingletonMutex_i();
    if (pMutex) {
        pMutex->Lock();
    }
    m_pNext = s_pHeader;
    s_pHeader = this;
    if (pMutex) {
        pMutex->UnLock();
    }
}

CRtCleanUpBase::~CRtCleanUpBase() = default;

void CRtCleanUpBase::CleanUp() {
    delete this;
}

void CRtCleanUpBase::CleanupAll() {
    CRtMutexThreadRecursive* pMutex = GetSingletonMutex_i();
    if (pMutex) {
        pMutex->Lock();
    }
    while (s_pHeader) {
        CRtCleanUpBase* pNext = s_pHeader->m_pNext;
        s_pHeader->CleanUp();
        s_pHeader = pNext;
    }
    if (pMutex) {
        pMutex->UnLock();
    }
}

// ---- CRtEnsureSingleThread ---------------------------------------------------

CRtEnsureSingleThread::CRtEnsureSingleThread()
    : m_ThreadIdOpen(static_cast<uint32_t>(CRtThreadManager::GetThreadSelfId())) {}

void CRtEnsureSingleThread::EnsureSingleThread() const {
    unsigned long tidCur = CRtThreadManager::GetThreadSelfId();
    (void)tidCur;
    RT_ASSERTE(CRtThreadManager::IsThreadEqual(m_ThreadIdOpen, tidCur));
}

void CRtEnsureSingleThread::Reset2CurrentThreadId() {
    m_ThreadIdOpen = static_cast<uint32_t>(CRtThreadManager::GetThreadSelfId());
}

void CRtEnsureSingleThread::Reset2ThreadId(unsigned long aTid) {
    m_ThreadIdOpen = static_cast<uint32_t>(aTid);
}

// ---- CRtStopFlag -------------------------------------------------------------

CRtStopFlag::CRtStopFlag() : m_bStoppedFlag(1) {}

int CRtStopFlag::IsFlagStopped() const {
    m_Est.EnsureSingleThread();
    return m_bStoppedFlag.load(std::memory_order_relaxed);
}

void CRtStopFlag::SetStartFlag() {
    m_Est.EnsureSingleThread();
    RT_ASSERTE(m_bStoppedFlag);
    m_bStoppedFlag.store(0, std::memory_order_relaxed);
}

void CRtStopFlag::SetStopFlag() {
    m_Est.EnsureSingleThread();
    m_bStoppedFlag.store(1, std::memory_order_relaxed);
}

// ---- CRtSignalStop -----------------------------------------------------------

CRtSignalStop CRtSignalStop::s_rtSignalStopSingleton;

CRtSignalStop::CRtSignalStop() = default;
CRtSignalStop::~CRtSignalStop() = default;

CRtSignalStop* CRtSignalStop::Instance() {
    return &s_rtSignalStopSingleton;
}

int CRtSignalStop::Launch(int aSignal) {
    (void)aSignal;
    CRtThreadManager* pManager = CRtThreadManager::Instance();
    CRtThread* pMain = pManager ? pManager->GetThread(CRtThreadManager::TT_MAIN) : nullptr;
    if (!pMain) {
        return RT_ERROR_FAILURE;
    }
    int rv = pMain->Stop(nullptr);
    RT_ASSERTE(RT_SUCCEEDED(rv));
    return rv;
}

int CRtSignalStop::OnEventFire() {
    CRtThreadManager* pManager = CRtThreadManager::Instance();
    CRtThread* pMain = pManager ? pManager->GetThread(CRtThreadManager::TT_MAIN) : nullptr;
    if (!pMain) {
        return RT_ERROR_NULL_POINTER;
    }
    return pMain->Stop(nullptr);
}

void CRtSignalStop::OnDestorySelf() {}
