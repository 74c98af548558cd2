// kvtframework's side of the comparison. The loop rows run twice: on a user
// task thread (the library's thread for events only) and on the network
// thread's reactor (prefix "reactor."), which also carries the TCP rows.
#include <poll.h>
#include <sys/uio.h>

#include <memory>

#include "compare.h"
#include "rtframework.h"

namespace {

const char kLib[] = "kvt";

// Posted again and again: the queue never frees it.
struct Task : IRtEvent {
    explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
    int OnEventFire() override { return fn(), RT_OK; }
    void OnDestorySelf() override {}
    std::function<void()> fn;
};

// A send's event is released after the sender has returned, so the sender
// cannot own it: each send gets a heap event that runs the task, as hosts
// write sends.
struct SentTask : IRtEvent {
    explicit SentTask(Task* aTask) : task(aTask) {}
    int OnEventFire() override { return task->OnEventFire(); }
    Task* task;
};

class TaskThreadLoop {
public:
    typedef ::Task Task;

    TaskThreadLoop() {
        CRtThreadManager::Instance()->CreateUserTaskThread(m_thread, CRtThreadManager::TF_JOINABLE,
                                                           0);
        m_queue = m_thread->GetEventQueue();
    }
    ~TaskThreadLoop() {
        m_thread->Stop();
        m_thread->Join();
        m_thread->Destory(0);
    }
    void Post(Task* aTask) { m_queue->PostEvent(aTask); }
    void Send(Task* aTask) { m_queue->SendEvent(new SentTask(aTask)); }

private:
    CRtThread* m_thread = nullptr;
    IRtEventQueue* m_queue = nullptr;
};

class ReactorLoop {
public:
    typedef ::Task Task;

    ReactorLoop()
        : m_reactor(CRtThreadManager::Instance()->GetThreadReactor(CRtThreadManager::TT_NETWORK)) {}
    void Post(Task* aTask) { m_reactor->PostEvent(aTask); }
    void Send(Task* aTask) { m_reactor->SendEvent(new SentTask(aTask)); }

    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        m_handler.reset(new Handler(aFd, aEcho, aReceived));
        Task add(
            [this] { m_reactor->RegisterHandler(m_handler.get(), IRtEventHandler::READ_MASK); });
        Send(&add);
    }
    void Drop() {
        Task remove([this] { m_reactor->RemoveHandler(m_handler.get()); });
        Send(&remove);
        m_handler.reset();
    }

private:
    class Handler : public IRtEventHandler {
    public:
        Handler(int aFd, bool aEcho, std::atomic<int64_t>* aReceived)
            : m_fd(aFd), m_echo(aEcho), m_received(aReceived), m_buf(64 * 1024) {}
        void* GetHandle() const override {
            return reinterpret_cast<void*>(static_cast<intptr_t>(m_fd));
        }
        int OnInput(void*) override {
            const ssize_t n = ::recv(m_fd, m_buf.data(), m_buf.size(), 0);
            if (n <= 0) {
                return n < 0 && errno == EAGAIN ? 0 : -1;
            }
            m_received->fetch_add(n, std::memory_order_release);
            // Echoes are 64 bytes: the socket buffer always takes them.
            if (m_echo && ::send(m_fd, m_buf.data(), static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
                return -1;
            }
            return 0;
        }
        int OnClose(void*, MASK) override { return 0; }

    private:
        int m_fd;
        bool m_echo;
        std::atomic<int64_t>* m_received;
        std::vector<char> m_buf;
    };

    IRtReactor* m_reactor;
    std::unique_ptr<Handler> m_handler;
};

class Counting : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void*) override { ++*m_fired; }
    int* m_fired = nullptr;
};

void TimerRows() {
    for (int n : cmp::kTimerSizes) {
        const std::vector<int64_t> delays = cmp::TimerDelaysUs(n);
        std::vector<Counting> handlers(static_cast<size_t>(n));
        int fired = 0;
        for (Counting& h : handlers) {
            h.m_fired = &fired;
        }
        const int64_t t0 = cmp::ThreadCpuNs();
        CRtTimerQueueOrderedList queue(nullptr);
        for (int i = 0; i < n; ++i) {
            queue.ScheduleTimer(&handlers[i], nullptr,
                                CRtTimeValue(0L, static_cast<long>(delays[i])), 1);
        }
        for (int i = 0; i < n; i += 2) {
            queue.CancelTimer(&handlers[i]);
        }
        cmp::SleepPastDeadlines();
        queue.CheckExpire();
        if (fired != n / 2) {
            std::fprintf(stderr, "kvt: %d of %d timers fired\n", fired, n / 2);
        }
        cmp::Report(kLib, "timers." + std::to_string(n / 1000) + "k",
                    cmp::TimerNsPerOp(n, cmp::ThreadCpuNs() - t0));
    }
}

