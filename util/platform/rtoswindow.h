// The platform layer's message pump: hidden windows, per-thread message queues,
// window timers and socket readiness delivered as window messages. The
// framework's window-message reactors and the DNS notification window stand on
// it; hosts never include this file (they drive the main thread through the
// reactor's exported loop operations).
//
// Model. Each thread that uses the pump gets one message queue, created on the
// thread's first call that needs it. A window belongs to the thread that
// created it; its class (registered by name) gives its window procedure and its
// extra bytes. Posted messages, window timers and socket readiness of the
// thread's windows all reach the thread through its queue, and the thread
// sleeps in a single wait until one of them is there.
//
// Thread rules:
//   - any thread: WindowClassRegister/Unregister, WindowPostMessage,
//     WindowSetLong/GetLong, WindowDefProc, SocketSendWouldBlock, the lParam
//     helpers.
//   - the window's owner thread only (other threads fail with EPERM):
//     WindowDestroy, WindowSetTimer/KillTimer, SocketAsyncSelect.
//   - the calling thread's own queue: WindowCreate (the new window is the
//     caller's), MessageGet, MessagePeek, MessageTranslate, MessageDispatch,
//     MessagePostQuit, MessageQueueFd, MessageQueueClose.
//
// Lifetime. A thread's queue and everything it holds (its windows, timers,
// socket selections and descriptors) are released when the thread ends, or
// earlier by MessageQueueClose. Windows released that way get no WM_DESTROY.
// Posting to a window that is gone, or whose thread has ended, fails and the
// message is dropped.
//
// Errors follow the system convention: a failing call returns 0, null, false
// or -1 as stated and leaves the reason in the last error (errno).
//
// On Windows these are the system's own windows, queues, timers and
// WSAAsyncSelect, with the system's errors; the owner-thread checks are the
// system's too, MessageQueueFd has no descriptor to give (-1) and
// SocketSendWouldBlock has nothing to do.
#ifndef RTOSWINDOW_H
#define RTOSWINDOW_H

#include <cstdint>

#include "rtexport.h"

