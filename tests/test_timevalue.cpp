// CRtTimeValue: normalisation, arithmetic, comparisons and the clocks.
#include <gtest/gtest.h>

#include <chrono>
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

// The constants and the normalising constructor work at compile time, which is
// what lets s_tvZero and s_tvMax be ready before any user code runs.
static_assert(CRtTimeValue(1L, -1L).GetUsec() == 999999, "normalises at compile time");
static_assert(CRtTimeValue(0L, 999999L) + CRtTimeValue(0L, 1L) == CRtTimeValue(1L, 0L),
              "adds at compile time");
static_assert(sizeof(CRtTimeValue) == 8, "two 32-bit fields, no virtual table");

}  // namespace

TEST(TimeValue, NormalisationGivesBothPartsOneSign) {
    const long kCases[][4] = {
        // sec, usec in; sec, usec out
        {1, -1, 0, 999999},
        {-1, 1, 0, -999999},
        {0, -5, 0, -5},
        {0, 5, 0, 5},
        {2, 2500000, 4, 500000},
        {-2, -2500000, -4, -500000},
        {0, 1000000, 1, 0},
        {0, -1000000, -1, 0},
        {3, -3500000, 0, -500000},
        {-3, 3500000, 0, 500000},
        {5, -999999, 4, 1},
        {-5, 999999, -4, -1},
    };
    for (const auto& c : kCases) {
        EXPECT_TRUE(Is(CRtTimeValue(c[0], c[1]), c[2], c[3]));
    }
}

TEST(TimeValue, EveryConstructorAndSetterNormalises) {
    EXPECT_TRUE(Is(CRtTimeValue(), 0, 0));
    EXPECT_TRUE(Is(CRtTimeValue(7L), 7, 0));
    EXPECT_TRUE(Is(CRtTimeValue(-7L), -7, 0));

    timeval tv;
    tv.tv_sec = 1;
    tv.tv_usec = 1500000;
    EXPECT_TRUE(Is(CRtTimeValue(tv), 2, 500000));

    EXPECT_TRUE(Is(CRtTimeValue(1.5), 1, 500000));
    EXPECT_TRUE(Is(CRtTimeValue(-1.5), -1, -500000));
    EXPECT_TRUE(Is(CRtTimeValue(0.25), 0, 250000));
    EXPECT_TRUE(Is(CRtTimeValue(-0.25), 0, -250000));

    CRtTimeValue v;
    v.Set(1L, -2000001L);
    EXPECT_TRUE(Is(v, -1, -1));
    v.Set(tv);
    EXPECT_TRUE(Is(v, 2, 500000));
    v.Set(2.75);
    EXPECT_TRUE(Is(v, 2, 750000));
}

TEST(TimeValue, DoublesOutsideTheRangeSaturateInsteadOfMisbehaving) {
    EXPECT_TRUE(CRtTimeValue(1e30) == CRtTimeValue::s_tvMax);
    EXPECT_EQ(CRtTimeValue(-1e30).GetSec(), INT32_MIN);
    EXPECT_TRUE(Is(CRtTimeValue(std::numeric_limits<double>::quiet_NaN()), 0, 0));
    EXPECT_TRUE(Is(CRtTimeValue(2147483647.5), 2147483647, 500000));
}

TEST(TimeValue, SetByTotalMsecTruncatesTowardZero) {
    CRtTimeValue v(9L, 9L);
    v.SetByTotalMsec(999);
    EXPECT_TRUE(Is(v, 0, 999000));
    v.SetByTotalMsec(-1);
    EXPECT_TRUE(Is(v, 0, -1000));
    v.SetByTotalMsec(-1500);
    EXPECT_TRUE(Is(v, -1, -500000));
    v.SetByTotalMsec(2001);
    EXPECT_TRUE(Is(v, 2, 1000));
    v.SetByTotalMsec(0);
    EXPECT_TRUE(Is(v, 0, 0));
}

