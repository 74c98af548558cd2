// Trace files and configuration reads: the cost a trace line adds by going to
// the trace file (line by line and in batches, from one and two threads), a
// trace whose level is kept out of the file, and one configuration read.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "../util/framework/rttracefile.h"
#include "rtconfig.h"
#include "rtdebug.h"

namespace {

// A folder of the benchmark's own, removed with its files at exit.
char g_szBenchDir[] = "/tmp/kvt_bench_trace_XXXXXX";

std::string BenchDir() {
    // A plain array: it outlives the exit handler that removes the folder.
    static const bool s_bMade = [] {
        if (!::mkdtemp(g_szBenchDir)) {
            ::strcpy(g_szBenchDir, "/tmp");
            return false;
        }
        ::atexit([] {
            std::string cmd = std::string("rm -rf '") + g_szBenchDir + "'";
            int rc = ::system(cmd.c_str());
            (void)rc;
        });
        return true;
    }();
    (void)s_bMade;
    return g_szBenchDir;
}

const std::string kLine =
    "[11/23/2026 11:31:44.343 pid=19304 tid=19305] Info:CRtFoo::Bar, a line of ordinary length. "
    "this=0x7f946b13c60c\n";

void BM_TraceFileWriteLine(benchmark::State& state) {
    static CRtTraceFile* s_file = nullptr;
    if (state.thread_index() == 0) {
        std::string name = BenchDir() + "/write_" + std::to_string(state.range(0)) + ".txt";
        s_file = new CRtTraceFile(name.c_str(), static_cast<int>(state.range(0)), 1 << 24);
    }
    for (auto _ : state) {
        s_file->WriteLine(kLine.data(), kLine.size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLine.size()));
    if (state.thread_index() == 0) {
        delete s_file;
        s_file = nullptr;
    }
}
BENCHMARK(BM_TraceFileWriteLine)->Arg(1)->Arg(16)->ArgName("FlushPerLines");
BENCHMARK(BM_TraceFileWriteLine)->Arg(16)->ArgName("FlushPerLines")->Threads(2)->UseRealTime();

// A writer of the benchmark's own: level 0 goes to its file, level 1 does not.
CRtTrace* BenchWriter() {
    static CRtTraceMask s_masks[] = {{0, "Info", 1}, {1, "Func", 0}};
    static char s_name[] = "Bench";
    static CRtTrace* s_writer = [] {
        std::string data = BenchDir() + "/share";
        ::setenv("XDG_DATA_HOME", data.c_str(), 1);
        return new CRtTrace(s_name, s_masks, 2, nullptr, 0);
    }();
    return s_writer;
}

void BM_TraceThroughWriter(benchmark::State& state) {
    CRtTrace* writer = BenchWriter();
    const unsigned long level = static_cast<unsigned long>(state.range(0));
    for (auto _ : state) {
        RT_TRACE_WITH(writer, level, "CRtFoo::Bar, a line of ordinary length. this=" << writer);
    }
}
BENCHMARK(BM_TraceThroughWriter)->Arg(0)->Arg(1)->ArgName("FileOff");

void BM_ConfigReadInt(benchmark::State& state) {
    char old[4096];
    if (!::getcwd(old, sizeof(old))) {
        state.SkipWithError("no working directory");
        return;
    }
    std::string dir = BenchDir() + "/config";
    ::mkdir(dir.c_str(), 0755);
    ::mkdir((dir + "/conf").c_str(), 0755);
    std::string ini = dir + "/conf/kvtix.ini";
    if (FILE* file = ::fopen(ini.c_str(), "w")) {
        ::fputs("# settings\n[Other]\nA = 1\nB = 2\n[Trace]\nEnable = TRUE\nFlushPerLines = 10\n",
                file);
        ::fclose(file);
    }
    if (::chdir(dir.c_str()) != 0) {
        state.SkipWithError("cannot enter the config folder");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(get_int_param("Trace", "FlushPerLines"));
    }
    int rc = ::chdir(old);
    (void)rc;
}
BENCHMARK(BM_ConfigReadInt);

}  // namespace
