// The message pump's insides on POSIX, shared by rtos_window_*.cpp.
//
// One Pump per thread: an epoll set holding an eventfd (posted messages), a
// timerfd (window timers) and the selected sockets, so an idle thread sleeps in
// one epoll_wait. Messages wait in three lists: `m_shared`, where other threads
// append under `m_lock`; `m_own`, the owner's posts to itself, without a lock;
// and `m_batch`, the owner's working list. Between batches the owner looks at
// its timers and sockets (readiness joins the batch) and then moves both lists
// into the batch, so no source can starve another.
//
// The process-wide Registry maps window handles and selected sockets to their
// objects for the calls that any thread may make. Its reader-writer lock is
// held shared by those calls for as long as they use the object, and exclusive
// by whoever removes one, so an object found in the registry stays alive until
// the lock is released. Lock order: registry, then a pump's m_lock or a socket
// entry's lock; never the other way round.
#ifndef RTOS_WINDOW_PUMP_H
#define RTOS_WINDOW_PUMP_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "rtoswindow.h"

namespace rtos {
namespace pump {

class Pump;

struct WindowClass {
    WindowProc proc = nullptr;
    int slots = 0;    // pointer-sized extra slots
    int windows = 0;  // live windows of the class
    uint16_t atom = 0;
};

// Owned by its pump; reachable from other threads through the registry.
struct Window {
    uintptr_t id = 0;
    Pump* pump = nullptr;
    WindowProc proc = nullptr;
    std::string className;
    int slotCount = 0;
    std::unique_ptr<std::atomic<intptr_t>[]> slots;
    bool destroying = false;  // owner only
};

inline WindowHandle HandleOf(uintptr_t aId) {
    return reinterpret_cast<WindowHandle>(aId);
}
inline uintptr_t IdOf(WindowHandle aWnd) {
    return reinterpret_cast<uintptr_t>(aWnd);
}

struct Timer {
    uintptr_t wnd = 0;
    uintptr_t id = 0;
    int64_t intervalNs = 0;
    int64_t dueNs = 0;
};

// What a selected socket is doing, which decides how its readiness reads.
enum class Phase {
    kIdle,        // a stream socket neither connecting, connected nor listening
    kConnecting,  // a connect is in progress
    kConnected,
    kListening,
    kDatagram,
    kDead,  // reported its close or failed connect; reports nothing more
};

// A socket selected on a pump's window. Owned by the pump. `lock` serialises
// the changes of the epoll interest between the owner and SocketSendWouldBlock
// callers; the owner writes the guarded fields under it and may read them
// without it.
struct SocketEntry {
    int fd = -1;
    ino_t inode = 0;      // tells a reused descriptor number from the socket selected
    uint64_t serial = 0;  // tells this selection's queued messages from older ones
    Pump* pump = nullptr;
    uintptr_t wnd = 0;
    uint32_t msg = 0;

    std::mutex lock;
    long events = 0;             // guarded
    Phase phase = Phase::kIdle;  // guarded
    uint32_t interest = 0;       // guarded: the epoll events registered, 0 when not in the set
    bool writeArmed = false;     // guarded: report the next writability

    bool pendingRead = false;  // a kFdRead waits in the queue (owner only)
    bool pendingAccept = false;
    int savedError = 0;  // an error read while classifying, reported with the close
};

// A queued message; socket notifications remember their selection.
struct Item {
    Message msg;
    int sockFd;
    uint64_t sockSerial;
};

struct Registry {
    std::shared_mutex lock;
    std::unordered_map<uintptr_t, Window*> windows;
    std::unordered_map<int, SocketEntry*> sockets;
    uintptr_t nextId = 0x10000;  // under the exclusive lock

    std::mutex classLock;
    std::map<std::string, WindowClass> classes;
    uint16_t nextAtom = 0xC000;  // under classLock; 0 once exhausted

    // Never destroyed: threads still running at exit may post.
    static Registry& Get();
};

class Pump {
public:
    // The calling thread's pump; Ensure creates it (null with the last error
    // set when the descriptors cannot be had).
    static Pump* Current();
    static Pump* Ensure();
    // Releases the calling thread's pump (at its end, or on request).
    static void CloseCurrent();

