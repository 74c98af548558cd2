// The message pump's queue and loop on POSIX: the per-thread pump, posting from
// any thread, taking messages in batches and dispatching them.
#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "rtos_window_pump.h"

namespace rtos {
namespace pump {
namespace {

// Read on every message; initial-exec as the thread id in rtos_time.cpp.
__attribute__((tls_model("initial-exec"))) thread_local Pump* t_pump = nullptr;

// Releases the thread's pump when the thread ends; touched once, when the pump
// is created, which registers the clean-up.
struct PumpReleaser {
    ~PumpReleaser() { Pump::CloseCurrent(); }
};
thread_local PumpReleaser t_releaser;

// The main thread's pump outlives its thread-local objects: exit() destroys
// those before it runs the exit list, where the library closes the main
// thread's windows. It is released at the end of that list instead.
Pump* s_mainPump = nullptr;

void ReleaseMainPump() {
    // Only the main thread may release its pump; an exit from another thread
    // leaves it to the process's end, since the main thread may still use it.
    if (t_pump && t_pump == s_mainPump) {
        Pump::CloseCurrent();
    }
}

bool IsProcessMainThread() {
    return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid();
}

void CloseFd(int& aFd) {
    if (aFd >= 0) {
        ::close(aFd);
        aFd = -1;
    }
}

bool WatchForInput(int aEpfd, int aFd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = aFd;
    return ::epoll_ctl(aEpfd, EPOLL_CTL_ADD, aFd, &ev) == 0;
}

}  // namespace

Registry& Registry::Get() {
    static Registry* s_registry = new Registry();
    return *s_registry;
}

Pump* Pump::Current() {
    return t_pump;
}

Pump* Pump::Ensure() {
    if (t_pump) {
        return t_pump;
    }
    Pump* pump = new (std::nothrow) Pump();
    if (!pump) {
        errno = ENOMEM;
        return nullptr;
    }
    if (!pump->Open()) {
        const int err = errno;
        delete pump;
        errno = err;
        return nullptr;
    }
    if (IsProcessMainThread()) {
        // Registered before any exit handler of the library that may need it.
        static const bool s_registered = ::atexit(&ReleaseMainPump) == 0;
        static_cast<void>(s_registered);
        s_mainPump = pump;
    } else {
        PumpReleaser& releaser = t_releaser;
        static_cast<void>(releaser);
    }
    t_pump = pump;
    return pump;
}

void Pump::CloseCurrent() {
    Pump* pump = t_pump;
    t_pump = nullptr;
    if (pump == s_mainPump) {
        s_mainPump = nullptr;
    }
    delete pump;
}

bool Pump::Open() {
    m_epfd = ::epoll_create1(EPOLL_CLOEXEC);
    m_eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_timerFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    return m_epfd >= 0 && m_eventFd >= 0 && m_timerFd >= 0 && WatchForInput(m_epfd, m_eventFd) &&
           WatchForInput(m_epfd, m_timerFd);
}

Pump::~Pump() {
    Registry& reg = Registry::Get();
    {
        // From here on no other thread can reach this pump.
        std::unique_lock<std::shared_mutex> lock(reg.lock);
        for (const auto& w : m_windows) {
            reg.windows.erase(w.first);
        }
        for (const auto& s : m_sockets) {
            auto it = reg.sockets.find(s.first);
            if (it != reg.sockets.end() && it->second == s.second.get()) {
                reg.sockets.erase(it);
            }
        }
    }
    for (const auto& w : m_windows) {
        ClassWindowGone(w.second->className);
    }
    CloseFd(m_timerFd);
    CloseFd(m_eventFd);
    CloseFd(m_epfd);
}

// ---- Posting ------------------------------------------------------------------

bool Pump::Post(const Message& aMsg) {
    // Without memory the message is dropped, as a full queue drops it on Windows.
    try {
        if (t_pump == this) {
            // The owner needs no lock, and no wake-up while it is in a dispatch:
            // it takes messages again before it next waits.
            m_own.push_back(Item{aMsg, -1, 0});
            if (m_dispatchDepth == 0) {
                Wake();
            }
            return true;
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    bool write;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        try {
            m_shared.push_back(Item{aMsg, -1, 0});
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return false;
        }
        write = !m_wakePending;
        m_wakePending = true;
    }
    if (write) {
        const uint64_t one = 1;
        ssize_t n = ::write(m_eventFd, &one, sizeof(one));
        static_cast<void>(n);  // cannot fail short of a counter near 2^64
    }
    return true;
}

void Pump::Wake() {
    bool write;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        write = !m_wakePending;
        m_wakePending = true;
    }
    if (write) {
        const uint64_t one = 1;
        ssize_t n = ::write(m_eventFd, &one, sizeof(one));
        static_cast<void>(n);
    }
}

// ---- Taking messages ----------------------------------------------------------

void Pump::TakeOwn() {
    if (m_batch.empty()) {
        m_batch.swap(m_own);
        return;
    }
    for (const Item& item : m_own) {
        m_batch.push_back(item);
    }
    m_own.clear();
}

void Pump::TakeShared(bool aWakeConsumed) {
    std::deque<Item> taken;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (aWakeConsumed) {
            m_wakePending = false;
        }
        if (m_shared.empty()) {
            return;
        }
        if (m_batch.empty()) {
            m_batch.swap(m_shared);
            return;
        }
        taken.swap(m_shared);
    }
    for (const Item& item : taken) {
        m_batch.push_back(item);
    }
}

void Pump::TakeFront(Message* aMsg) {
    const Item item = m_batch.front();
    m_batch.pop_front();
    *aMsg = item.msg;
    if (item.sockFd >= 0) {
        OnSocketTaken(item);
    }
}

void Pump::Poll(int aTimeoutMs) {
    epoll_event events[64];
    const int n = ::epoll_wait(m_epfd, events, 64, aTimeoutMs);
    for (int i = 0; i < n; ++i) {
        const int fd = events[i].data.fd;
        if (fd == m_eventFd) {
            uint64_t count;
            ssize_t r = ::read(m_eventFd, &count, sizeof(count));
            static_cast<void>(r);
            TakeShared(true);
        } else if (fd == m_timerFd) {
            uint64_t expirations;
            ssize_t r = ::read(m_timerFd, &expirations, sizeof(expirations));
            static_cast<void>(r);
            m_armedNs = 0;
        } else {
            OnSocketEvent(fd, events[i].events);
        }
    }
}

namespace {
constexpr int kBatchesPerPoll = 8;
}  // namespace

bool Pump::Next(Message* aMsg, bool aBlock) {
    bool polled = false;
    for (;;) {
        if (!m_batch.empty()) {
            TakeFront(aMsg);
            return true;
        }
        // Between batches, so that a steady stream of posts cannot starve the
        // timers, and sockets are looked at once per batch.
        if (TakeDueTimer(aMsg)) {
            return true;
        }
        // A thread that keeps posting to itself (a reactor working through its
        // events a few at a time) would pay a system call per batch; its
        // sockets are still looked at every few batches.
        if (!polled && (m_own.empty() || ++m_batchesUnpolled >= kBatchesPerPoll)) {
            Poll(0);
            m_batchesUnpolled = 0;
        }
        TakeOwn();
        TakeShared(false);
        if (!m_batch.empty()) {
            continue;
        }
        if (m_quit) {
            m_quit = false;
            *aMsg = Message{nullptr, kWmQuit, static_cast<uintptr_t>(m_quitCode), 0};
            return true;
        }
        if (!aBlock) {
            return false;
        }
        ArmTimer();
        Poll(-1);
        polled = true;
    }
}

void Pump::PurgeWindow(uintptr_t aWnd) {
    const WindowHandle hwnd = HandleOf(aWnd);
    auto ofWindow = [hwnd](const Item& aItem) { return aItem.msg.hwnd == hwnd; };
    m_batch.erase(std::remove_if(m_batch.begin(), m_batch.end(), ofWindow), m_batch.end());
    m_own.erase(std::remove_if(m_own.begin(), m_own.end(), ofWindow), m_own.end());
    std::lock_guard<std::mutex> lock(m_lock);
    m_shared.erase(std::remove_if(m_shared.begin(), m_shared.end(), ofWindow), m_shared.end());
}

void Pump::PurgeSocket(const SocketEntry& aEntry, long aKeepEvents) {
    // Socket notifications are made by the owner and never wait in m_shared.
    auto dropped = [&aEntry, aKeepEvents](const Item& aItem) {
        return aItem.sockFd == aEntry.fd && aItem.sockSerial == aEntry.serial &&
               (SelectEvent(aItem.msg.lParam) & aKeepEvents) == 0;
    };
    m_batch.erase(std::remove_if(m_batch.begin(), m_batch.end(), dropped), m_batch.end());
}

intptr_t Pump::Dispatch(Window& aWnd, const Message& aMsg) {
    struct Depth {
        int& depth;
        explicit Depth(int& aDepth) : depth(aDepth) { ++depth; }
        ~Depth() { --depth; }
    } inDispatch(m_dispatchDepth);
    const WindowProc proc = aWnd.proc;  // the window may be destroyed inside
    return proc(aMsg.hwnd, aMsg.message, aMsg.wParam, aMsg.lParam);
}

}  // namespace pump