void BufferRows() {
    std::vector<char> bytes(cmp::kBlockSize, 'x');
    CRtMessageBlock* head = nullptr;
    std::vector<std::unique_ptr<CRtMessageBlock>> blocks;
    for (size_t i = 0; i < cmp::kBlocks; ++i) {
        blocks.emplace_back(new CRtMessageBlock(cmp::kBlockSize));
        blocks.back()->Write(bytes.data(), cmp::kBlockSize);
        if (head) {
            head->Append(blocks.back().get());
        } else {
            head = blocks.back().get();
        }
    }
    cmp::Report(kLib, "buf.dup", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    CRtMessageBlock* dup = head->DuplicateChained();
                    cmp::Keep(dup);
                    dup->DestroyChained();
                }));
    cmp::Report(kLib, "buf.split", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    CRtMessageBlock* dup = head->DuplicateChained();
                    CRtMessageBlock* rest = dup->Disjoint(cmp::kSplitAt);
                    cmp::Keep(rest);
                    rest->DestroyChained();
                    dup->DestroyChained();
                }));
    iovec iov[cmp::kBlocks];
    cmp::Report(kLib, "buf.gather", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    cmp::Keep(head->FillIov(iov, cmp::kBlocks, ~0ul));
                    cmp::Keep(iov);
                }));
    cmp::Report(kLib, "buf.flatten", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    CRtString flat = head->FlattenChained();
                    cmp::Keep(flat.data());
                }));
}

void TraceRow() {
    int fd = 17;
    cmp::Report(kLib, "trace.line", cmp::NsPerCall(cmp::kTraceRounds, [&] {
                    char buf[RTTRACE_MAX_TRACE_LEN];
                    CRtTrace::CRtLogRecorder rec(buf, sizeof(buf));
                    rec << "CRtSocketBase::Open, opened. fd=" << fd << " err=" << 0
                        << " this=" << &fd;
                    cmp::Keep(static_cast<char*>(rec));
                }));
}

// Told once per lookup, on the main thread.
class LookupDone : public IRtObserver {
public:
    void OnObserve(const char*, void* aData) override {
        m_error = aData ? *static_cast<int*>(aData) : RT_ERROR_FAILURE;
        m_done = true;
    }
    bool m_done = false;
    int m_error = RT_OK;
};

// Dispatches the main thread's messages until the observer has been told, as
// a host without a message loop of its own does. False on failure.
bool AwaitLookup(LookupDone& aDone) {
    const int fd = RtGetMainLoopFd();
    while (!aDone.m_done) {
        pollfd p = {fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0 || RT_FAILED(RtProcessMainLoopPending())) {
            return false;
        }
    }
    return aDone.m_error == RT_OK;
}

// One lookup of "localhost" on the main thread, answered there: the cache is
// bypassed, so each one goes to the resolver.
bool ResolveUncached(CRtDnsManager* aDns) {
    LookupDone done;
    CRtDnsRecord* record = nullptr;
    int rv = aDns->AsyncResolve(record, "localhost", &done, TRUE);
    if (rv == RT_OK) {
        record->ReleaseReference();
        return true;
    }
    return rv == RT_ERROR_WOULD_BLOCK && AwaitLookup(done);
}

void DnsRows() {
    CRtDnsManager* dns = CRtDnsManager::Instance();
    std::vector<double> us;
    for (int i = 0; i < cmp::kLookups; ++i) {
        const int64_t t0 = cmp::NowNs();
        if (!ResolveUncached(dns)) {
            std::fprintf(stderr, "kvt: lookup of localhost failed\n");
            return;
        }
        us.push_back(static_cast<double>(cmp::NowNs() - t0) * 1e-3);
    }
    cmp::Report(kLib, "dns.localhost", cmp::Percentile(us, 0.5));

    // The last lookup left "localhost" in the cache, where it stays for 3 s;
    // the main loop is not run meanwhile, so its expiry cannot interfere.
    bool cached = true;
    const double ns = cmp::NsPerCall(cmp::kCachedLookups, [&] {
        CRtDnsRecord* record = nullptr;
        if (dns->AsyncResolve(record, "localhost") == RT_OK) {
            record->ReleaseReference();
        } else {
            cached = false;
        }
    });
    if (cached) {
        cmp::Report(kLib, "dns.cached", ns);
    }
}

}  // namespace

int main() {
    CRtThreadManager::Instance();
    {
        TaskThreadLoop loop;
        cmp::LoopRows(kLib, "", loop);
    }
    {
        ReactorLoop loop;
        cmp::LoopRows(kLib, "reactor.", loop);
        cmp::Tcp(kLib, loop);
    }
    TimerRows();
    BufferRows();
    TraceRow();
    DnsRows();
    return 0;
}
