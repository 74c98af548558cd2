// Trace files: the header, batching and flushing, the marker, reuse as a ring,
// lines of many threads, and the main writer's file in a child process that
// loads the library with a configuration and environment of its own.
#include <gtest/gtest.h>

#include <stdio.h>

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

// The 32-byte header: the position where the next batch goes.
std::string Header(long aPos) {
    std::string text = std::to_string(aPos);
    text.resize(31, ' ');
    return text + "\n";
}

std::string Lines(int aFirst, int aLast) {
    std::string text;
    for (int i = aFirst; i <= aLast; ++i) {
        std::string line = "line " + std::to_string(i) + " ";
        line.resize(39, '.');
        text += line + "\n";
    }
    return text;
}

class TraceFileTest : public ::testing::Test {
protected:
    std::string Name() const { return m_dir / "trace.txt"; }
    std::string Contents() const { return ReadFile(Name()); }
    static void Write(CRtTraceFile& aFile, int aFirst, int aLast) {
        for (int i = aFirst; i <= aLast; ++i) {
            aFile.WriteLine(Lines(i, i).c_str(), 40);
        }
    }

    TempDir m_dir;
};

TEST_F(TraceFileTest, LinesAreWrittenFlushPerLinesAtATimeOverThePreviousMarker) {
    CRtTraceFile file(Name().c_str(), 3, CRtTraceFile::kDefaultMaxSize);
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(file.GetFileName(), Name());
    Write(file, 1, 2);
    EXPECT_EQ(Contents(), Header(32));
    Write(file, 3, 3);
    EXPECT_EQ(Contents(), Header(152) + Lines(1, 3) + kMarker);
    Write(file, 4, 4);
    file.Flush();  // an explicit flush writes a short batch
    EXPECT_EQ(Contents(), Header(192) + Lines(1, 4) + kMarker);
    file.Flush();  // nothing collected: nothing changes
    EXPECT_EQ(Contents(), Header(192) + Lines(1, 4) + kMarker);

    // A smaller count writes what was collected first.
    Write(file, 5, 5);
    file.SetFlushPerLines(0);
    EXPECT_EQ(file.GetFlushPerLines(), 1);
    EXPECT_EQ(Contents(), Header(232) + Lines(1, 5) + kMarker);
}

TEST_F(TraceFileTest, CollectedLinesAreWrittenWhenTheFileIsDestroyed) {
    const int fds = OpenFdCount();
    {
        CRtTraceFile file(Name().c_str(), 10, CRtTraceFile::kDefaultMaxSize);
        Write(file, 1, 1);
        EXPECT_EQ(Contents(), Header(32));
    }
    EXPECT_EQ(Contents(), Header(72) + Lines(1, 1) + kMarker);
    EXPECT_EQ(OpenFdCount(), fds);  // and the file is closed
}

TEST_F(TraceFileTest, ALineByLineFileWrapsAtOnceWhenFull) {
    CRtTraceFile file(Name().c_str(), 1, 150);
    Write(file, 1, 3);  // ends at 152: full, the next line goes after the header
    EXPECT_EQ(Contents(), Header(32) + Lines(1, 3) + kMarker);
    Write(file, 4, 4);
    // The older text stays behind the marker; the old marker is blanked.
    EXPECT_EQ(Contents(), Header(72) + Lines(4, 4) + kMarker + Lines(3, 3).substr(33) +
                              std::string(kMarker.size() - 2, ' ') + "\n\n");
}

TEST_F(TraceFileTest, ABatchingFileRecordsItIsFullAndWrapsWithItsNextBatch) {
    CRtTraceFile file(Name().c_str(), 2, 150);
    Write(file, 1, 4);
    EXPECT_EQ(Contents().substr(0, 32), Header(192));  // past the limit: full
    Write(file, 5, 6);
    EXPECT_EQ(Contents().substr(0, 112 + kMarker.size()), Header(112) + Lines(5, 6) + kMarker);

    // Lowering the limit below the position wraps the next batch as well.
    file.SetMaxSize(100);
    EXPECT_EQ(file.GetMaxSize(), 100);
    Write(file, 7, 8);
    EXPECT_EQ(Contents().substr(0, 112), Header(112) + Lines(7, 8));
}

TEST_F(TraceFileTest, ALineTooLongForTheBufferIsReportedAndCut) {
    TraceCapture capture;
    CRtTraceFile file(Name().c_str(), 1, CRtTraceFile::kDefaultMaxSize);
    Write(file, 1, 1);
    std::string huge(2000, 'h');
    file.WriteLine(huge.c_str(), huge.size());
    EXPECT_EQ(1u, TraceCapture::TakeCount(
                      "Assert failed: m_pos <= (unsigned long)m_nFlushFreq*RTTRACE_MAX_TRACE_LEN"));
    EXPECT_EQ(Contents(), Header(32 + 40 + 1024) + Lines(1, 1) + std::string(1024, 'h') + kMarker);
}

TEST_F(TraceFileTest, AFileThatCannotBeCreatedDropsItsLinesAndHugeCountsAreHeld) {
    std::string name = m_dir / "missing/trace.txt";
    CRtTraceFile file(name.c_str(), 2000000000, CRtTraceFile::kDefaultMaxSize);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(file.GetFlushPerLines(), +CRtTraceFile::kMaxFlushPerLines);
    Write(file, 1, 2);
    file.Flush();
    file.SetFlushPerLines(5);
    EXPECT_FALSE(FileExists(name));
}

