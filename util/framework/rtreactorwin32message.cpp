// The window-message reactors: the notification window, its messages, the
// loop, and socket watching through the asynchronous select.
#include "rtreactorwin32message.h"

#include "rtdebug.h"
#include "rtmutex.h"
#include "rtos.h"
#include "rtoswindow.h"

namespace {

// The class stays registered until the thread manager goes; reactors opened
// on several threads race to register it, hence the lock.
CRtMutexThread& ClassLock() {
    static CRtMutexThread* s_lock = new CRtMutexThread();
    return *s_lock;
}
std::atomic<uint16_t> g_atomRegisterClass{0};

void* HandleFromSocket(uintptr_t aSocket) {
    return reinterpret_cast<void*>(aSocket);
}

int SocketFromHandle(void* aFd) {
    return static_cast<int>(reinterpret_cast<intptr_t>(aFd));
}

CRtReactorWin32Message* ReactorOf(rtos::WindowHandle aHwnd) {
    return reinterpret_cast<CRtReactorWin32Message*>(rtos::WindowGetLong(aHwnd, 0));
}

}  // namespace

const char* const CRtReactorWin32Message::kWindowClassName = "RtWin32SocketNotification";

CRtReactorWin32Message::CRtReactorWin32Message()
    : m_hwndNotify(nullptr), m_dwTimerId(0), m_bEventTurnLost(0) {}

CRtReactorWin32Message::~CRtReactorWin32Message() {
    RT_INFO_TRACE("CRtReactorWin32Message::~CRtReactorWin32Message m_hwndNotify="
                  << static_cast<void*>(m_hwndNotify.load()) << " this=" << this);
    Close();
}

uint16_t CRtReactorWin32Message::RegisteredClassAtom() {
    return g_atomRegisterClass.load();
}

int CRtReactorWin32Message::UnregisterWindowClass() {
    CRtMutexGuardT<CRtMutexThread> guard(ClassLock());
    if (g_atomRegisterClass.load() == 0) {
        return RT_OK;
    }
    bool ok = rtos::WindowClassUnregister(kWindowClassName);
    // Forgotten either way: the next Open registers it again if it must.
    g_atomRegisterClass.store(0);
    return ok ? RT_OK : RT_ERROR_FAILURE;
}

int CRtReactorWin32Message::Open() {
    int rv = RT_ERROR_UNEXPECTED;
    RT_ASSERTE_RETURN(!m_hwndNotify.load(), RT_ERROR_ALREADY_INITIALIZED);

    rtos::WindowHandle hwnd = nullptr;
    rv = CRtReactorBase::Open();
    if (RT_FAILED(rv)) {
        goto fail;
    }

    {
        CRtMutexGuardT<CRtMutexThread> guard(ClassLock());
        if (g_atomRegisterClass.load() == 0) {
            // Room for the reactor's address at index 0.
            uint16_t atom =
                rtos::WindowClassRegister(kWindowClassName, &Win32SocketWndProc, sizeof(void*));
            if (atom == 0) {
                RT_ERROR_TRACE("CRtReactorWin32Message::Open, RegisterClass() failed! err="
                               << rtos::LastError() << " this=" << this);
                rv = RT_ERROR_FAILURE;
                goto fail;
            }
            g_atomRegisterClass.store(atom);
        }
    }

    hwnd = rtos::WindowCreate(kWindowClassName);
    if (!hwnd) {
        RT_ERROR_TRACE("CRtReactorWin32Message::Open, CreateWindow() failed! err="
                       << rtos::LastError() << " this=" << this);
        rv = RT_ERROR_FAILURE;
        goto fail;
    }
    m_hwndNotify.store(hwnd);

    // The address goes in before the tick starts and before any socket or
    // wake-up can reach the window.
    rtos::SetLastError(0);
    if (rtos::WindowSetLong(hwnd, 0, reinterpret_cast<intptr_t>(this)) == 0 &&
        rtos::LastError() != 0) {
        RT_ERROR_TRACE("CRtReactorWin32Message::Open, SetWindowLong() failed! err="
                       << rtos::LastError() << " this=" << this);
        rv = RT_ERROR_FAILURE;
        goto fail;
    }

    m_dwTimerId = rtos::WindowSetTimer(hwnd, m_dwTimerId, kTickMsec);
    if (m_dwTimerId == 0) {
        RT_ERROR_TRACE("CRtReactorWin32Message::Open, SetTimer() failed! err=" << rtos::LastError()
                                                                               << " this=" << this);
        rv = RT_ERROR_FAILURE;
        goto fail;
    }

    // A reactor may run again after a stop.
    m_StopFlag.m_bStoppedFlag.store(0);
    RT_INFO_TRACE("CRtReactorWin32Message::Open, m_hwndNotify" << static_cast<void*>(hwnd)
                                                               << " this=" << this);
    return RT_OK;

fail:
    Close();
    RT_ASSERTE(RT_FAILED(rv));
    return rv;
}

