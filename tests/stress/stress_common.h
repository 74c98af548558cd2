// Shared pieces of the stress programs: their sizes, the framework threads
// they load, and tagged events that check what arrives.
#ifndef TESTS_STRESS_STRESS_COMMON_H
#define TESTS_STRESS_STRESS_COMMON_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "rtframework.h"
#include "task_thread_helpers.h"
#include "trace_capture.h"

#if defined(__SANITIZE_THREAD__)
#define KVT_STRESS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KVT_STRESS_TSAN 1
#endif
#endif

// The counts a test names are its full size. KVT_STRESS_SCALE multiplies them
// (default 1); ThreadSanitizer runs a tenth, as it is an order slower.
inline long StressCount(long aFull) {
    double scale = 1.0;
    if (const char* text = std::getenv("KVT_STRESS_SCALE")) {
        double parsed = std::atof(text);
        scale = parsed > 0 ? parsed : scale;
    }
#ifdef KVT_STRESS_TSAN
    scale /= 10;
#endif
    return std::max(1L, static_cast<long>(static_cast<double>(aFull) * scale));
}

// A figure worth keeping from a run: printed, and stored in the test's XML.
inline void Figure(const std::string& aName, double aValue) {
    std::printf("[ figure   ] %s = %g\n", aName.c_str(), aValue);
    ::testing::Test::RecordProperty(aName, std::to_string(aValue));
}

// The kinds of framework thread that take events.
enum class Owner { Task, TimerTask, Reactor };

inline const char* OwnerName(Owner aOwner) {
    switch (aOwner) {
        case Owner::Task:
            return "Task";
        case Owner::TimerTask:
            return "TimerTask";
        default:
            return "Reactor";
    }
}

// A framework thread of one kind, started for the test and ended with it.
class OwnerThread {
public:
    explicit OwnerThread(Owner aOwner) {
        CRtThreadManager* mgr = CRtThreadManager::Instance();
        int rv = aOwner == Owner::Reactor
                     ? mgr->CreateReactorThread(mgr->GetAndIncreamUserType(),
                                                CRtThreadManager::CreateNetworkReactor(), m_thread)
                     : mgr->CreateUserTaskThread(m_thread, CRtThreadManager::TF_JOINABLE,
                                                 aOwner == Owner::TimerTask);
        EXPECT_EQ(rv, RT_OK);
    }
    ~OwnerThread() {
        if (m_thread) {
            StopJoinDestroy(m_thread);
        }
    }
    OwnerThread(const OwnerThread&) = delete;
    OwnerThread& operator=(const OwnerThread&) = delete;

    CRtThread* Get() const { return m_thread; }
    IRtEventQueue* Queue() const { return m_thread->GetEventQueue(); }
    // Ends the thread now; the destructor then does nothing.
    CRtThread* Release() {
        CRtThread* thread = m_thread;
        m_thread = nullptr;
        return thread;
    }

private:
    CRtThread* m_thread = nullptr;
};

#endif  // TESTS_STRESS_STRESS_COMMON_H
