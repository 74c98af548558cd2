// CRtTrace::CRtLogRecorder: the text of every insertion, the cut before the
// 64-byte reserve, the hex flag and the pointer form.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "rttrace.h"

namespace {

// A recorder over a guarded 1024-byte buffer: the bytes after the buffer must
// never be touched.
class RecorderTest : public ::testing::Test {
protected:
    static const unsigned long kSize = RTTRACE_MAX_TRACE_LEN;

    RecorderTest() : m_rec(m_buf, kSize) { std::memset(m_guard, 'G', sizeof(m_guard)); }
    ~RecorderTest() override {
        for (char c : m_guard) {
            EXPECT_EQ(c, 'G');
        }
    }

    std::string Text() { return std::string(static_cast<char*>(m_rec)); }

    char m_buf[kSize];
    char m_guard[16];
    CRtTrace::CRtLogRecorder m_rec;
};

}  // namespace

TEST_F(RecorderTest, ConstructionAndResetZeroFillTheWholeBuffer) {
    for (char c : m_buf) {
        ASSERT_EQ(c, 0);
    }
    m_rec << "abc" << CRtTrace::hex;
    EXPECT_EQ(Text(), "abc");
    m_rec.reset();
    EXPECT_EQ(Text(), "");
    for (char c : m_buf) {
        ASSERT_EQ(c, 0);
    }
    m_rec << 255;  // reset clears the hex flag too
    EXPECT_EQ(Text(), "255");
}

TEST_F(RecorderTest, IntegersInDecimal) {
    m_rec << 0 << " " << -42 << " " << 42u << " " << -7L << " " << 4000000000UL << " "
          << static_cast<long long>(-9000000000LL) << " " << 18446744073709551615ULL;
    EXPECT_EQ(Text(), "0 -42 42 -7 4000000000 -9000000000 18446744073709551615");
}

namespace {

// The recorder's text of aValue, in decimal or hex, against printf's.
template <class T>
void ExpectLikePrintf(T aValue, const char* aDec, const char* aHex) {
    char expected[64], buf[RTTRACE_MAX_TRACE_LEN];
    CRtTrace::CRtLogRecorder rec(buf, sizeof(buf));
    rec << aValue;
    ::snprintf(expected, sizeof(expected), aDec, aValue);
    EXPECT_STREQ(static_cast<char*>(rec), expected);
    rec.reset();
    rec << CRtTrace::hex << aValue;
    ::snprintf(expected, sizeof(expected), aHex, aValue);
    EXPECT_STREQ(static_cast<char*>(rec), expected);
}

}  // namespace

TEST(Recorder, IntegersMatchPrintfAcrossTheirRange) {
    for (int v : {0, 1, -1, 9, 10, -10, 255, 4096, INT_MAX, INT_MIN, 123456789}) {
        ExpectLikePrintf(v, "%d", "%x");
    }
    for (unsigned v : {0u, 1u, 15u, 16u, UINT_MAX, 3000000000u}) {
        ExpectLikePrintf(v, "%u", "%x");
    }
    // long is 32 bits on Windows: the large value is cut to fit there.
    for (long v : {0L, -1L, LONG_MAX, LONG_MIN, static_cast<long>(1234567890123LL)}) {
        ExpectLikePrintf(v, "%ld", "%lx");
    }
    for (unsigned long v : {0UL, ULONG_MAX, static_cast<unsigned long>(0xFEDCBA9876543210ULL)}) {
        ExpectLikePrintf(v, "%lu", "%lx");
    }
    for (long long v : {0LL, -1LL, LLONG_MAX, LLONG_MIN, -9000000000LL}) {
        ExpectLikePrintf(v, "%lld", "%llx");
    }
    for (unsigned long long v : {0ULL, ULLONG_MAX, 10000000000000000000ULL}) {
        ExpectLikePrintf(v, "%llu", "%llx");
    }
}

TEST_F(RecorderTest, SmallIntegersAndCharactersAreWrittenAsNumbers) {
    m_rec << 'A' << " " << static_cast<char>(-1) << " " << static_cast<unsigned char>(255) << " "
          << static_cast<short>(-300) << " " << static_cast<unsigned short>(65535);
    EXPECT_EQ(Text(), "65 -1 255 -300 65535");
}