using pump::Pump;
using pump::Registry;

bool WindowPostMessage(WindowHandle aWnd, uint32_t aMsg, uintptr_t aWParam, intptr_t aLParam) {
    Registry& reg = Registry::Get();
    std::shared_lock<std::shared_mutex> lock(reg.lock);
    auto it = reg.windows.find(pump::IdOf(aWnd));
    if (it == reg.windows.end()) {
        errno = EBADF;
        return false;
    }
    return it->second->pump->Post(Message{aWnd, aMsg, aWParam, aLParam});
}

int MessageGet(Message* aMsg) {
    if (!aMsg) {
        errno = EINVAL;
        return -1;
    }
    Pump* pump = Pump::Ensure();
    if (!pump) {
        return -1;
    }
    pump->Next(aMsg, true);
    return aMsg->message == kWmQuit ? 0 : 1;
}

bool MessagePeek(Message* aMsg) {
    if (!aMsg) {
        errno = EINVAL;
        return false;
    }
    Pump* pump = Pump::Ensure();
    return pump && pump->Next(aMsg, false);
}

bool MessageTranslate(const Message*) {
    return false;
}

intptr_t MessageDispatch(const Message* aMsg) {
    if (!aMsg) {
        errno = EINVAL;
        return 0;
    }
    Pump* pump = Pump::Current();
    pump::Window* wnd = pump ? pump->FindWindow(pump::IdOf(aMsg->hwnd)) : nullptr;
    if (!wnd) {
        errno = EBADF;
        return 0;
    }
    return pump->Dispatch(*wnd, *aMsg);
}

void MessagePostQuit(int aExitCode) {
    if (Pump* pump = Pump::Ensure()) {
        pump->PostQuit(aExitCode);
    }
}

int MessageQueueFd() {
    Pump* pump = Pump::Ensure();
    return pump ? pump->EpollFd() : -1;
}

bool MessageQueueClose() {
    Pump* pump = Pump::Current();
    if (pump && pump->InDispatch()) {
        errno = EBUSY;
        return false;
    }
    Pump::CloseCurrent();
    return true;
}

}  // namespace rtos
