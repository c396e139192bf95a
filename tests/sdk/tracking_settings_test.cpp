// The settings store and the configuration record it persists.
#include "tavrin/sdk/internal/tracking_settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <tuple>
#include <vector>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::fullConfig;
using testing::minimalConfig;
using K = DecodingError::Kind;
using Value = platform::KeyValueStore::Value;

constexpr const char* kKey = "com.tavrin.TrackingSettings";
constexpr const char* kNotInitialized =
    "TrackingSettings is not initialized\\. Call TrackingSettings\\.configure\\(\\.\\.\\.\\) first\\.";
constexpr const char* kNotInitializedText =
    "TrackingSettings is not initialized. Call TrackingSettings.configure(...) first.";

TEST(TrackConfigTest, EncodesMembersInFieldOrderWithoutAbsentOptionals) {
    EXPECT_EQ(encodeJsonText(fullConfig()),
              R"({"trackDomain":"collect.example.com","container":"shop-app","environment":"stage","version":"3",)"
              R"("debugCode":"dbg-1","sessionTimeoutInSeconds":1800.5,"authorizationToken":"token",)"
              R"("customProtocol":"http","enableOfflineTracking":true,"offlineTrackingTimeout":86400.0})");
    EXPECT_EQ(encodeJsonText(minimalConfig()),
              R"({"trackDomain":"d","container":"c","environment":"live","authorizationToken":"",)"
              R"("enableOfflineTracking":false,"offlineTrackingTimeout":0.25})");
}

TEST(TrackConfigTest, DecodingReadsNullOptionalsAsAbsent) {
    EXPECT_EQ(decodeJson<TrackConfig>(encodeJsonText(fullConfig())), fullConfig());
    Json doc = encodeJson(minimalConfig());
    for (const char* key : {"version", "debugCode", "sessionTimeoutInSeconds", "customProtocol"}) doc[key] = nullptr;
    doc["offlineTrackingTimeout"] = 60;  // a whole JSON number is a fine duration
    EXPECT_EQ(decodeJson<TrackConfig>(platform::dumpJson(doc)), minimalConfig(60));
}

TEST(TrackConfigTest, EveryRequiredKeyIsRequired) {
    for (const char* key : {"trackDomain", "container", "environment", "authorizationToken", "enableOfflineTracking",
                            "offlineTrackingTimeout"}) {
        Json doc = encodeJson(minimalConfig());
        doc.erase(key);
        EXPECT_EQ(testing::decodeFailure<TrackConfig>(platform::dumpJson(doc)).kind(), K::keyNotFound) << key;
    }
}

TEST(TrackConfigTest, WrongValueFailsAtTheFirstBadKeyInFieldOrder) {
    const std::tuple<const char*, Json, K> cases[] = {
        {"environment", "Live", K::dataCorrupted},  // raw values are exact and case-sensitive
        {"enableOfflineTracking", "true", K::typeMismatch},
        {"authorizationToken", nullptr, K::valueNotFound},
        {"version", 3, K::typeMismatch}};
    for (const auto& [key, value, kind] : cases) {
        Json doc = encodeJson(minimalConfig());
        doc[key] = value;
        doc.erase("offlineTrackingTimeout");  // a later missing key does not hide the bad one
        const auto e = testing::decodeFailure<TrackConfig>(platform::dumpJson(doc));
        EXPECT_EQ(e.kind(), kind) << key;
        EXPECT_EQ(e.codingPath(), CodingPath{key});
    }
}

using TrackingSettingsTest = testing::StoreTest;
using TrackingSettingsDeathTest = testing::StoreTest;

TrackConfig withoutToken(TrackConfig config) {
    config.authorizationToken.clear();
    return config;
}

// The token is a secret: what is stored is the configuration without it, and a
// value an earlier version stored with it is replaced, to the last byte of the files.
TEST_F(TrackingSettingsTest, ConfigurePersistsTheConfigurationWithoutItsToken) {
    auto config = fullConfig("a");
    config.authorizationToken = "earlier-secret-token";
    UserDefaultsUtility::save(config, TrackingSettings::userDefaultsKey);  // as earlier versions stored it
    config.authorizationToken = "current-secret-token";
    TrackingSettings::configure(config);
    EXPECT_EQ(platform::toString(openFile()->data(kKey).value_or(Bytes{})), encodeJsonText(withoutToken(config)));
    EXPECT_EQ(TrackingSettings::shared()->config(), config);

    forgetProcessState();  // closes the store, its journal folded into the file
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        std::ifstream file(entry.path(), std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}).find("secret-token"), std::string::npos)
            << entry.path();
    }
}