TEST_F(RecorderTest, HexAppliesToTheNextIntegerOnly) {
    m_rec << CRtTrace::hex << 255 << 255;
    EXPECT_EQ(Text(), "ff255");

    m_rec.reset();
    m_rec << CRtTrace::hex << -1 << " " << CRtTrace::hex << static_cast<char>(-1) << " "
          << CRtTrace::hex << static_cast<unsigned char>(171) << " " << CRtTrace::hex << 0xABCDu
          << " " << CRtTrace::hex << -1L << " " << CRtTrace::hex << 0x12ABUL << " " << CRtTrace::hex
          << static_cast<long long>(-2);
    const std::string minusOneLong(2 * sizeof(long), 'f');  // 32 bits on Windows
    EXPECT_EQ(Text(), "ffffffff ffffffff ab abcd " + minusOneLong + " 12ab fffffffffffffffe");

    // dec clears the flag; a value outside the enumeration changes nothing.
    m_rec.reset();
    m_rec << CRtTrace::hex << CRtTrace::dec << 255 << " " << CRtTrace::hex
          << static_cast<CRtTrace::Ordix>(7) << 255;
    EXPECT_EQ(Text(), "255 ff");
}

TEST_F(RecorderTest, FloatingPointNeitherReadsNorClearsTheHexFlag) {
    m_rec << CRtTrace::hex << 1.5 << 10;
    EXPECT_EQ(Text(), "1.500000a");

    m_rec.reset();
    m_rec << 2.25f << " " << -0.5 << " " << 1e300;
    const std::string text = Text();
    EXPECT_EQ(text.substr(0, 15), "2.250000 -0.500");
    // "2.250000 -0.500000 " then 1e300 as 301 digits, the point and 6 decimals.
    EXPECT_EQ(text.size(), 19 + 308u);
}

TEST_F(RecorderTest, StringsAndNullStrings) {
    const char* none = nullptr;
    CRtString s("world");
    m_rec << "hello " << none << s << CRtString() << "!";
    EXPECT_EQ(Text(), "hello world!");

    // A byte string with an inner zero stops there, as a C string would.
    m_rec.reset();
    m_rec << CRtString("ab\0cd", 5) << "|";
    EXPECT_EQ(Text(), "ab|");
}

TEST_F(RecorderTest, PointersAreZeroXAndLowercaseHex) {
    m_rec << static_cast<void*>(nullptr) << " " << reinterpret_cast<void*>(0x12ab) << " "
          << reinterpret_cast<const int*>(0xDEADBEEF);
    EXPECT_EQ(Text(), "0x0 0x12ab 0xdeadbeef");

    // The pointer's hex does not leak into the next integer.
    m_rec.reset();
    m_rec << reinterpret_cast<void*>(0x10) << 16;
    EXPECT_EQ(Text(), "0x1016");
}

TEST_F(RecorderTest, TextIsCutExactlyAt960Bytes) {
    const std::string chunk(100, 'x');
    for (int i = 0; i < 9; ++i) {
        m_rec << chunk.c_str();
    }
    EXPECT_EQ(Text().size(), 900u);

    // A string that straddles the limit loses its tail.
    m_rec << std::string(100, 'y');
    std::string text = Text();
    ASSERT_EQ(text.size(), 960u);
    EXPECT_EQ(text.substr(900), std::string(60, 'y'));

    // Once full, nothing more is appended, of any kind.
    m_rec << "more" << 12345 << 1.5 << reinterpret_cast<void*>(0x1) << CRtString("s");
    EXPECT_EQ(Text().size(), 960u);
    for (unsigned long i = 960; i < kSize; ++i) {
        ASSERT_EQ(m_buf[i], 0) << "byte " << i;
    }
}

TEST_F(RecorderTest, NumbersAreCutLikeStrings) {
    m_rec << std::string(955, 'z');
    m_rec << 1234567890;
    EXPECT_EQ(Text().substr(955), "12345");
    EXPECT_EQ(Text().size(), 960u);
}

TEST(Recorder, SmallBufferKeepsTheReserve) {
    char buf[100];
    std::memset(buf, 'G', sizeof(buf));
    CRtTrace::CRtLogRecorder rec(buf, 80);
    rec << std::string(200, 'q') << 42;
    EXPECT_EQ(std::string(static_cast<char*>(rec)), std::string(16, 'q'));
    EXPECT_EQ(buf[80], 'G');

    // Exactly the reserve: nothing fits, nothing breaks.
    CRtTrace::CRtLogRecorder tiny(buf, 64);
    tiny << "abc" << 1;
    EXPECT_EQ(buf[0], 0);
}

TEST(Recorder, CopiesShareTheBuffer) {
    char buf[RTTRACE_MAX_TRACE_LEN];
    CRtTrace::CRtLogRecorder rec(buf, sizeof(buf));
    rec << "ab";
    CRtTrace::CRtLogRecorder copy(rec);
    copy << "cd";  // continues at the copied position
    EXPECT_STREQ(static_cast<char*>(copy), "abcd");
    EXPECT_EQ(static_cast<char*>(copy), static_cast<char*>(rec));

    char otherBuf[RTTRACE_MAX_TRACE_LEN];
    CRtTrace::CRtLogRecorder other(otherBuf, sizeof(otherBuf));
    other = rec;  // position 2 again: overwrites "cd"
    other << "XY";
    EXPECT_STREQ(buf, "abXY");
}
