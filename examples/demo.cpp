// A short tour of kvtframework: task threads with events and timers, a
// cross-thread send, message-block chains and the encoders, a name looked up
// without blocking, then an echo exchange over loopback through the network
// thread's reactor. It prints what happened and exits 0 only when every check
// passed.
//
//   kvt_demo [--verbose]     (--verbose also prints every trace line)
#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#define STDOUT_FILENO 1
#else
#include <unistd.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "echo_client.h"
#include "echo_handlers.h"
#include "rtframework.h"

namespace {

// What the tours did, for the summary.
long g_eventsRun = 0;
long g_timersFired = 0;
uint64_t g_bytesEchoed = 0;

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
        IRtTimerQueue* queue =
            CRtThreadManager::Instance()->GetThreadTimerQueue(CRtThreadManager::TT_CURRENT);
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
    g_eventsRun += counter + 2;  // the posts, the send and the ticker's start
    g_timersFired += ticker.m_nTicks.load();
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

// Runs aFn on the network thread and counts it among the events run.
int OnNetwork(IRtReactor* aNetwork, std::function<int()> aFn) {
    return RunOnThread(aNetwork, [&] {
        ++g_eventsRun;  // only the main thread reads it, after the send returned
        return aFn();
    });
}

void ShowProgress(const CEchoClient::CProgress& aProgress, unsigned long aMessages) {
    std::printf("\r  echoing: %lu/%lu messages, %.1f MiB verified",
                aProgress.messagesVerified.load(), aMessages,
                static_cast<double>(aProgress.bytesVerified.load()) / (1 << 20));
    std::fflush(stdout);
}

void TourEcho() {
    std::printf("Echo over loopback through the network thread's reactor\n");
    IRtReactor* network =
        CRtThreadManager::Instance()->GetThreadReactor(CRtThreadManager::TT_NETWORK);
    if (!network) {
        Check(false, "the network thread has a reactor");
        return;
    }
    const unsigned long kMessages = 3000;
    // Small socket buffers at both ends, so that messages over 64 KiB cannot
    // go through in one send.
    const int kSmallBuffer = 16 * 1024;

    // Both handlers live on the network thread: made, read and deleted there.
    CRtEventThread done;
    CEchoServer* server = nullptr;
    CEchoClient* client = nullptr;
    unsigned short port = 0;
    int rv = OnNetwork(network, [&] {
        server = new CEchoServer(network);
        int result = server->Start(CRtInetAddr("127.0.0.1", 0), kSmallBuffer);
        if (RT_SUCCEEDED(result)) {
            port = server->GetLocalAddr().GetPort();
            client = new CEchoClient(network, kMessages, &done);
            result = client->Start(server->GetLocalAddr(), kSmallBuffer);
        }
        return result;
    });
    std::string what = "echo server on 127.0.0.1:" + std::to_string(port) + ", a client connecting";
    Check(RT_SUCCEEDED(rv), what.c_str());

    const CEchoClient::CProgress* progress = client ? &client->GetProgress() : nullptr;
    const bool tty = ::isatty(STDOUT_FILENO);
    CRtTimeValue tick(0L, 100000L);
    while (RT_SUCCEEDED(rv) && RT_FAILED(done.Wait(&tick))) {
        // The client's watchdog ends a stalled exchange, so this loop ends.
        if (tty) {
            ShowProgress(*progress, kMessages);
        }
    }
    if (tty && progress) {
        ShowProgress(*progress, kMessages);
        std::printf("\n");
    }

    std::string failure = "not started";
    uint64_t total = 0, verified = 0, echoed = 0;
    unsigned long shortWrites = 0;
    OnNetwork(network, [&] {
        if (client) {
            failure = client->GetFailure();
            total = client->GetTotalBytes();
            verified = client->GetProgress().bytesVerified;
            g_timersFired += static_cast<long>(client->GetProgress().timerTicks);
            delete client;
        }
        if (server) {
            echoed = server->GetStats().bytesEchoed;
            shortWrites = server->GetStats().shortWrites;
            delete server;
        }
        return RT_OK;
    });
    g_bytesEchoed = verified;
    what = std::to_string(kMessages) + " messages of 1 B to 192 KiB (" + std::to_string(total) +
           " bytes) came back intact" + (failure.empty() ? "" : ": " + failure);
    Check(failure.empty() && verified == total && echoed == total, what.c_str());
    what = "the server finished " + std::to_string(shortWrites) +
           " partial write(s) when the socket became writable";
    Check(shortWrites > 0, what.c_str());
}

}  // namespace