// Every line of many threads arrives whole, exactly once, through a writer of
// their own.
TEST(TraceFileThreads, LinesOfManyThreadsNeverInterleave) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: keeps the main writer out of the file with XDG_DATA_HOME";
#endif
    TempDir dir;
    ScopedCwd cwd(dir.Path());
    ScopedEnv xdg("XDG_DATA_HOME", (dir / "data/share").c_str());
    fs::create_directory(dir / "data");
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
    const size_t end = std::stoul(text.substr(0, 32));
    EXPECT_EQ(text.substr(end, kMarker.size()), kMarker);
    std::set<std::pair<int, int>> seen;
    for (size_t at = 32, nl; at < end; at = nl + 1) {
        nl = text.find('\n', at);
        ASSERT_NE(nl, std::string::npos);
        const std::string line = text.substr(at, nl - at);
        int t = -1, i = -1;  // "[date time pid= tid=] Error:worker T line I xxx..."
        const size_t body = line.find("] Error:worker ");
        ASSERT_NE(body, std::string::npos) << line;
        ASSERT_EQ(::sscanf(line.c_str() + body, "] Error:worker %d line %d", &t, &i), 2) << line;
        EXPECT_EQ(line.size() - line.find_last_not_of('x') - 1, 50u + (i * 37) % 300) << line;
        EXPECT_TRUE(seen.insert({t, i}).second) << line;
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLines));
}

// ---- The main writer's file, in a child process ---------------------------------

// Run only by the tests below, which choose its action with KVT_CHILD_ACTION.
TEST(TraceFileChild, DISABLED_Run) {
    ASSERT_TRUE(WriteFile(::getenv("KVT_CHILD_RESULT"), GetRtTraceFileName()));
    TraceCapture capture;
    for (int i = 1; i <= 10; ++i) {
        RT_INFO_TRACE("child info " << i);
    }
    RT_WARNING_TRACE("child warning");
    RT_TRACE_AT(23, "child func");
    ASSERT_EQ(TraceCapture::TakeCount("child warning"), 1u);  // the sinks get every line
    if (std::string(::getenv("KVT_CHILD_ACTION")) == "crash") {
        ::_exit(0);  // no unload: the unflushed batch is lost
    }
}

class MainWriterFileTest : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "POSIX only: moves the child's trace folder with XDG_DATA_HOME";
#endif
        fs::create_directory(m_dir / "data");
    }

    // Runs the child with aConfig as its kvtix.ini; returns its trace file's text.
    std::string RunChild(const std::string& aAction, const std::string& aConfig) {
        EXPECT_TRUE(WriteConfig(m_dir.Path(), aConfig));
        const std::string result = m_dir / "result.txt";
        ChildResult child = RunSelf("TraceFileChild.DISABLED_Run", m_dir.Path(),
                                    {{"XDG_DATA_HOME", m_dir / "data/share"},
                                     {"KVT_CHILD_ACTION", aAction},
                                     {"KVT_CHILD_RESULT", result}});
        EXPECT_EQ(child.exitCode, 0);
        const std::string name = ReadFile(result);
        EXPECT_EQ(name.rfind(m_dir / "data/Corvanthics/logs/test_tracefile_Trace_", 0), 0u) << name;
        return ReadFile(name);
    }

    TempDir m_dir;
};

TEST_F(MainWriterFileTest, TheMainWriterWritesEnabledLevelsAndFlushesAtUnload) {
    std::string text = RunChild("exit",
                                "[Trace]\nFlushPerLines = 4\n"
                                "test_tracefile.Warning = FALSE\n");
    for (int i = 1; i <= 10; ++i) {
        EXPECT_EQ(CountOf(text, "Info:child info " + std::to_string(i) + "\n"), 1u) << i;
    }
    EXPECT_EQ(CountOf(text, "child warning"), 0u);  // level switched off for the file
    EXPECT_EQ(CountOf(text, "child func"), 0u);     // off by default
    EXPECT_EQ(CountOf(text, "Info:CRtTrace::Destroy\n"), 1u);
    EXPECT_EQ(text.substr(std::stoul(text.substr(0, 32))), kMarker);

    text = RunChild("exit", "[Trace]\ntest_tracefile.Func = TRUE\n");
    EXPECT_EQ(CountOf(text, "Func:child func\n"), 1u);
    EXPECT_EQ(CountOf(text, "Warning:child warning\n"), 1u);

    EXPECT_EQ(RunChild("exit", "[Trace]\nEnable = FALSE\n"), Header(32));
}

TEST_F(MainWriterFileTest, AnExitWithoutUnloadLosesAtMostOneBatch) {
    std::string text = RunChild("crash", "[Trace]\nFlushPerLines = 4\n");
    // What the test framework traced before the child's lines shifts the
    // batches of four, so only the count is known.
    size_t written = 0;
    for (int i = 1; i <= 10; ++i) {
        written += CountOf(text, "child info " + std::to_string(i) + "\n");
    }
    EXPECT_GE(written, 10u - 3u);
    EXPECT_EQ(CountOf(text, "CRtTrace::Destroy"), 0u);
}

}  // namespace
