// The JSON coding layer the records are built on: the decoder's checks and
// paths, the generic encode/decode helpers, and JSON text for log lines.
// Random malformed input is the fuzz targets' job (tests/fuzz).
#include "tavrin/tracking/internal/coding.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tavrin/tracking/internal/any_codable.h"
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tavrin/tracking/internal/json_stringify.h"
#include "tests/support/decoding_assertions.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using K = DecodingError::Kind;
using testing::failsWith;

// A record with one required, one optional and one byte-buffer member.
struct Item {
    std::string name;
    std::optional<std::int64_t> count;
    Bytes blob;

    Json encode() const {
        Json out = Json::object();
        out["name"] = encodeJson(name);
        encodeMemberIfPresent(out, "count", count);
        out["blob"] = encodeJson(blob);
        return out;
    }
    static Item decode(const Decoder& d) {
        return Item{decodeMember<std::string>(d, "name"), decodeMemberIfPresent<std::int64_t>(d, "count"),
                    decodeMember<Bytes>(d, "blob")};
    }
    friend bool operator==(const Item&, const Item&) = default;
};

TEST(DecoderTest, SingleValuesOfAnotherTypeFailWithTheirKind) {
    const Json doc = Json::parse(R"({"s":"x","n":null,"i":7,"f":1.5,"e":1e3,"b":true,"big":18446744073709551615})");
    const Decoder root(doc);
    EXPECT_EQ(root.nested("s").decodeString(), "x");
    EXPECT_EQ(root.nested("i").decodeInt64(), 7);
    EXPECT_EQ(root.nested("i").decodeDouble(), 7.0);
    EXPECT_TRUE(root.nested("b").decodeBool());
    const auto asString = [](const Decoder& d) { d.decodeString(); };
    const auto asBool = [](const Decoder& d) { d.decodeBool(); };
    const auto asInt = [](const Decoder& d) { d.decodeInt64(); };
    const auto asDouble = [](const Decoder& d) { d.decodeDouble(); };
    const std::tuple<const char*, std::function<void(const Decoder&)>, K> cases[] = {
        {"n", asString, K::valueNotFound}, {"i", asString, K::typeMismatch}, {"s", asBool, K::typeMismatch},
        {"i", asBool, K::typeMismatch},    {"b", asInt, K::typeMismatch},    {"b", asDouble, K::typeMismatch},
        // Integers refuse fractions, exponents and values beyond the signed range.
        {"f", asInt, K::dataCorrupted},    {"e", asInt, K::dataCorrupted},   {"big", asInt, K::dataCorrupted}};
    for (const auto& [key, decode, kind] : cases)
        EXPECT_TRUE(failsWith([&] { decode(root.nested(key)); }, kind, {key})) << key;
}

TEST(DecoderTest, NestedValuesCarryTheirPath) {
    const Json doc = Json::parse(R"({"list":[{"a":1},{"b":null}],"obj":{"x":"y"}})");
    const Decoder root(doc);
    EXPECT_TRUE(failsWith([&] { root.nested("missing"); }, K::keyNotFound, {}));
    const auto elements = root.nested("list").elements();
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_TRUE(failsWith([&] { elements[1].nested("a"); }, K::keyNotFound, {"list", "Index 1"}));
    EXPECT_EQ(elements[0].nestedIfPresent("a")->codingPath(), (CodingPath{"list", "Index 0", "a"}));
    EXPECT_EQ(root.nested("obj").members().at(0).second.codingPath(), (CodingPath{"obj", "x"}));
    // Missing or null members are absent for optionals.
    EXPECT_FALSE(elements[1].nestedIfPresent("b") || elements[1].nestedIfPresent("c"));
    EXPECT_TRUE(failsWith([&] { root.nested("obj").elements(); }, K::typeMismatch, {"obj"}));
    EXPECT_TRUE(failsWith([&] { root.nested("list").members(); }, K::typeMismatch, {"list"}));
    EXPECT_TRUE(failsWith([&] { root.nested("list").nested("a"); }, K::typeMismatch, {"list"}));
}

TEST(DecoderTest, NestingDeeperThanTheLimitIsRefused) {
    const auto nested = [](int depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); };
    EXPECT_EQ(decodeJson<CodableValue>(nested(512)).kind(), CodableValue::Kind::array);
    for (const std::string& text : {nested(513), std::string(200000, '['), std::string(100000, '{') + "\"a\":1"})
        EXPECT_TRUE(failsWith([&] { decodeJson<AnyCodable>(text); }, K::dataCorrupted, {})) << text.size();
}

TEST(DecoderTest, NulByteDoesNotEndTheText) {
    EXPECT_TRUE(failsWith([] { decodeJson<CodableValue>(std::string_view("[1]\0[2", 7)); }, K::dataCorrupted, {}));
}

