#include "tavrin/monitor/user_agent_utility.h"

#include <gtest/gtest.h>

#include <sys/utsname.h>

#include "tavrin/monitor/device_info_utility.h"

namespace tavrin {
namespace {

class UserAgentUtilityTest : public ::testing::Test {
protected:
    void TearDown() override { DeviceInfoUtility::reset(); }

    static void useFacts(std::optional<std::string> systemVersion, std::optional<std::string> machine) {
        DeviceFactsSource source;
        source.systemVersion = [systemVersion] { return systemVersion; };
        source.machine = [machine] { return machine; };
        DeviceInfoUtility::setFactsSource(source);
    }
};

TEST_F(UserAgentUtilityTest, BuildsTheFixedShape) {
    useFacts("17.2.1", "iPhone15,2");
    EXPECT_EQ(UserAgentUtility::userAgent("TavrinSDK", "1.0", "18"), "iOS; iPhone OS 17_2_1; iPhone15,2 [TavrinSDK/v.1.0.18]");

    useFacts("16.0", "iPad13,4");
    const auto agent = UserAgentUtility::userAgent("TavrinSDK", "1.0", "18");
    EXPECT_TRUE(agent.starts_with("iOS; iPhone OS 16_0;")) << agent;
    EXPECT_TRUE(agent.ends_with("[TavrinSDK/v.1.0.18]")) << agent;

    useFacts("12", "x86_64");
    EXPECT_EQ(UserAgentUtility::userAgent("N", "", "B"), "iOS; iPhone OS 12; x86_64 [N/v..B]");
}

TEST_F(UserAgentUtilityTest, MachineThatIsMissingOrNotUtf8ReadsUnknown) {
    useFacts("16.0", "\xff\xfe");
    EXPECT_EQ(UserAgentUtility::userAgent("S", "1", "2"), "iOS; iPhone OS 16_0; unknown [S/v.1.2]");
    useFacts("16.0", std::nullopt);
    EXPECT_EQ(UserAgentUtility::userAgent("S", "1", "2"), "iOS; iPhone OS 16_0; unknown [S/v.1.2]");
    useFacts("16.0", "m\xc3\xa4" "chine");  // valid UTF-8 stays
    EXPECT_EQ(UserAgentUtility::userAgent("S", "1", "2"), "iOS; iPhone OS 16_0; m\xc3\xa4" "chine [S/v.1.2]");
    // A missing system version takes the device info's fallback.
    useFacts(std::nullopt, "arm64");
    EXPECT_EQ(UserAgentUtility::userAgent("S", "1", "2"), "iOS; iPhone OS Unknown; arm64 [S/v.1.2]");
}

TEST_F(UserAgentUtilityTest, PlatformSourceUsesTheUnameMachine) {
    DeviceInfoUtility::reset();
    struct utsname u {};
    ASSERT_EQ(uname(&u), 0);
    const auto agent = UserAgentUtility::userAgent("TavrinSDK", "1.0", "18");
    EXPECT_TRUE(agent.starts_with("iOS; iPhone OS ")) << agent;
    EXPECT_NE(agent.find(std::string("; ") + u.machine + " [TavrinSDK/v.1.0.18]"), std::string::npos) << agent;
}

TEST(Utf8Validation, AcceptsWellFormedAndRefusesTheRest) {
    for (const char* good : {"", "plain", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xed\x9f\xbf", "\xf4\x8f\xbf\xbf"})
        EXPECT_TRUE(detail::isValidUtf8(good)) << good;
    for (const char* bad : {"\x80", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                            "\xf5\x80\x80\x80", "\xe2\x82", "a\xe2\x28\xa1", "\xf0\x9f\x98"})
        EXPECT_FALSE(detail::isValidUtf8(bad)) << testing::PrintToString(std::string(bad));
}

}  // namespace
}  // namespace tavrin
