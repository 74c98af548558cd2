// libevent's side: a loop thread woken by event_active on a user event over a
// mutex-guarded queue (libevent has no queue of its own), a bufferevent for
// the connection, timer events, and evbuffer for the buffer rows.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>
#include <semaphore.h>
#include <sys/uio.h>

#include <memory>
#include <mutex>

#include "compare.h"

namespace {

const char kLib[] = "libevent";

class EventLoop {
public:
    struct Task {
        explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
        std::function<void()> fn;
    };

    EventLoop() {
        m_base = event_base_new();
        m_wake = event_new(m_base, -1, 0, &EventLoop::OnWake, this);
        m_thread = std::thread([this] { event_base_loop(m_base, EVLOOP_NO_EXIT_ON_EMPTY); });
    }
    ~EventLoop() {
        Task stop([this] { event_base_loopexit(m_base, nullptr); });
        Send(&stop);
        m_thread.join();
        event_free(m_wake);
        event_base_free(m_base);
    }

    void Post(Task* aTask) {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_queue.push_back(aTask);
        }
        event_active(m_wake, EV_READ, 0);
    }
    void Send(Task* aTask) {
        sem_t done;
        sem_init(&done, 0, 0);
        Task wrapper([aTask, &done] {
            aTask->fn();
            sem_post(&done);
        });
        Post(&wrapper);
        while (sem_wait(&done) != 0) {
        }
        sem_destroy(&done);
    }

    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        m_echo = aEcho;
        m_received = aReceived;
        Task add([this, aFd] {
            m_bev = bufferevent_socket_new(m_base, aFd, 0);
            bufferevent_set_max_single_read(m_bev, 64 * 1024);
            bufferevent_setcb(m_bev, &EventLoop::OnRead, nullptr, nullptr, this);
            bufferevent_enable(m_bev, EV_READ);
        });
        Send(&add);
    }
    void Drop() {
        Task close([this] { bufferevent_free(m_bev); });
        Send(&close);
    }

private:
    static void OnWake(evutil_socket_t, short, void* aSelf) {
        EventLoop* self = static_cast<EventLoop*>(aSelf);
        {
            std::lock_guard<std::mutex> lock(self->m_lock);
            self->m_batch.swap(self->m_queue);
        }
        for (Task* task : self->m_batch) {
            task->fn();
        }
        self->m_batch.clear();
    }
    static void OnRead(bufferevent* aBev, void* aSelf) {
        EventLoop* self = static_cast<EventLoop*>(aSelf);
        evbuffer* input = bufferevent_get_input(aBev);
        self->m_received->fetch_add(static_cast<int64_t>(evbuffer_get_length(input)),
                                    std::memory_order_release);
        if (self->m_echo) {
            evbuffer_add_buffer(bufferevent_get_output(aBev), input);
        } else {
            evbuffer_drain(input, evbuffer_get_length(input));
        }
    }

    event_base* m_base = nullptr;
    event* m_wake = nullptr;
    std::mutex m_lock;
    std::vector<Task*> m_queue;
    // Loop thread only.
    std::vector<Task*> m_batch;
    bufferevent* m_bev = nullptr;
    bool m_echo = false;
    std::atomic<int64_t>* m_received = nullptr;
    std::thread m_thread;
};

void TimerRows() {
    for (int n : cmp::kTimerSizes) {
        const std::vector<int64_t> delays = cmp::TimerDelaysUs(n);
        std::vector<event> timers(static_cast<size_t>(n));
        event_base* base = event_base_new();
        const int64_t t0 = cmp::ThreadCpuNs();
        for (int i = 0; i < n; ++i) {
            evtimer_assign(
                &timers[i], base, [](evutil_socket_t, short, void*) {}, nullptr);
            timeval tv{static_cast<time_t>(delays[i] / 1000000),
                       static_cast<suseconds_t>(delays[i] % 1000000)};
            evtimer_add(&timers[i], &tv);
        }
        for (int i = 0; i < n; i += 2) {
            evtimer_del(&timers[i]);
        }
        cmp::SleepPastDeadlines();
        // Returns once no event is left pending.
        event_base_dispatch(base);
        cmp::Report(kLib, "timers." + std::to_string(n / 1000) + "k",
                    cmp::TimerNsPerOp(n, cmp::ThreadCpuNs() - t0));
        event_base_free(base);
    }
}

// The message as 16 chains of 2 KiB: each piece is added to a buffer of its
// own and moved over, which keeps the chains apart.
void BufferRows() {
    std::vector<char> bytes(cmp::kBlockSize, 'x');
    evbuffer* msg = evbuffer_new();
    for (size_t i = 0; i < cmp::kBlocks; ++i) {
        evbuffer* piece = evbuffer_new();
        evbuffer_add(piece, bytes.data(), bytes.size());
        evbuffer_add_buffer(msg, piece);
        evbuffer_free(piece);
    }
    if (evbuffer_peek(msg, -1, nullptr, nullptr, 0) != static_cast<int>(cmp::kBlocks)) {
        std::fprintf(stderr, "libevent: the message is not 16 chains\n");
    }
    cmp::Report(kLib, "buf.dup", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    evbuffer* dup = evbuffer_new();
                    evbuffer_add_buffer_reference(dup, msg);
                    cmp::Keep(dup);
                    evbuffer_free(dup);
                }));
    cmp::Report(kLib, "buf.split", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    evbuffer* dup = evbuffer_new();
                    evbuffer_add_buffer_reference(dup, msg);
                    evbuffer* head = evbuffer_new();
                    evbuffer_remove_buffer(dup, head, cmp::kSplitAt);
                    cmp::Keep(head);
                    evbuffer_free(head);
                    evbuffer_free(dup);
                }));
    evbuffer_iovec vec[cmp::kBlocks];
    cmp::Report(kLib, "buf.gather", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    cmp::Keep(evbuffer_peek(msg, -1, nullptr, vec, cmp::kBlocks));
                    cmp::Keep(vec);
                }));
    cmp::Report(kLib, "buf.flatten", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    const size_t length = evbuffer_get_length(msg);
                    std::unique_ptr<char[]> flat(new char[length]);
                    evbuffer_copyout(msg, flat.get(), length);
                    cmp::Keep(flat.get());
                }));
    evbuffer_free(msg);
}

}  // namespace

int main() {
    evthread_use_pthreads();
    {
        EventLoop loop;
        cmp::LoopRows(kLib, "", loop);
        cmp::Tcp(kLib, loop);
    }
    TimerRows();
    BufferRows();
    return 0;
}
