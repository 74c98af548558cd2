// The debugger output on Windows: every line goes to OutputDebugStringA, to
// the host's sink and, if asked for at load time, to standard error.
#include <io.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include <atomic>

#include "rtos.h"

namespace rtos {
namespace {

std::atomic<DebugSink> g_sink{nullptr};

bool ReadStderrSwitch() {
    const char* v = ::getenv("KVTIX_DEBUG_STDERR");
    return v && ::strcmp(v, "1") == 0;
}

// Read once, at load time (see the POSIX build for why it is a local static).
bool StderrWanted() {
    static const bool s_wanted = ReadStderrSwitch();
    return s_wanted;
}

[[maybe_unused]] const bool g_stderrReadAtLoad = StderrWanted();

}  // namespace

void DebugOutput(const char* aLine) {
    if (!aLine) {
        return;
    }
    ::OutputDebugStringA(aLine);
    if (DebugSink sink = g_sink.load(std::memory_order_acquire)) {
        sink(aLine);
    }
    if (StderrWanted()) {
        // One write per line, so lines of concurrent threads do not interleave.
        ::_write(2, aLine, static_cast<unsigned>(::strlen(aLine)));
    }
}

void SetDebugSink(DebugSink aSink) {
    g_sink.store(aSink, std::memory_order_release);
}

}  // namespace rtos
