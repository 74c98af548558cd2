// Resolves the names given on the command line through the DNS manager and
// prints each result as it arrives.
//
//   kvt_resolve [--sync] [--thread-mode] NAME...
//
// By default every lookup is asynchronous: the observer is called on the
// network thread when a name's lookup ends, and the answer is then read from
// the manager's cache. --sync looks each name up on the calling thread instead.
// --thread-mode runs the lookups on a DNS thread of the manager's own instead
// of the asynchronous requests answered to the network thread's window.
// Exits 0 when every name resolved, 1 when one did not, 2 on bad arguments.
#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "rtframework.h"

namespace {

void PrintRecord(const std::string& aName, CRtDnsRecord* aRecord) {
    std::printf("%s:", aName.c_str());
    for (CRtDnsRecord::iterator it = aRecord->begin(); it != aRecord->end(); ++it) {
        in_addr addr{};
        addr.s_addr = *it;
        std::printf(" %s", ::inet_ntoa(addr));
    }
    std::printf("\n");
}

// Counts the lookups that ended; called on the network thread.
class Waiter : public IRtObserver {
public:
    explicit Waiter(size_t aCount) : m_left(aCount) {}
    void OnObserve(const char*, void*) override {
        if (--m_left == 0) {
            m_done.Signal();
        }
    }
    int Wait() {
        CRtTimeValue limit(60L, 0L);
        return m_done.Wait(&limit);
    }

private:
    std::atomic<size_t> m_left;
    CRtEventThread m_done;
};

// One observer per name: an observer waits for one name at a time.
class NameObserver : public IRtObserver {
public:
    explicit NameObserver(Waiter* aWaiter) : m_waiter(aWaiter) {}
    void OnObserve(const char* aTopic, void* aData) override { m_waiter->OnObserve(aTopic, aData); }

private:
    Waiter* m_waiter;
};

}  // namespace

int main(int argc, char** argv) {
    bool sync = false;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--sync") == 0) {
            sync = true;
        } else if (std::strcmp(argv[i], "--thread-mode") == 0) {
            // Read when the manager is made.
#ifdef _WIN32
            ::_putenv("KVTIX_DNS_THREAD_MODE=1");
#else
            ::setenv("KVTIX_DNS_THREAD_MODE", "1", 1);
#endif
        } else if (argv[i][0] == '-') {
            std::fprintf(stderr, "usage: kvt_resolve [--sync] [--thread-mode] NAME...\n");
            return 2;
        } else {
            names.push_back(argv[i]);
        }
    }
    if (names.empty()) {
        std::fprintf(stderr, "usage: kvt_resolve [--sync] [--thread-mode] NAME...\n");
        return 2;
    }

    CRtThreadManager* threads = CRtThreadManager::Instance();
    CRtDnsManager* dns = threads ? CRtDnsManager::Instance() : nullptr;
    if (!dns) {
        std::fprintf(stderr, "kvt_resolve: the framework did not start\n");
        return 1;
    }
    CRtThread* network = threads->GetThread(CRtThreadManager::TT_NETWORK);

    Waiter waiter(names.size());
    std::vector<NameObserver> observers(names.size(), NameObserver(&waiter));
    std::vector<bool> answered(names.size(), false);
    size_t waiting = 0;
    int failures = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        CRtDnsRecord* record = nullptr;
        int rv = sync ? dns->SyncResolve(record, names[i])
                      : dns->AsyncResolve(record, names[i], &observers[i], FALSE, network);
        answered[i] = rv != RT_ERROR_WOULD_BLOCK;
        if (rv == RT_OK) {
            PrintRecord(names[i], record);
            record->ReleaseReference();
            waiter.OnObserve("DnsManager", nullptr);  // answered at once
        } else if (rv == RT_ERROR_WOULD_BLOCK) {
            ++waiting;
        } else {
            std::printf("%s: not resolved (rv=%d)\n", names[i].c_str(), rv);
            waiter.OnObserve("DnsManager", nullptr);
            ++failures;
        }
    }
    if (waiting > 0 && RT_FAILED(waiter.Wait())) {
        std::fprintf(stderr, "kvt_resolve: no answer within 60 s\n");
        return 1;
    }
    if (!sync) {
        // Every lookup has ended: the answers wait in the cache.
        for (size_t i = 0; i < names.size(); ++i) {
            if (answered[i]) {
                continue;
            }
            CRtDnsRecord* record = nullptr;
            if (dns->AsyncResolve(record, names[i]) == RT_OK) {
                PrintRecord(names[i], record);
                record->ReleaseReference();
            } else {
                std::printf("%s: not resolved\n", names[i].c_str());
                ++failures;
            }
        }
    }
    return failures == 0 ? 0 : 1;
}
