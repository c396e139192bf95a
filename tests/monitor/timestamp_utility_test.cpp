#include "tavrin/monitor/timestamp_utility.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tavrin/platform/clock.h"

namespace tavrin {
namespace {

using platform::Clock;

class TimestampUtilityTest : public ::testing::Test {
protected:
    void TearDown() override { Clock::reset(); }
};

TEST_F(TimestampUtilityTest, MillisecondsTruncatedTowardZero) {
    Clock::setFixed(1700000000.1234);
    EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), 1700000000123);
    Clock::advance(0.0009);
    EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), 1700000000124);
    Clock::setFixed(0.0009);
    EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), 0);
    Clock::setFixed(-1.5009);
    EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), -1500);
}

TEST_F(TimestampUtilityTest, UnrepresentableTimeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Clock::setFixed(std::nan(""));
    EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "Timestamp in milliseconds cannot be converted");
    Clock::setFixed(std::numeric_limits<double>::infinity());
    EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "cannot be converted to a 64-bit integer");
    Clock::setFixed(1e16);  // 1e19 ms is past the signed 64-bit range
    EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "cannot be converted");
    Clock::setFixed(-1e16);
    EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "cannot be converted");
}

}  // namespace
}  // namespace tavrin
