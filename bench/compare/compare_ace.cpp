// ACE's side: a thread in an ACE_Reactor over ACE_Dev_Poll_Reactor (epoll)
// with ACE_Reactor::notify for events, an ACE_Event_Handler for the
// connection, ACE_Timer_Heap and ACE_Timer_List (column "ace-list") used
// directly, and ACE_Message_Block chains for the buffer rows.
#include <ace/ACE.h>
#include <ace/Init_ACE.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Thread.h>
#include <ace/Dev_Poll_Reactor.h>
#include <ace/Message_Block.h>
#include <ace/Reactor.h>
#include <ace/Thread_Semaphore.h>
#include <ace/Timer_Heap.h>
#include <ace/Timer_List.h>
#include <sys/uio.h>

#include <cstring>
#include <memory>

#include "compare.h"

namespace {

const char kLib[] = "ace";

class AceLoop {
public:
    // A notification names a handler, so each task is one.
    struct Task : ACE_Event_Handler {
        explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
        int handle_exception(ACE_HANDLE) override { return fn(), 0; }
        std::function<void()> fn;
    };

    AceLoop() : m_reactor(new ACE_Dev_Poll_Reactor, true) {
        m_thread = std::thread([this] {
            m_reactor.owner(ACE_Thread::self());
            m_reactor.run_reactor_event_loop();
        });
    }
    ~AceLoop() {
        m_reactor.end_reactor_event_loop();
        m_thread.join();
    }

    void Post(Task* aTask) { m_reactor.notify(aTask); }
    void Send(Task* aTask) {
        ACE_Thread_Semaphore done(0);
        Task wrapper([aTask, &done] {
            aTask->fn();
            done.release();
        });
        Post(&wrapper);
        done.acquire();
    }

    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        m_conn.reset(new Conn(aFd, aEcho, aReceived));
        Task add(
            [this] { m_reactor.register_handler(m_conn.get(), ACE_Event_Handler::READ_MASK); });
        Send(&add);
    }
    void Drop() {
        Task remove([this] {
            m_reactor.remove_handler(m_conn.get(),
                                     ACE_Event_Handler::READ_MASK | ACE_Event_Handler::DONT_CALL);
        });
        Send(&remove);
        m_conn.reset();
    }

private:
    struct Conn : ACE_Event_Handler {
        Conn(int aFd, bool aEcho, std::atomic<int64_t>* aReceived)
            : fd(aFd), echo(aEcho), received(aReceived), buf(64 * 1024) {}
        ACE_HANDLE get_handle() const override { return fd; }
        int handle_input(ACE_HANDLE) override {
            const ssize_t n = ACE_OS::recv(fd, buf.data(), buf.size());
            if (n <= 0) {
                return n < 0 && errno == EWOULDBLOCK ? 0 : -1;
            }
            received->fetch_add(n, std::memory_order_release);
            // Echoes are 64 bytes: the socket buffer always takes them whole.
            if (echo && ACE_OS::send(fd, buf.data(), static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
                return -1;
            }
            return 0;
        }

        int fd;
        bool echo;
        std::atomic<int64_t>* received;
        std::vector<char> buf;
    };

