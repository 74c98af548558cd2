// The trace writer's settings: trace directory, file names, the level flags
// and file settings read from section "Trace". Each test makes writers of its
// own, with XDG_DATA_HOME and the working directory pointed at a temporary
// folder; the main writer (made when the library loaded) is left alone.
#include <gtest/gtest.h>

#include <time.h>

#include <memory>
#include <string>

#include "../util/framework/rttracefile.h"
#include "config_test_env.h"
#include "rttrace.h"
#include "trace_capture.h"

namespace {

const char kProcess[] = "test_tracesettings";

class TraceSettingsTest : public ::testing::Test {
protected:
    TraceSettingsTest()
        : m_cwd(m_dir.Path()), m_xdg("XDG_DATA_HOME", (m_dir / "data/share").c_str()) {
        fs::create_directory(m_dir / "data");
    }
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "POSIX only: moves the trace folder with XDG_DATA_HOME";
#endif
        ASSERT_TRUE(m_cwd.Ok());
    }

    // No fixed name, like the main writer: it gets a trace file.
    std::unique_ptr<CRtTrace> Writer(char* aFileName = nullptr, unsigned char aExact = 0) {
        return std::unique_ptr<CRtTrace>(new CRtTrace(m_name, m_masks, 3, aFileName, aExact));
    }
    std::string LogDir() const {
        return m_dir / "data/Corvanthics/logs";
    }

    TempDir m_dir;
    ScopedCwd m_cwd;
    ScopedEnv m_xdg;
    // A level table of these writers' own, so flags set here stay here.
    CRtTraceMask m_masks[3] = {{0, "Error", 1}, {1, "Info", 1}, {2, "Func", 0}};
    char m_name[8] = "Test";
};

std::string Today() {
    time_t now = ::time(nullptr);
    char text[16];
    ::strftime(text, sizeof(text), "%Y%m%d", ::localtime(&now));
    return text;
}

TEST_F(TraceSettingsTest, FileNamesAndTheirFolder) {
    std::string before = Today();
    std::unique_ptr<CRtTrace> writer = Writer();
    std::string after = Today();
    EXPECT_STREQ(writer->get_trace_dir(), LogDir().c_str());
    EXPECT_STREQ(writer->get_process_name(), kProcess);
    // The removal of old files relies on the date before the last "_".
    std::string name = writer->getfilename();
    std::string suffix = "_" + std::to_string(rtos::CurrentProcessId()) + ".txt";
    std::string prefix = LogDir() + "/" + kProcess + "_Trace_";
    EXPECT_TRUE(name == prefix + before + suffix || name == prefix + after + suffix) << name;
    EXPECT_TRUE(FileExists(name));  // there from the start

    char diagnose[] = "diagnose.log";
    EXPECT_EQ(Writer(diagnose, 1)->getfilename(), LogDir() + "/diagnose.log");
    EXPECT_EQ(Writer(diagnose, 0)->getfilename(),
              LogDir() + "/diagnose.log." + std::to_string(rtos::CurrentProcessId()));
    // Writers with a fixed name write no file: every process shares the name.
    EXPECT_FALSE(FileExists(LogDir() + "/diagnose.log"));
    std::string diag = CRtTrace::DiagonseInstance()->getfilename();
    EXPECT_EQ(diag.substr(diag.size() - 13), "/diagnose.log");
}

TEST_F(TraceSettingsTest, TheTraceDirectoryFollowsTheApplicationDataFolder) {
    const std::string slashes = m_dir / "data/share///";
    const std::string home = m_dir / "home";
    const std::string tooLong = "/" + std::string(600, 'd');
    const struct {
        const char* xdg;
        const char* home;
        std::string dir;
    } kCases[] = {
        {slashes.c_str(), nullptr, LogDir()},
        {nullptr, home.c_str(), home + "/.local/Corvanthics/logs"},
        {nullptr, nullptr, "/tmp"},
        {"relative", nullptr, "/tmp"},  // no "/": no parent for the logs folder
        {tooLong.c_str(), nullptr, "/tmp"},
    };
    char probe[] = "probe.log";
    for (const auto& c : kCases) {
        ScopedEnv xdg("XDG_DATA_HOME", c.xdg);
        ScopedEnv home("HOME", c.home);
        EXPECT_EQ(std::string(Writer(probe, 1)->get_trace_dir()), c.dir);
        EXPECT_EQ(Writer(probe, 1)->getfilename(), c.dir + "/probe.log");
    }
}