namespace rtos {

// An opaque window handle; never reused within a process.
typedef struct WindowTag* WindowHandle;

// A window procedure; runs on the window's thread.
typedef intptr_t (*WindowProc)(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam,
                               intptr_t aLParam);

struct Message {
    WindowHandle hwnd;  // null for WM_QUIT
    uint32_t message;
    uintptr_t wParam;
    intptr_t lParam;
};

// Messages, with their Windows values.
constexpr uint32_t kWmDestroy = 0x0002;
constexpr uint32_t kWmQuit = 0x0012;
constexpr uint32_t kWmTimer = 0x0113;  // wParam: the timer id
constexpr uint32_t kWmUser = 0x0400;

// Socket events of SocketAsyncSelect, with their Windows values.
constexpr long kFdRead = 0x01;
constexpr long kFdWrite = 0x02;
constexpr long kFdOob = 0x04;  // accepted, never reported
constexpr long kFdAccept = 0x08;
constexpr long kFdConnect = 0x10;
constexpr long kFdClose = 0x20;

// A socket message's lParam: the event in the low word, the error (errno) in
// the high word.
constexpr intptr_t SelectLParam(long aEvent, int aError) {
    return static_cast<intptr_t>((static_cast<uint32_t>(aError) & 0xFFFFu) << 16 |
                                 (static_cast<uint32_t>(aEvent) & 0xFFFFu));
}
constexpr long SelectEvent(intptr_t aLParam) {
    return static_cast<long>(aLParam & 0xFFFF);
}
constexpr int SelectError(intptr_t aLParam) {
    return static_cast<int>((aLParam >> 16) & 0xFFFF);
}

// ---- Window classes and windows ---------------------------------------------

// Registers a class for the whole process and returns its atom. aWndExtra bytes
// are rounded up to whole pointer-sized slots, so a class that asks for 4 bytes
// (a pointer on 32-bit Windows) holds a pointer at index 0. 0 with EEXIST if
// the name is taken, EINVAL for a null name or procedure or a negative size.
RT_API uint16_t WindowClassRegister(const char* aName, WindowProc aProc, int aWndExtra);
// False with ENOENT if not registered, EBUSY while windows of the class exist.
RT_API bool WindowClassUnregister(const char* aName);

// Creates a hidden window of a registered class, owned by the calling thread.
// Null with ENOENT for an unknown class.
RT_API WindowHandle WindowCreate(const char* aClassName);
// Calls the procedure with WM_DESTROY at once (the window is still usable
// inside), then ends the window's timers and socket selections and drops its
// queued messages. False with EBADF for an unknown window.
RT_API bool WindowDestroy(WindowHandle aWnd);

// The pointer-sized slot at byte offset aIndex (a multiple of the pointer
// size). SetLong returns the previous value and leaves the last error alone on
// success; both return 0 with EBADF (unknown window) or EINVAL (bad index).
RT_API intptr_t WindowSetLong(WindowHandle aWnd, int aIndex, intptr_t aValue);
RT_API intptr_t WindowGetLong(WindowHandle aWnd, int aIndex);

// The default procedure: does nothing and returns 0.
RT_API intptr_t WindowDefProc(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam,
                              intptr_t aLParam);

// ---- The message queue --------------------------------------------------------

// Appends a message to the queue of the window's thread and wakes the thread.
// False with EBADF when the window is gone (the message is dropped).
RT_API bool WindowPostMessage(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam,
                              intptr_t aLParam);

// Waits for the calling thread's next message: posted messages first in, first
// out, with socket readiness as it happens; a due window timer between batches;
// WM_QUIT once the queue is empty after MessagePostQuit. Returns 1 for a
// message, 0 for WM_QUIT, -1 with EINVAL for a null aMsg.
RT_API int MessageGet(Message* aMsg);
// Takes the next message as MessageGet would, without waiting; false when there
// is none. WM_QUIT is returned as a message.
RT_API bool MessagePeek(Message* aMsg);
// Nothing to translate without a keyboard; returns false.
RT_API bool MessageTranslate(const Message* aMsg);
// Calls the window procedure of the message's window on the calling thread and
// returns its result; 0 (with EBADF) when the window is gone or not the
// caller's, or the message has no window.
RT_API intptr_t MessageDispatch(const Message* aMsg);
// Asks for WM_QUIT with the code in wParam, once the queue is empty.
RT_API void MessagePostQuit(int aExitCode);

// A descriptor that is readable while the calling thread's queue has work from
// outside: a message posted by another thread (or by this thread outside a
// dispatch), a due timer, or socket readiness. For hosts that run another event
// loop: when it is readable, take messages with MessagePeek until it returns
// false; work that a dispatch on this thread makes for its own queue is found
// by that same loop. Owned by the queue: do not close it. -1 on failure.
RT_API int MessageQueueFd();
// Releases the calling thread's queue now, as its end would. False with EBUSY
// inside a dispatch; true when there was none.
RT_API bool MessageQueueClose();

// ---- Window timers ------------------------------------------------------------

// A WM_TIMER to the window every aMsec milliseconds (at least 10), never more
// than one waiting at a time. An aId of 0 picks an unused id. Setting an
// existing id restarts it. Returns the id, 0 on failure.
RT_API uintptr_t WindowSetTimer(WindowHandle aWnd, uintptr_t aId, uint32_t aMsec);
// False with EINVAL when there is no such timer.
RT_API bool WindowKillTimer(WindowHandle aWnd, uintptr_t aId);

// ---- Socket readiness ---------------------------------------------------------

// Reports the socket's events (kFd* bits) to the window as aMsg, wParam = the
// socket, lParam = SelectLParam(event, error). Makes the socket non-blocking.
// Replaces an earlier selection of the socket; aEvents 0 cancels it and drops
// its queued notifications. The rules:
//   kFdConnect  once, when a connect completes, with its error if it failed
//               (then nothing more); a connect that succeeds is followed by
//               the first kFdWrite. The pump learns of a connect from the
//               socket's state: one that already succeeded when the socket
//               is selected reads as an established connection (kFdWrite
//               only; on loopback that can happen before connect returns),
//               so select before connecting, as a connector should.
//   kFdAccept   while connections wait to be accepted, one message at a time.
//   kFdRead     while data waits, one message at a time.
//   kFdWrite    when the socket first becomes writable, and again only after a
//               send failed with would-block (see SocketSendWouldBlock) and
//               room came back.
//   kFdClose    once, when the peer closed (after the data that remained was
//               reported by kFdRead) or the connection broke (with the error);
//               nothing more follows.
// 0, or -1 with EBADF/ENOTSOCK (not a socket), EBADF (unknown window), EPERM
// (the window is another thread's) or EBUSY (selected by another thread).
RT_API int SocketAsyncSelect(int aSocket, WindowHandle aWnd, uint32_t aMsg, long aEvents);
// Tells the pump that a send on aSocket failed with would-block, so that kFdWrite
// is reported again when room comes back. Any thread; does nothing for a socket
// that is not selected for kFdWrite.
RT_API void SocketSendWouldBlock(int aSocket);
// The bytes waiting to be read on a socket (ioctlsocket FIONREAD). 0, or -1
// with the error in the last error.
RT_API int SocketReadableBytes(int aSocket, unsigned long* aCount);

}  // namespace rtos

#endif  // RTOSWINDOW_H