    // Any thread, with the registry's lock held shared.
    bool Post(const Message& aMsg);
    void SendWouldBlock(SocketEntry& aEntry);

    // Owner thread.
    bool Next(Message* aMsg, bool aBlock);
    intptr_t Dispatch(Window& aWnd, const Message& aMsg);
    void PostQuit(int aCode) {
        m_quit = true;
        m_quitCode = aCode;
    }
    int EpollFd() const { return m_epfd; }
    bool InDispatch() const { return m_dispatchDepth > 0; }

    Window* FindWindow(uintptr_t aId) const {
        auto it = m_windows.find(aId);
        return it == m_windows.end() ? nullptr : it->second.get();
    }
    void AddWindow(std::unique_ptr<Window> aWnd);
    void DestroyWindow(Window& aWnd);

    uintptr_t SetTimer(Window& aWnd, uintptr_t aId, uint32_t aMsec);
    bool KillTimer(uintptr_t aWnd, uintptr_t aId);

    int AsyncSelect(int aSocket, Window& aWnd, uint32_t aMsg, long aEvents);

private:
    Pump() = default;
    ~Pump();
    bool Open();

    // Queue.
    void Wake();
    void TakeOwn();
    void TakeShared(bool aWakeConsumed);
    void TakeFront(Message* aMsg);
    void Poll(int aTimeoutMs);
    void PushSocketMessage(SocketEntry& aEntry, long aEvent, int aError);
    void PurgeWindow(uintptr_t aWnd);
    // Drops the selection's queued notifications except those of aKeepEvents.
    void PurgeSocket(const SocketEntry& aEntry, long aKeepEvents);

    // Timers.
    bool TakeDueTimer(Message* aMsg);
    void ArmTimer();
    void DropTimers(uintptr_t aWnd);

    // Sockets.
    void OnSocketEvent(int aFd, uint32_t aEvents);
    void OnSocketTaken(const Item& aItem);
    void OnIdleEvent(SocketEntry& aEntry);
    void OnConnectDone(SocketEntry& aEntry, int aError);
    void OnConnectedEvent(SocketEntry& aEntry, uint32_t aEvents);
    void OnDatagramEvent(SocketEntry& aEntry, uint32_t aEvents);
    // Reports kFdWrite if the entry was waiting for writability.
    void OnWritable(SocketEntry& aEntry);
    void SetInterest_l(SocketEntry& aEntry);
    void Kill(SocketEntry& aEntry);
    void CancelSocket(int aFd);
    void DropSockets(uintptr_t aWnd);

    int m_epfd = -1;
    int m_eventFd = -1;
    int m_timerFd = -1;

    std::mutex m_lock;
    std::deque<Item> m_shared;   // guarded by m_lock
    bool m_wakePending = false;  // guarded by m_lock: the eventfd was written and not yet read

    // Owner only from here on.
    std::deque<Item> m_own;
    std::deque<Item> m_batch;
    bool m_quit = false;
    int m_quitCode = 0;
    int m_dispatchDepth = 0;
    // Batches taken since the last look at the sockets (see Next).
    int m_batchesUnpolled = 0;
    std::unordered_map<uintptr_t, std::unique_ptr<Window>> m_windows;
    std::vector<Timer> m_timers;
    int64_t m_armedNs = 0;  // what the timerfd is set to; 0 when disarmed
    std::unordered_map<int, std::unique_ptr<SocketEntry>> m_sockets;
    uint64_t m_nextSerial = 1;
};

// CLOCK_MONOTONIC in nanoseconds.
int64_t MonotonicNs();

// A window of the class is gone.
void ClassWindowGone(const std::string& aClass);

// The calling thread's window, or null with EPERM (another thread's) or EBADF
// (no such window).
Window* OwnWindow(WindowHandle aWnd);

}  // namespace pump
}  // namespace rtos

#endif  // RTOS_WINDOW_PUMP_H
