// The reactor thread: opens its reactor on the right thread, runs its loop and
// closes it on the same thread.
#include "rtthreadreactor.h"

#include "rtdebug.h"
#include "rtdnsmanager.h"
#include "rtreactorinterface.h"

CRtThreadReactor::CRtThreadReactor() : m_pReactor(nullptr), m_pDnsManager(nullptr) {}

CRtThreadReactor::~CRtThreadReactor() {
    // The reactor's own destructor closes it.
    delete m_pReactor;
    m_pReactor = nullptr;
}

int CRtThreadReactor::Init(IRtReactor* aReactor) {
    RT_ASSERTE_RETURN(!m_pReactor, RT_ERROR_ALREADY_INITIALIZED);
    RT_ASSERTE_RETURN(aReactor, RT_ERROR_INVALID_ARG);
    m_pReactor = aReactor;
    return RT_OK;
}

void CRtThreadReactor::SetDnsManager(CRtDnsManager* aDnsManager) {
    m_pDnsManager = aDnsManager;
}

int CRtThreadReactor::Create(int aType, CRtThreadManager::TFlag aFlag) {
    int rv = CRtThread::Create(aType, aFlag);
    if (RT_SUCCEEDED(rv) && aType == CRtThreadManager::TT_MAIN) {
        RT_ASSERTE_RETURN(m_pReactor, RT_ERROR_NOT_INITIALIZED);
        rv = m_pReactor->Open();
        if (RT_FAILED(rv)) {
            RT_ERROR_TRACE("CRtThreadReactor::Create, m_pReactor->Open() failed! rv=" << rv);
        }
    }
    return rv;
}

int CRtThreadReactor::Stop(CRtTimeValue* aTimeout) {
    (void)aTimeout;
    RT_ASSERTE_RETURN(m_pReactor, RT_ERROR_NOT_INITIALIZED);
    return m_pReactor->StopEventLoop();
}

void CRtThreadReactor::OnThreadInit() {
    RT_ASSERTE_RETURN_VOID(m_pReactor);
    if (m_Type == CRtThreadManager::TT_MAIN) {
        return;
    }
    int rv = m_pReactor->Open();
    if (RT_FAILED(rv)) {
        RT_ERROR_TRACE("CRtThreadReactor::OnThreadInit, m_pReactor->Open() failed! rv=" << rv);
        RT_ASSERTE(FALSE);
    }
}

void CRtThreadReactor::OnThreadRun() {
    RT_ASSERTE_RETURN_VOID(m_pReactor);
    RT_INFO_TRACE("CRtThreadReactor::OnThreadRun, Begin.");
    m_pReactor->RunEventLoop();
    m_pReactor->Close();
    // The DNS window was created on this thread and must end on it.
    if (m_pDnsManager) {
        m_pDnsManager->DestroyDnsWindow();
        m_pDnsManager = nullptr;
    }
    RT_INFO_TRACE("CRtThreadReactor::OnThreadRun, End.");
}

IRtReactor* CRtThreadReactor::GetReactor() {
    return m_pReactor;
}

IRtEventQueue* CRtThreadReactor::GetEventQueue() {
    return m_pReactor;
}

IRtTimerQueue* CRtThreadReactor::GetTimerQueue() {
    return m_pReactor;
}
