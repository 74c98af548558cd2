// The host's entry points to the main thread's message loop.
#include "rtmainloop.h"

#include "rtdebug.h"
#include "rtos.h"
#include "rtoswindow.h"
#include "rtreactorinterface.h"
#include "rtthreadmanager.h"

namespace {

// The main reactor, or null (with the reason traced) when the caller may not
// drive it.
IRtReactor* MainReactorForCaller(const char* aWho) {
    CRtThreadManager* pManager = CRtThreadManager::Instance();
    IRtReactor* pReactor =
        pManager ? pManager->GetThreadReactor(CRtThreadManager::TT_MAIN) : nullptr;
    if (!pReactor) {
        RT_ERROR_TRACE(aWho << ", no main reactor.");
        return nullptr;
    }
    if (!CRtThreadManager::IsEqualCurrentThread(static_cast<int>(CRtThreadManager::TT_MAIN))) {
        RT_ERROR_TRACE(aWho << ", not on the main thread. tid="
                            << CRtThreadManager::GetThreadSelfId());
        return nullptr;
    }
    return pReactor;
}

}  // namespace

int RtRunMainLoop() {
    if (!CRtThreadManager::Instance()) {
        return RT_ERROR_NOT_INITIALIZED;
    }
    IRtReactor* pReactor = MainReactorForCaller("::RtRunMainLoop");
    return pReactor ? pReactor->RunEventLoop() : RT_ERROR_FAILURE;
}

int RtProcessMainLoopPending(unsigned long* aDispatched) {
    if (aDispatched) {
        *aDispatched = 0;
    }
    if (!CRtThreadManager::Instance()) {
        return RT_ERROR_NOT_INITIALIZED;
    }
    if (!MainReactorForCaller("::RtProcessMainLoopPending")) {
        return RT_ERROR_FAILURE;
    }
    unsigned long count = 0;
    rtos::Message msg;
    while (count < kRtMainLoopBatch && rtos::MessagePeek(&msg)) {
        if (msg.message == rtos::kWmQuit) {
            break;
        }
        rtos::MessageTranslate(&msg);
        rtos::MessageDispatch(&msg);
        ++count;
    }
    if (aDispatched) {
        *aDispatched = count;
    }
    return RT_OK;
}

int RtGetMainLoopFd() {
    if (!MainReactorForCaller("::RtGetMainLoopFd")) {
        return -1;
    }
    return rtos::MessageQueueFd();
}

int RtStopMainLoop() {
    // Often called from a signal-watching thread: never create the framework.
    CRtThreadManager* pManager = CRtThreadManager::InstanceIfAny();
    IRtReactor* pReactor =
        pManager ? pManager->GetThreadReactor(CRtThreadManager::TT_MAIN) : nullptr;
    RT_ASSERTE_RETURN(pReactor, RT_ERROR_NOT_INITIALIZED);
    return pReactor->StopEventLoop();
}
