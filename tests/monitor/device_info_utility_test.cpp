#include "tavrin/monitor/device_info_utility.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <regex>
#include <thread>

namespace tavrin {
namespace {

using platform::DeviceFacts;
using platform::ScreenBounds;

class DeviceInfoUtilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        DeviceFacts::reset();
        DeviceInfoUtility::reset();
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
        setenv("LANG", "en_US.UTF-8", 1);
    }
    void TearDown() override {
        DeviceFacts::reset();
        DeviceInfoUtility::reset();
    }

    // A source with every system fact present, so tests change one at a time.
    static DeviceFactsSource fullSource() {
        DeviceFactsSource source;
        source.model = [] { return std::optional<std::string>("iPhone"); };
        source.systemName = [] { return std::optional<std::string>("iOS"); };
        source.systemVersion = [] { return std::optional<std::string>("17.2.1"); };
        source.machine = [] { return std::optional<std::string>("iPhone15,2"); };
        return source;
    }
};

TEST_F(DeviceInfoUtilityTest, FillsConstantsAndSystemFacts) {
    DeviceInfoUtility::setFactsSource(fullSource());
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceBrand, "Apple");
    EXPECT_EQ(info.appDeviceModel, "iPhone");
    EXPECT_EQ(info.appDeviceOS, "iOS");
    EXPECT_EQ(info.appDeviceOSVersion, "17.2.1");
    EXPECT_EQ(info.appDeviceLanguage, "en");
    EXPECT_EQ(info.appDeviceRegion, "US");
    EXPECT_EQ(info.appDeviceCarrier, std::optional<std::string>("Unknown"));
    EXPECT_EQ(info.appDeviceNetworkType, "Unknown");
}

TEST_F(DeviceInfoUtilityTest, EveryCollectionHasItsOwnCanonicalId) {
    const auto first = DeviceInfoUtility::collectDeviceInfo();
    const auto second = DeviceInfoUtility::collectDeviceInfo();
    const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    EXPECT_TRUE(std::regex_match(first.appDeviceId, canonical)) << first.appDeviceId;
    EXPECT_NE(first.appDeviceId, second.appDeviceId);
    // Everything else is the same device.
    auto same = second;
    same.appDeviceId = first.appDeviceId;
    EXPECT_EQ(same, first);
}

TEST_F(DeviceInfoUtilityTest, ApplicationNameVersionAndBuildFromHostBundleKeys) {
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                     .infoDictionary = {{"CFBundleName", "Shop"},
                                                        {"CFBundleShortVersionString", "2.3"},
                                                        {"CFBundleVersion", 41}}});  // not text: absent
    auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appApplicationName, "Shop");
    EXPECT_EQ(info.appApplicationVersion, "2.3");
    EXPECT_EQ(info.appApplicationBuildNumber, "Unknown");

    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt,
                                     .infoDictionary = {{"CFBundleDisplayName", "Shop Plus"}, {"CFBundleName", "Shop"}, {"CFBundleVersion", "41"}}});
    DeviceInfoUtility::reset();
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appApplicationName, "Shop Plus");
    EXPECT_EQ(info.appApplicationVersion, "Unknown");
    EXPECT_EQ(info.appApplicationBuildNumber, "41");

    // A display name that is not text falls through to the bundle name.
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleDisplayName", true}, {"CFBundleName", "Shop"}}});
    DeviceInfoUtility::reset();
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationName, "Shop");
}

TEST_F(DeviceInfoUtilityTest, AbsentFactsFallBackToUnknown) {
    DeviceFactsSource source;
    source.model = [] { return std::nullopt; };
    source.systemName = [] { return std::nullopt; };
    source.systemVersion = [] { return std::nullopt; };
    source.machine = [] { return std::nullopt; };
    source.infoDictionaryString = [](std::string_view) { return std::nullopt; };
    source.currentLocale = [] { return platform::LocaleCodes{}; };
    source.screenBounds = [] { return std::nullopt; };
    DeviceInfoUtility::setFactsSource(source);
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    for (const auto* text : {&info.appDeviceModel, &info.appDeviceOS, &info.appDeviceOSVersion,
                             &info.appDeviceLanguage, &info.appDeviceRegion, &info.appApplicationName,
                             &info.appApplicationVersion, &info.appApplicationBuildNumber}) {
        EXPECT_EQ(*text, "Unknown");
    }
    EXPECT_EQ(info.appDeviceWidth, 0);
    EXPECT_EQ(info.appDeviceHeight, 0);
}

TEST_F(DeviceInfoUtilityTest, LocaleIsReadFreshOnEveryCollection) {
    setenv("LANG", "de_AT.UTF-8", 1);
    auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceLanguage, "de");
    EXPECT_EQ(info.appDeviceRegion, "AT");

    setenv("LC_ALL", "fr", 1);  // no region
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceLanguage, "fr");
    EXPECT_EQ(info.appDeviceRegion, "Unknown");

    setenv("LC_ALL", "C", 1);
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceLanguage, "Unknown");
    EXPECT_EQ(info.appDeviceRegion, "Unknown");
}

TEST_F(DeviceInfoUtilityTest, ScreenSizeInPointsTruncatedTowardZero) {
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844});
    auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceWidth, 390);
    EXPECT_EQ(info.appDeviceHeight, 844);

    // Read on every collection: a rotated screen shows at once.
    DeviceFacts::setScreenBounds(ScreenBounds{844.9, 390.99});
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceWidth, 844);
    EXPECT_EQ(info.appDeviceHeight, 390);

    DeviceFacts::setScreenBounds(ScreenBounds{-0.5, -2.7});
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceWidth, 0);
    EXPECT_EQ(info.appDeviceHeight, -2);

    DeviceFacts::setScreenBounds(std::nullopt);
    info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(info.appDeviceWidth, 0);
    EXPECT_EQ(info.appDeviceHeight, 0);
}

TEST_F(DeviceInfoUtilityTest, UnrepresentableScreenSizeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    DeviceFacts::setScreenBounds(ScreenBounds{std::nan(""), 844});
    EXPECT_DEATH(DeviceInfoUtility::collectDeviceInfo(), "Screen width cannot be converted to a 64-bit integer");
    DeviceFacts::setScreenBounds(ScreenBounds{390, std::numeric_limits<double>::infinity()});
    EXPECT_DEATH(DeviceInfoUtility::collectDeviceInfo(), "Screen height cannot be converted");
    DeviceFacts::setScreenBounds(ScreenBounds{9223372036854775808.0, 1});
    EXPECT_DEATH(DeviceInfoUtility::collectDeviceInfo(), "Screen width");
}

TEST_F(DeviceInfoUtilityTest, FixedFactsAreReadOnceUntilReset) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto source = fullSource();
    source.model = [calls] {
        ++*calls;
        return std::optional<std::string>("Model " + std::to_string(calls->load()));
    };
    DeviceInfoUtility::setFactsSource(source);

    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i)
                if (DeviceInfoUtility::collectDeviceInfo().appDeviceModel != "Model 1") ++wrong;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls->load(), 1);
    EXPECT_EQ(wrong.load(), 0);

    // Bundle keys are kept too: a change shows only after a reset.
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleVersion", "99"}}});
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationBuildNumber, "Unknown");

    DeviceInfoUtility::setFactsSource(source);
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(calls->load(), 2);
    EXPECT_EQ(info.appDeviceModel, "Model 2");
    EXPECT_EQ(info.appApplicationBuildNumber, "99");
}

}  // namespace
}  // namespace tavrin
