// The machine's limit for each row, written directly on the OS: a loop on
// epoll + eventfd with a mutex-guarded queue, an eventfd ping-pong for sends,
// memcpy for flattening, snprintf for a trace line and getaddrinfo for a name.
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "compare.h"

namespace {

const char kLib[] = "os";

class EpollLoop {
public:
    struct Task {
        explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
        std::function<void()> fn;
    };

    EpollLoop() {
        m_epfd = ::epoll_create1(EPOLL_CLOEXEC);
        m_wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        m_done = ::eventfd(0, EFD_CLOEXEC);
        Watch(m_wake, nullptr);
        m_thread = std::thread([this] { Run(); });
    }
    ~EpollLoop() {
        Task stop([this] { m_stop = true; });
        Post(&stop);
        m_thread.join();
        for (int fd : {m_done, m_wake, m_epfd}) {
            ::close(fd);
        }
    }

    void Post(Task* aTask) {
        bool wake;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_queue.push_back(aTask);
            wake = !m_wakePending;
            m_wakePending = true;
        }
        if (wake) {
            const uint64_t one = 1;
            ssize_t n = ::write(m_wake, &one, sizeof(one));
            static_cast<void>(n);
        }
    }
    // One sender at a time: the done eventfd is the ping-pong's return leg.
    void Send(Task* aTask) {
        Task wrapper([this, aTask] {
            aTask->fn();
            const uint64_t one = 1;
            ssize_t n = ::write(m_done, &one, sizeof(one));
            static_cast<void>(n);
        });
        Post(&wrapper);
        uint64_t count;
        ssize_t n = ::read(m_done, &count, sizeof(count));
        static_cast<void>(n);
    }

    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        Task add([=] {
            m_fd = aFd;
            m_echo = aEcho;
            m_received = aReceived;
            Watch(aFd, &m_fd);
        });
        Send(&add);
    }
    void Drop() {
        Task del([this] { ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, m_fd, nullptr); });
        Send(&del);
    }

private:
    void Watch(int aFd, void* aTag) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = aTag;
        ::epoll_ctl(m_epfd, EPOLL_CTL_ADD, aFd, &ev);
    }

    void Run() {
        std::vector<Task*> batch;
        std::vector<char> buf(64 * 1024);
        epoll_event events[16];
        while (!m_stop) {
            const int n = ::epoll_wait(m_epfd, events, 16, -1);
            for (int i = 0; i < n; ++i) {
                if (events[i].data.ptr == &m_fd) {
                    OnReadable(buf);
                    continue;
                }
                uint64_t count;
                ssize_t r = ::read(m_wake, &count, sizeof(count));
                static_cast<void>(r);
                {
                    std::lock_guard<std::mutex> lock(m_lock);
                    m_wakePending = false;
                    batch.swap(m_queue);
                }
                for (Task* task : batch) {
                    task->fn();
                }
                batch.clear();
            }
        }
    }

    void OnReadable(std::vector<char>& aBuf) {
        const ssize_t n = ::recv(m_fd, aBuf.data(), aBuf.size(), 0);
        if (n <= 0) {
            if (n == 0 || errno != EAGAIN) {
                ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, m_fd, nullptr);
            }
            return;
        }
        m_received->fetch_add(n, std::memory_order_release);
        // Echoes are 64 bytes: the socket buffer always takes them.
        if (m_echo && ::send(m_fd, aBuf.data(), static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
            ::epoll_ctl(m_epfd, EPOLL_CTL_DEL, m_fd, nullptr);
        }
    }

    int m_epfd = -1;
    int m_wake = -1;
    int m_done = -1;
    std::mutex m_lock;
    std::vector<Task*> m_queue;
    bool m_wakePending = false;
    // Loop thread only.
    bool m_stop = false;
    int m_fd = -1;
    bool m_echo = false;
    std::atomic<int64_t>* m_received = nullptr;
    std::thread m_thread;
};

// The message of the buffer rows as a host keeps it without a buffer class:
// an array of blocks. Gathering and flattening are the limit of any chain.
void BufferRows() {
    std::vector<std::vector<char>> blocks(cmp::kBlocks, std::vector<char>(cmp::kBlockSize, 'x'));
    iovec iov[cmp::kBlocks];
    cmp::Report(kLib, "buf.gather", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    for (size_t i = 0; i < cmp::kBlocks; ++i) {
                        iov[i].iov_base = blocks[i].data();
                        iov[i].iov_len = blocks[i].size();
                    }
                    cmp::Keep(iov);
                }));
    cmp::Report(kLib, "buf.flatten", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    std::unique_ptr<char[]> flat(new char[cmp::kBlocks * cmp::kBlockSize]);
                    for (size_t i = 0; i < cmp::kBlocks; ++i) {
                        std::memcpy(&flat[i * cmp::kBlockSize], blocks[i].data(), cmp::kBlockSize);
                    }
                    cmp::Keep(flat.get());
                }));
}

// The same message the library's trace row formats.
void TraceRow() {
    int fd = 17;
    char line[1024];
    cmp::Report(kLib, "trace.line", cmp::NsPerCall(cmp::kTraceRounds, [&] {
                    std::snprintf(line, sizeof(line),
                                  "CRtSocketBase::Open, opened. fd=%d err=%d this=%p", fd, 0,
                                  static_cast<void*>(&fd));
                    cmp::Keep(line);
                }));
}

void DnsRow() {
    std::vector<double> us;
    for (int i = 0; i < cmp::kLookups; ++i) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* result = nullptr;
        const int64_t t0 = cmp::NowNs();
        if (::getaddrinfo("localhost", nullptr, &hints, &result) != 0) {
            return;
        }
        ::freeaddrinfo(result);
        us.push_back(static_cast<double>(cmp::NowNs() - t0) * 1e-3);
    }
    cmp::Report(kLib, "dns.localhost", cmp::Percentile(us, 0.5));
}

}  // namespace

int main() {
    {
        EpollLoop loop;
        cmp::LoopRows(kLib, "", loop);
        cmp::Tcp(kLib, loop);
    }
    BufferRows();
    TraceRow();
    DnsRow();
    return 0;
}
