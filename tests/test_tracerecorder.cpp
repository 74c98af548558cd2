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
    ~RecorderTest() override { EXPECT_EQ(std::string(m_guard, sizeof(m_guard)), "GGGGGGGG"); }

    std::string Text() { return std::string(static_cast<char*>(m_rec)); }
    bool ZeroFrom(unsigned long aFirst) const {
        return std::string(m_buf + aFirst, kSize - aFirst) == std::string(kSize - aFirst, '\0');
    }

    char m_buf[kSize];
    char m_guard[8];
    CRtTrace::CRtLogRecorder m_rec;
};

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

TEST_F(RecorderTest, ConstructionAndResetZeroFillTheWholeBuffer) {
    EXPECT_TRUE(ZeroFrom(0));
    m_rec << "abc" << CRtTrace::hex;
    EXPECT_EQ(Text(), "abc");
    m_rec.reset();
    EXPECT_TRUE(ZeroFrom(0));
    m_rec << 255;  // reset clears the hex flag too
    EXPECT_EQ(Text(), "255");
}

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

TEST_F(RecorderTest, SmallIntegersAndCharactersAreNumbersAndHexAppliesToTheNextOnly) {
    m_rec << 'A' << " " << static_cast<char>(-1) << " " << static_cast<unsigned char>(255) << " "
          << static_cast<short>(-300) << " " << static_cast<unsigned short>(65535) << " "
          << CRtTrace::hex << 255 << 255 << " " << CRtTrace::hex << static_cast<char>(-1) << " "
          << CRtTrace::hex << static_cast<unsigned char>(171) << " " << CRtTrace::hex << 0xABCDu;
    EXPECT_EQ(Text(), "65 -1 255 -300 65535 ff255 ffffffff ab abcd");

    // dec clears the flag; a value outside the enumeration changes nothing.
    m_rec.reset();
    m_rec << CRtTrace::hex << CRtTrace::dec << 255 << " " << CRtTrace::hex
          << static_cast<CRtTrace::Ordix>(7) << 255;
    EXPECT_EQ(Text(), "255 ff");
}

TEST_F(RecorderTest, FloatingPointNeitherReadsNorClearsTheHexFlag) {
    m_rec << CRtTrace::hex << 1.5 << 10 << " " << 2.25f << " " << -0.5 << " " << 1e300;
    const std::string text = Text();
    EXPECT_EQ(text.substr(0, 25), "1.500000a 2.250000 -0.500");
    // Then 1e300 as 301 digits, the point and 6 decimals.
    EXPECT_EQ(text.size(), 29 + 308u);
}

TEST_F(RecorderTest, StringsNullStringsAndPointers) {
    const char* none = nullptr;
    m_rec << "hello " << none << CRtString("world") << CRtString() << "!" << CRtString("ab\0cd", 5)
          << "|";  // an inner zero ends a string, as in C
    EXPECT_EQ(Text(), "hello world!ab|");

    m_rec.reset();
    m_rec << static_cast<void*>(nullptr) << " " << reinterpret_cast<void*>(0x12ab) << " "
          << reinterpret_cast<const int*>(0xDEADBEEF) << " " << reinterpret_cast<void*>(0x10)
          << 16;  // the pointer's hex does not reach the next integer
    EXPECT_EQ(Text(), "0x0 0x12ab 0xdeadbeef 0x1016");
}

TEST_F(RecorderTest, TextIsCutExactlyAt960Bytes) {
    for (int i = 0; i < 9; ++i) {
        m_rec << std::string(100, 'x').c_str();
    }
    m_rec << std::string(55, 'z') << 1234567890;  // a number is cut like a string
    EXPECT_EQ(Text(), std::string(900, 'x') + std::string(55, 'z') + "12345");

    m_rec.reset();
    m_rec << std::string(900, 'x') << std::string(100, 'y');  // straddles the limit
    EXPECT_EQ(Text(), std::string(900, 'x') + std::string(60, 'y'));
    // Once full, nothing more is appended, of any kind.
    m_rec << "more" << 12345 << 1.5 << reinterpret_cast<void*>(0x1) << CRtString("s");
    EXPECT_EQ(Text().size(), 960u);
    EXPECT_TRUE(ZeroFrom(960));
}

TEST(Recorder, SmallBufferKeepsTheReserveAndCopiesShareTheBuffer) {
    char buf[100];
    std::memset(buf, 'G', sizeof(buf));
    CRtTrace::CRtLogRecorder rec(buf, 80);
    rec << std::string(200, 'q') << 42;
    EXPECT_EQ(std::string(static_cast<char*>(rec)), std::string(16, 'q'));
    EXPECT_EQ(buf[80], 'G');
    CRtTrace::CRtLogRecorder tiny(buf, 64);  // exactly the reserve: nothing fits
    tiny << "abc" << 1;
    EXPECT_EQ(buf[0], 0);

    char big[RTTRACE_MAX_TRACE_LEN];
    CRtTrace::CRtLogRecorder first(big, sizeof(big));
    first << "ab";
    CRtTrace::CRtLogRecorder copy(first);
    copy << "cd";  // continues at the copied position
    EXPECT_EQ(static_cast<char*>(copy), static_cast<char*>(first));
    EXPECT_STREQ(big, "abcd");
    CRtTrace::CRtLogRecorder other(buf, sizeof(buf));
    other = first;  // position 2 again: overwrites "cd"
    other << "XY";
    EXPECT_STREQ(big, "abXY");
}
