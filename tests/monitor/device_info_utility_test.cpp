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
        DeviceFactsSource source;
        source.model = fact("iPhone");
        source.systemName = fact("iOS");
        source.systemVersion = fact("17.2.1");
        source.machine = fact("iPhone15,2");
        return source;
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

// The host may set its bundle keys and screen at any time; the locale may change too.
TEST_F(DeviceInfoUtilityTest, ChangingFactsAreReadAnewOnEveryCollection) {
    for (const auto& [lcAll, language, region] : std::vector<std::tuple<const char*, const char*, const char*>>{
             {"de_AT.UTF-8", "de", "AT"}, {"fr", "fr", "Unknown"}, {"C", "Unknown", "Unknown"}}) {
        setenv("LC_ALL", lcAll, 1);
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(info.appDeviceLanguage + "_" + info.appDeviceRegion, std::string(language) + "_" + region);
    }
    // Points truncated toward zero; sizes without an integer form read as zero.
    for (const auto& [bounds, width, height] : std::vector<std::tuple<ScreenBounds, int, int>>{
             {{390, 844}, 390, 844}, {{844.9, 390.99}, 844, 390}, {{std::nan(""), 844}, 0, 844}, {{INFINITY, 1e300}, 0, 0}}) {
        DeviceFactsSource screen;
        screen.screenBounds = [bounds] { return std::optional<ScreenBounds>(bounds); };
        DeviceInfoUtility::setFactsSource(screen);
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(std::pair(info.appDeviceWidth, info.appDeviceHeight), std::pair(std::int64_t{width}, std::int64_t{height}));
    }
    DeviceInfoUtility::reset();
    // The display name comes before the bundle name.
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                     .infoDictionary = {{"CFBundleDisplayName", "Shop Plus"}, {"CFBundleName", "Shop"},
                                                        {"CFBundleShortVersionString", "2.0"}, {"CFBundleVersion", "7"}}});
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844});
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(std::tuple(info.appApplicationName, info.appApplicationVersion, info.appApplicationBuildNumber, info.appDeviceWidth),
              std::tuple("Shop Plus", "2.0", "7", 390));
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleName", "Shop"}}});
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationName, "Shop");
}

TEST_F(DeviceInfoUtilityTest, FixedFactsAreReadOnceAcrossThreads) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto counted = source(true);
    counted.model = [calls] { return std::optional<std::string>("Model " + std::to_string(++*calls)); };
    DeviceInfoUtility::setFactsSource(counted);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) wrong += DeviceInfoUtility::collectDeviceInfo().appDeviceModel != "Model 1";
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls->load(), 1);
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace tavrin
