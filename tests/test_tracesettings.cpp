// The trace writer's settings: trace directory, file names, the level flags
// and file settings read from section "Trace". Each test makes writers of its
// own, with XDG_DATA_HOME and the working directory pointed at a temporary
// folder; the main writer (made when the library loaded) is left alone.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "../util/framework/rttracefile.h"
#include "config_test_env.h"
#include "rtconfig.h"
#include "rtos.h"
#include "rttrace.h"

namespace {

#ifdef _WIN32
const char kProcess[] = "test_tracesettings.exe";  // cut at the last backslash only
#else
const char kProcess[] = "test_tracesettings";
#endif

// A level table of a writer's own, so flags set here stay here.
struct Levels {
    CRtTraceMask masks[3] = {{0, "Error", 1}, {1, "Info", 1}, {2, "Func", 0}};
};

class TraceSettingsTest : public ::testing::Test {
protected:
    TraceSettingsTest()
        : m_cwd(m_dir.Path()), m_xdg("XDG_DATA_HOME", (m_dir.Path() + "/data/share").c_str()) {
        ::mkdir((m_dir / "data").c_str(), 0755);
    }
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "POSIX only: moves the trace folder with XDG_DATA_HOME";
#endif
    }

    // A writer like the main one: no fixed name, so it gets a trace file.
    std::unique_ptr<CRtTrace> MainLike() {
        return std::unique_ptr<CRtTrace>(new CRtTrace(m_name, m_levels.masks, 3, nullptr, 0));
    }
    std::unique_ptr<CRtTrace> FixedName(char* aFileName, unsigned char aExact) {
        return std::unique_ptr<CRtTrace>(
            new CRtTrace(m_name, m_levels.masks, 3, aFileName, aExact));
    }
    std::string LogDir() const {
        return m_dir.Path() + "/data/Corvanthics/logs";
    }

    TempDir m_dir;
    ScopedCwd m_cwd;
    ScopedEnv m_xdg;
    Levels m_levels;
    char m_name[8] = "Test";
};

std::string Today() {
    time_t now = ::time(nullptr);
    struct tm local;
#ifdef _WIN32
    ::localtime_s(&local, &now);
#else
    ::localtime_r(&now, &local);
#endif
    char text[16];
    ::strftime(text, sizeof(text), "%Y%m%d", &local);
    return text;
}

