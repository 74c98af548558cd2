// Looking names up without blocking: an observer hears when the lookup ended,
// then the answer is read from the cache. Cancelling an observer that no
// longer needs its answer.
#include <arpa/inet.h>

#include <cstdio>

#include "call_event.h"

// Called once, on the listener thread chosen at AsyncResolve; aData points to
// the lookup's result code.
class CLookupObserver : public IRtObserver {
public:
    void OnObserve(const char* aTopic, void* aData) override {
        std::printf("%s: lookup ended, rv=%d\n", aTopic, *static_cast<int*>(aData));
        m_Done.Signal();
    }
    CRtEventThread m_Done;
};

void Print(CRtDnsRecord* aRecord) {
    for (CRtDnsRecord::iterator it = aRecord->begin(); it != aRecord->end(); ++it) {
        in_addr addr{};
        addr.s_addr = *it;
        std::printf("%s has address %s\n", aRecord->GetHostName().c_str(), ::inet_ntoa(addr));
    }
}

int main() {
    CRtThreadManager* manager = CRtThreadManager::Instance();
    CRtDnsManager* dns = manager ? CRtDnsManager::Instance() : nullptr;
    if (!dns) {
        return 1;
    }
    CRtThread* network = manager->GetThread(CRtThreadManager::TT_NETWORK);

    CLookupObserver observer;
    CRtDnsRecord* record = nullptr;  // must be null on entry
    int rv = dns->AsyncResolve(record, "localhost", &observer, FALSE, network);
    if (rv == RT_ERROR_WOULD_BLOCK) {
        CRtTimeValue limit(30L, 0L);
        observer.m_Done.Wait(&limit);
        rv = dns->AsyncResolve(record, "localhost");  // now from the cache
    }
    if (rv == RT_OK) {
        Print(record);
        record->ReleaseReference();  // each handed-out record carries one reference
    }

    // An observer must stay alive until it is called or CancelResolve returns
    // RT_OK. RT_ERROR_NOT_FOUND means it was told already, or is being told
    // through an event on its listener's queue: a round trip through that
    // queue lets the notification finish before the observer goes.
    CLookupObserver impatient;
    CRtDnsRecord* other = nullptr;
    if (dns->AsyncResolve(other, "localhost", &impatient, TRUE, network) == RT_ERROR_WOULD_BLOCK &&
        dns->CancelResolve(&impatient) == RT_ERROR_NOT_FOUND) {
        RunOn(network->GetEventQueue(), [] { return RT_OK; });
    } else if (other) {
        other->ReleaseReference();
    }
    return rv == RT_OK ? 0 : 1;
}
