// Identity, clocks and sleeping on POSIX.
#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "rtos.h"

namespace rtos {

namespace {

// getpid() and gettid() are system calls, and a trace line asks for both: the
// ids are asked once and kept. A forked child starts with the parent's copies,
// so it forgets them.
std::atomic<uint32_t> g_pid{0};
// Initial-exec: a plain load off the thread pointer instead of a call into
// the dynamic linker on every owner-thread check. Four bytes fit the static
// TLS room glibc keeps for libraries, even one loaded with dlopen.
__attribute__((tls_model("initial-exec"))) thread_local uint32_t t_tid = 0;

void ForgetIdsInChild() {
    g_pid.store(0, std::memory_order_relaxed);
    t_tid = 0;
}

[[maybe_unused]] const int g_atforkRegistered =
    ::pthread_atfork(nullptr, nullptr, &ForgetIdsInChild);

}  // namespace

uint32_t CurrentThreadId() {
    if (t_tid == 0) {
        t_tid = static_cast<uint32_t>(::syscall(SYS_gettid));
    }
    return t_tid;
}

uint32_t CurrentProcessId() {
    uint32_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = static_cast<uint32_t>(::getpid());
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

uint32_t TickCount() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t ms =
        static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

uint64_t SystemTimeAsFileTime() {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    const uint64_t kEpochDelta = 116444736000000000ull;  // 1601-01-01 to 1970-01-01
    return static_cast<uint64_t>(ts.tv_sec) * 10000000u + static_cast<uint64_t>(ts.tv_nsec) / 100u +
           kEpochDelta;
}

// The coarse clock is the kernel's last tick, read from the vDSO page without
// touching the time-stamp counter.
int64_t SystemTimeUsecCoarse() {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void SleepMs(uint32_t aMsec) {
    struct timespec ts;
    ts.tv_sec = aMsec / 1000;
    ts.tv_nsec = static_cast<long>(aMsec % 1000) * 1000000L;
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void LocalCalendarTime(int64_t aSeconds, CalendarTime& aOut) {
    time_t t = static_cast<time_t>(aSeconds);
    struct tm tmv;
    if (!::localtime_r(&t, &tmv)) {
        aOut = CalendarTime{1970, 1, 1, 0, 0, 0};
        return;
    }
    aOut.year = tmv.tm_year + 1900;
    aOut.month = tmv.tm_mon + 1;
    aOut.day = tmv.tm_mday;
    aOut.hour = tmv.tm_hour;
    aOut.minute = tmv.tm_min;
    aOut.second = tmv.tm_sec;
}

bool GetOsVersion(OsVersion& aOut) {
    aOut = OsVersion{kPlatformNt, 0, 0};
    struct utsname name;
    if (::uname(&name) != 0) {
        return false;
    }
    // "6.8.0-45-generic": the first two numbers.
    char* end = nullptr;
    aOut.major = static_cast<uint32_t>(::strtoul(name.release, &end, 10));
    if (end && *end == '.') {
        aOut.minor = static_cast<uint32_t>(::strtoul(end + 1, nullptr, 10));
    }
    return true;
}

int LastError() {
    return errno;
}
void SetLastError(int aErr) {
    errno = aErr;
}

}  // namespace rtos
