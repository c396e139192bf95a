#include "tavrin/monitor/internal/tag.h"

#include <gtest/gtest.h>

#include "tests/support/decoding_assertions.h"

namespace tavrin {
namespace {

TEST(TagTest, InfoTagWritesEveryMemberWithItsExactKeyInOrder) {
    EXPECT_EQ(platform::dumpJson(Tag::makeInfo("AC04", "T-SDK: [CONSENT] - [AC04] x", 1700000000123, true).encode()),
              R"({"id":"AC04","name":"T-SDK: [CONSENT] - [AC04] x","source":"frontend","type":"info",)"
              R"("timestamp":1700000000123,"trigger":{"id":"","executed":true,"conditions":[],"excludeTriggers":[]},)"
              R"("http":{"general":{"requestUrl":"","requestMethod":"","requestStatus":200,"remoteAddress":""},)"
              R"("payload":{},"requestHeaders":{},"queryStringParameters":{},)"
              R"("response":{"status":200,"statusText":"","data":"","success":true,"headers":{}}},)"
              R"("variables":{"frontend":{},"backend":{},"constant":{},"enrichment":{}},"functions":{}})");
    EXPECT_FALSE(Tag::makeInfo("AI01", "n", 1, false).encode()["http"]["response"]["success"].get<bool>());
}

TEST(TagTest, DecodesWhatItEncodesIncludingLooseValues) {
    Tag tag = Tag::makeInfo("AD01", "push", 42, false);
    tag.trigger.conditions = {AnyCodable("a"), AnyCodable(std::int64_t{3})};
    tag.http.general.requestUrl = "https://collect.example.com";
    tag.http.payload = {{"nested", AnyCodable(AnyCodable::Dictionary{{"x", AnyCodable(1.5)}})}};
    tag.http.response.headers = {{"list", AnyCodable(AnyCodable::Array{AnyCodable(true), AnyCodable("b")})}};
    tag.variables.enrichment = {{"k", AnyCodable("v")}};
    tag.functions = {{"f", AnyCodable(std::int64_t{-7})}};

    EXPECT_EQ(decodeJson<Tag>(encodeJsonText(tag)), tag);
}

TEST(TagTest, DecodingRequiresEveryMember) {
    const Json full = Tag::makeInfo("AS01", "state", 1, true).encode();
    const std::vector<std::vector<std::string>> paths = {
        {"id"}, {"functions"}, {"trigger", "excludeTriggers"}, {"http", "queryStringParameters"},
        {"http", "general", "requestUrl"}, {"http", "response", "statusText"}, {"variables", "constant"}};
    for (const auto& path : paths) {
        Json broken = full;
        Json* parent = &broken;
        for (std::size_t i = 0; i + 1 < path.size(); ++i) parent = &(*parent)[path[i]];
        parent->erase(path.back());
        EXPECT_TRUE(testing::failsWith([&] { Tag::decode(Decoder(broken)); }, DecodingError::Kind::keyNotFound,
                                       CodingPath(path.begin(), path.end() - 1)))
            << path.back();
    }
}

}  // namespace
}  // namespace tavrin
