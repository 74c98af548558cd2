// A short tour of kvtframework: task threads with events and timers, a
// cross-thread send, message-block chains and the encoders. It prints what
// happened and exits 0 only when every check passed.
//
//   kvt_demo [--verbose]     (--verbose also prints every trace line)
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "rtframework.h"

namespace {

std::atomic<int> g_traceLines{0};
bool g_verbose = false;

void CountLine(const char* aLine) {
    ++g_traceLines;
    if (g_verbose) {
        std::fputs(aLine, stdout);
    }
}

int g_failures = 0;

void Check(bool aOk, const char* aWhat) {
    std::printf("  [%s] %s\n", aOk ? " ok " : "FAIL", aWhat);
    if (!aOk) {
        ++g_failures;
    }
}

// Counted on the worker thread; the events own nothing else.
struct CountEvent : public IRtEvent {
    explicit CountEvent(long* aCounter) : m_pCounter(aCounter) {}
    int OnEventFire() override {
        ++*m_pCounter;
        return RT_OK;
    }
    long* m_pCounter;
};

// Sent, not posted: its result travels back to the sender.
struct ReadCounterEvent : public IRtEvent {
    explicit ReadCounterEvent(long* aCounter) : m_pCounter(aCounter) {}
    int OnEventFire() override { return *m_pCounter == 10000 ? RT_OK : RT_ERROR_FAILURE; }
    long* m_pCounter;
};

// Lives on the timer thread: a timer queue belongs to the thread that runs it,
// so scheduling happens there, through an event.
class Ticker : public IRtTimerHandler {
public:
    void OnTimeout(const CRtTimeValue&, void*) override {
        if (++m_nTicks == kTicks) {
            m_Done.Signal();
        }
    }
    static const int kTicks = 5;
    std::atomic<int> m_nTicks{0};
    CRtEventThread m_Done;
};

struct StartTickerEvent : public IRtEvent {
    explicit StartTickerEvent(Ticker* aTicker) : m_pTicker(aTicker) {}
    int OnEventFire() override {
        IRtTimerQueue* queue = CRtThreadManager::Instance()->GetThreadTimerQueue(
            CRtThreadManager::TT_CURRENT);
        if (!queue) {
            return RT_ERROR_NULL_POINTER;
        }
        return queue->ScheduleTimer(m_pTicker, nullptr, CRtTimeValue(0L, 20000L), Ticker::kTicks);
    }
    Ticker* m_pTicker;
};

void StopThread(CRtThread* aThread) {
    aThread->Stop();
    aThread->Join();
    aThread->Destory(RT_OK);
}

void TourThreads() {
    std::printf("Task threads and events\n");
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtThread* worker = nullptr;
    CRtThread* timerThread = nullptr;
    Check(RT_SUCCEEDED(manager->CreateUserTaskThread(worker)), "worker task thread created");
    Check(RT_SUCCEEDED(manager->CreateUserTaskThread(timerThread)), "timer task thread created");
    if (!worker || !timerThread) {
        return;
    }

    long counter = 0;  // touched only on the worker thread until the send returns
    IRtEventQueue* queue = worker->GetEventQueue();
    int refused = 0;
    for (int i = 0; i < 10000; ++i) {
        if (RT_FAILED(queue->PostEvent(new CountEvent(&counter)))) {
            ++refused;
        }
    }
    Check(refused == 0, "10000 events posted to the worker");
    int rv = queue->SendEvent(new ReadCounterEvent(&counter));
    Check(RT_SUCCEEDED(rv), "a sent event saw all 10000 posted events run, in order");

    Ticker ticker;
    timerThread->GetEventQueue()->PostEvent(new StartTickerEvent(&ticker));
    CRtTimeValue limit(10L);
    Check(RT_SUCCEEDED(ticker.m_Done.Wait(&limit)), "a 20 ms timer fired 5 times on its thread");

    StopThread(worker);
    StopThread(timerThread);
    std::printf("  events run: %ld, timers fired: %d\n", counter, ticker.m_nTicks.load());
}

void TourBuffers() {
    std::printf("Message blocks and encoders\n");
    const char* parts[] = {"kvtframework ", "chains ", "message blocks"};
    // Blocks the host constructs stay the host's: it deletes each one.
    CRtMessageBlock* blocks[3];
    for (int i = 0; i < 3; ++i) {
        unsigned long len = static_cast<unsigned long>(std::strlen(parts[i]));
        blocks[i] = new CRtMessageBlock(len);
        blocks[i]->Write(parts[i], len);
        if (i > 0) {
            blocks[0]->Append(blocks[i]);
        }
    }
    CRtMessageBlock* chain = blocks[0];
    CRtString flat = chain->FlattenChained();
    Check(flat == "kvtframework chains message blocks", "three blocks flatten to one text");

    CRtString encoded;
    RtBase64Encode(reinterpret_cast<const unsigned char*>(flat.data()),
                   static_cast<unsigned long>(flat.size()), encoded);
    CRtString decoded;
    RtBase64Decode(encoded.c_str(), decoded);
    Check(decoded == flat, "Base64 round trip");
    std::printf("  base64: %s\n", encoded.c_str());

    // A duplicate shares the data; it belongs to whoever asked for it.
    CRtMessageBlock* copy = chain->DuplicateChained();
    Check(copy && copy->GetChainedLength() == flat.size(), "a duplicate shares the chain's bytes");
    if (copy) {
        copy->DestroyChained();
    }
    for (CRtMessageBlock* block : blocks) {
        delete block;
    }
}

}  // namespace

int main(int argc, char** argv) {
    g_verbose = argc > 1 && std::strcmp(argv[1], "--verbose") == 0;
    RtSetDebugOutputSink(&CountLine);

    CRtTimeValue start = CRtTimeValue::GetTimeOfDay();
    TourThreads();
    TourBuffers();
    CRtTimeValue elapsed = CRtTimeValue::GetTimeOfDay() - start;

    std::printf("Summary: %d check(s) failed, %d trace line(s), %lld ms\n", g_failures,
                g_traceLines.load(), static_cast<long long>(elapsed.GetTotalInMsec()));
    RtSetDebugOutputSink(nullptr);
    return g_failures == 0 ? 0 : 1;
}