TEST(JsonCodingTest, RecordsRoundTripWithAbsentOptionalsLeftOut) {
    const Item full{"n", 5, {0x00, 0xFF, 0x10}};
    const Item bare{"m", std::nullopt, {}};
    EXPECT_EQ(encodeJsonText(full), R"({"name":"n","count":5,"blob":"AP8Q"})");
    EXPECT_EQ(encodeJsonText(bare), R"({"name":"m","blob":""})");
    EXPECT_EQ(decodeJson<Item>(encodeJsonText(full)), full);
    EXPECT_EQ(decodeJson<Item>(R"({"name":"m","count":null,"blob":""})"), bare);
}

TEST(JsonCodingTest, BadMembersFailAtTheirPath) {
    EXPECT_TRUE(failsWith([] { decodeJson<Item>(R"({"name":"m","blob":"not base64!"})"); }, K::dataCorrupted, {"blob"}));
    EXPECT_TRUE(failsWith([] { decodeJson<Item>(R"({"blob":""})"); }, K::keyNotFound, {}));
    EXPECT_TRUE(failsWith([] { decodeJson<Item>(R"({"name":"m","count":"5","blob":""})"); }, K::typeMismatch, {"count"}));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<std::int64_t>>("[1,\"2\"]"); }, K::typeMismatch, {"Index 1"}));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<std::int64_t>>("[1,"); }, K::dataCorrupted, {}));
}

TEST(JsonCodingTest, ByteBuffersAreBase64InAnyContainer) {
    const Bytes bytes{'f', 'o', 'o'};
    EXPECT_EQ(encodeJson(std::vector<Bytes>{bytes, {}}), Json::parse(R"(["Zm9v",""])"));
    EXPECT_EQ(encodeJson(std::map<std::string, Bytes>{{"k", bytes}}), Json::parse(R"({"k":"Zm9v"})"));
    EXPECT_EQ(decodeJson<std::vector<Bytes>>(R"(["Zm9v",""])"), (std::vector<Bytes>{bytes, {}}));
    // Vectors of other integers stay arrays.
    EXPECT_EQ(encodeJson(std::vector<std::int64_t>{1, 2}), Json::parse("[1,2]"));
    const std::unordered_map<std::string, std::vector<std::string>> u{{"k", {"x", "y"}}};
    EXPECT_EQ(decodeJson<std::decay_t<decltype(u)>>(encodeJsonText(u)), u);
}

TEST(JsonCodingTest, ErrorDescriptionNamesKindPathAndDetail) {
    const std::string what = DecodingError(K::keyNotFound, {"a", "Index 0"}, "No value.").what();
    for (const char* part : {"keyNotFound", "a.Index 0", "No value."})
        EXPECT_NE(what.find(part), std::string::npos) << what;
}

// A record with a fixed member order, to show keys are not sorted.
struct Sample {
    Json encode() const { return Json::parse(R"({"name":"zeta","count":3})"); }
};
struct RawText {
    std::string text;
    Json encode() const { return Json(text); }
};

TEST(JsonStringifyTest, WritesCompactJsonInTheRecordsOwnOrder) {
    testing::LogCapture capture;
    EXPECT_EQ(jsonString(Sample{}), R"({"name":"zeta","count":3})");
    EXPECT_EQ(jsonString(CodableValue::array({CodableValue::integer(1), CodableValue::string("a")})), R"([1,"a"])");
    EXPECT_EQ(jsonString(RawText{"caf\xC3\xA9"}), "\"caf\xC3\xA9\"");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringifyTest, TextNotInUtf8IsReplacedWithoutALogLine) {
    testing::LogCapture capture;
    EXPECT_EQ(jsonString(RawText{"bad \xFF byte"}), "Error: Failed to convert JSON data to string.");
    EXPECT_EQ(jsonString(std::vector<std::string>{"ok", "\xC3"}), "Error: Failed to convert JSON data to string.");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringifyTest, EncodingFailureIsReturnedAndLoggedOnce) {
    testing::LogCapture capture;
    const std::string result = jsonString(CodableValue::decimalNumber(std::numeric_limits<double>::infinity()));
    const std::string prefix = "Error: JSON encoding failed. ";
    ASSERT_EQ(result.rfind(prefix, 0), 0u) << result;
    // The same error description follows the returned and the logged prefix.
    const std::string description = result.substr(prefix.size());
    EXPECT_NE(description.find("infinity"), std::string::npos) << description;
    EXPECT_EQ(capture.sink->messages(platform::LogType::error),
              std::vector<std::string>{"Failed to encode object to JSON: " + description});
}

}  // namespace
}  // namespace tavrin
