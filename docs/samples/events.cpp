// Posting versus sending, and who releases an event.
#include <atomic>
#include <cstdio>

#include "rtframework.h"

// An event that is not deleted: it lives in the host's object, and
// OnDestorySelf only counts the release instead.
class CCountedEvent : public IRtEvent {
public:
    int OnEventFire() override { return ++m_nRuns; }
    void OnDestorySelf() override { ++m_nReleases; }

    std::atomic<int> m_nRuns{0};
    std::atomic<int> m_nReleases{0};
};

// A result travels back only through SendEvent.
class CSumEvent : public IRtEvent {
public:
    CSumEvent(int aLeft, int aRight) : m_nLeft(aLeft), m_nRight(aRight) {}
    int OnEventFire() override { return m_nLeft + m_nRight; }

private:
    int m_nLeft;
    int m_nRight;
};

int main() {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* worker = nullptr;
    if (!manager || RT_FAILED(manager->CreateUserTaskThread(worker))) {
        return 1;
    }
    IRtEventQueue* queue = worker->GetEventQueue();

    // A send blocks until the owner ran the event and hands back its result.
    int sum = queue->SendEvent(new CSumEvent(2, 3));

    // Each post is released exactly once, whether it ran or was refused: the
    // same object may be posted again only because OnDestorySelf keeps it.
    CCountedEvent counted;
    queue->PostEvent(&counted);
    queue->SendEvent(&counted);

    worker->Stop();
    // Refused by a stopped queue: released at once, never run.
    int refused = queue->PostEvent(&counted);
    worker->Join();
    worker->Destory(RT_OK);

    std::printf("sum=%d runs=%d releases=%d refused=%d\n", sum, counted.m_nRuns.load(),
                counted.m_nReleases.load(), refused);
    return sum == 5 && counted.m_nRuns == 2 && counted.m_nReleases == 3 && RT_FAILED(refused) ? 0
                                                                                              : 1;
}
