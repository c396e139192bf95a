#include "tavrin/sdk/track_config.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <type_traits>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::decodeFailure;
using testing::fullConfig;
using testing::minimalConfig;

DecodingError decodeFailure(const Json& doc) { return decodeFailure<TrackConfig>(platform::dumpJson(doc)); }

TEST(TrackConfigEncode, KeysInFieldOrderAndEmptyOptionalsLeftOut) {
    EXPECT_EQ(encodeJsonText(fullConfig()),
              R"({"trackDomain":"collect.example.com","container":"shop-app","environment":"stage","version":"3",)"
              R"("debugCode":"dbg-1","sessionTimeoutInSeconds":1800.5,"authorizationToken":"token",)"
              R"("customProtocol":"http","enableOfflineTracking":true,"offlineTrackingTimeout":86400.0})");
    EXPECT_EQ(encodeJsonText(minimalConfig()),
              R"({"trackDomain":"d","container":"c","environment":"live","authorizationToken":"",)"
              R"("enableOfflineTracking":false,"offlineTrackingTimeout":0.25})");
}

TEST(TrackConfigEncode, NonFiniteDurationsAreEncodingErrors) {
    try {
        encodeJson(fullConfig("c", std::nan("")));
        FAIL() << "encoded NaN";
    } catch (const EncodingError& e) {
        EXPECT_EQ(e.codingPath(), CodingPath{"offlineTrackingTimeout"});
    }
    auto config = fullConfig();
    config.sessionTimeoutInSeconds = INFINITY;
    EXPECT_THROW(encodeJson(config), EncodingError);
}

TEST(TrackConfigDefaults, FieldsLeftOutTakeTheSettingsFallbacks) {
    static_assert(std::is_aggregate_v<TrackConfig>);
    const TrackConfig blank;
    const TrackConfig named{.trackDomain = "d", .container = "c", .authorizationToken = "t"};
    for (const TrackConfig& config : {blank, named}) {
        EXPECT_EQ(config.environment, TrackConfig::Environment::live);
        EXPECT_FALSE(config.enableOfflineTracking);
        EXPECT_EQ(config.offlineTrackingTimeout, 3600.0);
        EXPECT_FALSE(config.version || config.debugCode || config.sessionTimeoutInSeconds || config.customProtocol);
    }
    EXPECT_EQ(encodeJsonText(named), R"({"trackDomain":"d","container":"c","environment":"live",)"
                                     R"("authorizationToken":"t","enableOfflineTracking":false,)"
                                     R"("offlineTrackingTimeout":3600.0})");
}

TEST(TrackConfigDecode, RoundTripsAndAcceptsMissingOrNullOptionals) {
    EXPECT_EQ(decodeJson<TrackConfig>(encodeJsonText(fullConfig())), fullConfig());
    EXPECT_EQ(decodeJson<TrackConfig>(encodeJsonText(minimalConfig())), minimalConfig());

    Json doc = encodeJson(minimalConfig());
    for (const char* key : {"version", "debugCode", "sessionTimeoutInSeconds", "customProtocol"}) doc[key] = nullptr;
    EXPECT_EQ(decodeJson<TrackConfig>(platform::dumpJson(doc)), minimalConfig());
    // Integral JSON numbers are fine for the durations.
    doc["offlineTrackingTimeout"] = 60;
    EXPECT_EQ(decodeJson<TrackConfig>(platform::dumpJson(doc)), minimalConfig(60));
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
}

TEST(TrackConfigDecode, WrongValuesFailAtTheFirstBadKeyInFieldOrder) {
    struct Case {
        const char* key;
        Json value;
        DecodingError::Kind kind;
    };
    for (const auto& [key, value, kind] : std::initializer_list<Case>{
             {"environment", "Live", DecodingError::Kind::dataCorrupted},  // raw values are case-sensitive
             {"environment", "live ", DecodingError::Kind::dataCorrupted},
             {"environment", "prod", DecodingError::Kind::dataCorrupted},
             {"enableOfflineTracking", "true", DecodingError::Kind::typeMismatch},
             {"authorizationToken", nullptr, DecodingError::Kind::valueNotFound},
             {"version", 3, DecodingError::Kind::typeMismatch}}) {
        Json doc = encodeJson(minimalConfig());
        doc[key] = value;
        auto e = decodeFailure(doc);
        EXPECT_EQ(e.kind(), kind) << key;
        EXPECT_EQ(e.codingPath(), CodingPath{key});
    }
    Json doc = encodeJson(minimalConfig());
    doc.erase("offlineTrackingTimeout");
    doc["environment"] = "prod";
    EXPECT_EQ(decodeFailure(doc).codingPath(), CodingPath{"environment"});
}

}  // namespace
}  // namespace tavrin
