#include <benchmark/benchmark.h>

#include "rtframework.h"

static void BM_Placeholder(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(CRtTimeValue(1L, 2L));
    }
}
BENCHMARK(BM_Placeholder);