TEST(TimeValue, GetTotalInMsecTruncatesMicroseconds) {
    EXPECT_EQ(CRtTimeValue(1L, 999999L).GetTotalInMsec(), 1999);
    EXPECT_EQ(CRtTimeValue(0L, -999999L).GetTotalInMsec(), -999);
    EXPECT_EQ(CRtTimeValue(2L, 1999L).GetTotalInMsec(), 2001);
    EXPECT_EQ(CRtTimeValue(-2L, -1999L).GetTotalInMsec(), -2001);
    EXPECT_EQ(CRtTimeValue(0L, 999L).GetTotalInMsec(), 0);
    // Needs more than 32 bits: the seconds are widened before the product.
    EXPECT_EQ(CRtTimeValue::s_tvMax.GetTotalInMsec(), 2147483647999LL);
    for (long ms : {0L, 1L, -1L, 999L, -999L, 1000L, -1000L, 123456789L, -123456789L}) {
        CRtTimeValue v;
        v.SetByTotalMsec(ms);
        EXPECT_EQ(v.GetTotalInMsec(), ms);
    }
}

TEST(TimeValue, ArithmeticCarriesAcrossTheSecond) {
    EXPECT_TRUE(Is(CRtTimeValue(0L, 999999L) + CRtTimeValue(0L, 1L), 1, 0));
    EXPECT_TRUE(Is(CRtTimeValue(1L, 0L) - CRtTimeValue(0L, 1L), 0, 999999));
    EXPECT_TRUE(Is(CRtTimeValue(0L, 0L) - CRtTimeValue(1L, 500000L), -1, -500000));
    EXPECT_TRUE(Is(CRtTimeValue(1L, 600000L) + CRtTimeValue(1L, 600000L), 3, 200000));
    EXPECT_TRUE(Is(CRtTimeValue(-1L, -600000L) + CRtTimeValue(-1L, -600000L), -3, -200000));
    EXPECT_TRUE(Is(CRtTimeValue(1L, 0L) + CRtTimeValue(-2L, -500000L), -1, -500000));

    CRtTimeValue v(10L, 0L);
    v += CRtTimeValue(0L, 750000L);
    EXPECT_TRUE(Is(v, 10, 750000));
    v += CRtTimeValue(0L, 750000L);
    EXPECT_TRUE(Is(v, 11, 500000));
    v -= CRtTimeValue(12L, 0L);
    EXPECT_TRUE(Is(v, 0, -500000));
    v -= CRtTimeValue(0L, -500000L);
    EXPECT_TRUE(Is(v, 0, 0));
    EXPECT_TRUE(v == CRtTimeValue::s_tvZero);

    // A difference added back gives the original value.
    CRtTimeValue a(5L, 123456L), b(7L, 654321L);
    EXPECT_TRUE((a - b) + b == a);
    EXPECT_TRUE((b - a) + a == b);
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
            EXPECT_EQ(a < b, i < j ? 1 : 0) << i << " < " << j;
            EXPECT_EQ(a > b, i > j ? 1 : 0) << i << " > " << j;
            EXPECT_EQ(a <= b, i <= j ? 1 : 0) << i << " <= " << j;
            EXPECT_EQ(a >= b, i >= j ? 1 : 0) << i << " >= " << j;
            EXPECT_EQ(a == b, i == j ? 1 : 0) << i << " == " << j;
            EXPECT_EQ(a != b, i != j ? 1 : 0) << i << " != " << j;
        }
    }
}

TEST(TimeValue, ClassConstants) {
    EXPECT_TRUE(Is(CRtTimeValue::s_tvZero, 0, 0));
    EXPECT_TRUE(CRtTimeValue::s_tvZero == CRtTimeValue());
    EXPECT_TRUE(Is(CRtTimeValue::s_tvMax, 0x7FFFFFFFL, 999999));
    EXPECT_TRUE(CRtTimeValue::s_tvMax > CRtTimeValue(0x7FFFFFFFL, 999998L));
    EXPECT_TRUE(CRtTimeValue::s_tvMax > CRtTimeValue::GetTimeOfDay());
    EXPECT_FALSE(CRtTimeValue::s_tvMax > CRtTimeValue::s_tvMax);
}

TEST(TimeValue, TickCountStaysBelowTwoToThe32AndAdvances) {
    const uint64_t first = GetTickCountEx();
    EXPECT_LT(first, 1ULL << 32);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const uint64_t second = GetTickCountEx();
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
    EXPECT_LE(now.GetUsec(), 999999);

    // Successive readings never go back by more than a clock adjustment could.
    CRtTimeValue prev = now;
    for (int i = 0; i < 1000; ++i) {
        CRtTimeValue next = CRtTimeValue::GetTimeOfDay();
        EXPECT_TRUE(next >= prev - CRtTimeValue(1L, 0L));
        prev = next;
    }
}
