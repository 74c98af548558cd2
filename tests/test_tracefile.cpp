// Trace files: the header, batching and flushing, the marker, reuse as a ring,
// lines of many threads, and the main writer's file in a child process that
// loads the library with a configuration and environment of its own.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "../util/framework/rttracefile.h"
#include "config_test_env.h"
#include "rtdebug.h"
#include "trace_capture.h"

namespace {

const std::string kMarker =
    "************************* Current Trace Point *************************\n\n";

std::string Header(long aPos) {
    std::string text = std::to_string(aPos);
    text.resize(31, ' ');
    return text + "\n";
}

std::string Line(int aIndex, size_t aLength = 40) {
    std::string text = "line " + std::to_string(aIndex) + " ";
    text.resize(aLength - 1, '.');
    return text + "\n";
}

class TraceFileTest : public ::testing::Test {
protected:
    std::string Name() const { return m_dir / "trace.txt"; }
    std::string Contents() const { return ReadFile(Name()); }

    TempDir m_dir;
};

TEST_F(TraceFileTest, ANewFileHoldsOnlyTheHeader) {
    CRtTraceFile file(Name().c_str(), 1, CRtTraceFile::kDefaultMaxSize);
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(file.GetFileName(), Name());
    EXPECT_EQ(Contents(), Header(32));
    EXPECT_EQ(Header(32).size(), 32u);
}

TEST_F(TraceFileTest, EachFlushWritesOverThePreviousMarker) {
    CRtTraceFile file(Name().c_str(), 1, CRtTraceFile::kDefaultMaxSize);
    file.WriteLine(Line(1).c_str(), 40);
    EXPECT_EQ(Contents(), Header(72) + Line(1) + kMarker);
    file.WriteLine(Line(2).c_str(), 40);
    EXPECT_EQ(Contents(), Header(112) + Line(1) + Line(2) + kMarker);
}

TEST_F(TraceFileTest, LinesAreWrittenFlushPerLinesAtATime) {
    CRtTraceFile file(Name().c_str(), 3, CRtTraceFile::kDefaultMaxSize);
    file.WriteLine(Line(1).c_str(), 40);
    file.WriteLine(Line(2).c_str(), 40);
    EXPECT_EQ(Contents(), Header(32));
    file.WriteLine(Line(3).c_str(), 40);
    EXPECT_EQ(Contents(), Header(152) + Line(1) + Line(2) + Line(3) + kMarker);

    file.WriteLine(Line(4).c_str(), 40);
    file.Flush();  // an explicit flush writes a short batch
    EXPECT_EQ(Contents(), Header(192) + Line(1) + Line(2) + Line(3) + Line(4) + kMarker);
    file.Flush();  // nothing collected: nothing changes
    EXPECT_EQ(Contents(), Header(192) + Line(1) + Line(2) + Line(3) + Line(4) + kMarker);

    // A smaller count writes what was collected first.
    file.WriteLine(Line(5).c_str(), 40);
    file.SetFlushPerLines(0);
    EXPECT_EQ(file.GetFlushPerLines(), 1);
    EXPECT_EQ(CountOf(Contents(), Line(5)), 1u);
}

TEST_F(TraceFileTest, CollectedLinesAreWrittenWhenTheFileIsDestroyed) {
    const int fds = OpenFdCount();
    {
        CRtTraceFile file(Name().c_str(), 10, CRtTraceFile::kDefaultMaxSize);
        file.WriteLine(Line(1).c_str(), 40);
        EXPECT_EQ(Contents(), Header(32));
    }
    EXPECT_EQ(Contents(), Header(72) + Line(1) + kMarker);
    EXPECT_EQ(OpenFdCount(), fds);  // and the file is closed
}

TEST_F(TraceFileTest, ALineByLineFileWrapsAtOnceWhenFull) {
    CRtTraceFile file(Name().c_str(), 1, 150);
    file.WriteLine(Line(1).c_str(), 40);  // ends at 72
    file.WriteLine(Line(2).c_str(), 40);  // 112
    file.WriteLine(Line(3).c_str(), 40);  // 152: full, the next line goes after the header
    std::string full = Line(1) + Line(2) + Line(3) + kMarker;
    EXPECT_EQ(Contents(), Header(32) + full);

    file.WriteLine(Line(4).c_str(), 40);
    std::string wrapped = Contents();
    EXPECT_EQ(wrapped.substr(0, 32), Header(72));
    EXPECT_EQ(wrapped.substr(32, 40 + kMarker.size()), Line(4) + kMarker);
    EXPECT_EQ(wrapped.size(), 32 + full.size());  // the older text stays behind the marker
    EXPECT_EQ(CountOf(wrapped, "Current Trace Point"), 1u);  // the old marker is blanked
    EXPECT_EQ(wrapped.substr(32 + 120), std::string(kMarker.size() - 2, ' ') + "\n\n");
}

TEST_F(TraceFileTest, ABatchingFileRecordsItIsFullAndWrapsWithItsNextBatch) {
    CRtTraceFile file(Name().c_str(), 2, 150);
    for (int i = 1; i <= 4; ++i) {
        file.WriteLine(Line(i).c_str(), 40);
    }
    EXPECT_EQ(Contents().substr(0, 32), Header(192));  // past the limit: full
    file.WriteLine(Line(5).c_str(), 40);
    file.WriteLine(Line(6).c_str(), 40);
    std::string wrapped = Contents();
    EXPECT_EQ(wrapped.substr(0, 32), Header(112));
    EXPECT_EQ(wrapped.substr(32, 80 + kMarker.size()), Line(5) + Line(6) + kMarker);

    // Lowering the limit below the position wraps the next batch as well.
    file.SetMaxSize(100);
    EXPECT_EQ(file.GetMaxSize(), 100);
    file.WriteLine(Line(7).c_str(), 40);
    file.WriteLine(Line(8).c_str(), 40);
    EXPECT_EQ(Contents().substr(0, 32 + 80), Header(112) + Line(7) + Line(8));
}

TEST_F(TraceFileTest, ALineTooLongForTheBufferIsReportedAndCut) {
    TraceCapture capture;
    CRtTraceFile file(Name().c_str(), 1, CRtTraceFile::kDefaultMaxSize);
    file.WriteLine(Line(1).c_str(), 40);
    std::string huge(2000, 'h');
    file.WriteLine(huge.c_str(), huge.size());
    EXPECT_EQ(1u, TraceCapture::TakeCount(
                      "Assert failed: m_pos <= (unsigned long)m_nFlushFreq*RTTRACE_MAX_TRACE_LEN"));
    EXPECT_EQ(Contents(), Header(32 + 40 + 1024) + Line(1) + std::string(1024, 'h') + kMarker);
}

TEST_F(TraceFileTest, AFileThatCannotBeCreatedDropsItsLines) {
    std::string name = m_dir / "missing/trace.txt";
    CRtTraceFile file(name.c_str(), 2, CRtTraceFile::kDefaultMaxSize);
    EXPECT_FALSE(file.IsOpen());
    file.WriteLine(Line(1).c_str(), 40);
    file.WriteLine(Line(2).c_str(), 40);
    file.Flush();
    file.SetFlushPerLines(5);
    EXPECT_FALSE(FileExists(name));
}

TEST_F(TraceFileTest, HugeFlushCountsAreHeldToTheLimit) {
    CRtTraceFile file(Name().c_str(), 2000000000, CRtTraceFile::kDefaultMaxSize);
    EXPECT_EQ(file.GetFlushPerLines(), +CRtTraceFile::kMaxFlushPerLines);
}

// Lines of many threads through a writer of their own: every line arrives
// whole, exactly once.
TEST(TraceFileThreads, LinesOfManyThreadsNeverInterleave) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: keeps the main writer out of the file with XDG_DATA_HOME";
#endif
    TempDir dir;
    ScopedCwd cwd(dir.Path());
    ScopedEnv xdg("XDG_DATA_HOME", (dir.Path() + "/data/share").c_str());
    ::mkdir((dir / "data").c_str(), 0755);
    ASSERT_TRUE(WriteConfig(dir.Path(), "[Trace]\nFlushPerLines = 7\n"));

