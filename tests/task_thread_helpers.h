// Test helpers for task threads: an event that runs a function, running code on
// a task thread and waiting for it, and ending a join-able thread.
#ifndef TESTS_TASK_THREAD_HELPERS_H
#define TESTS_TASK_THREAD_HELPERS_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "rtframework.h"

// Runs a function on the owner thread; counts its release.
class FnEvent : public IRtEvent {
public:
    FnEvent(std::function<int()> aFn, std::atomic<int>* aReleased = nullptr)
        : m_fn(std::move(aFn)), m_released(aReleased) {}
    int OnEventFire() override { return m_fn(); }
    void OnDestorySelf() override {
        if (m_released)
            (*m_released)++;
        delete this;
    }

private:
    std::function<int()> m_fn;
    std::atomic<int>* m_released;
};

// Runs aFn on aThread and waits for it: timers are scheduled and cancelled on
// the queue's own thread.
inline void RunOn(CRtThread* aThread, std::function<void()> aFn) {
    aThread->GetEventQueue()->SendEvent(new FnEvent([aFn] { return aFn(), RT_OK; }));
}

// A join-able task thread, with a timer queue if aTimers.
inline CRtThread* NewTaskThread(bool aTimers = false) {
    CRtThread* thread = nullptr;
    EXPECT_EQ(CRtThreadManager::Instance()->CreateUserTaskThread(
                  thread, CRtThreadManager::TF_JOINABLE, aTimers ? 1 : 0),
              RT_OK);
    return thread;
}

inline CRtTimeValue Ms(long aMs) {
    return CRtTimeValue(aMs / 1000, (aMs % 1000) * 1000);
}

inline void StopJoinDestroy(CRtThread* aThread) {
    aThread->Stop(nullptr);
    EXPECT_EQ(aThread->Join(0xFFFFFFFF), RT_OK);
    aThread->Destory(0);
}

#endif  // TESTS_TASK_THREAD_HELPERS_H
