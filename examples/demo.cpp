// A short tour of kvtframework: trace lines, time values, locks and events
// across two threads.
#include <cstdio>
#include <thread>

#include "rtframework.h"

namespace {

void PrintLine(const char* aLine) { std::fputs(aLine, stdout); }

}  // namespace

int main() {
    RtSetDebugOutputSink(&PrintLine);
    RT_INFO_TRACE("demo, starting. now=" << CRtTimeValue::GetTimeOfDay().GetSec());

    CRtTimeValue delay(1.25);
    CRtTimeValue total = delay + CRtTimeValue(0L, 900000L);
    RT_INFO_TRACE("demo, time values. delay_ms=" << delay.GetTotalInMsec()
                                                 << " total_ms=" << total.GetTotalInMsec());

    CRtMutexThread lock;
    CRtEventThread ready;
    int counter = 0;
    std::thread worker([&] {
        for (int i = 0; i < 1000; ++i) {
            CRtMutexGuardT<CRtMutexThread> guard(lock);
            ++counter;
        }
        ready.Signal();
    });
    CRtTimeValue limit(5L);
    int rv = ready.Wait(&limit);
    worker.join();
    RT_INFO_TRACE("demo, worker done. rv=" << rv << " counter=" << counter);

    bool ok = RT_SUCCEEDED(rv) && counter == 1000 && total.GetTotalInMsec() == 2150;
    RT_INFO_TRACE("demo, " << (ok ? "all checks passed" : "a check FAILED"));
    RtSetDebugOutputSink(nullptr);
    return ok ? 0 : 1;
}