TEST_F(TrackingSettingsTest, ConfigurationThatCannotBeSavedIsStillInstalled) {
    TrackingSettings::configure(fullConfig("a", std::nan("")));
    EXPECT_EQ(TrackingSettings::shared()->container(), "a");
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
}

TEST_F(TrackingSettingsTest, LoadInstallsWhatAnEarlierLaunchPersisted) {
    TrackingSettings::configure(fullConfig("a"));
    forgetProcessState();
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(TrackingSettings::shared()->config(), withoutToken(fullConfig("a")));  // configure gives the token
}

TEST_F(TrackingSettingsTest, LoadOfNothingReadableKeepsTheInstance) {
    TrackingSettings::configure(fullConfig("a"));
    const auto before = TrackingSettings::shared();
    // A text row where data belongs, a record missing members, nothing at all.
    for (const auto& value : std::vector<std::optional<Value>>{
             std::string(encodeJsonText(fullConfig("b"))), platform::toBytes(R"({"trackDomain":"d"})"), {}}) {
        value ? openFile()->set(kKey, *value) : openFile()->remove(kKey);
        UserDefaultsUtility::resetCacheForTesting();
        log.sink->clear();
        TrackingSettings::loadConfigFromUserDefaults();
        // A stored value that cannot be read is named before the usual warning.
        const auto lines = log.sink->messages(platform::LogType::error);
        ASSERT_EQ(lines.size(), value ? 2u : 1u);
        EXPECT_EQ(lines.back(), "No TrackConfig found in UserDefaults.");
        if (value) {
            EXPECT_EQ(lines.front().rfind("TrackConfig: the value stored under key " + std::string(kKey), 0), 0u);
        }
        EXPECT_EQ(TrackingSettings::shared(), before);
    }
}

TEST_F(TrackingSettingsDeathTest, ClearForgetsTheConfiguration) {
    TrackingSettings::configure(fullConfig("a"));
    TrackingSettings::clearConfigFromUserDefaults();
    EXPECT_EQ(openFile()->value(kKey), std::nullopt);
    TrackingSettings::loadConfigFromUserDefaults();  // neither the cache nor the file has it
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(TrackingSettings::shared(), kNotInitialized);
}

// A dying process's output without what its surroundings add: qemu's line
// on the abort (the arm64 suite), the empty line of an abort on Windows.
std::string lastWords(const std::string& output) {
    std::string kept;
    for (std::size_t start = 0; start < output.size();) {
        const auto end = std::min(output.find('\n', start), output.size());
        const std::string line = output.substr(start, end - start);
        if (!line.empty() && line.rfind("qemu: ", 0) != 0) kept += (kept.empty() ? "" : "\n") + line;
        start = end + 1;
    }
    return kept;
}

::testing::Matcher<const std::string&> endsWithLines(std::string expected) {
    return ::testing::Truly([expected](const std::string& output) { return lastWords(output).ends_with(expected); });
}

::testing::Matcher<const std::string&> isExactly(std::string expected) {
    return ::testing::Truly([expected](const std::string& output) { return lastWords(output) == expected; });
}

TEST_F(TrackingSettingsDeathTest, SharedBeforeConfigureStopsAfterAnErrorLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The error line (through a stderr sink) comes first, then the stop message.
    platform::SystemLog::setSink(std::make_shared<platform::StderrSink>());
    EXPECT_DEATH(TrackingSettings::shared(),
                 endsWithLines(std::string("ERROR: ") + kNotInitializedText + "\n" + kNotInitializedText));
}

TEST_F(TrackingSettingsDeathTest, RequiredGettersWithoutAConfigStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const TrackingSettings empty(std::nullopt);
    platform::SystemLog::setSink(std::make_shared<platform::StderrSink>());  // nothing but the stop message
    for (const auto& getter : std::vector<std::function<void()>>{
             [&] { (void)empty.trackDomain(); }, [&] { (void)empty.container(); }, [&] { (void)empty.environment(); },
             [&] { (void)empty.authorizationToken(); }})
        EXPECT_DEATH(getter(), isExactly("TrackConfig is not available."));
}

TEST_F(TrackingSettingsTest, OptionalGettersWithoutAConfigAnswerTheDefaults) {
    const TrackingSettings empty(std::nullopt);
    EXPECT_EQ(empty.offlineTrackingTimeout(), 3600.0);
    EXPECT_FALSE(empty.enableOfflineTracking());
    EXPECT_FALSE(empty.version() || empty.debugCode() || empty.sessionTimeoutInSeconds() || empty.customProtocol() ||
                 empty.config());
}

}  // namespace
}  // namespace tavrin
