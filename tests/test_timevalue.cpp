#include <gtest/gtest.h>

#include "rttimevalue.h"

TEST(TimeValue, Placeholder) {
    EXPECT_EQ(CRtTimeValue(1L, -1L).GetUsec(), 999999);
}
