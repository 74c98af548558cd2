// The example echo server, run as a process: it echoes to many clients at once,
// survives rude peers, drops one that never reads, refuses bad arguments and
// exits 0 on SIGINT or SIGTERM.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <thread>
#include <vector>

#include "echo_server_process.h"
#include "loopback_helpers.h"

namespace {

#ifdef KVT_ECHO_SERVER
const char* const kServer = KVT_ECHO_SERVER;
#else
const char* const kServer = nullptr;
#endif

// Generous: sanitizer builds on a loaded 2-core machine.
const int kTimeoutMs = 60000;

int Connect(uint16_t aPort) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{kTimeoutMs / 1000, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    sockaddr_in a = Loopback(aPort);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(int aFd, const std::string& aData) {
    for (size_t done = 0; done < aData.size();) {
        ssize_t n = ::send(aFd, aData.data() + done, aData.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string RecvExactly(int aFd, size_t aCount) {
    std::string got(aCount, '\0');
    size_t done = 0;
    for (ssize_t n = 1; done < aCount && n > 0; done += n > 0 ? size_t(n) : 0) {
        n = ::recv(aFd, &got[done], aCount - done, 0);
    }
    got.resize(done);
    return got;
}

std::string Payload(size_t aSize, unsigned aSeed) {
    std::string s(aSize, '\0');
    for (size_t i = 0; i < aSize; ++i) {
        s[i] = static_cast<char>(i * 7 + (i >> 9) + aSeed);
    }
    return s;
}

class EchoServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!kServer) {
            GTEST_SKIP() << "built without the examples";
        }
    }
};

}  // namespace

// Each client writes 1 MiB before reading anything back, so the server meets
// full socket buffers and finishes its writes later. One never reads and must
// be dropped; some reset without reading their echo; the rest are served.
TEST_F(EchoServerTest, EchoesManyClientsAtOnceSurvivesRudePeersAndStopsOnEitherSignal) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
        ServerProcess server(kServer, {"127.0.0.1", "0"}, kTimeoutMs);
        uint16_t port = server.WaitListening();
        ASSERT_NE(port, 0);

        const int kClients = 16;
        std::vector<std::string> results(kClients);
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                int fd = Connect(port);
                if (fd < 0) {
                    return;
                }
                std::string data = "hello " + std::to_string(c) + "\n" + Payload(1 << 20, c);
                if (c == 0) {
                    // Far more than the server keeps for one peer plus every socket buffer.
                    bool refused = false;
                    for (int i = 0; i < 256 && !refused; ++i) {
                        refused = !SendAll(fd, data);
                    }
                    results[c] = refused ? "dropped" : "kept";
                } else if (c % 4 == 3) {
                    SendAll(fd, data.substr(0, 300000));
                    linger hard{1, 0};
                    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
                    results[c] = "reset";
                } else if (SendAll(fd, data)) {
                    results[c] = RecvExactly(fd, data.size()) == data ? "ok" : "wrong echo";
                }
                ::close(fd);
            });
        }
        for (std::thread& t : clients) {
            t.join();
        }
        for (int c = 0; c < kClients; ++c) {
            EXPECT_EQ(results[c], c == 0 ? "dropped" : c % 4 == 3 ? "reset" : "ok") << c;
        }

        // A client still connected when the signal arrives.
        int idle = Connect(port);
        ASSERT_GE(idle, 0);
        ASSERT_TRUE(SendAll(idle, "still here\n"));
        EXPECT_EQ(RecvExactly(idle, 11), "still here\n");
        ASSERT_EQ(::kill(server.Pid(), sig), 0);
        int status = 0;
        std::string out = server.Finish(&status);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << out;
        EXPECT_NE(out.find(std::string("stopped by ") + (sig == SIGTERM ? "SIGTERM" : "SIGINT") +
                           "; " + std::to_string(kClients + 1) + " connection(s)"),
                  std::string::npos)
            << out;
        EXPECT_EQ(RecvExactly(idle, 1), "");  // closed by the server on its way out
        ::close(idle);
    }
}

TEST_F(EchoServerTest, RefusesBadArgumentsAndAnAddressInUse) {
    struct Case {
        std::vector<std::string> args;
        int exitCode;
    };
    const Case cases[] = {
        {{"not-an-address"}, 2},  {{"127.0.0.1", "70000"}, 2},
        {{"127.0.0.1", "7x"}, 2}, {{"127.0.0.1", "1", "2"}, 2},
        {{"--help"}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        ServerProcess server(kServer, c.args, kTimeoutMs);
        int status = 0;
        std::string out = server.Finish(&status);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << status;
        EXPECT_NE(out.find("usage:"), std::string::npos) << out;
    }

    ServerProcess first(kServer, {"127.0.0.1", "0"}, kTimeoutMs);
    uint16_t port = first.WaitListening();
    ASSERT_NE(port, 0);
    ServerProcess second(kServer, {"127.0.0.1", std::to_string(port)}, kTimeoutMs);
    int status = 0;
    std::string out = second.Finish(&status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_NE(
        out.find("cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use"),
        std::string::npos)
        << out;
}
