// Asynchronous lookups on POSIX: a few detached lookup threads run the blocking
// lookup and post the answer to the caller's window.
//
// The caller's buffer is written, and the completion posted, under the table's
// lock and only while the request is still in the table; AsyncCancel takes the
// request out under the same lock. So once a cancel succeeds nothing touches
// the buffer again, and a cancel that fails comes after the completion.
//
// A lookup can block for as long as the resolver likes. Nobody waits for the
// lookup threads: they are detached, and the table they use is never destroyed,
// so one still stuck at process exit touches no freed memory.
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <unordered_set>

#include "rtosnet.h"

namespace rtos {
namespace {

// Enough to overlap a slow name with others; more only queue up on the same
// resolver.
constexpr int kMaxLookupThreads = 4;
// An idle lookup thread ends after this, so a quiet process keeps none.
constexpr std::chrono::seconds kIdleExit(10);

struct Request {
    AsyncRequest id;
    std::string name;
    WindowHandle wnd;
    uint32_t msg;
    void* buf;
    size_t len;
};

class LookupTable {
public:
    static LookupTable& Instance() {
        static LookupTable* s_table = new LookupTable;
        return *s_table;
    }

    AsyncRequest Start(WindowHandle aWnd, uint32_t aMsg, const char* aName, void* aBuf,
                       size_t aLen) {
        std::lock_guard<std::mutex> lock(m_lock);
        const AsyncRequest id = m_nextId++;
        m_waiting.push_back(Request{id, aName, aWnd, aMsg, aBuf, aLen});
        // Threads already waiting take the queue first; start another only when
        // they cannot keep up.
        if (static_cast<size_t>(m_idle) < m_waiting.size() && m_threads < kMaxLookupThreads &&
            StartThread_l()) {
            return id;
        }
        if (m_threads == 0) {
            m_waiting.pop_back();
            errno = EAGAIN;
            return 0;
        }
        m_wake.notify_one();
        return id;
    }

    bool Cancel(AsyncRequest aId) {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_running.erase(aId) != 0) {
            return true;  // its thread drops the answer
        }
        for (auto it = m_waiting.begin(); it != m_waiting.end(); ++it) {
            if (it->id == aId) {
                m_waiting.erase(it);
                return true;
            }
        }
        errno = EINVAL;
        return false;
    }

private:
    LookupTable() = default;

    bool StartThread_l() {
        pthread_attr_t attr;
        if (::pthread_attr_init(&attr) != 0) {
            return false;
        }
        ::pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        // The host's signals are no business of a lookup thread.
        sigset_t all, old;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &old);
        pthread_t thread;
        int err = ::pthread_create(&thread, &attr, &LookupTable::ThreadMain, this);
        ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
        ::pthread_attr_destroy(&attr);
        if (err != 0) {
            return false;
        }
        ++m_threads;
        return true;
    }

    static void* ThreadMain(void* aTable) {
        static_cast<LookupTable*>(aTable)->Run();
        return nullptr;
    }

    void Run() {
        std::unique_lock<std::mutex> lock(m_lock);
        for (;;) {
            ++m_idle;
            bool woken = m_wake.wait_for(lock, kIdleExit, [this] { return !m_waiting.empty(); });
            --m_idle;
            if (!woken) {
                --m_threads;
                return;
            }
            Request req = std::move(m_waiting.front());
            m_waiting.pop_front();
            m_running.insert(req.id);
            lock.unlock();

            HostInfo info;
            int err = LookupHostIPv4(req.name.c_str(), info);

            lock.lock();
            if (m_running.erase(req.id) == 0) {
                continue;  // cancelled meanwhile: the buffer may be gone
            }
            if (err == 0) {
                hostent* host = nullptr;
                err = LayoutHostent(info, req.buf, req.len, &host);
            }
            // Posting under the lock keeps a failed cancel behind the completion.
            WindowPostMessage(req.wnd, req.msg, req.id, AsyncLookupLParam(err));
        }
    }

    std::mutex m_lock;
    std::condition_variable m_wake;
    std::deque<Request> m_waiting;               // not yet taken by a thread
    std::unordered_set<AsyncRequest> m_running;  // being looked up
    AsyncRequest m_nextId = 1;
    int m_threads = 0;
    int m_idle = 0;  // threads waiting for a request
};

}  // namespace

AsyncRequest AsyncGetHostByName(WindowHandle aWnd, uint32_t aMsg, const char* aName, void* aBuf,
                                size_t aLen) {
    if (!aWnd || !aName || !aBuf) {
        errno = EINVAL;
        return 0;
    }
    // The queueing has the strong guarantee: without memory nothing is left behind.
    try {
        return LookupTable::Instance().Start(aWnd, aMsg, aName, aBuf, aLen);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return 0;
    }
}

bool AsyncCancel(AsyncRequest aRequest) {
    return LookupTable::Instance().Cancel(aRequest);
}

}  // namespace rtos
