#include "tavrin/sdk/tracking_settings.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::StoreTest;

constexpr const char* kKey = "com.tavrin.TrackingSettings";
constexpr const char* kNotInitialized =
    "TrackingSettings is not initialized\\. Call TrackingSettings\\.configure\\(\\.\\.\\.\\) first\\.";
constexpr const char* kNotAvailable = "^TrackConfig is not available\\.\n$";

TrackConfig configFor(const std::string& container, double offlineTimeout = 86400) {
    return TrackConfig{.trackDomain = "collect.example.com",
                       .container = container,
                       .environment = TrackConfig::Environment::stage,
                       .version = "3",
                       .debugCode = "dbg",
                       .sessionTimeoutInSeconds = 900,
                       .authorizationToken = "token",
                       .customProtocol = "http",
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = offlineTimeout};
}

using TrackingSettingsStore = StoreTest;

TEST_F(TrackingSettingsStore, ConfigureInstallsPersistsAndLogs) {
    TrackingSettings::configure(configFor("shop-app"));
    EXPECT_EQ(log.sink->messages(platform::LogType::info),
              (std::vector<std::string>{"TrackConfig saved to UserDefaults.", "TrackingSettings configured successfully."}));

    log.sink->clear();
    auto settings = TrackingSettings::shared();
    EXPECT_EQ(log.sink->messages(platform::LogType::debug), std::vector<std::string>{"Accessing TrackingSettings."});
    EXPECT_EQ(settings->trackDomain(), "collect.example.com");
    EXPECT_EQ(settings->container(), "shop-app");
    EXPECT_EQ(settings->environment(), TrackConfig::Environment::stage);
    EXPECT_EQ(settings->version(), "3");
    EXPECT_EQ(settings->debugCode(), "dbg");
    EXPECT_EQ(settings->sessionTimeoutInSeconds(), 900.0);
    EXPECT_EQ(settings->authorizationToken(), "token");
    EXPECT_EQ(settings->customProtocol(), "http");
    EXPECT_TRUE(settings->enableOfflineTracking());
    EXPECT_EQ(settings->offlineTrackingTimeout(), 86400.0);

    // Stored as the JSON of the configuration.
    const auto stored = openFile()->data(kKey);
    ASSERT_TRUE(stored);
    EXPECT_EQ(Json::parse(platform::toString(*stored)), encodeJson(configFor("shop-app")));
}

TEST_F(TrackingSettingsStore, ANewConfigurationReplacesTheInstanceButNotHeldOnes) {
    TrackingSettings::configure(configFor("a"));
    auto held = TrackingSettings::shared();
    TrackingSettings::configure(configFor("b"));
    EXPECT_EQ(held->container(), "a");
    EXPECT_EQ(TrackingSettings::shared()->container(), "b");
    EXPECT_NE(held, TrackingSettings::shared());
}

TEST_F(TrackingSettingsStore, FailedSaveStillConfiguresAndLogsSuccess) {
    TrackingSettings::configure(configFor("a", std::nan("")));
    const auto info = log.sink->messages(platform::LogType::info);
    ASSERT_EQ(info.size(), 3u);
    EXPECT_EQ(info[0].rfind("❌ UserDefaultsUtility: Failed to encode and save data for key com.tavrin.TrackingSettings - ", 0),
              0u)
        << info[0];
    EXPECT_EQ(info[1], "TrackConfig saved to UserDefaults.");
    EXPECT_EQ(info[2], "TrackingSettings configured successfully.");
    EXPECT_EQ(TrackingSettings::shared()->container(), "a");
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
}

TEST_F(TrackingSettingsStore, LoadsWhatAnEarlierLaunchPersisted) {
    TrackingSettings::configure(configFor("a"));
    forgetProcessState();
    auto store = countReads();
    log.sink->clear();

    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(store->reads, 1);
    EXPECT_EQ(log.sink->messages(platform::LogType::info), std::vector<std::string>{"TrackConfig loaded from UserDefaults."});
    EXPECT_EQ(TrackingSettings::shared()->config(), configFor("a"));

    // The decoded record is cached: a second load does not read again.
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(store->reads, 1);
}