TEST_F(TraceSettingsTest, TheMainFileIsNamedByProcessDateAndPidInTheLogsFolder) {
    ASSERT_TRUE(m_cwd.Ok());
    std::string before = Today();
    std::unique_ptr<CRtTrace> writer = MainLike();
    std::string after = Today();

    EXPECT_STREQ(writer->get_trace_dir(), LogDir().c_str());
    EXPECT_STREQ(writer->get_process_name(), kProcess);
    std::string prefix = LogDir() + "/" + kProcess + "_Trace_";
    std::string suffix = "_" + std::to_string(::getpid()) + ".txt";
    std::string name = writer->getfilename();
    EXPECT_TRUE(name == prefix + before + suffix || name == prefix + after + suffix) << name;
    // The removal of old files relies on this shape: the date is the eight
    // characters before the last "_".
    std::string date = name.substr(name.rfind('_') - 8, 8);
    EXPECT_TRUE(date == before || date == after);

    struct stat st;
    ASSERT_EQ(::stat(LogDir().c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(FileExists(name));  // the trace file is there from the start
}

TEST_F(TraceSettingsTest, FixedNamesStandInTheSameFolder) {
    char diagnose[] = "diagnose.log";
    EXPECT_EQ(FixedName(diagnose, 1)->getfilename(), LogDir() + "/diagnose.log");
    EXPECT_EQ(FixedName(diagnose, 0)->getfilename(),
              LogDir() + "/diagnose.log." + std::to_string(::getpid()));
    // Writers with a fixed name write no file: every process shares the name.
    EXPECT_FALSE(FileExists(LogDir() + "/diagnose.log"));
    EXPECT_STREQ(CRtTrace::DiagonseInstance()->getfilename() +
                     ::strlen(CRtTrace::DiagonseInstance()->getfilename()) - 13,
                 "/diagnose.log");
}

TEST_F(TraceSettingsTest, TheTraceDirectoryFollowsTheApplicationDataFolder) {
    char probe[] = "probe.log";
    std::unique_ptr<CRtTrace> writer = FixedName(probe, 1);

    {
        ScopedEnv xdg("XDG_DATA_HOME", (m_dir.Path() + "/data/share///").c_str());
        EXPECT_EQ(std::string(writer->get_trace_dir()), LogDir());
    }
    {
        ScopedEnv xdg("XDG_DATA_HOME", nullptr);
        ScopedEnv home("HOME", (m_dir.Path() + "/home").c_str());
        EXPECT_EQ(std::string(writer->get_trace_dir()),
                  m_dir.Path() + "/home/.local/Corvanthics/logs");
    }
    {
        ScopedEnv xdg("XDG_DATA_HOME", nullptr);
        ScopedEnv home("HOME", nullptr);
        EXPECT_STREQ(writer->get_trace_dir(), "/tmp");
    }
    {
        // A folder without any "/" has no parent to put the logs in.
        ScopedEnv xdg("XDG_DATA_HOME", "relative");
        EXPECT_STREQ(writer->get_trace_dir(), "/tmp");
        std::unique_ptr<CRtTrace> inTmp = FixedName(probe, 1);
        EXPECT_STREQ(inTmp->getfilename(), "/tmp/probe.log");
    }
    {
        ScopedEnv xdg("XDG_DATA_HOME", ("/" + std::string(600, 'd')).c_str());
        EXPECT_STREQ(writer->get_trace_dir(), "/tmp");  // too long for the buffer
    }
}

TEST_F(TraceSettingsTest, AFolderThatCannotBeMadeIsNotAnError) {
    // The parent of the logs folder would have to be made inside a plain file.
    ASSERT_TRUE(WriteFile(m_dir / "plain", "not a folder"));
    ScopedEnv xdg("XDG_DATA_HOME", (m_dir.Path() + "/plain/share").c_str());
    std::unique_ptr<CRtTrace> writer = MainLike();
    std::string name = writer->getfilename();
    EXPECT_EQ(name.rfind(m_dir.Path() + "/plain/Corvanthics/logs/", 0), 0u) << name;
    EXPECT_FALSE(FileExists(name));
    char text[] = "still traced";
    writer->trace_string(1, text);  // goes to the sinks; the file is simply missing

#ifndef _WIN32
    if (::geteuid() != 0) {
        ASSERT_EQ(::mkdir((m_dir / "ro").c_str(), 0555), 0);
        ScopedEnv readOnly("XDG_DATA_HOME", (m_dir.Path() + "/ro/share").c_str());
        std::unique_ptr<CRtTrace> again = MainLike();
        EXPECT_FALSE(FileExists(again->getfilename()));
        again->trace_string(1, text);
    }
#endif
}

TEST_F(TraceSettingsTest, LevelFlagsAndEnableComeFromProcessKeys) {
    ASSERT_TRUE(WriteConfig(m_dir.Path(), std::string("[Trace]\nEnable = false\n") + kProcess +
                                              ".Info = false\n" + kProcess + ".func = TRUE\n" +
                                              "other.exe.Error = false\n"));
    std::unique_ptr<CRtTrace> writer = MainLike();
    EXPECT_EQ(m_levels.masks[0].enabled, 1);  // another process's key
    EXPECT_EQ(m_levels.masks[1].enabled, 0);
    EXPECT_EQ(m_levels.masks[2].enabled, 1);

    // A key that is gone keeps the flag as the last read left it.
    ASSERT_TRUE(WriteConfig(m_dir.Path(), "[Trace]\n"));
    writer->read_config();
    EXPECT_EQ(m_levels.masks[1].enabled, 0);
    EXPECT_EQ(m_levels.masks[2].enabled, 1);

    // The table is static: a new writer over it starts from those flags.
    std::unique_ptr<CRtTrace> next = MainLike();
    EXPECT_EQ(m_levels.masks[1].enabled, 0);
    ASSERT_TRUE(WriteConfig(m_dir.Path(), std::string("[Trace]\n") + kProcess + ".Info = TRUE\n"));
    next->read_config();
    EXPECT_EQ(m_levels.masks[1].enabled, 1);
}

TEST_F(TraceSettingsTest, FlushPerLinesAndTheSizeLimitReachTheTraceFile) {
    struct Case {
        const char* config;
        int flushPerLines;
        long maxSize;
    };
    const std::string p = kProcess;
    const Case cases[] = {
        {"", 1, 52428800},
        {"FlushPerLines = 0\n", 1, 52428800},
        {"FlushPerLines = -3\n", 1, 52428800},
        {"FlushPerLines = 5;\n", 5, 52428800},
        {"FlushPerLines = many\n", 1, 52428800},
        {"FlushPerLines = 999999999\n", CRtTraceFile::kMaxFlushPerLines, 52428800},
        {"test_tracesettings = 1024\n", 1, 52428800},
        {"test_tracesettings = 1025\n", 1, 1025},
        {"test_tracesettings = -5\n", 1, 52428800},
        {"TEST_TRACESETTINGS = 4096\nFlushPerLines = 2\n", 2, 4096},
    };
    std::unique_ptr<CRtTrace> writer = MainLike();
    CRtTraceFile* file = CRtTraceFileRegistry::Instance()->Find(writer->getfilename());
    ASSERT_NE(file, nullptr);
    for (const Case& c : cases) {
        ASSERT_TRUE(WriteConfig(m_dir.Path(), std::string("[Trace]\n") + c.config));
        writer->read_config();
        EXPECT_EQ(file->GetFlushPerLines(), c.flushPerLines) << c.config;
        EXPECT_EQ(file->GetMaxSize(), c.maxSize) << c.config;
    }
}

TEST_F(TraceSettingsTest, LoadAgainKeepsTheFileAndAWriterAfterDestroyFindsItsFile) {
    std::unique_ptr<CRtTrace> writer = MainLike();
    std::string name = writer->getfilename();
    CRtTraceFile* file = CRtTraceFileRegistry::Instance()->Find(name.c_str());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(writer->load(writer.get()), 1);
    EXPECT_EQ(writer->getfilename(), name);
    writer.reset();
    std::unique_ptr<CRtTrace> again = MainLike();
    EXPECT_EQ(again->getfilename(), name);
    EXPECT_EQ(CRtTraceFileRegistry::Instance()->Find(name.c_str()), file);
    EXPECT_EQ(CRtTraceFileRegistry::Instance()->FindOrCreate(name.c_str()), file);
    EXPECT_EQ(CRtTraceFileRegistry::Instance()->Find("/no/such/file"), nullptr);
}

TEST(TraceFileName, GetRtTraceFileNameIsTheMainWritersName) {
    const char* name = GetRtTraceFileName();
    EXPECT_EQ(name, CRtTrace::instance()->getfilename());
    std::string text = name;
    EXPECT_NE(text.find(rtos::kPathSeparator + std::string(kProcess) + "_Trace_"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("_" + std::to_string(rtos::CurrentProcessId()) + ".txt"), std::string::npos)
        << text;
}

}  // namespace
