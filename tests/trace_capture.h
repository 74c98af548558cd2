// Test helpers: collects the library's trace lines while in scope, and waits
// for conditions set by real threads.
#ifndef TESTS_TRACE_CAPTURE_H
#define TESTS_TRACE_CAPTURE_H

#include <errno.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rttrace.h"

// One capture at a time; the sink is removed when the capture ends.
class TraceCapture {
public:
    TraceCapture() {
        Clear();
        RtSetDebugOutputSink(&Collect);
    }
    ~TraceCapture() { RtSetDebugOutputSink(nullptr); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    // The lines traced since the last Take() or Clear(), oldest first.
    static std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(Lock());
        std::vector<std::string> lines;
        lines.swap(Lines());
        return lines;
    }
    static void Clear() { Take(); }

    // How many of the lines traced so far contain aText; keeps them.
    static size_t Count(const std::string& aText) {
        std::lock_guard<std::mutex> lock(Lock());
        return CountIn(Lines(), aText);
    }
    // Takes the lines and counts those containing aText.
    static size_t TakeCount(const std::string& aText) { return CountIn(Take(), aText); }

    static size_t CountIn(const std::vector<std::string>& aLines, const std::string& aText) {
        size_t n = 0;
        for (const std::string& line : aLines) {
            n += line.find(aText) != std::string::npos ? 1 : 0;
        }
        return n;
    }

private:
    static void Collect(const char* aLine) {
        std::lock_guard<std::mutex> lock(Lock());
        Lines().emplace_back(aLine);
        errno = 0;  // a sink that clobbers errno must not disturb the tracing caller
    }
    // Never destroyed: a thread left running may still trace during exit.
    static std::mutex& Lock() {
        static std::mutex* s_lock = new std::mutex;
        return *s_lock;
    }
    static std::vector<std::string>& Lines() {
        static std::vector<std::string>* s_lines = new std::vector<std::string>;
        return *s_lines;
    }
};

// Polls aDone until it holds or a generous limit passes; true when it held.
template <class Pred>
bool WaitUntil(Pred aDone, std::chrono::milliseconds aLimit = std::chrono::seconds(30)) {
    auto deadline = std::chrono::steady_clock::now() + aLimit;
    while (!aDone()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif  // TESTS_TRACE_CAPTURE_H
