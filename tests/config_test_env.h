// Test helpers for the configuration and trace-file tests: a temporary folder
// removed with everything in it, a scoped working directory and environment
// variable, whole-file reads and writes, and running this test program again
// as a child with its own environment and working directory.
#ifndef TESTS_CONFIG_TEST_ENV_H
#define TESTS_CONFIG_TEST_ENV_H

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fd_count.h"

#ifdef _WIN32
#include <direct.h>
#include <windows.h>

#include <filesystem>
#else
#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

#ifdef _WIN32
constexpr char kSep = '\\';
inline int setenv(const char* aName, const char* aValue, int) {
    return ::_putenv_s(aName, aValue);
}
inline int unsetenv(const char* aName) {
    return ::_putenv_s(aName, "");
}
inline int mkdir(const char* aDir, int) {
    return ::_mkdir(aDir);
}
#else
constexpr char kSep = '/';
#endif

class TempDir {
public:
#ifdef _WIN32
    TempDir() {
        static int s_serial = 0;
        char base[MAX_PATH];
        ::GetTempPathA(sizeof(base), base);
        for (int i = 0; i < 100 && m_path.empty(); ++i) {
            std::string path = std::string(base) + "kvt_config_" +
                               std::to_string(::GetCurrentProcessId()) + "_" +
                               std::to_string(s_serial++);
            if (::CreateDirectoryA(path.c_str(), nullptr)) {
                m_path = path;
            }
        }
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
#else
    TempDir() {
        char tmpl[] = "/tmp/kvt_config_XXXXXX";
        const char* made = ::mkdtemp(tmpl);
        m_path = made ? made : "";
    }
    ~TempDir() {
        if (!m_path.empty()) {
            // Folders a test made read-only must be writable to be removed.
            std::string cmd =
                "chmod -R u+rwx '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'";
            int rc = ::system(cmd.c_str());
            (void)rc;
        }
    }
#endif
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const {
        return m_path;
    }
    std::string operator/(const std::string& aName) const {
        return m_path + kSep + aName;
    }

private:
    std::string m_path;
};

class ScopedCwd {
public:
    explicit ScopedCwd(const std::string& aDir) {
        char buf[4096];
        m_old = ::getcwd(buf, sizeof(buf)) ? buf : "/";
        m_ok = ::chdir(aDir.c_str()) == 0;
    }
    ~ScopedCwd() {
        int rc = ::chdir(m_old.c_str());
        (void)rc;
    }
    bool Ok() const { return m_ok; }

private:
    std::string m_old;
    bool m_ok;
};

// Sets (or, with a null value, removes) one variable for its scope.
class ScopedEnv {
public:
    ScopedEnv(const char* aName, const char* aValue) : m_name(aName) {
        const char* old = ::getenv(aName);
        m_hadOld = old != nullptr;
        m_old = old ? old : "";
        if (aValue) {
            ::setenv(aName, aValue, 1);
        } else {
            ::unsetenv(aName);
        }
    }
    ~ScopedEnv() {
        if (m_hadOld) {
            ::setenv(m_name.c_str(), m_old.c_str(), 1);
        } else {
            ::unsetenv(m_name.c_str());
        }
    }

private:
    std::string m_name;
    std::string m_old;
    bool m_hadOld;
};

inline bool WriteFile(const std::string& aPath, const std::string& aText) {
    std::ofstream out(aPath, std::ios::binary | std::ios::trunc);
    out << aText;
    return static_cast<bool>(out);
}

inline std::string ReadFile(const std::string& aPath) {
    std::ifstream in(aPath, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline bool FileExists(const std::string& aPath) {
    struct stat st;
    return ::stat(aPath.c_str(), &st) == 0;
}

// Writes <aDir>/conf/kvtix.ini.
inline bool WriteConfig(const std::string& aDir, const std::string& aText) {
    ::mkdir((aDir + kSep + "conf").c_str(), 0755);
    return WriteFile(aDir + kSep + "conf" + kSep + "kvtix.ini", aText);
}

// Counts the occurrences of aNeedle in aText.
inline size_t CountOf(const std::string& aText, const std::string& aNeedle) {
    size_t n = 0;
    for (size_t at = aText.find(aNeedle); at != std::string::npos;
         at = aText.find(aNeedle, at + aNeedle.size())) {
        ++n;
    }
    return n;
}

struct ChildResult {
    int pid = -1;
    int exitCode = -1;  // -1 when the child did not exit normally
};

#ifdef _WIN32
// As below, with CreateProcessA.
inline ChildResult RunSelf(const std::string& aTest, const std::string& aCwd,
                           const std::map<std::string, std::string>& aEnv) {
    std::string block;
    if (char* env = ::GetEnvironmentStringsA()) {
        for (const char* e = env; *e; e += ::strlen(e) + 1) {
            std::string entry = e;
            if (aEnv.find(entry.substr(0, entry.find('='))) == aEnv.end()) {
                block.append(entry).push_back('\0');
            }
        }
        ::FreeEnvironmentStringsA(env);
    }
    for (const auto& kv : aEnv) {
        if (!kv.second.empty()) {
            block.append(kv.first + "=" + kv.second).push_back('\0');
        }
    }
    block.push_back('\0');
    char self[MAX_PATH];
    ::GetModuleFileNameA(nullptr, self, sizeof(self));
    std::string cmd = std::string("\"") + self + "\" --gtest_filter=" + aTest +
                      " --gtest_also_run_disabled_tests";
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE nul =
        ::CreateFileA("NUL", GENERIC_WRITE, FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0, nullptr);
    STARTUPINFOA si = {};
    si.cb = sizeof(si);
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    si.hStdOutput = nul;
    si.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION pi = {};
    ChildResult result;
    if (::CreateProcessA(self, &cmd[0], nullptr, nullptr, TRUE, 0, &block[0], aCwd.c_str(), &si,
                         &pi)) {
        result.pid = static_cast<int>(pi.dwProcessId);
        ::WaitForSingleObject(pi.hProcess, INFINITE);
        DWORD code = 0;
        if (::GetExitCodeProcess(pi.hProcess, &code)) {
            result.exitCode = static_cast<int>(code);
        }
        ::CloseHandle(pi.hThread);
        ::CloseHandle(pi.hProcess);
    }
    ::CloseHandle(nul);
    return result;
}
#else

// Runs this test program again with only aTest selected (it may be a
// DISABLED_ test), in aCwd, with aEnv added to the environment (an empty value
// removes the variable). The library of the child loads with that environment
// and working directory, which is the point.
inline ChildResult RunSelf(const std::string& aTest, const std::string& aCwd,
                           const std::map<std::string, std::string>& aEnv) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        std::string name = entry.substr(0, entry.find('='));
        if (aEnv.find(name) == aEnv.end()) {
            env.push_back(entry);
        }
    }
    for (const auto& kv : aEnv) {
        if (!kv.second.empty()) {
            env.push_back(kv.first + "=" + kv.second);
        }
    }
    std::vector<char*> envp;
    for (std::string& entry : env) {
        envp.push_back(&entry[0]);
    }
    envp.push_back(nullptr);
    std::string filter = "--gtest_filter=" + aTest;
    std::string self = "/proc/self/exe";
    char alsoDisabled[] = "--gtest_also_run_disabled_tests";
    char* argv[] = {&self[0], &filter[0], alsoDisabled, nullptr};

    ChildResult result;
    pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls until exec.
        int devnull = ::open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            ::dup2(devnull, 1);
        }
        if (::chdir(aCwd.c_str()) != 0) {
            ::_exit(126);
        }
        ::execve(argv[0], argv, envp.data());
        ::_exit(127);
    }
    if (pid < 0) {
        return result;
    }
    result.pid = pid;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}
#endif

#endif  // TESTS_CONFIG_TEST_ENV_H
