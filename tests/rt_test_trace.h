// Test helper: collects the library's trace lines while in scope, and small
// wait helpers for tests that run real threads.
#ifndef RT_TEST_TRACE_H
#define RT_TEST_TRACE_H

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rttrace.h"

class TraceCapture {
public:
    TraceCapture() {
        std::lock_guard<std::mutex> lock(Mutex());
        Lines().clear();
        RtSetDebugOutputSink(&TraceCapture::Sink);
    }
    ~TraceCapture() {
        RtSetDebugOutputSink(nullptr);
        std::lock_guard<std::mutex> lock(Mutex());
    }

    // Lines containing aText.
    size_t Count(const std::string& aText) const {
        std::lock_guard<std::mutex> lock(Mutex());
        size_t n = 0;
        for (const std::string& line : Lines()) {
            if (line.find(aText) != std::string::npos) {
                ++n;
            }
        }
        return n;
    }

    void Clear() {
        std::lock_guard<std::mutex> lock(Mutex());
        Lines().clear();
    }

private:
    static void Sink(const char* aLine) {
        std::lock_guard<std::mutex> lock(Mutex());
        Lines().emplace_back(aLine);
    }
    // Never destroyed: a thread left running may still trace during exit.
    static std::mutex& Mutex() {
        static std::mutex* s_mutex = new std::mutex;
        return *s_mutex;
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

#endif  // RT_TEST_TRACE_H
