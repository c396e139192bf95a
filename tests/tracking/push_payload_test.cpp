#include "tavrin/tracking/push_payload.h"

#include <gtest/gtest.h>

#include <regex>

namespace tavrin {
namespace {

const std::regex canonicalUuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");

PushPayload sample(std::optional<std::string> id = std::nullopt) {
    return PushPayload("pageview", "click",
                       {{"price", CodableValue::decimalNumber(9.99)},
                        {"qty", CodableValue::integer(3)},
                        {"tags", CodableValue::array({CodableValue::string("a"), CodableValue::boolean(true)})}},
                       7, std::move(id));
}

TEST(PushPayload, NewPayloadsGetFreshCanonicalIds) {
    const auto first = sample();
    const auto second = sample();
    EXPECT_TRUE(std::regex_match(first.id, canonicalUuid)) << first.id;
    EXPECT_NE(first.id, second.id);
    EXPECT_EQ(sample("given").id, "given");
}

TEST(PushPayload, EncodesAllFiveMembersInOrder) {
    const auto text = encodeJsonText(sample("11111111-2222-4333-8444-555555555555"));
    EXPECT_EQ(text,
              R"({"track":"pageview","type":"click","customProperties":{"price":9.99,"qty":3,"tags":["a",true]},)"
              R"("order":7,"id":"11111111-2222-4333-8444-555555555555"})");
    // Empty properties are still written.
    const auto empty = encodeJson(PushPayload("t", "y", {}, 0, "x"));
    EXPECT_TRUE(empty.at("customProperties").is_object());
    EXPECT_TRUE(empty.at("customProperties").empty());
}

TEST(PushPayload, DecodeKeepsTheStoredIdAndRoundTrips) {
    const auto original = sample();
    const auto decoded = decodeJson<PushPayload>(encodeJsonText(original));
    EXPECT_EQ(decoded, original);
    EXPECT_EQ(decoded.id, original.id);
    // Whole numbers decode as integers, fractions as doubles.
    EXPECT_EQ(decoded.customProperties.at("qty"), CodableValue::integer(3));

    const auto stored = decodeJson<PushPayload>(
        R"({"id":"stored-id","order":-2,"customProperties":{},"type":"b","track":"a"})");
    EXPECT_EQ(stored.id, "stored-id");
    EXPECT_EQ(stored.order, -2);
}

TEST(PushPayload, EveryMemberIsRequired) {
    for (const char* missing : {"track", "type", "customProperties", "order", "id"}) {
        Json json = encodeJson(sample());
        json.erase(missing);
        try {
            decodeJson<PushPayload>(Decoder(json));
            FAIL() << "decoded without " << missing;
        } catch (const DecodingError& error) {
            EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound) << missing;
        }
    }
}

TEST(PushPayload, MistypedMembersFailWithTheirPath) {
    const std::pair<const char*, Json> cases[] = {
        {"track", Json(1)},     {"type", Json(nullptr)}, {"customProperties", Json::array()},
        {"order", Json(1.5)},   {"id", Json(false)},
    };
    for (const auto& [key, value] : cases) {
        Json json = encodeJson(sample());
        json[key] = value;
        try {
            decodeJson<PushPayload>(Decoder(json));
            FAIL() << "decoded mistyped " << key;
        } catch (const DecodingError& error) {
            EXPECT_NE(error.kind(), DecodingError::Kind::keyNotFound) << key;
            ASSERT_FALSE(error.codingPath().empty()) << key;
            EXPECT_EQ(error.codingPath().front(), key);
        }
    }
    // A property value with no CodableValue form fails inside customProperties.
    Json json = encodeJson(sample());
    json["customProperties"]["bad"] = Json::object();
    try {
        decodeJson<PushPayload>(Decoder(json));
        FAIL() << "decoded an object property";
    } catch (const DecodingError& error) {
        EXPECT_EQ(error.codingPath(), (CodingPath{"customProperties", "bad"}));
    }
}

}  // namespace
}  // namespace tavrin
