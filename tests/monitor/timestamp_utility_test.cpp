#include "tavrin/monitor/internal/timestamp_utility.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "tavrin/platform/clock.h"

namespace tavrin {
namespace {

using platform::Clock;

TEST(TimestampUtilityTest, MillisecondsAreTruncatedTowardZero) {
    for (const auto& [seconds, millis] : std::vector<std::pair<double, std::int64_t>>{
             {1700000000.1234, 1700000000123}, {1700000000.1243, 1700000000124}, {0.0009, 0}, {-1.5009, -1500}}) {
        Clock::setFixed(seconds);
        EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), millis) << seconds;
    }
    Clock::reset();
}

TEST(TimestampUtilityDeathTest, TimeOutsideTheSigned64BitRangeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // 1e16 s is 1e19 ms, past the signed 64-bit range.
    for (double seconds : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e16, -1e16}) {
        Clock::setFixed(seconds);
        EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "cannot be converted to a 64-bit integer") << seconds;
    }
    Clock::reset();
}

}  // namespace
}  // namespace tavrin