// Told on the network thread when the lookup of a name ends.
class LookupDone : public IRtObserver {
public:
    void OnObserve(const char* aTopic, void* aData) override {
        m_error = aData ? *static_cast<int*>(aData) : -1;
        m_onNetwork = CRtThreadManager::IsEqualCurrentThread(int(CRtThreadManager::TT_NETWORK));
        std::strncpy(m_topic, aTopic ? aTopic : "", sizeof(m_topic) - 1);
        m_done.Signal();
    }

    CRtEventThread m_done;
    int m_error = -1;
    bool m_onNetwork = false;
    char m_topic[32] = {};
};

void TourDns() {
    std::printf("Name resolution without blocking a framework thread\n");
    CRtDnsManager* dns = CRtDnsManager::Instance();
    CRtThread* network = CRtThreadManager::Instance()->GetThread(CRtThreadManager::TT_NETWORK);
    LookupDone observer;
    CRtDnsRecord* record = nullptr;
    // Bypass the cache so that the lookup really runs off this thread.
    int rv = dns->AsyncResolve(record, "localhost", &observer, TRUE, network);
    Check(rv == RT_ERROR_WOULD_BLOCK, "\"localhost\" is being looked up");
    CRtTimeValue limit(30L, 0L);
    bool told = rv == RT_ERROR_WOULD_BLOCK && RT_SUCCEEDED(observer.m_done.Wait(&limit));
    Check(told && observer.m_error == 0 && observer.m_onNetwork &&
              std::strcmp(observer.m_topic, "DnsManager") == 0,
          "the observer heard \"DnsManager\" on the network thread");
    if (told && observer.m_error != 0) {
        // The lookup is the system's own: without a hosts entry the name is unknown.
        std::printf("  the lookup failed with error %d: does /etc/hosts name localhost?\n",
                    observer.m_error);
    }

    // Within three seconds the answer comes from the cache.
    rv = dns->AsyncResolve(record, "localhost");
    uint32_t addr = 0;
    if (rv == RT_OK && record) {
        addr = *record->begin();
        record->ReleaseReference();
    }
    char text[32] = {};
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&addr);
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    std::printf("  localhost is %s\n", text);
    Check(rv == RT_OK && std::strcmp(text, "127.0.0.1") == 0,
          "a second request is answered from the cache: 127.0.0.1");
}

int main(int argc, char** argv) {
    g_verbose = argc > 1 && std::strcmp(argv[1], "--verbose") == 0;
    RtSetDebugOutputSink(&CountLine);

    CRtTimeValue start = CRtTimeValue::GetTimeOfDay();
    TourThreads();
    TourBuffers();
    TourDns();
    TourEcho();
    CRtTimeValue elapsed = CRtTimeValue::GetTimeOfDay() - start;

    const char* traceFile = GetRtTraceFileName();
    std::printf("Summary\n");
    std::printf("  events run:        %ld\n", g_eventsRun);
    std::printf("  timers fired:      %ld\n", g_timersFired);
    std::printf("  bytes echoed:      %llu, every one verified\n",
                static_cast<unsigned long long>(g_bytesEchoed));
    std::printf("  elapsed:           %lld ms\n", static_cast<long long>(elapsed.GetTotalInMsec()));
    std::printf("  trace lines:       %d, in %s\n", g_traceLines.load(),
                traceFile && *traceFile ? traceFile : "(no trace file)");
    std::printf("  checks failed:     %d\n", g_failures);
    RtSetDebugOutputSink(nullptr);
    return g_failures == 0 ? 0 : 1;
}
