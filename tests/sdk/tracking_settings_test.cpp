#include "tavrin/sdk/internal/tracking_settings.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <tuple>
#include <vector>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::fullConfig;
using testing::StoreTest;
using Lines = std::vector<std::string>;

constexpr const char* kKey = "com.tavrin.TrackingSettings";
constexpr const char* kNotInitialized =
    "TrackingSettings is not initialized\\. Call TrackingSettings\\.configure\\(\\.\\.\\.\\) first\\.";

using TrackingSettingsStore = StoreTest;

TEST_F(TrackingSettingsStore, ConfigureInstallsPersistsAndLogs) {
    TrackingSettings::configure(fullConfig("a"));
    EXPECT_EQ(log.sink->messages(platform::LogType::info),
              (Lines{"TrackConfig saved to UserDefaults.", "TrackingSettings configured successfully."}));
    EXPECT_EQ(platform::toString(openFile()->data(kKey).value_or(Bytes{})), encodeJsonText(fullConfig("a")));

    log.sink->clear();
    auto held = TrackingSettings::shared();
    EXPECT_EQ(log.sink->messages(platform::LogType::debug), Lines{"Accessing TrackingSettings."});
    // Every member its own value, so a getter answering from the wrong member shows.
    const auto& s = *held;
    EXPECT_EQ(std::tuple(s.trackDomain(), s.container(), s.environment(), s.version(), s.debugCode(),
                         s.sessionTimeoutInSeconds(), s.authorizationToken(), s.customProtocol(),
                         s.enableOfflineTracking(), s.offlineTrackingTimeout()),
              std::tuple("collect.example.com", "a", TrackConfig::Environment::stage, "3", "dbg-1", 1800.5, "token",
                         "http", true, 86400.0));

    // A new configuration replaces the shared instance but not held ones.
    TrackingSettings::configure(fullConfig("b"));
    EXPECT_EQ(held->container(), "a");
    EXPECT_EQ(TrackingSettings::shared()->container(), "b");
}

TEST_F(TrackingSettingsStore, FailedSaveStillConfiguresAndLogsSuccess) {
    TrackingSettings::configure(fullConfig("a", std::nan("")));
    const auto info = log.sink->messages(platform::LogType::info);
    ASSERT_EQ(info.size(), 3u);
    EXPECT_EQ(info[0].rfind("❌ UserDefaultsUtility: Failed to encode and save data for key com.tavrin.TrackingSettings - ", 0),
              0u)
        << info[0];
    EXPECT_EQ(Lines(info.begin() + 1, info.end()),
              (Lines{"TrackConfig saved to UserDefaults.", "TrackingSettings configured successfully."}));
    EXPECT_EQ(TrackingSettings::shared()->container(), "a");
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
}

TEST_F(TrackingSettingsStore, LoadsWhatAnEarlierLaunchPersistedOnce) {
    TrackingSettings::configure(fullConfig("a"));
    forgetProcessState();
    auto store = countReads();
    log.sink->clear();
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(log.sink->messages(platform::LogType::info), Lines{"TrackConfig loaded from UserDefaults."});
    EXPECT_EQ(TrackingSettings::shared()->config(), fullConfig("a"));
    // The decoded record is cached: a second load does not read again.
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(store->reads, 1);
}

TEST_F(TrackingSettingsStore, NothingOrGarbageStoredLeavesTheInstanceInPlace) {
    TrackingSettings::configure(fullConfig("a"));
    auto before = TrackingSettings::shared();
    const std::vector<std::optional<platform::KeyValueStore::Value>> stored{
        platform::toBytes("garbage"), platform::toBytes(R"({"trackDomain":"d"})"),
        platform::toBytes(R"({"trackDomain":"d","container":"c","environment":"Live","authorizationToken":"t",)"
                          R"("enableOfflineTracking":true,"offlineTrackingTimeout":1})"),
        std::string(encodeJsonText(fullConfig("text"))),  // text row, not data
        Bytes{}, std::nullopt};
    for (const auto& value : stored) {
        value ? openFile()->set(kKey, *value) : openFile()->remove(kKey);
        UserDefaultsUtility::resetCacheForTesting();
        log.sink->clear();
        TrackingSettings::loadConfigFromUserDefaults();
        // A stored value that cannot be read is named before the usual warning.
        auto lines = log.sink->messages(platform::LogType::error);
        ASSERT_EQ(lines.size(), value ? 2u : 1u);
        EXPECT_EQ(lines.back(), "No TrackConfig found in UserDefaults.");
        if (value) {
            EXPECT_EQ(lines.front().rfind("TrackConfig: the value stored under key com.tavrin.TrackingSettings ", 0), 0u)
                << lines.front();
        }
        EXPECT_EQ(log.sink->records().size(), lines.size());
        EXPECT_EQ(TrackingSettings::shared(), before);
    }
}

TEST_F(TrackingSettingsStore, ClearRemovesTheStoredValueTheCacheAndTheInstance) {
    TrackingSettings::configure(fullConfig("a"));
    log.sink->clear();
    TrackingSettings::clearConfigFromUserDefaults();
    EXPECT_EQ(log.sink->messages(), Lines{"TrackingSettings removed from UserDefaults."});
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
    TrackingSettings::loadConfigFromUserDefaults();  // neither the cache nor the file has it
    EXPECT_TRUE(log.sink->contains("No TrackConfig found in UserDefaults."));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TrackingSettings::shared(), kNotInitialized);
}

TEST(TrackingSettingsWithoutConfiguration, SharedLogsThenStopsRequiredGettersStopOptionalOnesAnswer) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TrackingSettings::resetForTesting();
    auto withStderrLog = [] { platform::SystemLog::setSink(std::make_shared<platform::StderrSink>()); };
    // The error line (through a stderr sink) comes first, then the stop message.
    EXPECT_DEATH({ withStderrLog(); TrackingSettings::shared(); },
                 std::string("ERROR: ") + kNotInitialized + "\n" + kNotInitialized + "\n$");

    const TrackingSettings empty(std::nullopt);
    for (const auto& getter : std::vector<std::function<void()>>{
             [&] { (void)empty.trackDomain(); }, [&] { (void)empty.container(); },
             [&] { (void)empty.environment(); }, [&] { (void)empty.authorizationToken(); }})
        EXPECT_DEATH({ withStderrLog(); getter(); }, "^TrackConfig is not available\\.\n$");

    EXPECT_EQ(empty.offlineTrackingTimeout(), 3600.0);
    EXPECT_FALSE(empty.enableOfflineTracking());
    EXPECT_FALSE(empty.version() || empty.debugCode() || empty.sessionTimeoutInSeconds() || empty.customProtocol() ||
                 empty.config());
}

}  // namespace
}  // namespace tavrin
