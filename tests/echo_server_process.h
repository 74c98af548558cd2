// kvt_echo_server (or any program that prints "listening on 127.0.0.1:PORT")
// run as a child process for tests that talk to it over loopback.
#ifndef TESTS_ECHO_SERVER_PROCESS_H
#define TESTS_ECHO_SERVER_PROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

extern char** environ;

// kvt_echo_server as a child process; its stdout and stderr go to one pipe.
class ServerProcess {
public:
    ServerProcess(const char* aServer, std::vector<std::string> aArgs, int aTimeoutMs)
        : m_timeoutMs(aTimeoutMs) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
        aArgs.insert(aArgs.begin(), aServer);
        std::vector<char*> argv;
        for (std::string& a : aArgs) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        if (posix_spawn(&m_pid, aServer, &actions, nullptr, argv.data(), environ) != 0) {
            m_pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        m_out = fds[0];
    }
    ~ServerProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_out >= 0) {
            ::close(m_out);
        }
    }

    // The port from the "listening on" line, or 0 when the server did not
    // get that far.
    uint16_t WaitListening() {
        const std::string mark = "listening on 127.0.0.1:";
        while (m_output.find('\n') == std::string::npos && ReadSome()) {
        }
        size_t at = m_output.find(mark);
        return at == std::string::npos
                   ? 0
                   : static_cast<uint16_t>(std::stoi(m_output.substr(at + mark.size())));
    }

    // Everything the process printed, once it has exited; aStatus receives
    // its wait status.
    std::string Finish(int* aStatus) {
        while (ReadSome()) {
        }
        *aStatus = -1;
        if (m_pid > 0 && ::waitpid(m_pid, aStatus, 0) == m_pid) {
            m_pid = -1;
        }
        return m_output;
    }

    pid_t Pid() const { return m_pid; }

private:
    // False at the end of the output or after the time limit without any.
    bool ReadSome() {
        pollfd p{m_out, POLLIN, 0};
        char buf[4096];
        if (::poll(&p, 1, m_timeoutMs) != 1) {
            return false;
        }
        ssize_t n = ::read(m_out, buf, sizeof(buf));
        if (n <= 0) {
            return false;
        }
        m_output.append(buf, static_cast<size_t>(n));
        return true;
    }

    int m_timeoutMs;
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_output;
};

#endif  // TESTS_ECHO_SERVER_PROCESS_H
