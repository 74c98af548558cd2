// The debugger output on POSIX: nobody listens to OutputDebugString here, so a
// line goes to the host's sink and, if asked for at load time, to stderr.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "rtos.h"

namespace rtos {
namespace {

std::atomic<DebugSink> g_sink{nullptr};

bool ReadStderrSwitch() {
    const char* v = ::getenv("KVTIX_DEBUG_STDERR");
    return v && ::strcmp(v, "1") == 0;
}

// Read once, at load time. A function-local static rather than a plain global,
// because other files' static initialisers may trace before this file's run.
bool StderrWanted() {
    static const bool s_wanted = ReadStderrSwitch();
    return s_wanted;
}

// Makes sure the switch is read at load time even if nothing traces then.
[[maybe_unused]] const bool g_stderrReadAtLoad = StderrWanted();

}  // namespace

void DebugOutput(const char* aLine) {
    if (!aLine) {
        return;
    }
    if (DebugSink sink = g_sink.load(std::memory_order_acquire)) {
        sink(aLine);
    }
    if (StderrWanted()) {
        // One write per line, so lines of concurrent threads do not interleave.
        size_t len = ::strlen(aLine);
        const char* p = aLine;
        while (len > 0) {
            ssize_t n = ::write(STDERR_FILENO, p, len);
            if (n <= 0) {
                break;
            }
            p += n;
            len -= static_cast<size_t>(n);
        }
    }
}

void SetDebugSink(DebugSink aSink) {
    g_sink.store(aSink, std::memory_order_release);
}

}  // namespace rtos
