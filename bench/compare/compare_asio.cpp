// Asio's side (standalone headers): one thread in io_context::run, asio::post
// for events, a tcp::socket for the connection, steady_timer and the resolver.
#include <asio.hpp>

#include <future>
#include <memory>

#include "compare.h"

namespace {

const char kLib[] = "asio";

class AsioLoop {
public:
    struct Task {
        explicit Task(std::function<void()> aFn) : fn(std::move(aFn)) {}
        std::function<void()> fn;
    };

    AsioLoop() : m_work(asio::make_work_guard(m_io)), m_thread([this] { m_io.run(); }) {}
    ~AsioLoop() {
        m_work.reset();
        m_thread.join();
    }

    void Post(Task* aTask) {
        asio::post(m_io, [aTask] { aTask->fn(); });
    }
    void Send(Task* aTask) {
        std::promise<void> done;
        asio::post(m_io, [aTask, &done] {
            aTask->fn();
            done.set_value();
        });
        done.get_future().wait();
    }

    // The socket closes the descriptor it was given, so it gets a copy.
    void Adopt(int aFd, bool aEcho, std::atomic<int64_t>* aReceived) {
        m_conn = std::make_shared<Conn>(m_io, aEcho, aReceived);
        Task add([this, aFd] {
            m_conn->socket.assign(asio::ip::tcp::v4(), ::dup(aFd));
            Conn::Read(m_conn);
        });
        Send(&add);
    }
    void Drop() {
        Task close([this] {
            asio::error_code ec;
            m_conn->socket.close(ec);
        });
        Send(&close);
        m_conn.reset();
    }

private:
    struct Conn {
        Conn(asio::io_context& aIo, bool aEcho, std::atomic<int64_t>* aReceived)
            : socket(aIo), echo(aEcho), received(aReceived), buf(64 * 1024) {}

        static void Read(const std::shared_ptr<Conn>& aSelf) {
            aSelf->socket.async_read_some(
                asio::buffer(aSelf->buf), [aSelf](const asio::error_code& aEc, size_t aRead) {
                    if (aEc) {
                        return;
                    }
                    aSelf->received->fetch_add(static_cast<int64_t>(aRead),
                                               std::memory_order_release);
                    if (aSelf->echo) {
                        // Echoes are 64 bytes: the socket buffer always
                        // takes them whole.
                        asio::error_code ec;
                        aSelf->socket.write_some(asio::buffer(aSelf->buf.data(), aRead), ec);
                    }
                    Read(aSelf);
                });
        }

        asio::ip::tcp::socket socket;
        bool echo;
        std::atomic<int64_t>* received;
        std::vector<char> buf;
    };

    asio::io_context m_io;
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    std::shared_ptr<Conn> m_conn;
    std::thread m_thread;
};

void TimerRows() {
    for (int n : cmp::kTimerSizes) {
        const std::vector<int64_t> delays = cmp::TimerDelaysUs(n);
        asio::io_context io;
        std::vector<asio::steady_timer> timers;
        timers.reserve(static_cast<size_t>(n));
        const int64_t t0 = cmp::ThreadCpuNs();
        for (int i = 0; i < n; ++i) {
            timers.emplace_back(io, std::chrono::microseconds(delays[i]));
            timers.back().async_wait([](const asio::error_code&) {});
        }
        for (int i = 0; i < n; i += 2) {
            timers[i].cancel();
        }
        cmp::SleepPastDeadlines();
        // Returns once every wait has completed (the cancelled ones too).
        io.run();
        cmp::Report(kLib, "timers." + std::to_string(n / 1000) + "k",
                    cmp::TimerNsPerOp(n, cmp::ThreadCpuNs() - t0));
    }
}

void DnsRow() {
    asio::io_context io;
    asio::ip::tcp::resolver resolver(io);
    std::vector<double> us;
    for (int i = 0; i < cmp::kLookups; ++i) {
        bool ok = false;
        const int64_t t0 = cmp::NowNs();
        resolver.async_resolve(asio::ip::tcp::v4(), "localhost", "",
                               [&ok](const asio::error_code& aEc,
                                     const asio::ip::tcp::resolver::results_type&) { ok = !aEc; });
        io.restart();
        io.run();
        if (!ok) {
            return;
        }
        us.push_back(static_cast<double>(cmp::NowNs() - t0) * 1e-3);
    }
    cmp::Report(kLib, "dns.localhost", cmp::Percentile(us, 0.5));
}

}  // namespace

int main() {
    {
        AsioLoop loop;
        cmp::LoopRows(kLib, "", loop);
        cmp::Tcp(kLib, loop);
    }
    TimerRows();
    DnsRow();
    return 0;
}
