// The library's reactors: each opened reactor owns a hidden notification window
// on its thread, and learns everything through that window's messages.
//   - CRtReactorWin32Message: wake-ups and a 30 ms tick, no sockets. The main
//     thread's reactor; its loop is the thread's ordinary message loop.
//   - CRtReactorWin32AsyncSelect: adds socket readiness. The network thread's
//     reactor (CRtThreadManager::CreateNetworkReactor).
// Hosts reach them as IRtReactor through the thread manager; a host without a
// message loop of its own drives the main thread's reactor with the entry
// points of rtmainloop.h.
//
// Thread rules: those of IRtReactor. The window, its timer and its socket
// selections belong to the thread that called Open; other threads reach the
// reactor only by posting (PostEvent, NotifyHandler with a null handler) and
// through StopEventLoop's flag.
#ifndef RTREACTORWIN32MESSAGE_H
#define RTREACTORWIN32MESSAGE_H

#include <atomic>

#include "rtreactorbase.h"

namespace rtos {
typedef struct WindowTag* WindowHandle;  // the platform's window handle
}

class RT_API CRtReactorWin32Message : public CRtReactorBase {
public:
    // The notification window's class, registered once per process.
    static const char* const kWindowClassName;
    // Window messages of the notification window.
    enum { WM_WIN32_SOCKET_SELECT = 0x0400 + 33, WM_WIN32_SOCKET_NOTIFY = 0x0400 + 34 };
    static const uint32_t kTickMsec = 30;

    CRtReactorWin32Message();
    ~CRtReactorWin32Message() override;

    // Creates the window and its tick on the calling thread, which becomes the
    // reactor's owner. RT_ERROR_ALREADY_INITIALIZED when open already.
    int Open() override;
    int NotifyHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) override;
    // Dispatches the thread's messages until StopEventLoop (noticed after the
    // next message, at the latest on the next tick) or WM_QUIT.
    int RunEventLoop() override;
    int StopEventLoop() override;
    // Destroys the window (which ends a GetMessage loop on this thread with
    // WM_QUIT), drops timers and registrations and releases queued events.
    int Close() override;

    // The notification window's procedure; runs on the reactor's thread.
    static intptr_t Win32SocketWndProc(rtos::WindowHandle aHwnd, uint32_t aMsg, uintptr_t aWParam,
                                       intptr_t aLParam);

    // The class atom while registered, else 0; the thread manager unregisters
    // the class when it goes.
    static uint16_t RegisteredClassAtom();
    static int UnregisterWindowClass();

protected:
    // No sockets here: a new handle is refused.
    int OnHandleRemoved(void* aFd) override;
    int OnHandleRegister(void* aFd, IRtEventHandler::MASK aMask, IRtEventHandler* aEh) override;

    // Written on the owner thread, read by posters on any thread.
    std::atomic<rtos::WindowHandle> m_hwndNotify;
    uintptr_t m_dwTimerId;
    // Set when an event-queue wake-up could not be posted; the next tick runs
    // the turn instead, so queued events never wait for a post that will not
    // come (a queue that is not empty sends no further wake-ups).
    std::atomic<int> m_bEventTurnLost;

private:
    void OnSocketSelect_i(uintptr_t aWParam, intptr_t aLParam);
};

class RT_API CRtReactorWin32AsyncSelect : public CRtReactorWin32Message {
public:
    CRtReactorWin32AsyncSelect() = default;
    ~CRtReactorWin32AsyncSelect() override;

protected:
    // Every registered handle is watched for all its events; dispatch filters
    // by the registered mask.
    int OnHandleRemoved(void* aFd) override;
    int OnHandleRegister(void* aFd, IRtEventHandler::MASK aMask, IRtEventHandler* aEh) override;

    int DoAsyncSelect_i(void* aFd, IRtEventHandler::MASK aMask);
};

#endif  // RTREACTORWIN32MESSAGE_H