int CRtReactorWin32Message::NotifyHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) {
    void* fdNew = RtInvalidHandle();
    if (aEh) {
        m_Est.EnsureSingleThread();
        fdNew = aEh->GetHandle();
        RT_ASSERTE(fdNew != RtInvalidHandle());
    }

    rtos::WindowHandle hwnd = m_hwndNotify.load();
    if (!rtos::WindowPostMessage(hwnd, WM_WIN32_SOCKET_NOTIFY, reinterpret_cast<uintptr_t>(fdNew),
                                 static_cast<intptr_t>(aMask))) {
        RT_ERROR_TRACE("CRtReactorWin32Message::NotifyHandler, PostMessage() failed! err="
                       << rtos::LastError() << " m_hwndNotify=" << static_cast<void*>(hwnd)
                       << " this=" << this);
        if (!aEh) {
            m_bEventTurnLost.store(1);
        }
        return RT_ERROR_UNEXPECTED;
    }
    return RT_OK;
}

int CRtReactorWin32Message::RunEventLoop() {
    RT_INFO_TRACE("CRtReactorWin32Message::RunEventLoop"
                  << " this=" << this);
    m_Est.EnsureSingleThread();

    rtos::Message msg;
    while (!m_StopFlag.IsFlagStopped() && rtos::MessageGet(&msg) > 0) {
        rtos::MessageTranslate(&msg);
        rtos::MessageDispatch(&msg);
    }
    return RT_OK;
}

int CRtReactorWin32Message::StopEventLoop() {
    RT_INFO_TRACE("CRtReactorWin32Message::StopEventLoop"
                  << " this=" << this);
    // No wake-up is posted: the loop sees the flag after its next message, at
    // the latest on the next tick.
    m_StopFlag.m_bStoppedFlag.store(1);
    CRtEventQueueBase::Stop();
    return RT_OK;
}

int CRtReactorWin32Message::Close() {
    rtos::WindowHandle hwnd = m_hwndNotify.load();
    RT_INFO_TRACE("CRtReactorWin32Message::Close, m_hwndNotify=" << static_cast<void*>(hwnd)
                                                                 << " this=" << this);
    if (hwnd) {
        // Also ends the tick and every socket selection of the window.
        bool destroyed = rtos::WindowDestroy(hwnd);
        RT_INFO_TRACE("CRtReactorWin32Message::Close, DestroyWindow rv=" << destroyed
                                                                         << " this=" << this);
        m_hwndNotify.store(nullptr);
    }
    return CRtReactorBase::Close();
}

int CRtReactorWin32Message::OnHandleRemoved(void* aFd) {
    m_Est.EnsureSingleThread();
    RT_ERROR_TRACE("CRtReactorWin32Message::OnHandleRemoved, aFd=" << aFd << " this=" << this);
    return RT_OK;
}

int CRtReactorWin32Message::OnHandleRegister(void* aFd, IRtEventHandler::MASK aMask,
                                             IRtEventHandler* aEh) {
    (void)aEh;
    m_Est.EnsureSingleThread();
    RT_ERROR_TRACE("CRtReactorWin32Message::OnHandleRegister, aFd=" << aFd << " aMask=" << aMask
                                                                    << " this=" << this);
    return RT_ERROR_UNEXPECTED;
}

void CRtReactorWin32Message::OnSocketSelect_i(uintptr_t aWParam, intptr_t aLParam) {
    void* sockHandle = HandleFromSocket(aWParam);
    RT_ASSERTE(sockHandle != RtInvalidHandle());

    const long event = rtos::SelectEvent(aLParam);
    const int nErrorCode = rtos::SelectError(aLParam);
    IRtEventHandler::MASK mask = IRtEventHandler::NULL_MASK;
    int rvError = nErrorCode != 0 ? RT_ERROR_NETWORK_SOCKET_ERROR : 0;
    bool known = true;
    switch (event) {
        case rtos::kFdRead:
            mask = IRtEventHandler::READ_MASK;
            break;
        case rtos::kFdWrite:
            mask = IRtEventHandler::WRITE_MASK;
            break;
        case rtos::kFdAccept:
            mask = IRtEventHandler::ACCEPT_MASK;
            break;
        case rtos::kFdConnect:
            mask = IRtEventHandler::CONNECT_MASK;
            break;
        case rtos::kFdClose:
            rvError = RT_ERROR_NETWORK_SOCKET_CLOSE;
            break;
        default:
            known = false;
            break;
    }

    if (event == rtos::kFdClose && nErrorCode == 0) {
        // Let the handler drain what the peer sent before it closed.
        unsigned long dwRemain = 0;
        if (rtos::SocketReadableBytes(static_cast<int>(aWParam), &dwRemain) == 0 && dwRemain > 0) {
            RT_WARNING_TRACE(
                "CRtReactorWin32Message::Win32SocketWndProc, data remained in the handle when "
                "closing, recv it. dwRemain="
                << dwRemain);
            ProcessHandleEvent(sockHandle, IRtEventHandler::READ_MASK, 0, FALSE, FALSE);
        }
    }

    if (nErrorCode != 0 || event == rtos::kFdClose) {
        RT_INFO_TRACE("CRtReactorWin32Message::Win32SocketWndProc, handle is closed. fd="
                      << sockHandle << " mask=" << mask << " nErrorCode=" << nErrorCode
                      << " lParam=" << aLParam << " rvError=" << rvError);
        mask |= IRtEventHandler::CLOSE_MASK;
    }

    if (!known) {
        RT_WARNING_TRACE("CRtReactorWin32Message::Win32SocketWndProc, unknown SELECTEVENT wParam="
                         << aWParam << " lParam=" << aLParam);
        ProcessTimerTick();
        return;
    }

    ProcessHandleEvent(sockHandle, mask, rvError, FALSE, FALSE);
    ProcessTimerTick();
}

