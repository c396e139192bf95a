// The JSON coding layer the records are built on: the decoder's checks, the
// two value types (CodableValue for properties and arguments, AnyCodable for
// any JSON value but null), byte buffers, and JSON text for log lines.
// Round trips of arbitrary input are the fuzz targets' job (tests/fuzz).
#include "tavrin/platform/internal/coding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "tavrin/model/internal/any_codable.h"
#include "tavrin/model/internal/codable_value_coding.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tests/support/decoding_assertions.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using K = DecodingError::Kind;
using testing::failsWith;
using CV = CodableValue;

TEST(DecoderTest, SingleValuesOfAnotherTypeFailWithTheirKind) {
    const Json doc = Json::parse(R"({"n":null,"i":7,"f":1.5,"e":1e3,"b":true,"big":18446744073709551615})");
    const Decoder root(doc);
    EXPECT_EQ(root.nested("i").decodeDouble(), 7.0);
    EXPECT_TRUE(failsWith([&] { root.nested("n").decodeString(); }, K::valueNotFound, {"n"}));
    EXPECT_TRUE(failsWith([&] { root.nested("i").decodeBool(); }, K::typeMismatch, {"i"}));
    EXPECT_TRUE(failsWith([&] { root.nested("b").decodeDouble(); }, K::typeMismatch, {"b"}));
    // Integers refuse fractions, exponents and values beyond the signed range.
    for (const char* key : {"f", "e", "big"})
        EXPECT_TRUE(failsWith([&] { root.nested(key).decodeInt64(); }, K::dataCorrupted, {key})) << key;
}

TEST(DecoderTest, NestingDeeperThanTheLimitIsRefused) {
    const auto nested = [](int depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); };
    EXPECT_EQ(decodeJson<CV>(nested(512)).kind(), CV::Kind::array);
    for (const std::string& text : {nested(513), std::string(200000, '['), std::string(100000, '{') + "\"a\":1"})
        EXPECT_TRUE(failsWith([&] { decodeJson<AnyCodable>(text); }, K::dataCorrupted, {})) << text.size();
}

TEST(DecoderTest, NulByteDoesNotEndTheText) {
    EXPECT_TRUE(failsWith([] { decodeJson<CV>(std::string_view("[1]\0[2", 7)); }, K::dataCorrupted, {}));
}

TEST(CodableValueTest, DecodingTriesTextBoolIntegerDoubleArrayInOrder) {
    // Fractions, exponents and numbers beyond the signed range are no integers.
    const std::pair<const char*, CV> cases[] = {
        {"\"1\"", CV::string("1")},
        {"true", CV::boolean(true)},
        {"1", CV::integer(1)},
        {"-9223372036854775808", CV::integer(std::numeric_limits<std::int64_t>::min())},
        {"1e3", CV::decimalNumber(1000.0)},
        {"18446744073709551615", CV::decimalNumber(18446744073709551615.0)},
        {"[1,\"a\",[true]]", CV::array({CV::integer(1), CV::string("a"), CV::array({CV::boolean(true)})})}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(decodeJson<CV>(text), expected) << text;
}

TEST(CodableValueTest, NullOrObjectFailsTheWholeValueAtItsPath) {
    for (const char* text : {"null", "[1,null]", "{\"a\":1}"})
        EXPECT_TRUE(failsWith([&] { decodeJson<CV>(text); }, K::typeMismatch, {}, "Failed to decode CodableValue"))
            << text;
    EXPECT_TRUE(failsWith([] { decodeJson<std::map<std::string, CV>>(R"({"ok":[1],"bad":[1,{}]})"); }, K::typeMismatch,
                          {"bad"}, "Failed to decode CodableValue"));
    EXPECT_TRUE(failsWith([] { decodeJson<CV>("[1,"); }, K::dataCorrupted, {}));
}

TEST(CodableValueTest, EqualityNeverMixesCases) {
    EXPECT_NE(CV::integer(1), CV::decimalNumber(1.0));
    EXPECT_NE(CV::string("true"), CV::boolean(true));
    EXPECT_NE(CV::array({CV::integer(1)}), CV::array({CV::integer(1), CV::integer(2)}));
    // Numbers follow IEEE, also inside arrays.
    EXPECT_FALSE(CV::array({CV::decimalNumber(std::nan(""))}) == CV::array({CV::decimalNumber(std::nan(""))}));
    EXPECT_EQ(CV::decimalNumber(0.0), CV::decimalNumber(-0.0));
}

TEST(AnyCodableTest, DecodingTriesBooleanIntegerDoubleTextDictionaryArrayInOrder) {
    using Dict = AnyCodable::Dictionary;
    using Arr = AnyCodable::Array;
    // 1 stays an integer, text that looks like another kind stays text, and
    // beyond the signed range the integer attempt fails and the double one wins.
    const std::pair<const char*, AnyCodable> cases[] = {
        {"true", true},
        {"1", 1},
        {"1e2", 100.0},
        {"9223372036854775808", 9223372036854775808.0},
        {"\"true\"", "true"},
        {R"({"a":1,"b":{"c":[true,"s"]},"e":[]})", Dict{{"a", 1}, {"b", Dict{{"c", Arr{true, "s"}}}}, {"e", Arr{}}}}};
    for (const auto& [text, expected] : cases) {
        const auto decoded = decodeJson<AnyCodable>(text);
        EXPECT_TRUE(decoded == expected) << text;
        // Held as the C++ type the literal gives (std::int64_t for integers, wrappers in containers).
        EXPECT_STREQ(decoded.value().type().name(), expected.value().type().name()) << text;
    }
}

TEST(AnyCodableTest, NullFailsItsContainerAtTheContainersPath) {
    EXPECT_TRUE(
        failsWith([] { decodeJson<AnyCodable>(R"({"a":[1,null]})"); }, K::typeMismatch, {}, "Unsupported JSON value"));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<AnyCodable>>("[1,2,null]"); }, K::typeMismatch, {"Index 2"},
                          "Unsupported JSON value"));
}