    ACE_Reactor m_reactor;
    std::unique_ptr<Conn> m_conn;
    std::thread m_thread;
};

struct Counting : ACE_Event_Handler {
    int handle_timeout(const ACE_Time_Value&, const void*) override { return ++fired, 0; }
    int fired = 0;
};

template <class Queue>
void TimerRow(const char* aLib, int aCount) {
    const std::vector<int64_t> delays = cmp::TimerDelaysUs(aCount);
    std::vector<long> ids(static_cast<size_t>(aCount));
    Counting handler;
    const int64_t t0 = cmp::ThreadCpuNs();
    Queue queue;
    const ACE_Time_Value now = queue.gettimeofday();
    for (int i = 0; i < aCount; ++i) {
        ACE_Time_Value delay;
        delay.set(static_cast<time_t>(delays[i] / 1000000),
                  static_cast<suseconds_t>(delays[i] % 1000000));
        ids[i] = queue.schedule(&handler, nullptr, now + delay);
    }
    for (int i = 0; i < aCount; i += 2) {
        queue.cancel(ids[i], nullptr, 0);
    }
    cmp::SleepPastDeadlines();
    queue.expire();
    if (handler.fired != aCount / 2) {
        std::fprintf(stderr, "%s: %d of %d timers fired\n", aLib, handler.fired, aCount / 2);
    }
    cmp::Report(aLib, "timers." + std::to_string(aCount / 1000) + "k",
                cmp::TimerNsPerOp(aCount, cmp::ThreadCpuNs() - t0));
}

void TimerRows() {
    for (int n : cmp::kTimerSizes) {
        TimerRow<ACE_Timer_Heap>(kLib, n);
        // The list's schedule walks the list: 100,000 timers take minutes.
        if (n <= 10000) {
            TimerRow<ACE_Timer_List>("ace-list", n);
        }
    }
}

// A chain's first aAt bytes stay in aHead; the rest comes back as a chain of
// its own. The block the split falls in is duplicated, which shares its data.
ACE_Message_Block* Split(ACE_Message_Block* aHead, size_t aAt) {
    ACE_Message_Block* block = aHead;
    while (block && aAt >= block->length()) {
        aAt -= block->length();
        block = block->cont();
    }
    if (!block) {
        return nullptr;
    }
    ACE_Message_Block* after = block->cont();
    block->cont(nullptr);
    ACE_Message_Block* rest = block->duplicate();
    rest->rd_ptr(aAt);
    rest->cont(after);
    block->wr_ptr(block->rd_ptr() + aAt);
    return rest;
}

void BufferRows() {
    std::vector<char> bytes(cmp::kBlockSize, 'x');
    ACE_Message_Block* msg = nullptr;
    ACE_Message_Block* last = nullptr;
    for (size_t i = 0; i < cmp::kBlocks; ++i) {
        ACE_Message_Block* block = new ACE_Message_Block(cmp::kBlockSize);
        block->copy(bytes.data(), bytes.size());
        if (last) {
            last->cont(block);
        } else {
            msg = block;
        }
        last = block;
    }
    cmp::Report(kLib, "buf.dup", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    ACE_Message_Block* dup = msg->duplicate();
                    cmp::Keep(dup);
                    dup->release();
                }));
    cmp::Report(kLib, "buf.split", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    ACE_Message_Block* dup = msg->duplicate();
                    ACE_Message_Block* rest = Split(dup, cmp::kSplitAt);
                    cmp::Keep(rest);
                    rest->release();
                    dup->release();
                }));
    iovec iov[cmp::kBlocks];
    cmp::Report(kLib, "buf.gather", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    size_t n = 0;
                    for (ACE_Message_Block* b = msg; b && n < cmp::kBlocks; b = b->cont()) {
                        if (b->length() > 0) {
                            iov[n].iov_base = b->rd_ptr();
                            iov[n].iov_len = b->length();
                            ++n;
                        }
                    }
                    cmp::Keep(n);
                    cmp::Keep(iov);
                }));
    cmp::Report(kLib, "buf.flatten", cmp::NsPerCall(cmp::kBufferRounds, [&] {
                    std::string flat;
                    flat.reserve(msg->total_length());
                    for (ACE_Message_Block* b = msg; b; b = b->cont()) {
                        flat.append(b->rd_ptr(), b->length());
                    }
                    cmp::Keep(flat.data());
                }));
    msg->release();
}

}  // namespace

int main() {
    ACE::init();
    {
        AceLoop loop;
        cmp::LoopRows(kLib, "", loop);
        cmp::Tcp(kLib, loop);
    }
    TimerRows();
    BufferRows();
    ACE::fini();
    return 0;
}