intptr_t CRtReactorWin32Message::Win32SocketWndProc(rtos::WindowHandle aHwnd, uint32_t aMsg,
                                                    uintptr_t aWParam, intptr_t aLParam) {
    switch (aMsg) {
        case WM_WIN32_SOCKET_SELECT: {
            CRtReactorWin32Message* pReactor = ReactorOf(aHwnd);
            RT_ASSERTE_RETURN(pReactor, 0);
            pReactor->OnSocketSelect_i(aWParam, aLParam);
            return 0;
        }
        case WM_WIN32_SOCKET_NOTIFY: {
            CRtReactorWin32Message* pReactor = ReactorOf(aHwnd);
            RT_ASSERTE_RETURN(pReactor, 0);
            pReactor->ProcessHandleEvent(HandleFromSocket(aWParam), aLParam, 0, TRUE, FALSE);
            pReactor->ProcessTimerTick();
            return 0;
        }
        case rtos::kWmTimer: {
            CRtReactorWin32Message* pReactor = ReactorOf(aHwnd);
            RT_ASSERTE_RETURN(pReactor, 0);
            if (pReactor->m_bEventTurnLost.exchange(0)) {
                pReactor->ProcessHandleEvent(RtInvalidHandle(), IRtEventHandler::EVENTQUEUE_MASK, 0,
                                             TRUE, FALSE);
            }
            pReactor->ProcessTimerTick();
            return rtos::WindowDefProc(aHwnd, aMsg, aWParam, aLParam);
        }
        case rtos::kWmDestroy:
            RT_INFO_TRACE("CRtReactorWin32Message::Win32SocketWndProc, WM_DESTROY");
            rtos::MessagePostQuit(0);
            return 0;
        default:
            return rtos::WindowDefProc(aHwnd, aMsg, aWParam, aLParam);
    }
}

// ---- CRtReactorWin32AsyncSelect ---------------------------------------------

CRtReactorWin32AsyncSelect::~CRtReactorWin32AsyncSelect() = default;

int CRtReactorWin32AsyncSelect::OnHandleRegister(void* aFd, IRtEventHandler::MASK aMask,
                                                 IRtEventHandler* aEh) {
    (void)aMask;
    (void)aEh;
    return DoAsyncSelect_i(aFd, IRtEventHandler::ALL_EVENTS_MASK);
}

int CRtReactorWin32AsyncSelect::OnHandleRemoved(void* aFd) {
    return DoAsyncSelect_i(aFd, IRtEventHandler::NULL_MASK);
}

int CRtReactorWin32AsyncSelect::DoAsyncSelect_i(void* aFd, IRtEventHandler::MASK aMask) {
    long events = 0;
    if (aMask & IRtEventHandler::CONNECT_MASK) {
        events |= rtos::kFdConnect;
    }
    if (aMask & IRtEventHandler::ACCEPT_MASK) {
        events |= rtos::kFdAccept;
    }
    if (aMask & IRtEventHandler::READ_MASK) {
        events |= rtos::kFdRead;
    }
    if (aMask & IRtEventHandler::WRITE_MASK) {
        events |= rtos::kFdWrite;
    }
    if (events != 0) {
        events |= rtos::kFdClose;
    }

    if (rtos::SocketAsyncSelect(SocketFromHandle(aFd), m_hwndNotify.load(), WM_WIN32_SOCKET_SELECT,
                                events) != 0) {
        RT_ERROR_TRACE("CRtReactorWin32AsyncSelect::DoAsyncSelect_i, WSAAsyncSelect() failed! aFd="
                       << aFd << " err=" << rtos::LastError() << " this=" << this);
        return RT_ERROR_UNEXPECTED;
    }
    return RT_OK;
}