TEST(AnyCodableTest, EncodesEachSupportedKind) {
    // Doubles keep their own form.
    const std::pair<AnyCodable, const char*> cases[] = {
        {AnyCodable(true), "true"},
        {AnyCodable(short{-7}), "-7"},
        {AnyCodable(1.0), "1.0"},
        {AnyCodable(0.25f), "0.25"},
        {AnyCodable(std::string_view("view")), "\"view\""},
        {AnyCodable(AnyCodable::Dictionary{{"k", AnyCodable(1)}, {"j", AnyCodable("v")}}), R"({"j":"v","k":1})"},
        {AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(AnyCodable::Array{})}), "[1,[]]"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(encodeJsonText(value), text);
}

TEST(AnyCodableTest, UnsupportedValueFailsTheEncodingAtItsPath) {
    // A dictionary of bare values is not a dictionary of AnyCodable.
    const std::map<std::string, int> bare{{"a", 1}};
    const std::tuple<AnyCodable, CodingPath, const char*> cases[] = {
        {AnyCodable(AnyCodable::Dictionary{{"outer", AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(bare)})}}),
         {"outer", "Index 1"},
         "Unsupported JSON value"},
        {AnyCodable(nullptr), {}, "Unsupported JSON value"},
        {AnyCodable(std::nan("")), {}, "Unable to encode Double.nan directly in JSON."},
        {AnyCodable(AnyCodable::Array{AnyCodable(-std::numeric_limits<double>::infinity())}),
         {"Index 0"},
         "Unable to encode Double.-infinity directly in JSON."}};
    for (const auto& [value, path, description] : cases) {
        try {
            value.encode();
            ADD_FAILURE() << description << " encoded";
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.debugDescription(), description);
            EXPECT_EQ(e.codingPath(), path);
        }
    }
}

TEST(JsonCodingTest, ByteBuffersAreBase64InAnyContainer) {
    const Bytes bytes{'f', 'o', 'o'};
    EXPECT_EQ(encodeJsonText(std::map<std::string, std::vector<Bytes>>{{"k", {bytes, {}}}}), R"({"k":["Zm9v",""]})");
    EXPECT_EQ(decodeJson<std::vector<Bytes>>(R"(["Zm9v",""])"), (std::vector<Bytes>{bytes, {}}));
    EXPECT_TRUE(
        failsWith([] { decodeJson<std::vector<Bytes>>(R"(["Zm9v","not base64!"])"); }, K::dataCorrupted, {"Index 1"}));
    EXPECT_EQ(encodeJsonText(std::vector<std::int64_t>{1, 2}), "[1,2]");  // other integers stay numbers
}

TEST(JsonStringifyTest, EncodableValueGivesCompactJsonOrTheConversionFailureText) {
    testing::LogCapture capture;
    EXPECT_EQ(jsonString(std::map<std::string, std::vector<std::string>>{{"k", {"caf\xC3\xA9", "a"}}}),
              "{\"k\":[\"caf\xC3\xA9\",\"a\"]}");
    // Text that is not UTF-8 cannot be written.
    EXPECT_EQ(jsonString(std::vector<std::string>{"ok", "bad \xFF byte"}),
              "Error: Failed to convert JSON data to string.");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringifyTest, EncodingFailureBecomesTheTextWithOneErrorLine) {
    testing::LogCapture capture;
    const std::string result = jsonString(CV::decimalNumber(std::numeric_limits<double>::infinity()));
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
