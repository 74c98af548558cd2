// Trace and time-value costs: one trace call end to end, the recorder alone,
// and CRtTimeValue arithmetic and comparison.
#include <benchmark/benchmark.h>

#include "rtframework.h"

namespace {

void DiscardLine(const char* aLine) {
    benchmark::DoNotOptimize(aLine);
}

// Installs the discarding sink for one benchmark.
struct DiscardingSink {
    DiscardingSink() { RtSetDebugOutputSink(&DiscardLine); }
    ~DiscardingSink() { RtSetDebugOutputSink(nullptr); }
};

}  // namespace

// A typical library message: text, a number, an error code and the object's
// address, through the recorder, the stamp and the debug output.
static void BM_TraceLineEndToEnd(benchmark::State& state) {
    DiscardingSink sink;
    int fd = 17;
    for (auto _ : state) {
        RT_INFO_TRACE("CRtSocketBase::Open, opened. fd=" << fd << " err=" << 0 << " this=" << &fd);
    }
}
BENCHMARK(BM_TraceLineEndToEnd);

// The recorder alone: zero-filling the 1024-byte buffer and formatting.
static void BM_RecorderOnly(benchmark::State& state) {
    int fd = 17;
    for (auto _ : state) {
        char buf[RTTRACE_MAX_TRACE_LEN];
        CRtTrace::CRtLogRecorder rec(buf, sizeof(buf));
        rec << "CRtSocketBase::Open, opened. fd=" << fd << " err=" << 0 << " this=" << &fd;
        benchmark::DoNotOptimize(static_cast<char*>(rec));
    }
}
BENCHMARK(BM_RecorderOnly);

// The writer alone, on a finished text.
static void BM_TraceStringOnly(benchmark::State& state) {
    DiscardingSink sink;
    char text[] = "CRtSocketBase::Open, opened. fd=17 err=0 this=0x7ffc12345678";
    CRtTrace* writer = CRtTrace::instance();
    for (auto _ : state) {
        writer->trace_string(20, text);
    }
}
BENCHMARK(BM_TraceStringOnly);

static void BM_TimeValueAddSubtract(benchmark::State& state) {
    CRtTimeValue a(12L, 345678L), b(0L, 999999L);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        CRtTimeValue sum = a + b;
        CRtTimeValue diff = a - b;
        benchmark::DoNotOptimize(sum);
        benchmark::DoNotOptimize(diff);
    }
}
BENCHMARK(BM_TimeValueAddSubtract);

static void BM_TimeValueCompare(benchmark::State& state) {
    CRtTimeValue a(12L, 345678L), b(12L, 345679L);
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        benchmark::DoNotOptimize(a < b);
        benchmark::DoNotOptimize(a >= b);
    }
}
BENCHMARK(BM_TimeValueCompare);

static void BM_TimeValueGetTimeOfDay(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(CRtTimeValue::GetTimeOfDay());
    }
}
BENCHMARK(BM_TimeValueGetTimeOfDay);
