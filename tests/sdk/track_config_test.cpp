#include "tavrin/sdk/track_config.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::fullConfig;
using testing::minimalConfig;
using K = DecodingError::Kind;

TEST(TrackConfigTest, EncodesMembersInFieldOrderWithoutAbsentOptionals) {
    EXPECT_EQ(encodeJsonText(fullConfig()),
              R"({"trackDomain":"collect.example.com","container":"shop-app","environment":"stage","version":"3",)"
              R"("debugCode":"dbg-1","sessionTimeoutInSeconds":1800.5,"authorizationToken":"token",)"
              R"("customProtocol":"http","enableOfflineTracking":true,"offlineTrackingTimeout":86400.0})");
    EXPECT_EQ(encodeJsonText(minimalConfig()),
              R"({"trackDomain":"d","container":"c","environment":"live","authorizationToken":"",)"
              R"("enableOfflineTracking":false,"offlineTrackingTimeout":0.25})");
}

TEST(TrackConfigTest, NonFiniteDurationFailsTheEncodingAtItsKey) {
    auto infiniteSession = fullConfig();
    infiniteSession.sessionTimeoutInSeconds = INFINITY;
    const std::pair<TrackConfig, const char*> cases[] = {{fullConfig("c", std::nan("")), "offlineTrackingTimeout"},
                                                         {infiniteSession, "sessionTimeoutInSeconds"}};
    for (const auto& [config, key] : cases) {
        try {
            encodeJson(config);
            ADD_FAILURE() << key << " encoded";
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.codingPath(), CodingPath{key});
        }
    }
}

TEST(TrackConfigTest, FieldsLeftOutTakeTheDefaults) {
    const TrackConfig named{.trackDomain = "d", .container = "c", .authorizationToken = "t"};
    EXPECT_EQ(named.environment, TrackConfig::Environment::live);
    EXPECT_FALSE(named.enableOfflineTracking);
    EXPECT_EQ(named.offlineTrackingTimeout, 3600.0);
    EXPECT_FALSE(named.version || named.debugCode || named.sessionTimeoutInSeconds || named.customProtocol);
}

TEST(TrackConfigTest, DecodingRoundTripsAndReadsNullOptionalsAsAbsent) {
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
        {"environment", "live ", K::dataCorrupted},
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

}  // namespace
}  // namespace tavrin
