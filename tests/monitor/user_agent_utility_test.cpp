#include "tavrin/monitor/internal/user_agent_utility.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>

#include "tavrin/monitor/internal/device_info_utility.h"

namespace tavrin {
namespace {

struct Case {
    std::optional<std::string> systemVersion, machine;
    const char *name, *version, *build, *expected;
};

// A machine name that is no UTF-8 would reach the server altered.
TEST(UserAgentUtilityTest, FixedShapeWithFallbacksForMissingOrNonUtf8Facts) {
    for (const auto& c : std::vector<Case>{
             {"17.2.1", "iPhone15,2", "TavrinSDK", "1.0", "18", "iOS; iPhone OS 17_2_1; iPhone15,2 [TavrinSDK/v.1.0.18]"},
             {"12", "x86_64", "N", "", "B", "iOS; iPhone OS 12; x86_64 [N/v..B]"},
             {"16.0", "\xff\xfe", "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
             {"16.0", "\xed\xa0\x80", "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
             {"16.0", std::nullopt, "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
             {"16.0", "m\xc3\xa4" "chine", "S", "1", "2", "iOS; iPhone OS 16_0; m\xc3\xa4" "chine [S/v.1.2]"},
             {std::nullopt, "arm64", "S", "1", "2", "iOS; iPhone OS Unknown; arm64 [S/v.1.2]"}}) {
        DeviceFactsSource source;
        source.systemVersion = [&c] { return c.systemVersion; };
        source.machine = [&c] { return c.machine; };
        DeviceInfoUtility::setFactsSource(source);
        EXPECT_EQ(UserAgentUtility::userAgent(c.name, c.version, c.build), c.expected);
    }
    // The platform's own source uses the uname machine.
    DeviceInfoUtility::reset();
    struct utsname u {};
    ASSERT_EQ(uname(&u), 0);
    EXPECT_TRUE(UserAgentUtility::userAgent("TavrinSDK", "1.0", "18").ends_with(std::string("; ") + u.machine + " [TavrinSDK/v.1.0.18]"));
}

}  // namespace
}  // namespace tavrin
