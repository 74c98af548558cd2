// The configuration reader: where the file is, its syntax, the numeric and
// boolean readers, CRtConfigInitFile, and bad files.
#include <gtest/gtest.h>

#include <limits.h>
#include <sys/stat.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "config_test_env.h"
#include "rtconfig.h"
#include "rterror.h"

namespace {

// get_process_name cuts at '/', which a Windows path does not have.
#ifdef _WIN32
const std::string kProcessName = get_exec_name();
#else
const std::string kProcessName = "test_config";
#endif

// Each test reads a conf/kvtix.ini of its own, below a working directory of its own.
class ConfigTest : public ::testing::Test {
protected:
    ConfigTest() : m_cwd(m_dir.Path()) {}
    void SetUp() override { ASSERT_TRUE(m_cwd.Ok()); }

    bool Config(const std::string& aText) { return WriteConfig(m_dir.Path(), aText); }

    TempDir m_dir;
    ScopedCwd m_cwd;
};

TEST_F(ConfigTest, SyntaxRules) {
    ASSERT_TRUE(
        Config("# comment\nOrphan = 1\n[Trace]\n  # Enable = FALSE\nEnable = TRUE\n"
               "\tFlushPerLines\t=\t10 \r\nno equals sign here\n\nEmpty =\n"
               "Spaced Key = a  value  \nFlushPerLines = 99\n[  other\t]\nfLuShPeRlInEs = 7\n"
               "[Q]\nSingle = 'TRUE'\nDouble = \"  spaced  \"\nOpening = 'TRUE\nMixed = 'TRUE\"\n"
               "Lone = \"\nPair = \"\"\nSemi = 20;\nTwo = a;;\n[Trace]\nLate = 1\n"
               "[H]\nA = 1\nkey=[x]\nB = 2\njunk [x] junk\nC = 3\n[J]\nA = 1\n] odd [\nB = 2\n"
               "[L]\nLong = " +
               std::string(4993, 'x') + "\n#" + std::string(2046, 'c') + "Hidden = 7\n" +
               std::string(2047, ' ') + "[Next]\nAfter = 1\n"));
    // Lines are read in pieces of 2047 characters, each piece a line of its
    // own; '[' and ']' anywhere make a header. Per section, "key=value" as
    // read, where an empty value means nothing is found.
    const struct {
        const char* section;
        std::vector<std::string> keys;
    } kSections[] = {
        {"Trace",
         {"Enable=TRUE", "FlushPerLines=10", "Spaced Key=a  value",
          "Empty=", "Missing=", "Orphan=", "Late="}},
        {"", {"Orphan="}},
        {"Nowhere", {"Enable="}},
        {"OTHER", {"FlushPerLines=7"}},
        {"Q",
         {"Single=TRUE", "Double=spaced", "Opening='TRUE", "Mixed='TRUE\"", "Lone=\"",
          "Pair=", "Semi=20", "Two=a;"}},
        {"H", {"A=1", "B="}},
        {"x", {"B=2", "C="}},
        {"J", {"B="}},
        {"L", {"Hidden=7", "Long=" + std::string(2047 - 7, 'x')}},
        {"Next", {"After=1"}},
    };
    for (const auto& section : kSections) {
        for (const std::string& entry : section.keys) {
            const std::string key = entry.substr(0, entry.find('='));
            const std::string expected = entry.substr(key.size() + 1);
            std::vector<char> value(8192, 'z');
            EXPECT_EQ(get_string_param(section.section, key.c_str(), value.data(), value.size()),
                      expected.empty() ? 0 : 1)
                << section.section << "/" << entry;
            EXPECT_EQ(value.data(), expected) << section.section << "/" << entry;
        }
    }
    // A lone ';' is found, as an empty value.
    ASSERT_TRUE(Config("[S]\nLone = ;\n"));
    char value[8] = "zz";
    EXPECT_EQ(get_string_param("S", "Lone", value, sizeof(value)), 1);
    EXPECT_STREQ(value, "");
}

TEST_F(ConfigTest, ValuesAreCutToTheCallersBuffer) {
    ASSERT_TRUE(Config("[Trace]\nLong = " + std::string(300, 'v') + "\nShort = abc\n"));
    std::vector<char> value(300, 'z');
    EXPECT_EQ(get_string_param("Trace", "Long", value.data(), 256), 1);
    EXPECT_EQ(value.data(), std::string(255, 'v'));
    EXPECT_EQ(CRtConfigInitFile().GetStringParam("Trace", "Long", ""), std::string(255, 'v'));
    EXPECT_EQ(get_string_param("Trace", "Short", value.data(), 1), 0);  // the terminator only
    EXPECT_STREQ(value.data(), "");
    EXPECT_EQ(get_string_param("Trace", "Short", value.data(), 0), 0);
    EXPECT_EQ(get_string_param("Trace", "Short", nullptr, 16), 0);
    EXPECT_EQ(get_string_param(nullptr, "Short", value.data(), 16), 0);
    EXPECT_EQ(get_string_param("Trace", nullptr, value.data(), 16), 0);
}

TEST_F(ConfigTest, NumbersReadAsScanfWouldAndNonNumbersGiveDefaults) {
    ASSERT_TRUE(
        Config("[N]\nBig = 70000\nNeg = -1\nMax = 4294967295\nAbc = abc\nMixed = 12abc\n"
               "Plus = +5\nLone = ;\nEmpty =\nHuge = 99999999999999999999999\n"
               "True = tRuE\nOne = 1\nYes = yes\nQuoted = 'TRUE'\nOpening = 'TRUE\n"));
    const long long kAny = LLONG_MIN;  // differs between 32- and 64-bit long
    const struct {
        const char* key;
        long long asInt, asUint16, asUint32;  // get_*_param; GetXxxParam with default 3 alike
    } kNumbers[] = {{"Big", 70000, 4464, 70000},
                    {"Neg", -1, 65535, 4294967295},
                    {"Max", kAny, kAny, 4294967295},
                    {"Abc", 0, 0, 0},
                    {"Mixed", 12, 12, 12},
                    {"Plus", 5, 5, 5},
                    {"Lone", 0, 0, 0},
                    {"Empty", 0, 0, 0},
                    {"Missing", 0, 0, 0}};
    CRtConfigInitFile config;
    EXPECT_EQ(config.InitWithFileName("elsewhere.ini"), RT_OK);
    for (const auto& n : kNumbers) {
        SCOPED_TRACE(n.key);
        const bool number = n.asUint32 != 0;  // else the class reader gives its default
        if (n.asInt != kAny) {
            EXPECT_EQ(get_int_param("N", n.key), n.asInt);
            EXPECT_EQ(config.GetIntParam("N", n.key, 3), number ? n.asInt : 3);
            EXPECT_EQ(get_uint16_param("N", n.key), n.asUint16);
            EXPECT_EQ(config.GetWordParam("N", n.key, 3), number ? n.asUint16 : 3);
        }
        EXPECT_EQ(get_uint32_param("N", n.key), static_cast<unsigned long>(n.asUint32));
        EXPECT_EQ(config.GetDwordParam("N", n.key, 3),
                  number ? static_cast<unsigned long>(n.asUint32) : 3ul);
    }
    get_int_param("N", "Huge");  // any number, but no overflow trap

    const struct {
        const char* key;
        int fallback, expected;
    } kBools[] = {{"True", 0, 1},    {"Quoted", 0, 1},  {"One", 1, 0},
                  {"Yes", 1, 0},     {"Opening", 1, 0}, {"Empty", 1, 1},
                  {"Missing", 1, 1}, {"Missing", 0, 0}, {"Missing", 7, 7}};
    for (const auto& b : kBools) {
        EXPECT_EQ(get_bool_param("N", b.key, static_cast<unsigned char>(b.fallback)), b.expected)
            << b.key;
        EXPECT_EQ(config.GetBoolParam("N", b.key, b.fallback), b.expected) << b.key;
    }
    EXPECT_EQ(config.GetStringParam("N", "Mixed", "d"), "12abc");
    EXPECT_EQ(config.GetStringParam("N", "Missing", "d"), "d");
    EXPECT_EQ(config.GetStringParam("N", "Lone", "d"), "d");
    CRtConfigInitFile copy(config);
    copy = config;
    EXPECT_EQ(copy.GetIntParam("N", "Plus", 0), 5);
}

TEST_F(ConfigTest, MissingEmptyUnreadableAndBinaryFilesGiveDefaults) {
    char value[32] = "zz";
    EXPECT_EQ(get_string_param("Trace", "Enable", value, sizeof(value)), 0);  // no conf folder
    EXPECT_STREQ(value, "");
    EXPECT_EQ(get_bool_param("Trace", "Enable", 1), 1);
    ASSERT_TRUE(Config(""));
    EXPECT_EQ(get_int_param("Trace", "FlushPerLines"), 0);

    // A folder where the file should be.
    const std::string file = m_dir / "conf/kvtix.ini";
    ASSERT_TRUE(fs::remove(file) && fs::create_directory(file));
    EXPECT_EQ(get_string_param("Trace", "Enable", value, sizeof(value)), 0);
    ASSERT_TRUE(fs::remove(file));
#ifndef _WIN32               // Windows has no unreadable mode
    if (::geteuid() != 0) {  // root reads whatever the mode says
        ASSERT_TRUE(Config("[Trace]\nEnable = FALSE\n"));
        ASSERT_EQ(::chmod(file.c_str(), 0), 0);
        EXPECT_EQ(get_bool_param("Trace", "Enable", 1), 1);
    }
#endif

    // Binary bytes, zero bytes included, around a readable section.
    std::string binary;
    for (int i = 0; i < 4096; ++i) {  // no Ctrl+Z: a text-mode read on Windows ends there
        const char c = static_cast<char>((i * 131 + 7) & 0xff);
        binary += c == '\x1a' ? ' ' : c;
    }
    binary += std::string("\n[Trace]\nFlushPerLines = 4\n", 27) + std::string("\0\0\xff[\n", 5);
    ASSERT_TRUE(Config(binary));
    EXPECT_EQ(get_int_param("Trace", "FlushPerLines"), 4);
    EXPECT_EQ(get_int_param("Trace", "Missing"), 0);
}

TEST_F(ConfigTest, TheFileIsFoundBelowTheCurrentDirectoryOnly) {
    ASSERT_TRUE(Config("[Trace]\nWhere = here\n"));
    const std::string tooLong(600, 'p');  // ignored
    for (const char* home :
         {"/somewhere/else", tooLong.c_str(), static_cast<const char*>(nullptr)}) {
        init_config(home);
        set_kvtix_home_env(home);
    }
    char value[16];
    EXPECT_EQ(get_string_param("Trace", "Where", value, sizeof(value)), 1);
    EXPECT_STREQ(get_kvtix_home_dir(), fs::current_path().string().c_str());

    TempDir other;
    ScopedCwd inOther(other.Path());
    EXPECT_EQ(get_string_param("Trace", "Where", value, sizeof(value)), 0);
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
        ASSERT_TRUE(fs::remove(gone.Path()));
        char value[16];
        EXPECT_EQ(get_string_param("KvtConfigTest", "Fallback", value, sizeof(value)), 1);
        EXPECT_STREQ(value, "yes");
        EXPECT_STREQ(get_kvtix_home_dir(), "");
    }
    fs::remove(fallback);
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
                    !fs::path(get_kvtix_home_dir()).is_absolute() ||
                    get_process_name() != kProcessName) {
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
