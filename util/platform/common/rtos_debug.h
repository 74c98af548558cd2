// Inside the platform layer: where a debug line goes on each platform, besides
// the host's sink (common/rtos_debug.cpp). Each platform's rtos_debug.cpp
// provides these.
#ifndef UTIL_PLATFORM_COMMON_RTOS_DEBUG_H
#define UTIL_PLATFORM_COMMON_RTOS_DEBUG_H

namespace rtos {

// The system's debugger channel, if the platform has one.
void DebuggerLine(const char* aLine);

// Standard error, in one write, so lines of concurrent threads do not interleave.
void StderrLine(const char* aLine);

}  // namespace rtos

#endif  // UTIL_PLATFORM_COMMON_RTOS_DEBUG_H
