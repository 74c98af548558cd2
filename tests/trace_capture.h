// Test helper: collects the trace lines of a test through RtSetDebugOutputSink.
// One capture at a time; the sink is removed when the capture ends.
#ifndef TESTS_TRACE_CAPTURE_H
#define TESTS_TRACE_CAPTURE_H

#include <errno.h>

#include <mutex>
#include <string>
#include <vector>

#include "rttrace.h"

class TraceCapture {
public:
    TraceCapture() {
        Take();
        RtSetDebugOutputSink(&Collect);
    }
    ~TraceCapture() { RtSetDebugOutputSink(nullptr); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // The lines traced since the last Take(), oldest first.
    static std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(Lock());
        std::vector<std::string> lines;
        lines.swap(Lines());
        return lines;
    }

    // Takes the lines and tells whether one of them contains aText.
    static bool TakeContains(const std::string& aText) {
        for (const std::string& line : Take()) {
            if (line.find(aText) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    static void Collect(const char* aLine) {
        std::lock_guard<std::mutex> lock(Lock());
        Lines().push_back(aLine);
        errno = 0;  // a sink that clobbers errno must not disturb the tracing caller
    }
    static std::mutex& Lock() {
        static std::mutex s_lock;
        return s_lock;
    }
    static std::vector<std::string>& Lines() {
        static std::vector<std::string> s_lines;
        return s_lines;
    }
};

#endif  // TESTS_TRACE_CAPTURE_H
