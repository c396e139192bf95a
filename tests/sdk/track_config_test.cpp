#include "tavrin/sdk/track_config.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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

TEST(TrackConfigTest, DecodingFailsAtTheFirstBadKeyInFieldOrder) {
    struct Case {
        const char* name;
        std::function<void(Json&)> change;
        K kind;
        CodingPath path;
    };
    const auto erase = [](const char* key) { return [key](Json& doc) { doc.erase(key); }; };
    const auto set = [](const char* key, Json value) { return [key, value](Json& doc) { doc[key] = value; }; };
    const Case cases[] = {
        {"no trackDomain", erase("trackDomain"), K::keyNotFound, {}},
        {"no container", erase("container"), K::keyNotFound, {}},
        {"no environment", erase("environment"), K::keyNotFound, {}},
        {"no authorizationToken", erase("authorizationToken"), K::keyNotFound, {}},
        {"no enableOfflineTracking", erase("enableOfflineTracking"), K::keyNotFound, {}},
        {"no offlineTrackingTimeout", erase("offlineTrackingTimeout"), K::keyNotFound, {}},
        // Raw values are exact and case-sensitive.
        {"environment Live", set("environment", "Live"), K::dataCorrupted, {"environment"}},
        {"environment 'live '", set("environment", "live "), K::dataCorrupted, {"environment"}},
        {"enableOfflineTracking text", set("enableOfflineTracking", "true"), K::typeMismatch, {"enableOfflineTracking"}},
        {"authorizationToken null", set("authorizationToken", nullptr), K::valueNotFound, {"authorizationToken"}},
        {"version number", set("version", 3), K::typeMismatch, {"version"}},
        {"bad environment before a missing timeout",
         [](Json& doc) {
             doc.erase("offlineTrackingTimeout");
             doc["environment"] = "prod";
         },
         K::dataCorrupted, {"environment"}},
    };
    for (const auto& c : cases) {
        Json doc = encodeJson(minimalConfig());
        c.change(doc);
        const auto e = testing::decodeFailure<TrackConfig>(platform::dumpJson(doc));
        EXPECT_EQ(e.kind(), c.kind) << c.name;
        EXPECT_EQ(e.codingPath(), c.path) << c.name;
    }
}

}  // namespace
}  // namespace tavrin
