// What pushes keep of a host's values: nothing nested deeper than JSON can
// carry, whatever the host hands over.

#include <gtest/gtest.h>

#include "tavrin/platform/internal/json.h"
#include "tests/tracking/tracking_service_fixture.h"

namespace tavrin::testing {
namespace {

// `levels` arrays (or dictionaries under "in") around the text "bottom",
// built without recursion.
AnyValue nested(int levels, bool dictionaries) {
    AnyValue value = "bottom";
    for (int i = 0; i < levels; ++i) {
        if (dictionaries) {
            AnyValue::Dictionary outer;
            outer.emplace("in", std::move(value));
            value = AnyValue(std::move(outer));
        } else {
            AnyValue::Array outer;
            outer.push_back(std::move(value));
            value = AnyValue(std::move(outer));
        }
    }
    return value;
}

CodableValue nestedArrays(int levels) {
    CodableValue value = CodableValue::string("bottom");
    for (int i = 0; i < levels; ++i) {
        CodableValue::Array outer;
        outer.push_back(std::move(value));
        value = CodableValue::array(std::move(outer));
    }
    return value;
}

// Levels of single-element arrays or objects from `value` down, and what is at the bottom.
std::pair<int, Json> unwrap(Json value) {
    int levels = 0;
    for (;; ++levels) {
        Json inner;
        if (value.is_array() && value.size() == 1) inner = value[0];
        else if (value.is_object() && value.contains("in")) inner = value["in"];
        else return {levels, value};
        value = std::move(inner);
    }
}

using PushLimitsTest = TrackingServiceTest;

TEST_F(PushLimitsTest, ValuesNestedPastTheJsonLimitAreDroppedAndTheHostRunsOn) {
    auto service = start();
    AnyValue::Dictionary push{{"track", "deep"}, {"kept", 1}};
    push.emplace("arrays", nested(100'000, false));
    push.emplace("dictionaries", nested(100'000, true));
    push.emplace("fits", nested(511, false));  // with the push itself 512 levels, the most JSON carries
    service->push(std::move(push));
    service->addCustomEnrichment("plugin", {{"deep", nestedArrays(100'000)}, {"flat", CodableValue::string("x")}}, {});
    AnyValue::Dictionary product{{"sku", "A1"}};
    product.emplace("deep", nested(100'000, true));
    service->addToCart(std::move(product)).get();

    const auto submissions = transport->submissions();
    ASSERT_EQ(submissions.size(), 1u);
    const auto& sent = submissions[0].data;
    // Arrays keep their scalar elements only, so the nested ones are gone; a
    // dictionary is no property at all.
    const auto& properties = sent.variables.customProperties;
    EXPECT_EQ(properties.at("kept"), CodableValue::integer(1));
    EXPECT_EQ(properties.at("arrays"), CodableValue::array({}));
    EXPECT_FALSE(properties.contains("dictionaries"));
    EXPECT_EQ(properties.at("sku"), CodableValue::array({CodableValue::string("A1")}));
    const auto& arguments = sent.enrichment.value().at("plugin").arguments;
    EXPECT_EQ(arguments.at("flat"), CodableValue::string("x"));
    EXPECT_EQ(unwrap(encodeJson(arguments.at("deep"))), std::make_pair(510, Json::array()));

    // The push's debug tag shows everything up to the limit, and JSON can read it back.
    std::optional<Json> shown;
    for (const auto& tag : TagCache::shared().tags()) {
        const auto at = tag.name.find("Command: deep | Data: ");
        if (tag.id == "AD01" && at != std::string::npos) shown = platform::parseJson(tag.name.substr(at + 22));
    }
    ASSERT_TRUE(shown);
    EXPECT_EQ(unwrap((*shown)["arrays"]), std::make_pair(510, Json::array()));
    EXPECT_EQ(unwrap((*shown)["dictionaries"]), std::make_pair(510, Json::object()));
    EXPECT_EQ(unwrap((*shown)["fits"]), std::make_pair(511, Json("bottom")));
    for (const char* entry : {"custom property arrays.", "custom property dictionaries.", "custom property deep.",
                              "enrichment argument deep."})
        EXPECT_EQ(log.sink->count(std::string("Warning: Values nested deeper than 512 levels dropped from ") + entry), 1u)
            << entry;
    EXPECT_EQ(log.sink->count("Warning: Values nested deeper than 512 levels dropped from custom property fits."), 0u);
}

}  // namespace
}  // namespace tavrin::testing
