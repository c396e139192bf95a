// What every push says about the device: its facts, the user agent built from
// them and the time in milliseconds.

#include "tavrin/monitor/internal/device_info_utility.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cmath>
#include <cstdlib>
#include <regex>
#include <tuple>
#include <utility>
#include <vector>

#include "tavrin/monitor/internal/user_agent_utility.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/internal/timestamp_utility.h"

namespace tavrin {
namespace {

using platform::DeviceFacts;
using platform::ScreenBounds;

class DeviceInfoUtilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        TearDown();
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
        setenv("LANG", "en_US.UTF-8", 1);
    }
    void TearDown() override {
        DeviceFacts::reset();
        DeviceInfoUtility::reset();
    }
    // The system facts all present or all absent.
    static DeviceFactsSource source(bool present) {
        auto fact = [present](const char* text) {
            return [=] { return present ? std::optional<std::string>(text) : std::nullopt; };
        };
        return DeviceFactsSource{.model = fact("iPhone"),
                                 .systemName = fact("iOS"),
                                 .systemVersion = fact("17.2.1"),
                                 .machine = fact("iPhone15,2")};
    }
};

TEST_F(DeviceInfoUtilityTest, CollectsTheSystemFactsWithAFreshIdEachTime) {
    DeviceInfoUtility::setFactsSource(source(true));
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(std::tuple(info.appDeviceBrand, info.appDeviceModel, info.appDeviceOS, info.appDeviceOSVersion,
                         info.appDeviceLanguage, info.appDeviceRegion, info.appDeviceNetworkType),
              std::tuple("Apple", "iPhone", "iOS", "17.2.1", "en", "US", "Unknown"));
    EXPECT_TRUE(std::regex_match(info.appDeviceId, std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}")));
    auto next = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_NE(next.appDeviceId, info.appDeviceId);
    next.appDeviceId = info.appDeviceId;
    EXPECT_EQ(next, info);
}

TEST_F(DeviceInfoUtilityTest, AbsentFactsReadAsUnknown) {
    auto absent = source(false);
    absent.infoDictionaryString = [](std::string_view) { return std::nullopt; };
    absent.currentLocale = [] { return platform::LocaleCodes{}; };
    absent.screenBounds = [] { return std::nullopt; };
    DeviceInfoUtility::setFactsSource(absent);
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    for (const auto* text : {&info.appDeviceModel, &info.appDeviceOS, &info.appDeviceOSVersion, &info.appDeviceLanguage,
                             &info.appDeviceRegion, &info.appApplicationName, &info.appApplicationVersion,
                             &info.appApplicationBuildNumber})
        EXPECT_EQ(*text, "Unknown");
    EXPECT_EQ(info.appDeviceWidth + info.appDeviceHeight, 0);
}

// Points truncated toward zero; a size without an integer form reads as zero.
TEST_F(DeviceInfoUtilityTest, ScreenSizeIsReadAsWholePoints) {
    for (const auto& [bounds, width, height] : std::vector<std::tuple<ScreenBounds, std::int64_t, std::int64_t>>{
             {{844.9, 390.99}, 844, 390}, {{std::nan(""), 844}, 0, 844}, {{INFINITY, 1e300}, 0, 0}}) {
        DeviceInfoUtility::setFactsSource({.screenBounds = [bounds] { return std::optional<ScreenBounds>(bounds); }});
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(std::pair(info.appDeviceWidth, info.appDeviceHeight), std::pair(width, height));
    }
}

// The host may set its bundle keys and screen at any time after start-up.
TEST_F(DeviceInfoUtilityTest, HostFactsSetLaterShowInTheNextCollection) {
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationVersion, "Unknown");
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                     .infoDictionary = {{"CFBundleDisplayName", "Shop Plus"},
                                                        {"CFBundleName", "Shop"},
                                                        {"CFBundleShortVersionString", "2.0"},
                                                        {"CFBundleVersion", "7"}}});
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844});
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    // The display name comes before the bundle name.
    EXPECT_EQ(std::tuple(info.appApplicationName, info.appApplicationVersion, info.appApplicationBuildNumber,
                         info.appDeviceWidth, info.appDeviceHeight),
              std::tuple("Shop Plus", "2.0", "7", 390, 844));
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleName", "Shop"}}});
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationName, "Shop");
}

struct Case {
    std::optional<std::string> systemVersion, machine;
    const char *name, *version, *build, *expected;
};

// A machine name that is no UTF-8 would reach the server altered.
TEST(UserAgentUtilityTest, FixedShapeWithFallbacksForMissingOrNonUtf8Facts) {
    for (const auto& c :
         std::vector<Case>{{"17.2.1", "iPhone15,2", "TavrinSDK", "1.0", "18",
                            "iOS; iPhone OS 17_2_1; iPhone15,2 [TavrinSDK/v.1.0.18]"},
                           {"12", "x86_64", "N", "", "B", "iOS; iPhone OS 12; x86_64 [N/v..B]"},
                           {"16.0", "\xff\xfe", "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
                           {"16.0", "\xed\xa0\x80", "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
                           {"16.0", std::nullopt, "S", "1", "2", "iOS; iPhone OS 16_0; unknown [S/v.1.2]"},
                           {"16.0",
                            "m\xc3\xa4"
                            "chine",
                            "S", "1", "2",
                            "iOS; iPhone OS 16_0; m\xc3\xa4"
                            "chine [S/v.1.2]"},
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
    const auto agent = UserAgentUtility::userAgent("TavrinSDK", "1.0", "18");
    EXPECT_TRUE(agent.ends_with(std::string("; ") + u.machine + " [TavrinSDK/v.1.0.18]")) << agent;
}

TEST(TimestampUtilityTest, MillisecondsAreTruncatedTowardZero) {
    for (const auto& [seconds, millis] : std::vector<std::pair<double, std::int64_t>>{
             {1700000000.1234, 1700000000123}, {1700000000.1243, 1700000000124}, {0.0009, 0}, {-1.5009, -1500}}) {
        platform::Clock::setFixed(seconds);
        EXPECT_EQ(TimestampUtility::currentTimestampInMillis(), millis) << seconds;
    }
    platform::Clock::reset();
}

TEST(TimestampUtilityDeathTest, TimeOutsideTheSigned64BitRangeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // 1e16 s is 1e19 ms, past the signed 64-bit range.
    for (double seconds : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e16, -1e16}) {
        platform::Clock::setFixed(seconds);
        EXPECT_DEATH(TimestampUtility::currentTimestampInMillis(), "cannot be converted to a 64-bit integer")
            << seconds;
    }
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin
