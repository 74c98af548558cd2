// The thread object: start handshake, registration, join and destruction.
#include "rtthread.h"

#include "rtconditionvariable.h"
#include "rtdebug.h"
#include "rtos.h"

namespace {

const RT_THREAD_HANDLE kInvalidHandle = reinterpret_cast<RT_THREAD_HANDLE>(RT_INVALID_HANDLE);

// The platform reports a bad handle as a failed wait, as the system would.
rtos::Handle ToPlatform(RT_THREAD_HANDLE aHandle) {
    return aHandle == kInvalidHandle ? nullptr : aHandle;
}

}  // namespace

CRtThread::CRtThread()
    : m_Tid(0),
      m_Handle(kInvalidHandle),
      m_Type(CRtThreadManager::TT_UNKNOWN),
      m_Flag(CRtThreadManager::TF_NONE),
      m_pEvent4Start(nullptr),
      m_bRegistered(0),
      m_nDeleteVotes(0),
      m_bStarted(0),
      m_bAbandoned(0) {}

CRtThread::CRtThread(const CRtThread& aOther)
    : m_Tid(aOther.m_Tid),
      m_Handle(aOther.m_Handle),
      m_Type(aOther.m_Type),
      m_Flag(aOther.m_Flag),
      m_pEvent4Start(aOther.m_pEvent4Start),
      m_bRegistered(aOther.m_bRegistered),
      m_nDeleteVotes(aOther.m_nDeleteVotes.load()),
      m_bStarted(aOther.m_bStarted),
      m_bAbandoned(aOther.m_bAbandoned) {}

CRtThread& CRtThread::operator=(const CRtThread& aOther) {
    m_Tid = aOther.m_Tid;
    m_Handle = aOther.m_Handle;
    m_Type = aOther.m_Type;
    m_Flag = aOther.m_Flag;
    m_pEvent4Start = aOther.m_pEvent4Start;
    m_bRegistered = aOther.m_bRegistered;
    m_nDeleteVotes.store(aOther.m_nDeleteVotes.load());
    m_bStarted = aOther.m_bStarted;
    m_bAbandoned = aOther.m_bAbandoned;
    return *this;
}

CRtThread::~CRtThread() {
    RT_INFO_TRACE("CRtThread::~CRtThread m_bRegistered=" << m_bRegistered << " this=" << this);
    if (m_bRegistered) {
        UnregisterFromManager_i();
    }
    CloseHandle_i();
}

int CRtThread::Create(int aType, CRtThreadManager::TFlag aFlag) {
    RT_INFO_TRACE("CRtThread::Create, aType=" << aType << " aFlag=" << aFlag << " this=" << this);
    RT_ASSERTE_RETURN(m_Type == CRtThreadManager::TT_UNKNOWN, RT_ERROR_ALREADY_INITIALIZED);
    RT_ASSERTE_RETURN(aType != CRtThreadManager::TT_UNKNOWN, RT_ERROR_INVALID_ARG);

    m_Type = aType;
    m_Flag = aFlag;
    if (m_Flag == CRtThreadManager::TF_NONE) {
        m_Flag = CRtThreadManager::TF_JOINABLE;
    }

    if (m_Type == CRtThreadManager::TT_MAIN) {
        m_Tid = static_cast<uint32_t>(CRtThreadManager::GetThreadSelfId());
    } else {
        // Without a manager yet, this thread (not the new one) becomes the main thread.
        CRtThreadManager::Instance();
        RT_ASSERTE(!m_pEvent4Start);
        m_pEvent4Start = new (std::nothrow) CRtEventThread();
        if (!m_pEvent4Start || !m_pEvent4Start->GetHandle()) {
            // Without its kernel event the start could not be waited for, and
            // the new thread would signal an event already deleted.
            delete m_pEvent4Start;
            m_pEvent4Start = nullptr;
            return RT_ERROR_OUT_OF_MEMORY;
        }
        // The new thread records its own id; the platform's copy is not needed.
        uint32_t tid = 0;
        rtos::Handle handle = rtos::ThreadCreate(&CRtThread::ThreadProc, this, &tid);
        if (!handle) {
            RT_ERROR_TRACE("CRtThread::Create, _beginthreadex() failed! err=" << rtos::LastError());
            delete m_pEvent4Start;
            m_pEvent4Start = nullptr;
            return RT_ERROR_UNEXPECTED;
        }
        m_Handle = handle;
        m_bStarted = 1;
        m_pEvent4Start->Wait(nullptr);
        delete m_pEvent4Start;
        m_pEvent4Start = nullptr;
    }

    int rv = CRtThreadManager::Instance()->RegisterThread(this);
    if (RT_SUCCEEDED(rv)) {
        m_bRegistered = 1;
    } else {
        Stop(nullptr);
        Join(0xFFFFFFFF);
    }
    return rv;
}

