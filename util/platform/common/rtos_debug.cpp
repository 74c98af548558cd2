// The debugger output every platform shares: a line goes to the system's
// debugger channel, to the host's sink and, if asked for at load time
// (KVTIX_DEBUG_STDERR=1), to standard error.
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "common/rtos_debug.h"
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
    DebuggerLine(aLine);
    if (DebugSink sink = g_sink.load(std::memory_order_acquire)) {
        sink(aLine);
    }
    if (StderrWanted()) {
        StderrLine(aLine);
    }
}

void SetDebugSink(DebugSink aSink) {
    g_sink.store(aSink, std::memory_order_release);
}

}  // namespace rtos
