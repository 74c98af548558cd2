// CRtTimeValue: normalisation, arithmetic, comparisons and the clocks.
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <thread>

#include "rttimevalue.h"

namespace {

::testing::AssertionResult Is(const CRtTimeValue& aValue, long aSec, long aUsec) {
    if (aValue.GetSec() == aSec && aValue.GetUsec() == aUsec) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "got (" << aValue.GetSec() << " s, " << aValue.GetUsec()
                                         << " us), want (" << aSec << " s, " << aUsec << " us)";
}

// The normalising constructor works at compile time, which is what lets
// s_tvZero and s_tvMax be ready before any user code runs.
static_assert(CRtTimeValue(1L, -1L).GetUsec() == 999999, "normalises at compile time");
static_assert(sizeof(CRtTimeValue) == 8, "two 32-bit fields, no virtual table");

}  // namespace

TEST(TimeValue, NormalisationGivesBothPartsOneSign) {
    const long kCases[][4] = {
        // sec, usec in; sec, usec out
        {1, -1, 0, 999999},      {-1, 1, 0, -999999},         {0, -5, 0, -5},
        {2, 2500000, 4, 500000}, {-2, -2500000, -4, -500000}, {0, 1000000, 1, 0},
        {0, -1000000, -1, 0},    {3, -3500000, 0, -500000},   {-3, 3500000, 0, 500000},
        {5, -999999, 4, 1},      {-5, 999999, -4, -1},
    };
    for (const auto& c : kCases) {
        EXPECT_TRUE(Is(CRtTimeValue(c[0], c[1]), c[2], c[3]));
    }
    timeval tv;
    tv.tv_sec = 1;
    tv.tv_usec = 1500000;
    EXPECT_TRUE(Is(CRtTimeValue(tv), 2, 500000));
}

TEST(TimeValue, DoublesConvertAndSaturateOutsideTheRange) {
    const struct {
        double in;
        long sec, usec;
    } kCases[] = {
        {1.5, 1, 500000},
        {-1.5, -1, -500000},
        {-0.25, 0, -250000},
        {std::numeric_limits<double>::quiet_NaN(), 0, 0},
        {2147483647.5, 2147483647, 500000},
        {1e30, 2147483647, 999999},
    };
    for (const auto& c : kCases) {
        EXPECT_TRUE(Is(CRtTimeValue(c.in), c.sec, c.usec)) << c.in;
    }
    EXPECT_EQ(CRtTimeValue(-1e30).GetSec(), INT32_MIN);
}

TEST(TimeValue, MillisecondsTruncateTowardZeroAndRoundTrip) {
    const struct {
        long ms, sec, usec;
    } kCases[] = {
        {999, 0, 999000},
        {-1, 0, -1000},
        {-1500, -1, -500000},
        {2001, 2, 1000},
        {0, 0, 0},
        {123456789, 123456, 789000},
        {-123456789, -123456, -789000},
    };
    for (const auto& c : kCases) {
        CRtTimeValue v(9L, 9L);
        v.SetByTotalMsec(c.ms);
        EXPECT_TRUE(Is(v, c.sec, c.usec));
        EXPECT_EQ(v.GetTotalInMsec(), c.ms);
    }
    EXPECT_EQ(CRtTimeValue(1L, 999999L).GetTotalInMsec(), 1999);
    EXPECT_EQ(CRtTimeValue(-2L, -1999L).GetTotalInMsec(), -2001);
    // Needs more than 32 bits: the seconds are widened before the product.
    EXPECT_EQ(CRtTimeValue::s_tvMax.GetTotalInMsec(), 2147483647999LL);
}

TEST(TimeValue, ArithmeticCarriesAcrossTheSecondInBothSigns) {
    const struct {
        long aSec, aUsec, bSec, bUsec;
        long sumSec, sumUsec, diffSec, diffUsec;
    } kCases[] = {
        {0, 999999, 0, 1, 1, 0, 0, 999998},
        {1, 0, 0, 1, 1, 1, 0, 999999},
        {0, 0, 1, 500000, 1, 500000, -1, -500000},
        {1, 600000, 1, 600000, 3, 200000, 0, 0},
        {-1, -600000, -1, -600000, -3, -200000, 0, 0},
        {1, 0, -2, -500000, -1, -500000, 3, 500000},
        {11, 500000, 12, 0, 23, 500000, 0, -500000},
    };
    for (const auto& c : kCases) {
        const CRtTimeValue a(c.aSec, c.aUsec), b(c.bSec, c.bUsec);
        EXPECT_TRUE(Is(a + b, c.sumSec, c.sumUsec));
        EXPECT_TRUE(Is(a - b, c.diffSec, c.diffUsec));
        CRtTimeValue v = a;
        v += b;
        EXPECT_TRUE(Is(v, c.sumSec, c.sumUsec));
        v -= b;
        EXPECT_TRUE(v == a);
        v -= b;
        EXPECT_TRUE(Is(v, c.diffSec, c.diffUsec));
    }
}

TEST(TimeValue, ComparisonsOrderSecondsThenMicroseconds) {
    // Signed fields: negative values order below zero, seconds first.
    const CRtTimeValue ordered[] = {CRtTimeValue(-2L, -1L),     CRtTimeValue(-2L, 0L),
                                    CRtTimeValue(0L, -999999L), CRtTimeValue(0L, -1L),
                                    CRtTimeValue::s_tvZero,     CRtTimeValue(0L, 1L),
                                    CRtTimeValue(0L, 999999L),  CRtTimeValue(1L, 0L),
                                    CRtTimeValue(1L, 1L),       CRtTimeValue::s_tvMax};
    const size_t n = sizeof(ordered) / sizeof(ordered[0]);
    for (size_t i = 0; i < n; ++i) {
        for (size_t j = 0; j < n; ++j) {
            const CRtTimeValue &a = ordered[i], &b = ordered[j];
            SCOPED_TRACE(::testing::Message() << i << " vs " << j);
            EXPECT_EQ(a < b, i < j ? 1 : 0);
            EXPECT_EQ(a > b, i > j ? 1 : 0);
            EXPECT_EQ(a <= b, i <= j ? 1 : 0);
            EXPECT_EQ(a >= b, i >= j ? 1 : 0);
            EXPECT_EQ(a == b, i == j ? 1 : 0);
            EXPECT_EQ(a != b, i != j ? 1 : 0);
        }
    }
}

TEST(TimeValue, TickCountStaysBelowTwoToThe32AndAdvances) {
    const uint64_t first = GetTickCountEx();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const uint64_t second = GetTickCountEx();
    EXPECT_LT(first, 1ULL << 32);
    EXPECT_LT(second, 1ULL << 32);
    // Differences are taken modulo 2^32: the count may wrap in between.
    const uint32_t elapsed = static_cast<uint32_t>(second - first);
    EXPECT_GE(elapsed, 40u);
    EXPECT_LT(elapsed, 60000u);
}

TEST(TimeValue, TimeOfDayFollowsTheSystemClock) {
    using namespace std::chrono;
    const CRtTimeValue now = CRtTimeValue::GetTimeOfDay();
    const int64_t systemUs =
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    const int64_t ourUs = static_cast<int64_t>(now.GetSec()) * 1000000 + now.GetUsec();
    EXPECT_LT(std::llabs(systemUs - ourUs), 2000000);
    EXPECT_GE(now.GetUsec(), 0);
}
