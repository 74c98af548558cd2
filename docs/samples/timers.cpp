// Timers on a task thread: a raw timer-queue handler and a timer wrapper. A
// timer queue has no lock, so everything below runs on the task thread, inside
// events sent there.
#include <cstdio>

#include "call_event.h"

// Three expiries of one handler on the queue itself; aArg is the token given
// to ScheduleTimer.
class CTicker : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void* aArg) override {
        std::printf("%s tick %d\n", static_cast<const char*>(aArg), ++m_nTicks);
    }
    int m_nTicks = 0;
};

// A wrapper schedules on the queue of the thread that calls Schedule. One sink
// may own several wrappers: OnTimer says which expired.
class CSession : public CRtTimerWrapperSink {
public:
    int Start() {
        m_Idle.Schedule(this, CRtTimeValue(0L, 200000L), 1);          // once, after 200 ms
        return m_Keepalive.Schedule(this, CRtTimeValue(0L, 50000L));  // every 50 ms
    }
    void OnTimer(CRtTimerWrapper* aId) override {
        if (aId == &m_Keepalive) {
            ++m_nKeepalives;
        } else {
            std::printf("idle after %d keepalives\n", m_nKeepalives);
            m_Keepalive.Cancel();
        }
    }
    int m_nKeepalives = 0;

private:
    // Their destructors cancel: the session must die on the task thread.
    CRtTimerWrapper m_Keepalive;
    CRtTimerWrapper m_Idle;
};

int main() {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* worker = nullptr;
    if (!manager || RT_FAILED(manager->CreateUserTaskThread(worker))) {
        return 1;
    }
    IRtEventQueue* queue = worker->GetEventQueue();
    CTicker ticker;
    CSession* session = nullptr;
    RunOn(queue, [&] {
        worker->GetTimerQueue()->ScheduleTimer(&ticker, const_cast<char*>("ticker"),
                                               CRtTimeValue(0L, 10000L), 3);
        session = new CSession;
        return session->Start();
    });

    CRtThreadManager::SleepMs(500);  // the timers run meanwhile on the task thread

    RunOn(queue, [&] {
        worker->GetTimerQueue()->CancelTimer(&ticker);  // RT_ERROR_NOT_FOUND: it ran out
        delete session;
        return RT_OK;
    });
    worker->Stop();
    worker->Join();
    worker->Destory(RT_OK);
    return ticker.m_nTicks == 3 ? 0 : 1;
}