int CRtThread::Stop(CRtTimeValue* aTimeout) {
    (void)aTimeout;
    RT_ASSERTE_RETURN(!"CRtThread::Stop", RT_ERROR_NOT_IMPLEMENTED);
    return RT_ERROR_NOT_IMPLEMENTED;
}

void CRtThread::OnThreadInit() {}

IRtReactor* CRtThread::GetReactor() {
    return nullptr;
}
IRtEventQueue* CRtThread::GetEventQueue() {
    return nullptr;
}
IRtTimerQueue* CRtThread::GetTimerQueue() {
    return nullptr;
}

unsigned CRtThread::ThreadProc(void* aPara) {
    RT_INFO_TRACE("CRtThread::ThreadProc, begin this=" << aPara);
    CRtThread* pThread = static_cast<CRtThread*>(aPara);
    RT_ASSERTE_RETURN(pThread, 0);

    pThread->m_Tid = static_cast<uint32_t>(CRtThreadManager::GetThreadSelfId());
    pThread->OnThreadInit();
    if (pThread->m_Type != CRtThreadManager::TT_MAIN) {
        RT_ASSERTE(pThread->m_pEvent4Start);
        if (pThread->m_pEvent4Start) {
            pThread->m_pEvent4Start->Signal();
        }
    }

    pThread->OnThreadRun();

    // After this vote the object may belong to Destory, which may delete it.
    if (pThread->VoteDelete_i()) {
        delete pThread;
    }
    RT_INFO_TRACE("CRtThread::ThreadProc, quit ... this=" << aPara);
    return 0;
}

int CRtThread::Join(unsigned long aTimeout) {
    if (CRtThreadManager::IsEqualCurrentThread(static_cast<unsigned long>(m_Tid))) {
        return RT_ERROR_FAILURE;
    }

    uint32_t ret = rtos::HandleWait(ToPlatform(m_Handle), static_cast<uint32_t>(aTimeout));
    int rv;
    if (ret == rtos::kWaitSignalled) {
        rv = RT_OK;
    } else if (ret == rtos::kWaitTimeout) {
        RT_WARNING_TRACE(
            "CRtThread::Join, WaitForSingleObject() timeout! tid=" << m_Tid << " this=" << this);
        // No thread can be stopped safely from outside: it keeps running,
        // detached, and keeps its object until it ends.
        RT_ERROR_TRACE("CRtThread::Join, thread left running. tid=" << m_Tid << " this=" << this);
        rtos::ThreadAbandon(m_Handle);
        m_bAbandoned = 1;
        rv = RT_ERROR_TIMEOUT;
    } else {
        RT_ERROR_TRACE("CRtThread::Join, WaitForSingleObject() failed! err="
                       << rtos::LastError() << " tid=" << m_Tid << " this=" << this);
        rv = RT_ERROR_FAILURE;
    }
    CloseHandle_i();
    return rv;
}

int CRtThread::Destory(int aReason) {
    RT_INFO_TRACE("CRtThread::Destory, aReason=" << aReason << " this=" << this);
    int rv = RT_OK;
    if (m_bRegistered) {
        rv = UnregisterFromManager_i();
    }
    RT_INFO_TRACE("CRtThread::Destory, after UnregisterThread rv=" << rv << " this=" << this);

    bool mayRun = false;
    if (m_bStarted) {
        if (RT_BIT_DISABLED(m_Flag, CRtThreadManager::TF_JOINABLE) || m_bAbandoned) {
            mayRun = true;
        } else if (m_Handle != kInvalidHandle &&
                   rtos::HandleWait(m_Handle, 0) != rtos::kWaitSignalled) {
            RT_ERROR_TRACE(
                "CRtThread::Destory, thread not joined and still running, left to end. "
                "tid="
                << m_Tid << " this=" << this);
            mayRun = true;
        }
    }
    if (mayRun) {
        const void* self = this;
        CloseHandle_i();
        if (!VoteDelete_i()) {
            return RT_OK;  // the thread's own end deletes the object
        }
        delete this;
        RT_INFO_TRACE("CRtThread::Destory, after delete this"
                      << " this=" << self);
        return RT_OK;
    }

    const void* self = this;
    delete this;
    RT_INFO_TRACE("CRtThread::Destory, after delete this"
                  << " this=" << self);
    return RT_OK;
}

bool CRtThread::VoteDelete_i() {
    return m_nDeleteVotes.fetch_add(1, std::memory_order_acq_rel) + 1 >= 2;
}

int CRtThread::UnregisterFromManager_i() {
    m_bRegistered = 0;
    CRtThreadManager* pManager = CRtThreadManager::s_pThreadManagerOnlyOne.load();
    return pManager ? pManager->UnregisterThread(this) : RT_ERROR_NOT_FOUND;
}

void CRtThread::CloseHandle_i() {
    if (m_Handle != kInvalidHandle) {
        rtos::HandleClose(m_Handle);
        m_Handle = kInvalidHandle;
    }
}
