// Window messages on Windows: real window classes, message-only (hidden)
// windows, the thread's own message queue, window timers and WSAAsyncSelect.
//
// A class of this layer is a Windows class whose procedure is Trampoline: it
// forwards to the layer's procedure (a plain function, not a WINAPI one) kept
// in the window's first extra slot, so the caller's slots begin one pointer
// further on. Only the messages the layer defines reach that procedure (posted
// ones from WM_USER on, WM_TIMER, WM_DESTROY); the system's own housekeeping
// goes to DefWindowProcA.
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "rtoswindow.h"

namespace rtos {
namespace {

constexpr int kProcSlot = 0;
constexpr int kSlotBase = static_cast<int>(sizeof(void*));

HINSTANCE ThisModule() {
    static HINSTANCE s_module = [] {
        HMODULE module = nullptr;
        ::GetModuleHandleExA(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<LPCSTR>(&ThisModule), &module);
        return module;
    }();
    return s_module;
}

// Class names to their procedures, for WindowCreate.
struct ClassTable {
    std::mutex lock;
    std::map<std::string, WindowProc> procs;

    static ClassTable& Get() {
        static ClassTable* s_table = new ClassTable;  // never destroyed: used at exit
        return *s_table;
    }
};

HWND Hwnd(WindowHandle aWnd) {
    return reinterpret_cast<HWND>(aWnd);
}
WindowHandle Handle(HWND aWnd) {
    return reinterpret_cast<WindowHandle>(aWnd);
}

bool IsLayerMessage(UINT aMsg) {
    return aMsg >= WM_USER || aMsg == WM_TIMER || aMsg == WM_DESTROY;
}

LRESULT CALLBACK Trampoline(HWND aWnd, UINT aMsg, WPARAM aWParam, LPARAM aLParam) {
    if (aMsg == WM_NCCREATE) {
        const CREATESTRUCTA* create = reinterpret_cast<const CREATESTRUCTA*>(aLParam);
        ::SetWindowLongPtrA(aWnd, kProcSlot, reinterpret_cast<LONG_PTR>(create->lpCreateParams));
    }
    WindowProc proc = reinterpret_cast<WindowProc>(::GetWindowLongPtrA(aWnd, kProcSlot));
    if (proc && IsLayerMessage(aMsg)) {
        return proc(Handle(aWnd), aMsg, aWParam, aLParam);
    }
    return ::DefWindowProcA(aWnd, aMsg, aWParam, aLParam);
}

// The byte offset of the caller's slot aIndex, or -1 (ERROR_INVALID_INDEX).
int SlotOffset(HWND aWnd, int aIndex) {
    const LONG_PTR extra = ::GetClassLongPtrA(aWnd, GCL_CBWNDEXTRA);
    if (extra == 0) {
        return -1;  // not a window: the last error says so
    }
    if (aIndex < 0 || aIndex % kSlotBase != 0 || aIndex + kSlotBase + kSlotBase > extra) {
        ::SetLastError(ERROR_INVALID_INDEX);
        return -1;
    }
    return aIndex + kSlotBase;
}

void ToMessage(const MSG& aIn, Message* aOut) {
    aOut->hwnd = Handle(aIn.hwnd);
    aOut->message = aIn.message;
    aOut->wParam = aIn.wParam;
    aOut->lParam = aIn.lParam;
}

MSG ToMsg(const Message& aIn) {
    MSG msg = {};
    msg.hwnd = Hwnd(aIn.hwnd);
    msg.message = aIn.message;
    msg.wParam = aIn.wParam;
    msg.lParam = aIn.lParam;
    return msg;
}

}  // namespace

uint16_t WindowClassRegister(const char* aName, WindowProc aProc, int aWndExtra) {
    if (!aName || !aProc || aWndExtra < 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    ClassTable& table = ClassTable::Get();
    std::lock_guard<std::mutex> lock(table.lock);
    const int slots = (aWndExtra + kSlotBase - 1) / kSlotBase;
    WNDCLASSA wc = {};
    wc.lpfnWndProc = &Trampoline;
    wc.cbWndExtra = kSlotBase * (1 + slots);
    wc.hInstance = ThisModule();
    wc.lpszClassName = aName;
    ATOM atom = ::RegisterClassA(&wc);
    if (atom != 0) {
        table.procs[aName] = aProc;
    }
    return atom;
}

bool WindowClassUnregister(const char* aName) {
    if (!aName) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    ClassTable& table = ClassTable::Get();
    std::lock_guard<std::mutex> lock(table.lock);
    if (!::UnregisterClassA(aName, ThisModule())) {
        return false;
    }
    table.procs.erase(aName);
    return true;
}

WindowHandle WindowCreate(const char* aClassName) {
    WindowProc proc = nullptr;
    {
        ClassTable& table = ClassTable::Get();
        std::lock_guard<std::mutex> lock(table.lock);
        auto it = aClassName ? table.procs.find(aClassName) : table.procs.end();
        if (it == table.procs.end()) {
            ::SetLastError(ERROR_CANNOT_FIND_WND_CLASS);
            return nullptr;
        }
        proc = it->second;
    }
    // A message-only window: hidden, never enumerated, receives posts only.
    HWND wnd = ::CreateWindowExA(0, aClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                 ThisModule(), reinterpret_cast<void*>(proc));
    return Handle(wnd);
}

bool WindowDestroy(WindowHandle aWnd) {
    return ::DestroyWindow(Hwnd(aWnd)) != 0;
}

intptr_t WindowSetLong(WindowHandle aWnd, int aIndex, intptr_t aValue) {
    const int offset = SlotOffset(Hwnd(aWnd), aIndex);
    if (offset < 0) {
        return 0;
    }
    // 0 is also a valid previous value: only a changed last error tells a failure.
    const DWORD saved = ::GetLastError();
    ::SetLastError(0);
    LONG_PTR prev = ::SetWindowLongPtrA(Hwnd(aWnd), offset, aValue);
    if (prev == 0 && ::GetLastError() != 0) {
        return 0;
    }
    ::SetLastError(saved);
    return prev;
}

intptr_t WindowGetLong(WindowHandle aWnd, int aIndex) {
    const int offset = SlotOffset(Hwnd(aWnd), aIndex);
    return offset < 0 ? 0 : ::GetWindowLongPtrA(Hwnd(aWnd), offset);
}

intptr_t WindowDefProc(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    return ::DefWindowProcA(Hwnd(aWnd), aMsg, aWParam, aLParam);
}

bool WindowPostMessage(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    // A null window would post to the calling thread: not what callers mean.
    if (!aWnd) {
        ::SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    return ::PostMessageA(Hwnd(aWnd), aMsg, aWParam, aLParam) != 0;
}

int MessageGet(Message* aMsg) {
    if (!aMsg) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    MSG msg;
    BOOL rv = ::GetMessageA(&msg, nullptr, 0, 0);
    if (rv == -1) {
        return -1;
    }
    ToMessage(msg, aMsg);
    return rv ? 1 : 0;
}

bool MessagePeek(Message* aMsg) {
    MSG msg;
    if (!aMsg || !::PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
        return false;
    }
    ToMessage(msg, aMsg);
    return true;
}

bool MessageTranslate(const Message* aMsg) {
    if (!aMsg) {
        return false;
    }
    MSG msg = ToMsg(*aMsg);
    return ::TranslateMessage(&msg) != 0;
}

intptr_t MessageDispatch(const Message* aMsg) {
    if (!aMsg || !aMsg->hwnd) {
        ::SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    MSG msg = ToMsg(*aMsg);
    return ::DispatchMessageA(&msg);
}

void MessagePostQuit(int aExitCode) {
    ::PostQuitMessage(aExitCode);
}

int MessageQueueFd() {
    // A Windows host waits on its queue with its own message loop (or
    // MsgWaitForMultipleObjects); there is no descriptor to hand out.
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return -1;
}

bool MessageQueueClose() {
    // The system releases a thread's queue, and its windows, when it ends.
    return true;
}

uintptr_t WindowSetTimer(WindowHandle aWnd, uintptr_t aId, uint32_t aMsec) {
    // Timer id 0 is a valid Windows id; this layer's 0 asks for a fresh one.
    static std::atomic<uintptr_t> s_nextId{0x7F000000};
    const uintptr_t id = aId ? aId : s_nextId++;
    return ::SetTimer(Hwnd(aWnd), id, aMsec < 10 ? 10 : aMsec, nullptr) ? id : 0;
}

bool WindowKillTimer(WindowHandle aWnd, uintptr_t aId) {
    return ::KillTimer(Hwnd(aWnd), aId) != 0;
}

int SocketAsyncSelect(int aSocket, WindowHandle aWnd, uint32_t aMsg, long aEvents) {
    // With no events, the window does not matter: it only cancels.
    if (aEvents != 0 && !::IsWindow(Hwnd(aWnd))) {
        ::WSASetLastError(WSAEINVAL);
        return -1;
    }
    int rv = ::WSAAsyncSelect(static_cast<SOCKET>(aSocket), Hwnd(aWnd), aMsg, aEvents);
    return rv == SOCKET_ERROR ? -1 : 0;
}

void SocketSendWouldBlock(int) {
    // Winsock re-enables FD_WRITE by itself after a send fails with would-block.
}

int SocketReadableBytes(int aSocket, unsigned long* aCount) {
    u_long count = 0;
    if (::ioctlsocket(static_cast<SOCKET>(aSocket), FIONREAD, &count) == SOCKET_ERROR) {
        return -1;
    }
    if (aCount) {
        *aCount = count;
    }
    return 0;
}

}  // namespace rtos