    CRtTraceMask masks[] = {{0, "Error", 1}, {1, "Quiet", 0}};
    char name[] = "Threads";
    std::unique_ptr<CRtTrace> writer(new CRtTrace(name, masks, 2, nullptr, 0));
    const int kThreads = 4;
    const int kLines = 400;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&writer, t] {
            for (int i = 0; i < kLines; ++i) {
                RT_TRACE_WITH(writer.get(), 0,
                              "worker " << t << " line " << i << " "
                                        << std::string(50 + (i * 37) % 300, 'x'));
                RT_TRACE_WITH(writer.get(), 1, "quiet " << t);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    CRtTraceFileRegistry::Instance()->Find(writer->getfilename())->Flush();

    std::string text = ReadFile(writer->getfilename());
    ASSERT_GT(text.size(), 32u);
    long end = std::stol(text.substr(0, 32));
    EXPECT_EQ(text.substr(end, kMarker.size()), kMarker);
    std::set<std::string> seen;
    size_t at = 32;
    while (at < static_cast<size_t>(end)) {
        size_t nl = text.find('\n', at);
        ASSERT_NE(nl, std::string::npos);
        std::string line = text.substr(at, nl - at);
        at = nl + 1;
        // "[date time pid= tid=] Error:worker T line I xxx..."
        size_t body = line.find("] Error:worker ");
        ASSERT_NE(body, std::string::npos) << line;
        int t = -1;
        int i = -1;
        ASSERT_EQ(::sscanf(line.c_str() + body, "] Error:worker %d line %d", &t, &i), 2) << line;
        size_t xs = line.size() - line.find_last_not_of('x') - 1;
        EXPECT_EQ(xs, static_cast<size_t>(50 + (i * 37) % 300)) << line;
        EXPECT_TRUE(seen.insert(std::to_string(t) + "/" + std::to_string(i)).second) << line;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

// ---- The main writer's file, in a child process ---------------------------------

// What the child does is chosen by KVT_CHILD_ACTION; it runs only when a
// parent test starts it.
TEST(TraceFileChild, DISABLED_Run) {
    const char* action = ::getenv("KVT_CHILD_ACTION");
    ASSERT_NE(action, nullptr);
    const std::string what = action;
    if (const char* result = ::getenv("KVT_CHILD_RESULT")) {
        ASSERT_TRUE(WriteFile(result, GetRtTraceFileName()));
    }
    TraceCapture capture;
    for (int i = 1; i <= 10; ++i) {
        RT_INFO_TRACE("child info " << i);
    }
    RT_WARNING_TRACE("child warning");
    RT_TRACE_AT(23, "child func");
    ASSERT_EQ(TraceCapture::TakeCount("child warning"), 1u);  // the sinks get every line
    if (what == "crash") {
        ::_exit(0);  // no unload: the unflushed batch is lost
    }
}

class MainWriterFileTest : public ::testing::Test {
protected:
    MainWriterFileTest() { ::mkdir((m_dir / "data").c_str(), 0755); }
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "POSIX only: moves the child's trace folder with XDG_DATA_HOME";
#endif
    }

    // Runs the child with aConfig as its kvtix.ini; returns its trace file's text.
    std::string RunChild(const std::string& aAction, const std::string& aConfig,
                         const std::string& aXdg = "") {
        EXPECT_TRUE(WriteConfig(m_dir.Path(), aConfig));
        std::string result = m_dir / "result.txt";
        ChildResult child = RunSelf("TraceFileChild.DISABLED_Run", m_dir.Path(),
                                    {{"XDG_DATA_HOME", aXdg.empty() ? m_dir / "data/share" : aXdg},
                                     {"KVT_CHILD_ACTION", aAction},
                                     {"KVT_CHILD_RESULT", result}});
        EXPECT_EQ(child.exitCode, 0);
        m_fileName = ReadFile(result);
        std::string expected = "/test_tracefile_Trace_";
        EXPECT_NE(m_fileName.find(expected), std::string::npos) << m_fileName;
        EXPECT_NE(m_fileName.find("_" + std::to_string(child.pid) + ".txt"), std::string::npos)
            << m_fileName;
        return ReadFile(m_fileName);
    }

    TempDir m_dir;
    std::string m_fileName;
};

TEST_F(MainWriterFileTest, TheMainWriterWritesEnabledLevelsAndFlushesAtUnload) {
    std::string text = RunChild("exit",
                                "[Trace]\nFlushPerLines = 4\n"
                                "test_tracefile.Warning = FALSE\n");
    EXPECT_EQ(m_fileName.rfind(m_dir.Path() + "/data/Corvanthics/logs/", 0), 0u);
    for (int i = 1; i <= 10; ++i) {
        EXPECT_EQ(CountOf(text, "Info:child info " + std::to_string(i) + "\n"), 1u) << i;
    }
    EXPECT_EQ(CountOf(text, "child warning"), 0u);  // level switched off for the file
    EXPECT_EQ(CountOf(text, "child func"), 0u);     // off by default
    EXPECT_EQ(CountOf(text, "Info:CRtTrace::Destroy\n"), 1u);
    long end = std::stol(text.substr(0, 32));
    EXPECT_EQ(text.substr(end), kMarker);
}

TEST_F(MainWriterFileTest, AnExitWithoutUnloadLosesAtMostOneBatch) {
    std::string text = RunChild("crash", "[Trace]\nFlushPerLines = 4\n");
    // Lines reach the file in batches of four; what the test framework traced
    // before the child's lines shifts the batches, so count from the end.
    size_t written = 0;
    for (int i = 1; i <= 10; ++i) {
        written += CountOf(text, "child info " + std::to_string(i) + "\n");
    }
    EXPECT_GE(written, 10u - 3u);
    EXPECT_EQ(CountOf(text, "CRtTrace::Destroy"), 0u);
}

TEST_F(MainWriterFileTest, EnableFalseKeepsTheFileEmpty) {
    std::string text = RunChild("exit", "[Trace]\nEnable = FALSE\n");
    EXPECT_EQ(text, Header(32));
}

TEST_F(MainWriterFileTest, ALevelSwitchedOnReachesTheFile) {
    std::string text = RunChild("exit", "[Trace]\ntest_tracefile.Func = TRUE\n");
    EXPECT_EQ(CountOf(text, "Func:child func\n"), 1u);
    EXPECT_EQ(CountOf(text, "Warning:child warning\n"), 1u);
}

TEST_F(MainWriterFileTest, AFolderThatCannotBeMadeStillTracesToTheSinks) {
    ASSERT_TRUE(WriteFile(m_dir / "plain", "not a folder"));
    WriteConfig(m_dir.Path(), "");
    std::string result = m_dir / "result.txt";
    ChildResult child = RunSelf("TraceFileChild.DISABLED_Run", m_dir.Path(),
                                {{"XDG_DATA_HOME", m_dir / "plain/share"},
                                 {"KVT_CHILD_ACTION", "exit"},
                                 {"KVT_CHILD_RESULT", result}});
    EXPECT_EQ(child.exitCode, 0);  // the child checks that its sink saw its lines
    std::string name = ReadFile(result);
    EXPECT_EQ(name.rfind(m_dir.Path() + "/plain/Corvanthics/logs/", 0), 0u) << name;
    EXPECT_FALSE(FileExists(name));
}

}  // namespace
