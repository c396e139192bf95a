#include "tavrin/monitor/internal/device_info_utility.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <regex>
#include <thread>
#include <tuple>
#include <vector>

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
        return DeviceFactsSource{.model = fact("iPhone"), .systemName = fact("iOS"), .systemVersion = fact("17.2.1"),
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
                                     .infoDictionary = {{"CFBundleDisplayName", "Shop Plus"}, {"CFBundleName", "Shop"},
                                                        {"CFBundleShortVersionString", "2.0"}, {"CFBundleVersion", "7"}}});
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844});
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    // The display name comes before the bundle name.
    EXPECT_EQ(std::tuple(info.appApplicationName, info.appApplicationVersion, info.appApplicationBuildNumber,
                         info.appDeviceWidth, info.appDeviceHeight),
              std::tuple("Shop Plus", "2.0", "7", 390, 844));
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleName", "Shop"}}});
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationName, "Shop");
}

}  // namespace
}  // namespace tavrin
