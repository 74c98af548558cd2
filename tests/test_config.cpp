// The configuration reader: where the file is, its syntax, the numeric and
// boolean readers, CRtConfigInitFile, and bad files.
#include <gtest/gtest.h>

#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "config_test_env.h"
#include "rtconfig.h"
#include "rterror.h"

namespace {

#ifdef _WIN32
// get_process_name cuts at '/', which a Windows path does not have.
const std::string kProcessName = get_exec_name();
bool IsAbsolute(const char* aPath) {
    return aPath[0] && aPath[1] == ':';
}
#else
const std::string kProcessName = "test_config";
bool IsAbsolute(const char* aPath) {
    return aPath[0] == '/';
}
#endif

// Each test reads a conf/kvtix.ini of its own, below a working directory of its own.
class ConfigTest : public ::testing::Test {
protected:
    ConfigTest() : m_cwd(m_dir.Path()) {}

    bool Config(const std::string& aText) { return WriteConfig(m_dir.Path(), aText); }

    std::string Str(const char* aSection, const char* aKey, unsigned long aSize = 256) {
        std::vector<char> value(aSize + 1, 'z');
        get_string_param(aSection, aKey, value.data(), aSize);
        return value.data();
    }
    int Int(const char* aSection, const char* aKey) { return get_int_param(aSection, aKey); }

