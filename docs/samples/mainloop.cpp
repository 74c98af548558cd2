// Driving the main thread on Linux: first inside an event loop of the host's
// own (poll on the main loop's descriptor), then with RtRunMainLoop until a
// timer on the main thread stops it.
#include <poll.h>

#include <cstdio>

#include "call_event.h"

class CStopTimer : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void*) override { RtStopMainLoop(); }
};

int main() {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* worker = nullptr;
    if (!manager || RT_FAILED(manager->CreateUserTaskThread(worker))) {
        return 1;
    }
    IRtReactor* mainReactor = manager->GetThreadReactor(CRtThreadManager::TT_MAIN);

    // A task thread posts to the main thread; the event waits until the main
    // thread dispatches.
    bool arrived = false;
    RunOn(worker->GetEventQueue(), [&] {
        return mainReactor->PostEvent(new CCallEvent([&] {
            arrived = true;  // on the main thread
            return RT_OK;
        }));
    });

    // 1. The host's own loop: wait on the descriptor, then dispatch what waits.
    pollfd pfd{RtGetMainLoopFd(), POLLIN, 0};
    while (!arrived && ::poll(&pfd, 1, 10000) > 0) {
        RtProcessMainLoopPending();
    }

    // 2. The library's loop. The main reactor's timers are the main thread's
    // own, so this thread schedules directly.
    CStopTimer stopper;
    mainReactor->ScheduleTimer(&stopper, nullptr, CRtTimeValue(0L, 100000L), 1);
    int rv = RtRunMainLoop();  // returns once the timer called RtStopMainLoop
    std::printf("event arrived: %s, main loop returned %d\n", arrived ? "yes" : "no", rv);

    worker->Stop();
    worker->Join();
    worker->Destory(RT_OK);
    return arrived && RT_SUCCEEDED(rv) ? 0 : 1;
}
