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

    // The system facts all present (each its own text) or all absent.
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

TEST_F(DeviceInfoUtilityTest, SystemFactsConstantsAndAFreshCanonicalIdEachTime) {
    DeviceInfoUtility::setFactsSource(source(true));
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(std::tuple(info.appDeviceBrand, info.appDeviceModel, info.appDeviceOS, info.appDeviceOSVersion,
                         info.appDeviceLanguage, info.appDeviceRegion, info.appDeviceNetworkType),
              std::tuple("Apple", "iPhone", "iOS", "17.2.1", "en", "US", "Unknown"));
    EXPECT_EQ(info.appDeviceCarrier, std::optional<std::string>("Unknown"));

    const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
    EXPECT_TRUE(std::regex_match(info.appDeviceId, canonical)) << info.appDeviceId;
    auto next = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_NE(next.appDeviceId, info.appDeviceId);
    next.appDeviceId = info.appDeviceId;  // everything else is the same device
    EXPECT_EQ(next, info);
}

TEST_F(DeviceInfoUtilityTest, ApplicationNameVersionAndBuildFromHostBundleKeys) {
    // The display name comes before the bundle name; a missing key is "Unknown".
    using Info = decltype(platform::ApplicationInfo::infoDictionary);
    const std::vector<std::pair<Info, std::vector<std::string>>> cases{
        {{{"CFBundleName", "Shop"}, {"CFBundleShortVersionString", "2.3"}}, {"Shop", "2.3", "Unknown"}},
        {{{"CFBundleDisplayName", "Shop Plus"}, {"CFBundleName", "Shop"}, {"CFBundleVersion", "41"}},
         {"Shop Plus", "Unknown", "41"}}};
    for (const auto& [bundle, expected] : cases) {
        DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = bundle});
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ((std::vector{info.appApplicationName, info.appApplicationVersion, info.appApplicationBuildNumber}),
                  expected);
    }
}

TEST_F(DeviceInfoUtilityTest, AbsentFactsFallBackToUnknown) {
    auto absent = source(false);
    absent.infoDictionaryString = [](std::string_view) { return std::nullopt; };
    absent.currentLocale = [] { return platform::LocaleCodes{}; };
    absent.screenBounds = [] { return std::nullopt; };
    DeviceInfoUtility::setFactsSource(absent);
    const auto info = DeviceInfoUtility::collectDeviceInfo();
    for (const auto* text : {&info.appDeviceModel, &info.appDeviceOS, &info.appDeviceOSVersion,
                             &info.appDeviceLanguage, &info.appDeviceRegion, &info.appApplicationName,
                             &info.appApplicationVersion, &info.appApplicationBuildNumber}) {
        EXPECT_EQ(*text, "Unknown");
    }
    EXPECT_EQ(info.appDeviceWidth, 0);
    EXPECT_EQ(info.appDeviceHeight, 0);
}

TEST_F(DeviceInfoUtilityTest, LocaleAndScreenAreReadFreshOnEveryCollection) {
    for (const auto& [lcAll, language, region] : std::vector<std::tuple<const char*, const char*, const char*>>{
             {"de_AT.UTF-8", "de", "AT"}, {"fr", "fr", "Unknown"}, {"C", "Unknown", "Unknown"},
             {"POSIX", "Unknown", "Unknown"}}) {
        setenv("LC_ALL", lcAll, 1);
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(info.appDeviceLanguage, language) << lcAll;
        EXPECT_EQ(info.appDeviceRegion, region) << lcAll;
    }
    // Points truncated toward zero; a rotated screen shows at once.
    for (const auto& [bounds, width, height] : std::vector<std::tuple<std::optional<ScreenBounds>, int, int>>{
             {ScreenBounds{390, 844}, 390, 844}, {ScreenBounds{844.9, 390.99}, 844, 390},
             {ScreenBounds{0.5, 0}, 0, 0}, {std::nullopt, 0, 0}}) {
        DeviceFacts::setScreenBounds(bounds);
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(info.appDeviceWidth, width);
        EXPECT_EQ(info.appDeviceHeight, height);
    }
}

TEST_F(DeviceInfoUtilityTest, AnUnrepresentableScreenSizeFromTheSourceReadsAsZeroNotAStop) {
    // The platform refuses such bounds when the host sets them; a source of its own is still not trusted.
    for (const auto& bounds : {ScreenBounds{std::nan(""), 844}, ScreenBounds{INFINITY, 9223372036854775808.0}}) {
        auto source = DeviceFactsSource{};
        source.screenBounds = [bounds] { return std::optional<ScreenBounds>(bounds); };
        DeviceInfoUtility::setFactsSource(source);
        const auto info = DeviceInfoUtility::collectDeviceInfo();
        EXPECT_EQ(info.appDeviceWidth, 0);
        EXPECT_EQ(info.appDeviceHeight, bounds.height == 844 ? 844 : 0);
    }
}

TEST_F(DeviceInfoUtilityTest, HostFactsSetAfterTheFirstCollectionShowInTheNext) {
    DeviceInfoUtility::setFactsSource(source(true));
    const auto before = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(before.appApplicationVersion, "Unknown");
    EXPECT_EQ(before.appDeviceWidth, 0);

    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                     .infoDictionary = {{"CFBundleDisplayName", "Shop"},
                                                        {"CFBundleShortVersionString", "2.0"},
                                                        {"CFBundleVersion", "7"}}});
    DeviceFacts::setScreenBounds(ScreenBounds{390, 844});
    auto after = DeviceInfoUtility::collectDeviceInfo();
    EXPECT_EQ(std::tuple(after.appApplicationName, after.appApplicationVersion, after.appApplicationBuildNumber,
                         after.appDeviceWidth, after.appDeviceHeight),
              std::tuple("Shop", "2.0", "7", 390, 844));
    DeviceFacts::setApplicationInfo({.bundleIdentifier = std::nullopt, .infoDictionary = {{"CFBundleVersion", "8"}}});
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appApplicationBuildNumber, "8");
}

TEST_F(DeviceInfoUtilityTest, FixedFactsAreReadOnceUntilReset) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto counted = source(true);
    counted.model = [calls] { return std::optional<std::string>("Model " + std::to_string(++*calls)); };
    DeviceInfoUtility::setFactsSource(counted);

    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) wrong += DeviceInfoUtility::collectDeviceInfo().appDeviceModel != "Model 1";
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls->load(), 1);
    EXPECT_EQ(wrong.load(), 0);

    // A reset reads them again.
    DeviceInfoUtility::setFactsSource(counted);
    EXPECT_EQ(DeviceInfoUtility::collectDeviceInfo().appDeviceModel, "Model 2");
}

}  // namespace
}  // namespace tavrin
