// Test helpers for the configuration and trace-file tests: a temporary folder
// removed with everything in it, a scoped working directory and environment
// variable, whole-file reads and writes, and running this test program again
// as a child with its own environment and working directory.
#ifndef TESTS_CONFIG_TEST_ENV_H
#define TESTS_CONFIG_TEST_ENV_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fd_count.h"
#include "rtconfig.h"
#include "rtos.h"

#ifdef _WIN32
#include <process.h>
#else
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
#endif

namespace fs = std::filesystem;

class TempDir {
public:
    TempDir() {
        static int s_serial = 0;
        m_path =
            (fs::temp_directory_path() / ("kvt_config_" + std::to_string(rtos::CurrentProcessId()) +
                                          "_" + std::to_string(s_serial++)))
                .string();
        std::error_code ec;
        fs::remove_all(m_path, ec);  // left by an earlier process of the same id
        fs::create_directories(m_path, ec);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& aName) const {
        return (fs::path(m_path) / aName).string();
    }

private:
    std::string m_path;
};

class ScopedCwd {
public:
    explicit ScopedCwd(const std::string& aDir) : m_old(fs::current_path(m_error)) {
        fs::current_path(aDir, m_error);
    }
    ~ScopedCwd() {
        std::error_code ec;
        fs::current_path(m_old, ec);
    }
    bool Ok() const { return !m_error; }

private:
    std::error_code m_error;
    fs::path m_old;
};

// Sets (or, with a null value, removes) one variable for its scope.
class ScopedEnv {
public:
    ScopedEnv(const char* aName, const char* aValue) : m_name(aName) {
        if (const char* old = ::getenv(aName)) {
            m_old = old;
        }
        Set(aValue);
    }
    ~ScopedEnv() { Set(m_old ? m_old->c_str() : nullptr); }

private:
    void Set(const char* aValue) {
#ifdef _WIN32
        ::_putenv_s(m_name.c_str(), aValue ? aValue : "");  // "" removes it
#else
        aValue ? ::setenv(m_name.c_str(), aValue, 1) : ::unsetenv(m_name.c_str());
#endif
    }

    std::string m_name;
    std::optional<std::string> m_old;
};

inline bool WriteFile(const std::string& aPath, const std::string& aText) {
    return static_cast<bool>(std::ofstream(aPath, std::ios::binary) << aText);
}

inline std::string ReadFile(const std::string& aPath) {
    std::ifstream in(aPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool FileExists(const std::string& aPath) {
    std::error_code ec;
    return fs::exists(aPath, ec);
}

// Writes <aDir>/conf/kvtix.ini.
inline bool WriteConfig(const std::string& aDir, const std::string& aText) {
    std::error_code ec;
    fs::create_directory(fs::path(aDir) / "conf", ec);
    return WriteFile((fs::path(aDir) / "conf" / "kvtix.ini").string(), aText);
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
    int pid = -1;       // not known on Windows
    int exitCode = -1;  // -1 when the child did not exit normally
};

// Runs this test program again with only aTest selected (it may be a
// DISABLED_ test), in aCwd, with aEnv laid over the environment (an empty
// value removes the variable). The library of the child loads with that
// environment and working directory, which is the point.
inline ChildResult RunSelf(const std::string& aTest, const std::string& aCwd,
                           const std::map<std::string, std::string>& aEnv) {
    std::list<ScopedEnv> env;  // the child inherits them, and the directory
    for (const auto& kv : aEnv) {
        env.emplace_back(kv.first.c_str(), kv.second.empty() ? nullptr : kv.second.c_str());
    }
    ScopedCwd cwd(aCwd);
    const std::string filter = "--gtest_filter=" + aTest;
    const char* argv[] = {get_exec_name(), filter.c_str(), "--gtest_also_run_disabled_tests",
                          nullptr};
    ChildResult result;
#ifdef _WIN32
    result.exitCode = cwd.Ok() ? static_cast<int>(::_spawnv(_P_WAIT, argv[0], argv)) : -1;
#else
    posix_spawn_file_actions_t actions;  // the child's report stays out of ours
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = 0;
    if (cwd.Ok() &&
        ::posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) == 0) {
        result.pid = pid;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);
#endif
    return result;
}

#endif  // TESTS_CONFIG_TEST_ENV_H
