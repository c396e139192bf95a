#include "tavrin/tracking/internal/push_payload.h"

#include <gtest/gtest.h>

namespace tavrin {
namespace {

PushPayload sample(std::optional<std::string> id = std::nullopt) {
    return PushPayload("pageview", "click",
                       {{"price", CodableValue::decimalNumber(9.99)},
                        {"qty", CodableValue::integer(3)},
                        {"tags", CodableValue::array({CodableValue::string("a"), CodableValue::boolean(true)})}},
                       7, std::move(id));
}

// Kind and path of the DecodingError from decoding json; the path is {"decoded"} when it decodes.
std::pair<DecodingError::Kind, CodingPath> failure(const Json& json) {
    try {
        decodeJson<PushPayload>(Decoder(json));
    } catch (const DecodingError& e) {
        return {e.kind(), e.codingPath()};
    }
    return {DecodingError::Kind::dataCorrupted, {"decoded"}};
}

TEST(PushPayload, EncodesAllFiveMembersInOrderWithAFreshOrStoredId) {
    EXPECT_EQ(encodeJsonText(sample("11111111-2222-4333-8444-555555555555")),
              R"({"track":"pageview","type":"click","customProperties":{"price":9.99,"qty":3,"tags":["a",true]},)"
              R"("order":7,"id":"11111111-2222-4333-8444-555555555555"})");
    // Empty properties are still written.
    EXPECT_EQ(encodeJsonText(PushPayload("t", "y", {}, 0, "x")),
              R"({"track":"t","type":"y","customProperties":{},"order":0,"id":"x"})");
    const auto first = sample();
    EXPECT_EQ(first.id.size(), 36u);
    EXPECT_NE(first.id, sample().id);
    // Decoding keeps the stored id; whole numbers decode as integers, fractions as doubles.
    const auto decoded = decodeJson<PushPayload>(encodeJsonText(first));
    EXPECT_EQ(decoded, first);
    EXPECT_EQ(decoded.id, first.id);
    EXPECT_EQ(decoded.customProperties.at("qty"), CodableValue::integer(3));
    const auto stored =
        decodeJson<PushPayload>(R"({"id":"stored-id","order":-2,"customProperties":{},"type":"b","track":"a"})");
    EXPECT_EQ(stored, PushPayload("a", "b", {}, -2, "stored-id"));
}

TEST(PushPayload, MissingOrMistypedMembersFailWithTheirPath) {
    for (const char* missing : {"track", "type", "customProperties", "order", "id"}) {
        Json json = encodeJson(sample());
        json.erase(missing);
        EXPECT_EQ(failure(json).first, DecodingError::Kind::keyNotFound) << missing;
    }
    const std::pair<const char*, Json> mistyped[] = {{"track", Json(1)},   {"type", Json(nullptr)},
                                                     {"customProperties", Json::array()},
                                                     {"order", Json(1.5)}, {"id", Json(false)}};
    for (const auto& [key, value] : mistyped) {
        Json json = encodeJson(sample());
        json[key] = value;
        const auto [kind, path] = failure(json);
        EXPECT_NE(kind, DecodingError::Kind::keyNotFound) << key;
        EXPECT_EQ(path, CodingPath{key});
    }
    // A property value with no CodableValue form fails inside customProperties.
    Json json = encodeJson(sample());
    json["customProperties"]["bad"] = Json::object();
    EXPECT_EQ(failure(json).second, (CodingPath{"customProperties", "bad"}));
}

}  // namespace
}  // namespace tavrin