TEST_F(TrackingSettingsStore, NothingOrGarbageStoredLeavesTheInstanceInPlace) {
    TrackingSettings::configure(configFor("a"));
    auto before = TrackingSettings::shared();
    const std::vector<platform::KeyValueStore::Value> stored{
        platform::toBytes("garbage"), platform::toBytes(R"({"trackDomain":"d"})"),
        platform::toBytes(R"({"trackDomain":"d","container":"c","environment":"Live","authorizationToken":"t",)"
                          R"("enableOfflineTracking":true,"offlineTrackingTimeout":1})"),
        std::string(encodeJsonText(configFor("text"))),  // text row, not data
        Bytes{}};
    for (const auto& value : stored) {
        openFile()->set(kKey, value);
        UserDefaultsUtility::resetCacheForTesting();
        log.sink->clear();
        TrackingSettings::loadConfigFromUserDefaults();
        EXPECT_EQ(log.sink->messages(), std::vector<std::string>{"No TrackConfig found in UserDefaults."});
        EXPECT_EQ(TrackingSettings::shared(), before);
    }
    openFile()->remove(kKey);
    UserDefaultsUtility::resetCacheForTesting();
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(TrackingSettings::shared(), before);
}

TEST_F(TrackingSettingsStore, ClearRemovesTheStoredValueTheCacheAndTheInstance) {
    TrackingSettings::configure(configFor("a"));
    log.sink->clear();
    TrackingSettings::clearConfigFromUserDefaults();
    EXPECT_EQ(log.sink->messages(), std::vector<std::string>{"TrackingSettings removed from UserDefaults."});
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
    TrackingSettings::loadConfigFromUserDefaults();  // neither the cache nor the file has it
    EXPECT_TRUE(log.sink->contains("No TrackConfig found in UserDefaults."));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TrackingSettings::shared(), kNotInitialized);
}

TEST(TrackingSettingsFatal, SharedWithoutConfigurationLogsThenStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TrackingSettings::resetForTesting();
    // The error line (through a stderr sink) comes first, then the stop message.
    EXPECT_DEATH(
        {
            platform::SystemLog::setSink(std::make_shared<platform::StderrSink>());
            TrackingSettings::shared();
        },
        std::string("ERROR: ") + kNotInitialized + "\n" + kNotInitialized + "\n$");
}

TEST(TrackingSettingsFatal, RequiredGettersStopWithoutLogging) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const TrackingSettings empty(std::nullopt);
    auto withStderrLog = [] { platform::SystemLog::setSink(std::make_shared<platform::StderrSink>()); };
    EXPECT_DEATH({ withStderrLog(); (void)empty.trackDomain(); }, kNotAvailable);
    EXPECT_DEATH({ withStderrLog(); (void)empty.container(); }, kNotAvailable);
    EXPECT_DEATH({ withStderrLog(); (void)empty.environment(); }, kNotAvailable);
    EXPECT_DEATH({ withStderrLog(); (void)empty.authorizationToken(); }, kNotAvailable);
}

TEST(TrackingSettingsFallbacks, OptionalGettersAnswerWithoutConfiguration) {
    const TrackingSettings empty(std::nullopt);
    EXPECT_EQ(empty.offlineTrackingTimeout(), 3600.0);
    EXPECT_FALSE(empty.enableOfflineTracking());
    EXPECT_EQ(empty.version(), std::nullopt);
    EXPECT_EQ(empty.debugCode(), std::nullopt);
    EXPECT_EQ(empty.sessionTimeoutInSeconds(), std::nullopt);
    EXPECT_EQ(empty.customProtocol(), std::nullopt);
    EXPECT_EQ(empty.config(), std::nullopt);
}

}  // namespace
}  // namespace tavrin
