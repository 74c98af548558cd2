// A TCP echo server on the network thread: every byte a client sends comes
// back to it. Many clients at once; SIGINT or SIGTERM stops it cleanly.
//
//   kvt_echo_server [ADDRESS [PORT]]     (default 127.0.0.1 7000; port 0 picks one)
//
// Talk to it with `nc 127.0.0.1 7000`. It prints the address it listens on
// once it does, and exits 0 after a signal stopped it.
#include <errno.h>
#include <signal.h>
#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "echo_handlers.h"
#include "rtframework.h"

namespace {

const char kUsage[] = "usage: kvt_echo_server [ADDRESS [PORT]]   (default 127.0.0.1 7000)\n";

bool ParseArgs(int argc, char** argv, CRtInetAddr& aAddr) {
    const char* address = argc > 1 ? argv[1] : "127.0.0.1";
    long port = 7000;
    if (argc > 3) {
        return false;
    }
    if (argc > 2) {
        char* end = nullptr;
        port = std::strtol(argv[2], &end, 10);
        if (*argv[2] == '\0' || *end != '\0' || port < 0 || port > 65535) {
            return false;
        }
    }
    // A host name would need the DNS manager; this server takes addresses.
    unsigned long ip = 0;
    return CRtInetAddr::IpAddrStringTo4Bytes(address, ip) &&
           RT_SUCCEEDED(aAddr.Set(address, static_cast<unsigned short>(port)));
}

#ifdef _WIN32
// Ctrl+C and Ctrl+Break arrive on a thread of the console's own.
std::atomic<int> g_consoleStop{0};
BOOL WINAPI OnConsoleStop(DWORD aType) {
    g_consoleStop = aType == CTRL_C_EVENT ? SIGINT : SIGTERM;
    RtStopMainLoop();
    return TRUE;
}
#endif

}  // namespace

int main(int argc, char** argv) {
    CRtInetAddr addr;
    if (argc > 1 && (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help"))) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (!ParseArgs(argc, argv, addr)) {
        std::fputs(kUsage, stderr);
        return 2;
    }

#ifndef _WIN32
    // Blocked before any framework thread exists, so that every thread
    // inherits the mask and only the watcher below ever takes these signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
#endif

    CRtThreadManager* manager = CRtThreadManager::Instance();
    IRtReactor* network =
        manager ? manager->GetThreadReactor(CRtThreadManager::TT_NETWORK) : nullptr;
    if (!network) {
        std::fprintf(stderr, "kvt_echo_server: the framework did not start\n");
        return 1;
    }

    // The server lives on the network thread: made, started and deleted there.
    CEchoServer* server = nullptr;
    int startErrno = 0;
    int rv = RunOnThread(network, [&] {
        server = new CEchoServer(network);
        int result = server->Start(addr);
        if (RT_FAILED(result)) {
            startErrno = errno;
            delete server;
            server = nullptr;
        } else {
            addr = server->GetLocalAddr();
        }
        return result;
    });
    if (RT_FAILED(rv)) {
        std::fprintf(stderr, "kvt_echo_server: cannot listen on %s:%u: %s (rv=%d)\n",
                     addr.GetIpDisplayName().c_str(), addr.GetPort(), std::strerror(startErrno),
                     rv);
        return 1;
    }
    std::printf("kvt_echo_server: listening on %s:%u\n", addr.GetIpDisplayName().c_str(),
                addr.GetPort());
    std::fflush(stdout);

#ifdef _WIN32
    std::atomic<int>& caught = g_consoleStop;
    ::SetConsoleCtrlHandler(&OnConsoleStop, TRUE);
    rv = RtRunMainLoop();
#else
    std::atomic<int> caught{0};
    std::thread watcher([&] {
        int sig = 0;
        if (sigwait(&stopSignals, &sig) == 0) {
            caught = sig;
        }
        RtStopMainLoop();
    });
    rv = RtRunMainLoop();
    if (caught == 0) {
        // The loop ended without a signal: wake the watcher with one of its own.
        pthread_kill(watcher.native_handle(), SIGTERM);
    }
    watcher.join();
#endif

    unsigned long accepted = 0, open = 0;
    uint64_t echoed = 0;
    RunOnThread(network, [&] {
        accepted = server->GetStats().accepted;
        open = server->GetStats().open;
        echoed = server->GetStats().bytesEchoed;
        delete server;  // removes its handlers and closes every socket
        return RT_OK;
    });
    std::printf(
        "kvt_echo_server: stopped by %s; %lu connection(s), %lu still open, %llu byte(s) echoed\n",
        caught == SIGINT    ? "SIGINT"
        : caught == SIGTERM ? "SIGTERM"
                            : "the main loop",
        accepted, open, static_cast<unsigned long long>(echoed));
    return RT_SUCCEEDED(rv) ? 0 : 1;
}
