// Soak: many loopback clients keep kvt_echo_server busy with messages of 1
// byte to 1 MiB, reconnecting at random, for KVT_SOAK_SECONDS (default 20).
// Every echoed byte is checked by MD5. At the end the server must hold as
// many descriptors as before the first client came and no connection object,
// and its resident memory must be within 5% of its level after warm-up. Exits 0 when all held.
//
//   echo_soak [SERVER]   KVT_SOAK_SECONDS=30 KVT_SOAK_CLIENTS=100
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "echo_server_process.h"
#include "rtutilclasses.h"

namespace {

const size_t kMaxMessage = 1 << 20;
const int kThreads = 4;

long EnvLong(const char* aName, long aDefault) {
    const char* text = std::getenv(aName);
    long value = text ? std::atol(text) : 0;
    return value > 0 ? value : aDefault;
}

int CountFds(pid_t aPid) {
    int n = 0;
    std::string path = "/proc/" + std::to_string(aPid) + "/fd";
    if (DIR* dir = ::opendir(path.c_str())) {
        while (dirent* e = ::readdir(dir)) {
            n += e->d_name[0] != '.';
        }
        ::closedir(dir);
    }
    return n;
}

long RssKb(pid_t aPid) {
    std::ifstream status("/proc/" + std::to_string(aPid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

struct Totals {
    std::atomic<long> messages{0};
    std::atomic<long long> bytes{0};
    std::atomic<long> reconnects{0};
    std::atomic<long> aborts{0};
    std::atomic<long> corrupt{0};
    std::atomic<long> errors{0};
};

// One client connection: sends a message, reads the echo back while it does,
// and compares digests when the whole message has returned.
class Client {
public:
    Client(uint16_t aPort, const std::vector<unsigned char>* aPool, unsigned aSeed)
        : m_port(aPort), m_pool(aPool), m_rand(aSeed) {}
    ~Client() { Close(); }

    int Fd() const { return m_fd; }
    bool Idle() const { return m_fd < 0; }
    short Wanted() const { return POLLIN | (m_sent < m_size ? POLLOUT : 0); }

    bool Connect() {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(m_port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
            Close();
            return false;
        }
        ::fcntl(m_fd, F_SETFL, O_NONBLOCK);
        NextMessage();
        return true;
    }
    void Close() {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

    // False when the connection failed.
    bool Serve(short aRevents, Totals& aTotals) {
        if (aRevents & POLLOUT) {
            ssize_t n = ::send(m_fd, Data() + m_sent, m_size - m_sent, MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN) {
                return false;
            }
            m_sent += n > 0 ? static_cast<size_t>(n) : 0;
            // Now and then a client leaves with its message in flight.
            if (m_leaveEarly && m_sent > 0) {
                ++aTotals.aborts;
                Close();
                return Connect();
            }
        }
        if (aRevents & (POLLIN | POLLHUP | POLLERR)) {
            unsigned char buf[65536];
            ssize_t n = ::recv(m_fd, buf, sizeof(buf), 0);
            if (n == 0 || (n < 0 && errno != EAGAIN) || m_received + n > m_size) {
                return false;
            }
            if (n > 0) {
                RtMD5Update(&m_echoed, buf, static_cast<unsigned int>(n));
                m_received += static_cast<size_t>(n);
            }
        }
        if (m_received == m_size) {
            RtMD5Final(&m_echoed);
            unsigned char sent[16];
            RtMD5(Data(), static_cast<unsigned long>(m_size), sent);
            aTotals.corrupt += std::memcmp(sent, m_echoed.digest, 16) != 0;
            ++aTotals.messages;
            aTotals.bytes += static_cast<long long>(m_size);
            if (m_rand() % 50 == 0) {
                ++aTotals.reconnects;
                Close();
                return Connect();
            }
            NextMessage();
        }
        return true;
    }

private:
    // Sizes spread evenly over their logarithm: most messages are small, a
    // few near 1 MiB.
    void NextMessage() {
        double exponent = std::uniform_real_distribution<double>(0, 20)(m_rand);
        m_size = std::max<size_t>(1, static_cast<size_t>(std::pow(2.0, exponent)));
        m_offset = m_rand() % (m_pool->size() - kMaxMessage);
        m_sent = m_received = 0;
        m_leaveEarly = m_rand() % 100 == 0;
        RtMD5Init(&m_echoed);
    }
    const unsigned char* Data() const { return m_pool->data() + m_offset; }

    uint16_t m_port;
    const std::vector<unsigned char>* m_pool;
    std::minstd_rand m_rand;
    int m_fd = -1;
    size_t m_size = 0, m_offset = 0, m_sent = 0, m_received = 0;
    bool m_leaveEarly = false;
    RtMD5Context m_echoed;
};

// Drives its share of the clients until aStop.
void RunClients(int aCount, uint16_t aPort, unsigned aSeed, const std::atomic<bool>& aStop,
                Totals& aTotals) {
    std::vector<unsigned char> pool(2 * kMaxMessage);
    std::minstd_rand fill(aSeed);
    for (auto& b : pool) {
        b = static_cast<unsigned char>(fill());
    }
    std::vector<Client> clients;
    clients.reserve(static_cast<size_t>(aCount));
    for (int i = 0; i < aCount; ++i) {
        clients.emplace_back(aPort, &pool, aSeed * 1000 + static_cast<unsigned>(i));
    }
    std::vector<pollfd> polled(clients.size());
    while (!aStop) {
        for (size_t i = 0; i < clients.size(); ++i) {
            if (clients[i].Idle() && !clients[i].Connect()) {
                ++aTotals.errors;
            }
            polled[i] = pollfd{clients[i].Fd(), clients[i].Wanted(), 0};
        }
        if (::poll(polled.data(), polled.size(), 100) < 0) {
            continue;
        }
        for (size_t i = 0; i < clients.size(); ++i) {
            if (polled[i].revents && !clients[i].Serve(polled[i].revents, aTotals)) {
                ++aTotals.errors;
                clients[i].Close();
            }
        }
    }
}

// Polls aDone every 100 ms for up to aSeconds.
template <class Pred>
bool WaitFor(Pred aDone, int aSeconds) {
    for (int i = 0; i < aSeconds * 10; ++i) {
        if (aDone()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return aDone();
}

}  // namespace

int main(int argc, char** argv) {
#ifdef KVT_ECHO_SERVER
    const char* server = argc > 1 ? argv[1] : KVT_ECHO_SERVER;
#else
    const char* server = argc > 1 ? argv[1] : "kvt_echo_server";
#endif
    const long seconds = EnvLong("KVT_SOAK_SECONDS", 20);
    const int clients = static_cast<int>(EnvLong("KVT_SOAK_CLIENTS", 100));

    ServerProcess process(server, {"127.0.0.1", "0"}, 60000);
    uint16_t port = process.WaitListening();
    if (!port) {
        std::fprintf(stderr, "echo_soak: %s did not start listening\n", server);
        return 1;
    }
    const pid_t pid = process.Pid();
    const int fdsBefore = CountFds(pid);

    Totals totals;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        int share = clients / kThreads + (t < clients % kThreads);
        threads.emplace_back(RunClients, share, port, 17u + static_cast<unsigned>(t),
                             std::cref(stop), std::ref(totals));
    }
    // Warm-up: a fifth of the run, at most a minute.
    const auto start = std::chrono::steady_clock::now();
    const auto warmUp = std::chrono::seconds(std::min(60L, std::max(1L, seconds / 5)));
    std::this_thread::sleep_for(warmUp);
    const long rssWarm = RssKb(pid);
    std::this_thread::sleep_until(start + std::chrono::seconds(seconds));
    stop = true;
    for (auto& t : threads) {
        t.join();
    }

    // The server notices the closes on its own time.
    int fdsAfter = -1;
    WaitFor([&] { return (fdsAfter = CountFds(pid)) <= fdsBefore; }, 30);
    const long rssEnd = RssKb(pid);
    ::kill(pid, SIGTERM);
    int status = -1;
    std::string output = process.Finish(&status);

    const double rssChange = rssWarm > 0 ? 100.0 * (rssEnd - rssWarm) / rssWarm : 100.0;
    std::printf(
        "echo_soak: %d clients, %ld s: %ld messages, %lld bytes, %ld reconnects, "
        "%ld aborted mid-message, %ld corrupt, %ld connection errors\n",
        clients, seconds, totals.messages.load(), totals.bytes.load(), totals.reconnects.load(),
        totals.aborts.load(), totals.corrupt.load(), totals.errors.load());
    std::printf(
        "echo_soak: server descriptors %d before, %d after; resident %ld kB after "
        "warm-up, %ld kB at the end (%+.1f%%)\n",
        fdsBefore, fdsAfter, rssWarm, rssEnd, rssChange);

    bool ok = true;
    auto check = [&](bool aHeld, const char* aWhat) {
        if (!aHeld) {
            std::fprintf(stderr, "echo_soak: FAILED: %s\n", aWhat);
            ok = false;
        }
    };
    check(totals.messages > 0, "no message came back");
    check(totals.corrupt == 0, "an echoed message differed from the one sent");
    check(totals.errors == 0, "a connection failed");
    check(fdsAfter == fdsBefore, "the server kept descriptors");
    check(rssChange <= 5.0, "the server's resident memory grew by more than 5%");
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the server did not exit 0 on SIGTERM");
    check(output.find(", 0 still open,") != std::string::npos,
          "the server still held connections of clients that had left");
    if (!ok) {
        std::fprintf(stderr, "server output:\n%s", output.c_str());
    }
    return ok ? 0 : 1;
}
