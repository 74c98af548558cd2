// libuv's side: a loop thread woken by uv_async_t over a mutex-guarded queue
// (libuv has no queue of its own), uv_tcp_t for the sockets, uv_timer_t and
// uv_getaddrinfo.
#include <uv.h>

#include <memory>
#include <mutex>

#include "compare.h"

namespace {

const char kLib[] = "libuv";

class UvLoop {
public:
    struct Task {
        explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
        std::function<void()> fn;
    };

    UvLoop() {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_async, &UvLoop::OnAsync);
        m_async.data = this;
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }
    ~UvLoop() {
        Task stop([this] { uv_close(reinterpret_cast<uv_handle_t*>(&m_async), nullptr); });
        Post(&stop);
        m_thread.join();
        uv_loop_close(&m_loop);
    }

    void Post(Task* aTask) {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_queue.push_back(aTask);
        }
        uv_async_send(&m_async);
    }
    void Send(Task* aTask) {
        uv_sem_t done;
        uv_sem_init(&done, 0);
        Task wrapper([aTask, &done] {
            aTask->fn();
            uv_sem_post(&done);
        });
        Post(&wrapper);
        uv_sem_wait(&done);
        uv_sem_destroy(&done);
    }

    // libuv closes the descriptor it was given, so it gets a copy.
    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        m_conn.reset(new Conn{{}, aEcho, aReceived, std::vector<char>(64 * 1024)});
        Task add([this, aFd] {
            uv_tcp_init(&m_loop, &m_conn->tcp);
            m_conn->tcp.data = m_conn.get();
            uv_tcp_open(&m_conn->tcp, ::dup(aFd));
            uv_read_start(reinterpret_cast<uv_stream_t*>(&m_conn->tcp), &Conn::OnAlloc,
                          &Conn::OnRead);
        });
        Send(&add);
    }
    void Drop() {
        bool closed = false;
        Task close([this, &closed] {
            uv_close(reinterpret_cast<uv_handle_t*>(&m_conn->tcp),
                     [](uv_handle_t* aHandle) { *static_cast<bool*>(aHandle->data) = true; });
            m_conn->tcp.data = &closed;
        });
        Send(&close);
        // The close callback runs in the loop's next turn.
        Task wait([] {});
        while (!closed) {
            Send(&wait);
        }
        m_conn.reset();
    }

private:
    struct Conn {
        uv_tcp_t tcp;
        bool echo;
        std::atomic<int64_t>* received;
        std::vector<char> buf;

        static void OnAlloc(uv_handle_t* aHandle, size_t, uv_buf_t* aBuf) {
            Conn* self = static_cast<Conn*>(aHandle->data);
            *aBuf = uv_buf_init(self->buf.data(), static_cast<unsigned>(self->buf.size()));
        }
        static void OnRead(uv_stream_t* aStream, ssize_t aRead, const uv_buf_t* aBuf) {
            Conn* self = static_cast<Conn*>(aStream->data);
            if (aRead <= 0) {
                if (aRead < 0) {
                    uv_read_stop(aStream);
                }
                return;
            }
            self->received->fetch_add(aRead, std::memory_order_release);
            if (self->echo) {
                // Echoes are 64 bytes: the socket buffer always takes them
                // whole, so no write request is needed.
                uv_buf_t out = uv_buf_init(aBuf->base, static_cast<unsigned>(aRead));
                uv_try_write(aStream, &out, 1);
            }
        }
    };

    static void OnAsync(uv_async_t* aAsync) {
        UvLoop* self = static_cast<UvLoop*>(aAsync->data);
        {
            std::lock_guard<std::mutex> lock(self->m_lock);
            self->m_batch.swap(self->m_queue);
        }
        for (Task* task : self->m_batch) {
            task->fn();
        }
        self->m_batch.clear();
    }

    uv_loop_t m_loop;
    uv_async_t m_async;
    std::mutex m_lock;
    std::vector<Task*> m_queue;
    std::vector<Task*> m_batch;  // loop thread only
    std::unique_ptr<Conn> m_conn;
    std::thread m_thread;
};

void TimerRows() {
    for (int n : cmp::kTimerSizes) {
        const std::vector<int64_t> delays = cmp::TimerDelaysUs(n);
        std::vector<uv_timer_t> timers(static_cast<size_t>(n));
        uv_loop_t loop;
        uv_loop_init(&loop);
        const int64_t t0 = cmp::ThreadCpuNs();
        uv_update_time(&loop);
        for (int i = 0; i < n; ++i) {
            uv_timer_init(&loop, &timers[i]);
            uv_timer_start(
                &timers[i], [](uv_timer_t*) {}, static_cast<uint64_t>(delays[i] / 1000), 0);
        }
        for (int i = 0; i < n; i += 2) {
            uv_timer_stop(&timers[i]);
        }
        cmp::SleepPastDeadlines();
        // Returns once no timer is left active.
        uv_run(&loop, UV_RUN_DEFAULT);
        cmp::Report(kLib, "timers." + std::to_string(n / 1000) + "k",
                    cmp::TimerNsPerOp(n, cmp::ThreadCpuNs() - t0));
        for (uv_timer_t& t : timers) {
            uv_close(reinterpret_cast<uv_handle_t*>(&t), nullptr);
        }
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
}

void DnsRow() {
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<double> us;
    for (int i = 0; i < cmp::kLookups; ++i) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        uv_getaddrinfo_t req;
        int status = -1;
        req.data = &status;
        const int64_t t0 = cmp::NowNs();
        uv_getaddrinfo(
            &loop, &req,
            [](uv_getaddrinfo_t* aReq, int aStatus, addrinfo* aResult) {
                *static_cast<int*>(aReq->data) = aStatus;
                uv_freeaddrinfo(aResult);
            },
            "localhost", nullptr, &hints);
        uv_run(&loop, UV_RUN_DEFAULT);
        if (status != 0) {
            break;
        }
        us.push_back(static_cast<double>(cmp::NowNs() - t0) * 1e-3);
    }
    uv_loop_close(&loop);
    if (us.size() == static_cast<size_t>(cmp::kLookups)) {
        cmp::Report(kLib, "dns.localhost", cmp::Percentile(us, 0.5));
    }
}

}  // namespace

int main() {
    {
        UvLoop loop;
        cmp::LoopRows(kLib, "", loop);
        cmp::Tcp(kLib, loop);
    }
    TimerRows();
    DnsRow();
    return 0;
}