    TempDir m_dir;
    ScopedCwd m_cwd;
};

TEST_F(ConfigTest, FindsKeysBelowTheirSectionWithCommentsAndSpacing) {
    ASSERT_TRUE(m_cwd.Ok());
    ASSERT_TRUE(
        Config("# leading comment\n"
               "Orphan = 1\n"
               "[Trace]\n"
               "  # Enable = FALSE\n"
               "Enable = TRUE\n"
               "\tFlushPerLines\t=\t10 \r\n"
               "no equals sign here\n"
               "\n"
               "Empty =\n"
               "Spaced Key = a value with spaces  \n"
               "FlushPerLines = 99\n"
               "[Other]\n"
               "Name = other\n"));
    char value[64];
    EXPECT_EQ(get_string_param("Trace", "Enable", value, sizeof(value)), 1);
    EXPECT_STREQ(value, "TRUE");
    EXPECT_EQ(Int("Trace", "FlushPerLines"), 10);  // the first matching key wins
    EXPECT_EQ(Str("Trace", "Spaced Key"), "a value with spaces");
    EXPECT_EQ(Str("Other", "Name"), "other");

    // Missing and empty values read as empty, with 0.
    EXPECT_EQ(get_string_param("Trace", "Empty", value, sizeof(value)), 0);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(get_string_param("Trace", "Missing", value, sizeof(value)), 0);
    EXPECT_EQ(get_string_param("Nowhere", "Enable", value, sizeof(value)), 0);
    // A key before any section belongs to none.
    EXPECT_EQ(get_string_param("", "Orphan", value, sizeof(value)), 0);
    EXPECT_EQ(get_string_param("Trace", "Orphan", value, sizeof(value)), 0);
}

TEST_F(ConfigTest, NamesCompareWithoutCaseAndHeadersAreTrimmed) {
    ASSERT_TRUE(Config("[  trace\t]\nfLuShPeRlInEs = 7\n"));
    EXPECT_EQ(Int("Trace", "FlushPerLines"), 7);
    EXPECT_EQ(Int("TRACE", "flushperlines"), 7);
}

TEST_F(ConfigTest, BracketsAnywhereMakeAHeaderThatEndsTheSection) {
    ASSERT_TRUE(
        Config("[Trace]\nA = 1\nkey=[x]\nB = 2\n"
               "junk [x] junk\nC = 3\n"));
    EXPECT_EQ(Int("Trace", "A"), 1);
    EXPECT_EQ(Int("Trace", "B"), 0);  // after key=[x] the wanted section has ended
    EXPECT_EQ(Int("x", "B"), 2);      // it is section x
    EXPECT_EQ(Int("x", "C"), 0);      // "junk [x] junk" is a second section x
    // A "]" before the "[" still makes a header, naming no section of ours.
    ASSERT_TRUE(Config("[Trace]\nA = 1\n] odd [\nB = 2\n"));
    EXPECT_EQ(Int("Trace", "B"), 0);
}

TEST_F(ConfigTest, OnlyTheFirstSectionOfANameIsSearched) {
    ASSERT_TRUE(Config("[Trace]\nA = 1\n[Other]\nX = 0\n[Trace]\nB = 2\nA = 5\n"));
    EXPECT_EQ(Int("Trace", "A"), 1);
    EXPECT_EQ(Int("Trace", "B"), 0);
}

TEST_F(ConfigTest, MatchingQuotesAreRemoved) {
    ASSERT_TRUE(
        Config("[Trace]\n"
               "Single = 'TRUE'\n"
               "Double = \"  spaced  \"\n"
               "Opening = 'TRUE\n"
               "Mixed = 'TRUE\"\n"
               "Lone = \"\n"
               "Pair = \"\"\n"));
    EXPECT_EQ(get_bool_param("Trace", "Single", 0), 1);
    EXPECT_EQ(Str("Trace", "Double"), "spaced");
    EXPECT_EQ(Str("Trace", "Opening"), "'TRUE");
    EXPECT_EQ(get_bool_param("Trace", "Opening", 1), 0);
    EXPECT_EQ(Str("Trace", "Mixed"), "'TRUE\"");
    EXPECT_EQ(Str("Trace", "Lone"), "\"");
    char value[8];
    EXPECT_EQ(get_string_param("Trace", "Pair", value, sizeof(value)), 0);
}

TEST_F(ConfigTest, ATrailingSemicolonIsDropped) {
    ASSERT_TRUE(Config("[Trace]\nFlushPerLines = 20;\nLone = ;\nTwo = a;;\n"));
    EXPECT_EQ(Int("Trace", "FlushPerLines"), 20);
    char value[16];
    EXPECT_EQ(get_string_param("Trace", "Lone", value, sizeof(value)), 1);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(Str("Trace", "Two"), "a;");
    EXPECT_EQ(Int("Trace", "Lone"), 0);
    CRtConfigInitFile config;
    EXPECT_EQ(config.GetIntParam("Trace", "Lone", 42), 42);
    EXPECT_EQ(config.GetStringParam("Trace", "Lone", "def"), "def");
}

TEST_F(ConfigTest, ValuesAreCutToTheCallersBuffer) {
    ASSERT_TRUE(Config("[Trace]\nLong = " + std::string(300, 'v') + "\nShort = abc\n"));
    EXPECT_EQ(Str("Trace", "Long", 256), std::string(255, 'v'));
    CRtConfigInitFile config;
    EXPECT_EQ(config.GetStringParam("Trace", "Long", ""), std::string(255, 'v'));
    char value[4] = "zzz";
    EXPECT_EQ(get_string_param("Trace", "Short", value, 1), 0);  // room for the terminator only
    EXPECT_STREQ(value, "");
    EXPECT_EQ(get_string_param("Trace", "Short", value, 0), 0);
    EXPECT_EQ(get_string_param("Trace", "Short", nullptr, 16), 0);
    EXPECT_EQ(get_string_param(nullptr, "Short", value, sizeof(value)), 0);
    EXPECT_EQ(get_string_param("Trace", nullptr, value, sizeof(value)), 0);
}

TEST_F(ConfigTest, LongLinesAreReadInPiecesOf2047) {
    std::string text = "[Trace]\n";
    text += "Long = " + std::string(4993, 'x') + "\n";       // 5,000 characters
    text += "#" + std::string(2046, 'c') + "Hidden = 7\n";   // its second piece is a key line
    text += std::string(2047, ' ') + "[Next]\nAfter = 1\n";  // its second piece is a header
    ASSERT_TRUE(Config(text));
    std::string value = Str("Trace", "Long", 8192);
    EXPECT_EQ(value, std::string(2047 - 7, 'x'));
    EXPECT_EQ(Int("Trace", "Hidden"), 7);
    EXPECT_EQ(Int("Next", "After"), 1);
}

TEST_F(ConfigTest, NumbersReadAsScanfWouldAndNonNumbersGiveDefaults) {
    ASSERT_TRUE(
        Config("[N]\n"
               "Big = 70000\nNeg = -1\nMax = 4294967295\nAbc = abc\nMixed = 12abc\n"
               "Plus = +5\nHuge = 99999999999999999999999\n"
               "True = tRuE\nOne = 1\nYes = yes\nEmpty =\n"));
    EXPECT_EQ(get_int_param("N", "Big"), 70000);
    EXPECT_EQ(get_uint16_param("N", "Big"), 4464);
    EXPECT_EQ(get_int_param("N", "Neg"), -1);
    EXPECT_EQ(get_uint32_param("N", "Neg"), 4294967295ul);
    EXPECT_EQ(get_uint32_param("N", "Max"), 4294967295ul);
    EXPECT_EQ(get_int_param("N", "Abc"), 0);
    EXPECT_EQ(get_uint32_param("N", "Abc"), 0ul);
    EXPECT_EQ(get_int_param("N", "Mixed"), 12);
    EXPECT_EQ(get_int_param("N", "Plus"), 5);
    get_int_param("N", "Huge");  // any number, but no overflow trap
    EXPECT_EQ(get_int_param("N", "Missing"), 0);

    EXPECT_EQ(get_bool_param("N", "True", 0), 1);
    EXPECT_EQ(get_bool_param("N", "One", 1), 0);
    EXPECT_EQ(get_bool_param("N", "Yes", 1), 0);
    EXPECT_EQ(get_bool_param("N", "Empty", 1), 1);
    EXPECT_EQ(get_bool_param("N", "Missing", 1), 1);
    EXPECT_EQ(get_bool_param("N", "Missing", 0), 0);

    CRtConfigInitFile config;
    EXPECT_EQ(config.InitWithFileName("elsewhere.ini"), RT_OK);
    EXPECT_EQ(config.GetIntParam("N", "Big", 3), 70000);
    EXPECT_EQ(config.GetIntParam("N", "Abc", 3), 3);
    EXPECT_EQ(config.GetIntParam("N", "Missing", 3), 3);
    EXPECT_EQ(config.GetWordParam("N", "Big", 3), 4464);
    EXPECT_EQ(config.GetWordParam("N", "Abc", 3), 3);
    EXPECT_EQ(config.GetDwordParam("N", "Neg", 3), 4294967295ul);
    EXPECT_EQ(config.GetDwordParam("N", "Empty", 3), 3ul);
    EXPECT_EQ(config.GetBoolParam("N", "True", 0), 1);
    EXPECT_EQ(config.GetBoolParam("N", "Yes", 1), 0);
    EXPECT_EQ(config.GetBoolParam("N", "Missing", 7), 7);
    EXPECT_EQ(config.GetStringParam("N", "Mixed", "d"), "12abc");
    EXPECT_EQ(config.GetStringParam("N", "Missing", "d"), "d");

    CRtConfigInitFile copy(config);
    copy = config;
    EXPECT_EQ(copy.GetIntParam("N", "Plus", 0), 5);
}

TEST_F(ConfigTest, MissingEmptyUnreadableAndBinaryFilesGiveDefaults) {
    char value[32] = "zz";
    // No conf folder at all.
    EXPECT_EQ(get_string_param("Trace", "Enable", value, sizeof(value)), 0);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(get_bool_param("Trace", "Enable", 1), 1);

    ASSERT_TRUE(Config(""));
    EXPECT_EQ(get_int_param("Trace", "FlushPerLines"), 0);

    // A folder where the file should be.
    ASSERT_EQ(::unlink((m_dir / "conf/kvtix.ini").c_str()), 0);
    ASSERT_EQ(::mkdir((m_dir / "conf/kvtix.ini").c_str(), 0755), 0);
    EXPECT_EQ(get_string_param("Trace", "Enable", value, sizeof(value)), 0);
    ASSERT_EQ(::rmdir((m_dir / "conf/kvtix.ini").c_str()), 0);

#ifndef _WIN32               // Windows has no unreadable mode
    if (::geteuid() != 0) {  // root reads whatever the mode says
        ASSERT_TRUE(Config("[Trace]\nEnable = FALSE\n"));
        ASSERT_EQ(::chmod((m_dir / "conf/kvtix.ini").c_str(), 0), 0);
        EXPECT_EQ(get_bool_param("Trace", "Enable", 1), 1);
    }
#endif

    // Binary bytes, zero bytes included, around a readable section.
    std::string binary;
    for (int i = 0; i < 4096; ++i) {
        binary += static_cast<char>((i * 131 + 7) & 0xff);
#ifdef _WIN32
        // A text-mode read on Windows ends the file at Ctrl+Z.
        if (binary.back() == '\x1a') {
            binary.back() = ' ';
        }
#endif
    }
    binary += std::string("\n[Trace]\nFlushPerLines = 4\n", 27);
    binary += std::string("\0\0\xff[\n", 5);
    ASSERT_TRUE(Config(binary));
    EXPECT_EQ(get_int_param("Trace", "FlushPerLines"), 4);
    EXPECT_EQ(get_int_param("Trace", "Missing"), 0);
}

TEST_F(ConfigTest, TheFileIsFoundBelowTheCurrentDirectoryOnly) {
    ASSERT_TRUE(Config("[Trace]\nWhere = here\n"));
    init_config("/somewhere/else");
    set_kvtix_home_env("/somewhere/else");
    init_config(std::string(600, 'p').c_str());  // too long: ignored
    set_kvtix_home_env(std::string(600, 'p').c_str());
    init_config(nullptr);
    set_kvtix_home_env(nullptr);
    EXPECT_EQ(Str("Trace", "Where"), "here");

    char cwd[PATH_MAX];
    ASSERT_NE(::getcwd(cwd, sizeof(cwd)), nullptr);
    EXPECT_STREQ(get_kvtix_home_dir(), cwd);

    TempDir other;
    ScopedCwd inOther(other.Path());
    EXPECT_EQ(Str("Trace", "Where"), "");
    EXPECT_STREQ(get_kvtix_home_dir(), other.Path().c_str());
}

TEST(ConfigPaths, WithoutACurrentDirectoryTheFileIsInTmp) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: removes the process's current directory";
#endif
    const std::string fallback = "/tmp/kvtix.ini";
    if (FileExists(fallback)) {
        GTEST_SKIP() << fallback << " belongs to someone else";
    }
    ASSERT_TRUE(WriteFile(fallback, "[KvtConfigTest]\nFallback = yes\n"));
    {
        TempDir gone;
        ScopedCwd inGone(gone.Path());
        ASSERT_EQ(::rmdir(gone.Path().c_str()), 0);
        char value[16];
        EXPECT_EQ(get_string_param("KvtConfigTest", "Fallback", value, sizeof(value)), 1);
        EXPECT_STREQ(value, "yes");
        EXPECT_STREQ(get_kvtix_home_dir(), "");
    }
    ::unlink(fallback.c_str());
}

TEST(ConfigPaths, TheExecutableIsNamedByItsPath) {
    char exe[PATH_MAX];
#ifdef _WIN32
    DWORD n = ::GetModuleFileNameA(nullptr, exe, sizeof(exe));
#else
    ssize_t n = ::readlink("/proc/self/exe", exe, sizeof(exe) - 1);
#endif
    ASSERT_GT(n, 0);
    exe[n] = '\0';
    EXPECT_STREQ(get_exec_name(), exe);
    EXPECT_EQ(get_exec_name(), get_exec_name());  // found once, same buffer
    EXPECT_EQ(get_process_name(), kProcessName);
}

TEST_F(ConfigTest, ThreadsReadingAtOnceSeeTheSameValuesAndLeaveNoDescriptor) {
    ASSERT_TRUE(Config("[Trace]\nFlushPerLines = 12\nEnable = true\n"));
    const int fds = OpenFdCount();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&wrong] {
            for (int i = 0; i < 100; ++i) {
                if (get_int_param("Trace", "FlushPerLines") != 12 ||
                    get_bool_param("Trace", "Enable", 0) != 1 ||
                    !IsAbsolute(get_kvtix_home_dir()) || get_process_name() != kProcessName) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(OpenFdCount(), fds);
}

}  // namespace
