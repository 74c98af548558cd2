// Starts the framework, hands work to a task thread and ends it again.
#include <cstdio>

#include "rtframework.h"

// Runs on the task thread. Events are created with new: the queue releases
// them through OnDestorySelf, whose default deletes.
class CPrintEvent : public IRtEvent {
public:
    explicit CPrintEvent(int aNumber) : m_nNumber(aNumber) {}
    int OnEventFire() override {
        std::printf("event %d on thread %lu\n", m_nNumber, CRtThreadManager::GetThreadSelfId());
        return RT_OK;
    }

private:
    int m_nNumber;
};

int main() {
    // The first call adopts this thread as the main thread and starts the
    // network thread.
    CRtThreadManager* manager = CRtThreadManager::Instance();
    if (!manager) {
        return 1;
    }

    CRtThread* worker = nullptr;
    if (RT_FAILED(manager->CreateUserTaskThread(worker))) {
        return 1;
    }
    IRtEventQueue* queue = worker->GetEventQueue();
    queue->PostEvent(new CPrintEvent(1));           // returns at once
    int rv = queue->SendEvent(new CPrintEvent(2));  // returns once it ran
    std::printf("sent event returned %d\n", rv);

    // A join-able task thread: stop, join, then Destory deletes it. Events
    // still queued when the loop ends are released without running.
    worker->Stop();
    worker->Join();
    worker->Destory(RT_OK);
    return 0;  // the manager stops and joins the network thread at exit
}