TEST_F(TraceSettingsTest, AFolderThatCannotBeMadeIsNotAnError) {
    ASSERT_TRUE(WriteFile(m_dir / "plain", "not a folder"));
    ASSERT_TRUE(fs::create_directory(m_dir / "ro"));
    fs::permissions(m_dir / "ro", fs::perms::owner_read | fs::perms::owner_exec);
    const bool root = WriteFile(m_dir / "ro/probe", "root writes anywhere");
    char text[] = "still traced";
    // Below a plain file, and (unless root) below a read-only folder.
    for (const char* parent : {"plain", "ro"}) {
        ScopedEnv xdg("XDG_DATA_HOME", (m_dir / parent + "/share").c_str());
        std::unique_ptr<CRtTrace> writer = Writer();
        std::string name = writer->getfilename();
        EXPECT_EQ(name.rfind(m_dir / parent + "/Corvanthics/logs/", 0), 0u) << name;
        EXPECT_TRUE(!FileExists(name) || (parent[0] == 'r' && root)) << name;
        TraceCapture capture;
        writer->trace_string(1, text);  // goes to the sinks; the file is simply missing
        EXPECT_EQ(capture.TakeCount("Info:still traced"), 1u);
    }
}

TEST_F(TraceSettingsTest, LevelFlagsAndEnableComeFromProcessKeys) {
    const std::string p = kProcess;
    ASSERT_TRUE(WriteConfig(m_dir.Path(), "[Trace]\nEnable = false\n" + p + ".Info = false\n" + p +
                                              ".func = TRUE\nother.exe.Error = false\n"));
    std::unique_ptr<CRtTrace> writer = Writer();
    EXPECT_EQ(m_masks[0].enabled, 1);  // another process's key
    EXPECT_EQ(m_masks[1].enabled, 0);
    EXPECT_EQ(m_masks[2].enabled, 1);

    // A key that is gone keeps the flag as the last read left it.
    ASSERT_TRUE(WriteConfig(m_dir.Path(), "[Trace]\n"));
    writer->read_config();
    EXPECT_EQ(m_masks[1].enabled, 0);
    EXPECT_EQ(m_masks[2].enabled, 1);

    // The table is static: a new writer over it starts from those flags.
    std::unique_ptr<CRtTrace> next = Writer();
    EXPECT_EQ(m_masks[1].enabled, 0);
    ASSERT_TRUE(WriteConfig(m_dir.Path(), "[Trace]\n" + p + ".Info = TRUE\n"));
    next->read_config();
    EXPECT_EQ(m_masks[1].enabled, 1);
}

TEST_F(TraceSettingsTest, FlushPerLinesAndTheSizeLimitReachTheTraceFile) {
    const long kDefault = CRtTraceFile::kDefaultMaxSize;
    const struct {
        const char* config;
        int flushPerLines;
        long maxSize;
    } kCases[] = {
        {"", 1, kDefault},
        {"FlushPerLines = 0\n", 1, kDefault},
        {"FlushPerLines = -3\n", 1, kDefault},
        {"FlushPerLines = 5;\n", 5, kDefault},
        {"FlushPerLines = many\n", 1, kDefault},
        {"FlushPerLines = 999999999\n", CRtTraceFile::kMaxFlushPerLines, kDefault},
        {"test_tracesettings = 1024\n", 1, kDefault},
        {"test_tracesettings = 1025\n", 1, 1025},
        {"test_tracesettings = -5\n", 1, kDefault},
        {"TEST_TRACESETTINGS = 4096\nFlushPerLines = 2\n", 2, 4096},
    };
    std::unique_ptr<CRtTrace> writer = Writer();
    std::string name = writer->getfilename();
    CRtTraceFile* file = CRtTraceFileRegistry::Instance()->Find(name.c_str());
    ASSERT_NE(file, nullptr);
    for (const auto& c : kCases) {
        ASSERT_TRUE(WriteConfig(m_dir.Path(), std::string("[Trace]\n") + c.config));
        writer->read_config();
        EXPECT_EQ(file->GetFlushPerLines(), c.flushPerLines) << c.config;
        EXPECT_EQ(file->GetMaxSize(), c.maxSize) << c.config;
    }

    // Loading again keeps the file; a writer made after another's end finds it.
    EXPECT_EQ(writer->load(writer.get()), 1);
    EXPECT_EQ(writer->getfilename(), name);
    writer.reset();
    EXPECT_EQ(Writer()->getfilename(), name);
    EXPECT_EQ(CRtTraceFileRegistry::Instance()->FindOrCreate(name.c_str()), file);
    EXPECT_EQ(CRtTraceFileRegistry::Instance()->Find("/no/such/file"), nullptr);
}

}  // namespace
