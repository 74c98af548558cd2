// Synchronisation costs: an uncontended lock round and the signal-to-wake
// round trip of CRtEventThread between two threads.
#include <benchmark/benchmark.h>

#include <thread>

#include "rtframework.h"

static void BM_MutexLockUnlock(benchmark::State& state) {
    CRtMutexThread mutex;
    for (auto _ : state) {
        mutex.Lock();
        mutex.UnLock();
    }
}
BENCHMARK(BM_MutexLockUnlock);

static void BM_MutexGuard(benchmark::State& state) {
    CRtMutexThread mutex;
    for (auto _ : state) {
        CRtMutexGuardT<CRtMutexThread> guard(mutex);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MutexGuard);

// Signalled with no waiter, then taken without blocking.
static void BM_EventSignalThenWait(benchmark::State& state) {
    CRtEventThread event;
    CRtTimeValue zero;
    for (auto _ : state) {
        event.Signal();
        event.Wait(&zero);
    }
}
BENCHMARK(BM_EventSignalThenWait);

// One iteration is a full round trip: this thread signals "ping" and waits for
// "pong"; the partner waits for "ping" and signals "pong".
static void BM_EventPingPong(benchmark::State& state) {
    CRtEventThread ping, pong;
    bool stop = false;  // written before the last ping
    std::thread partner([&] {
        for (;;) {
            ping.Wait(nullptr);
            if (stop) {
                return;
            }
            pong.Signal();
        }
    });
    for (auto _ : state) {
        ping.Signal();
        pong.Wait(nullptr);
    }
    stop = true;
    ping.Signal();
    partner.join();
}
BENCHMARK(BM_EventPingPong)->UseRealTime()->Unit(benchmark::kMicrosecond);
