#include "tavrin/sdk/track_config.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace tavrin {
namespace {

TrackConfig fullConfig() {
    return TrackConfig{.trackDomain = "collect.example.com",
                       .container = "shop-app",
                       .environment = TrackConfig::Environment::stage,
                       .version = "3",
                       .debugCode = "dbg-1",
                       .sessionTimeoutInSeconds = 1800.5,
                       .authorizationToken = "token",
                       .customProtocol = "http",
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = 86400};
}

TrackConfig minimalConfig() {
    return TrackConfig{.trackDomain = "d",
                       .container = "c",
                       .environment = TrackConfig::Environment::live,
                       .version = std::nullopt,
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = std::nullopt,
                       .authorizationToken = "",
                       .customProtocol = std::nullopt,
                       .enableOfflineTracking = false,
                       .offlineTrackingTimeout = 0.25};
}

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it) keys.push_back(it.key());
    return keys;
}

DecodingError decodeFailure(const Json& doc) {
    try {
        decodeJson<TrackConfig>(platform::dumpJson(doc));
    } catch (const DecodingError& e) {
        return e;
    }
    ADD_FAILURE() << doc.dump() << " decoded";
    return DecodingError(DecodingError::Kind::dataCorrupted, {}, "decoded");
}

TEST(TrackConfigEnvironment, RawValuesAreExactAndCaseSensitive) {
    ASSERT_EQ(TrackConfig::allEnvironments.size(), 2u);
    EXPECT_EQ(TrackConfig::allEnvironments[0], TrackConfig::Environment::live);
    EXPECT_EQ(TrackConfig::allEnvironments[1], TrackConfig::Environment::stage);
    EXPECT_STREQ(rawValue(TrackConfig::Environment::live), "live");
    EXPECT_STREQ(rawValue(TrackConfig::Environment::stage), "stage");
    EXPECT_EQ(environmentFromRawValue("live"), TrackConfig::Environment::live);
    EXPECT_EQ(environmentFromRawValue("stage"), TrackConfig::Environment::stage);
    for (const char* raw : {"Live", "LIVE", "Stage", "", "live ", "prod"})
        EXPECT_EQ(environmentFromRawValue(raw), std::nullopt) << raw;
}

TEST(TrackConfigEncode, WritesAllTenKeysInFieldOrder) {
    const Json doc = Json::parse(encodeJsonText(fullConfig()));
    EXPECT_EQ(keysOf(doc), (std::vector<std::string>{"trackDomain", "container", "environment", "version",
                                                      "debugCode", "sessionTimeoutInSeconds", "authorizationToken",
                                                      "customProtocol", "enableOfflineTracking",
                                                      "offlineTrackingTimeout"}));
    EXPECT_EQ(doc["environment"], "stage");
    EXPECT_EQ(doc["enableOfflineTracking"], true);
    EXPECT_EQ(doc["sessionTimeoutInSeconds"].get<double>(), 1800.5);
    EXPECT_EQ(doc["offlineTrackingTimeout"].get<double>(), 86400.0);
    EXPECT_EQ(doc["customProtocol"], "http");
}

TEST(TrackConfigEncode, EmptyOptionalsLeaveSixKeysAndNoNull) {
    const auto text = encodeJsonText(minimalConfig());
    const Json doc = Json::parse(text);
    EXPECT_EQ(keysOf(doc), (std::vector<std::string>{"trackDomain", "container", "environment", "authorizationToken",
                                                      "enableOfflineTracking", "offlineTrackingTimeout"}));
    EXPECT_EQ(text.find("null"), std::string::npos);
}

TEST(TrackConfigEncode, NonFiniteDurationsAreEncodingErrors) {
    auto config = fullConfig();
    config.offlineTrackingTimeout = std::nan("");
    try {
        encodeJson(config);
        FAIL() << "encoded NaN";
    } catch (const EncodingError& e) {
        EXPECT_EQ(e.codingPath(), CodingPath{"offlineTrackingTimeout"});
    }
    config = fullConfig();
    config.sessionTimeoutInSeconds = INFINITY;
    EXPECT_THROW(encodeJson(config), EncodingError);
}

TEST(TrackConfigDecode, RoundTripsAndAcceptsMissingOrNullOptionals) {
    EXPECT_EQ(decodeJson<TrackConfig>(encodeJsonText(fullConfig())), fullConfig());
    EXPECT_EQ(decodeJson<TrackConfig>(encodeJsonText(minimalConfig())), minimalConfig());

    Json doc = encodeJson(fullConfig());
    for (const char* key : {"version", "debugCode", "sessionTimeoutInSeconds", "customProtocol"}) doc[key] = nullptr;
    const auto decoded = decodeJson<TrackConfig>(platform::dumpJson(doc));
    EXPECT_EQ(decoded.version, std::nullopt);
    EXPECT_EQ(decoded.debugCode, std::nullopt);
    EXPECT_EQ(decoded.sessionTimeoutInSeconds, std::nullopt);
    EXPECT_EQ(decoded.customProtocol, std::nullopt);
    EXPECT_EQ(decoded.trackDomain, "collect.example.com");
    EXPECT_EQ(decoded.environment, TrackConfig::Environment::stage);

    // Integral JSON numbers are fine for the durations.
    doc = encodeJson(minimalConfig());
    doc["offlineTrackingTimeout"] = 60;
    EXPECT_EQ(decodeJson<TrackConfig>(platform::dumpJson(doc)).offlineTrackingTimeout, 60.0);
}

TEST(TrackConfigDecode, EveryRequiredKeyIsRequiredWithoutDefaults) {
    for (const char* key : {"trackDomain", "container", "environment", "authorizationToken", "enableOfflineTracking",
                            "offlineTrackingTimeout"}) {
        Json doc = encodeJson(minimalConfig());
        doc.erase(key);
        auto e = decodeFailure(doc);
        EXPECT_EQ(e.kind(), DecodingError::Kind::keyNotFound) << key;
        EXPECT_EQ(e.debugDescription(), std::string("No value associated with key \"") + key + "\".") << key;
    }
    Json doc = encodeJson(minimalConfig());
    doc["enableOfflineTracking"] = "true";
    EXPECT_EQ(decodeFailure(doc).kind(), DecodingError::Kind::typeMismatch);
    doc = encodeJson(minimalConfig());
    doc["authorizationToken"] = nullptr;
    EXPECT_EQ(decodeFailure(doc).kind(), DecodingError::Kind::valueNotFound);
    doc = encodeJson(minimalConfig());
    doc["version"] = 3;
    EXPECT_EQ(decodeFailure(doc).codingPath(), CodingPath{"version"});
}

TEST(TrackConfigDecode, EnvironmentTextMustMatchExactly) {
    Json doc = encodeJson(minimalConfig());
    doc["environment"] = "Live";
    auto e = decodeFailure(doc);
    EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(e.codingPath(), CodingPath{"environment"});
    doc["environment"] = "stage";
    EXPECT_EQ(decodeJson<TrackConfig>(platform::dumpJson(doc)).environment, TrackConfig::Environment::stage);
}

TEST(TrackConfigDecode, FirstBadKeyInFieldOrderIsReported) {
    Json doc = encodeJson(minimalConfig());
    doc.erase("offlineTrackingTimeout");
    doc["environment"] = "prod";
    EXPECT_EQ(decodeFailure(doc).codingPath(), CodingPath{"environment"});
}

}  // namespace
}  // namespace tavrin
