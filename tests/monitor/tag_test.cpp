#include "tavrin/monitor/tag.h"

#include <gtest/gtest.h>

namespace tavrin {
namespace {

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items()) keys.push_back(key);
    return keys;
}

TEST(Tag, InfoTagWritesEveryMemberWithItsExactKey) {
    const Tag tag = Tag::makeInfo("AC04", "T-SDK: [CONSENT] - [AC04] x", 1700000000123, true);
    const Json json = tag.encode();

    EXPECT_EQ(keysOf(json), (std::vector<std::string>{"id", "name", "source", "type", "timestamp", "trigger", "http",
                                                      "variables", "functions"}));
    EXPECT_EQ(json["id"], "AC04");
    EXPECT_EQ(json["name"], "T-SDK: [CONSENT] - [AC04] x");
    EXPECT_EQ(json["source"], "frontend");
    EXPECT_EQ(json["type"], "info");
    EXPECT_TRUE(json["timestamp"].is_number_integer());
    EXPECT_EQ(json["timestamp"].get<std::int64_t>(), 1700000000123);
    EXPECT_EQ(json["functions"], Json::object());

    const Json& trigger = json["trigger"];
    EXPECT_EQ(keysOf(trigger), (std::vector<std::string>{"id", "executed", "conditions", "excludeTriggers"}));
    EXPECT_EQ(trigger["id"], "");
    EXPECT_EQ(trigger["executed"], true);
    EXPECT_EQ(trigger["conditions"], Json::array());
    EXPECT_EQ(trigger["excludeTriggers"], Json::array());

    const Json& http = json["http"];
    EXPECT_EQ(keysOf(http),
              (std::vector<std::string>{"general", "payload", "requestHeaders", "queryStringParameters", "response"}));
    EXPECT_EQ(http["general"], Json::parse(R"({"requestUrl":"","requestMethod":"","requestStatus":200,"remoteAddress":""})"));
    EXPECT_EQ(keysOf(http["general"]),
              (std::vector<std::string>{"requestUrl", "requestMethod", "requestStatus", "remoteAddress"}));
    EXPECT_EQ(http["payload"], Json::object());
    EXPECT_EQ(http["requestHeaders"], Json::object());
    EXPECT_EQ(http["queryStringParameters"], Json::object());
    EXPECT_EQ(keysOf(http["response"]), (std::vector<std::string>{"status", "statusText", "data", "success", "headers"}));
    EXPECT_EQ(http["response"],
              Json::parse(R"({"status":200,"statusText":"","data":"","success":true,"headers":{}})"));

    EXPECT_EQ(keysOf(json["variables"]), (std::vector<std::string>{"frontend", "backend", "constant", "enrichment"}));
    for (const auto& [key, group] : json["variables"].items()) EXPECT_EQ(group, Json::object()) << key;

    EXPECT_FALSE(Tag::makeInfo("AI01", "n", 1, false).encode()["http"]["response"]["success"].get<bool>());
}

TEST(Tag, DecodesWhatItEncodesIncludingLooseValues) {
    Tag tag = Tag::makeInfo("AD01", "push", 42, false);
    tag.trigger.conditions = {AnyCodable("a"), AnyCodable(std::int64_t{3})};
    tag.http.general.requestUrl = "https://collect.example.com";
    tag.http.payload = {{"nested", AnyCodable(AnyCodable::Dictionary{{"x", AnyCodable(1.5)}})}};
    tag.http.response.headers = {{"list", AnyCodable(AnyCodable::Array{AnyCodable(true), AnyCodable("b")})}};
    tag.variables.enrichment = {{"k", AnyCodable("v")}};
    tag.functions = {{"f", AnyCodable(std::int64_t{-7})}};

    const std::string text = encodeJsonText(tag);
    const Tag back = decodeJson<Tag>(text);
    EXPECT_EQ(back, tag);
    EXPECT_EQ(encodeJsonText(back), text);
}

TEST(Tag, DecodingRequiresEveryMember) {
    const Json full = Tag::makeInfo("AS01", "state", 1, true).encode();
    const std::vector<std::vector<std::string>> paths = {
        {"id"},
        {"functions"},
        {"trigger", "excludeTriggers"},
        {"http", "queryStringParameters"},
        {"http", "general", "requestUrl"},
        {"http", "response", "statusText"},
        {"variables", "constant"},
    };
    for (const auto& path : paths) {
        Json broken = full;
        Json* parent = &broken;
        for (std::size_t i = 0; i + 1 < path.size(); ++i) parent = &(*parent)[path[i]];
        parent->erase(path.back());
        try {
            Tag::decode(Decoder(broken));
            ADD_FAILURE() << "decoded without " << path.back();
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::keyNotFound) << path.back();
        }
    }

    Json wrongType = full;
    wrongType["timestamp"] = 1.5;
    EXPECT_THROW(Tag::decode(Decoder(wrongType)), DecodingError);
}

}  // namespace
}  // namespace tavrin
