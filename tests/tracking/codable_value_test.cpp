// The two value types read from and written to JSON: CodableValue (custom
// properties, enrichment arguments) and AnyCodable (any JSON value but null).
#include "tavrin/tracking/codable_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include "tavrin/tracking/internal/any_codable.h"
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tests/support/decoding_assertions.h"

namespace tavrin {
namespace {

using K = DecodingError::Kind;
using testing::failsWith;
using CV = CodableValue;

TEST(CodableValueTest, DecodingTriesTextBoolIntegerDoubleArrayInOrder) {
    // Fractions, exponents and numbers beyond the signed range are no integers.
    const std::pair<const char*, CV> cases[] = {
        {"\"1\"", CV::string("1")}, {"true", CV::boolean(true)}, {"1", CV::integer(1)},
        {"-9223372036854775808", CV::integer(std::numeric_limits<std::int64_t>::min())},
        {"1.5", CV::decimalNumber(1.5)}, {"1e3", CV::decimalNumber(1000.0)},
        {"18446744073709551615", CV::decimalNumber(18446744073709551615.0)},
        {"[1,\"a\",[true]]", CV::array({CV::integer(1), CV::string("a"), CV::array({CV::boolean(true)})})}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(decodeJson<CV>(text), expected) << text;
}

TEST(CodableValueTest, NullsAndObjectsFailTheWholeValueAtItsPath) {
    for (const char* text : {"null", "{}", "[1,null]", "{\"a\":1}"})
        EXPECT_TRUE(failsWith([&] { decodeJson<CV>(text); }, K::typeMismatch, {}, "Failed to decode CodableValue"))
            << text;
    EXPECT_TRUE(failsWith([] { decodeJson<std::map<std::string, CV>>(R"({"ok":[1],"bad":[1,{}]})"); },
                          K::typeMismatch, {"bad"}, "Failed to decode CodableValue"));
    for (const char* text : {"", "[1,", "tru", "\"unterminated", "[1]]", "\xff"})
        EXPECT_TRUE(failsWith([&] { decodeJson<CV>(text); }, K::dataCorrupted, {})) << text;
}

TEST(CodableValueTest, EqualityNeverMixesCases) {
    EXPECT_NE(CV::integer(1), CV::decimalNumber(1.0));
    EXPECT_NE(CV::string("true"), CV::boolean(true));
    EXPECT_NE(CV::array({CV::integer(1)}), CV::array({CV::integer(1), CV::integer(2)}));
    // Numbers follow IEEE, also inside arrays.
    EXPECT_FALSE(CV::array({CV::decimalNumber(std::nan(""))}) == CV::array({CV::decimalNumber(std::nan(""))}));
    EXPECT_EQ(CV::decimalNumber(0.0), CV::decimalNumber(-0.0));
}

TEST(CodableValueTest, NonFiniteNumberFailsTheEncodingAtItsPath) {
    try {
        encodeJson(CV::array({CV::integer(1), CV::array({CV::decimalNumber(std::numeric_limits<double>::infinity())})}));
        FAIL() << "encoded infinity";
    } catch (const EncodingError& e) {
        EXPECT_EQ(e.codingPath(), (CodingPath{"Index 1", "Index 0"}));
        EXPECT_EQ(e.debugDescription(), "Unable to encode Double.infinity directly in JSON.");
    }
}

TEST(AnyCodableTest, DecodingTriesBooleanIntegerDoubleTextDictionaryArrayInOrder) {
    using Dict = AnyCodable::Dictionary;
    using Arr = AnyCodable::Array;
    // 1 and 0 stay integers, text that looks like another kind stays text, and
    // beyond the signed range the integer attempt fails and the double one wins.
    const std::pair<const char*, AnyCodable> cases[] = {
        {"true", true}, {"1", 1}, {"0", 0}, {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"1.5", 1.5}, {"1e2", 100.0}, {"9223372036854775808", 9223372036854775808.0}, {"\"true\"", "true"},
        {"\"1\"", "1"},
        {R"({"a":1,"b":{"c":[true,"s"]},"e":[]})", Dict{{"a", 1}, {"b", Dict{{"c", Arr{true, "s"}}}}, {"e", Arr{}}}}};
    for (const auto& [text, expected] : cases) {
        const auto decoded = decodeJson<AnyCodable>(text);
        EXPECT_TRUE(decoded == expected) << text;
        // Held as the C++ type the literal gives (std::int64_t for integers, wrappers in containers).
        EXPECT_STREQ(decoded.value().type().name(), expected.value().type().name()) << text;
    }
}

TEST(AnyCodableTest, NullFailsItsContainerAtTheContainersPath) {
    const auto unsupported = [](auto decode, const CodingPath& path) {
        return failsWith(decode, K::typeMismatch, path, "Unsupported JSON value");
    };
    EXPECT_TRUE(unsupported([] { decodeJson<AnyCodable>("null"); }, {}));
    EXPECT_TRUE(unsupported([] { decodeJson<AnyCodable>(R"({"a":[1,null]})"); }, {}));
    EXPECT_TRUE(unsupported([] { decodeJson<std::map<std::string, AnyCodable>>(R"({"ok":1,"k":{"x":null}})"); },
                            {"k"}));
    EXPECT_TRUE(unsupported([] { decodeJson<std::vector<AnyCodable>>("[1,2,null]"); }, {"Index 2"}));
}

TEST(AnyCodableTest, EncodesEachSupportedKind) {
    // Doubles keep their own form.
    const std::pair<AnyCodable, const char*> cases[] = {
        {AnyCodable(true), "true"}, {AnyCodable(short{-7}), "-7"}, {AnyCodable(1.0), "1.0"},
        {AnyCodable(0.25f), "0.25"}, {AnyCodable(std::string_view("view")), "\"view\""},
        {AnyCodable(AnyCodable::Dictionary{{"k", AnyCodable(1)}, {"j", AnyCodable("v")}}), R"({"j":"v","k":1})"},
        {AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(AnyCodable::Array{})}), "[1,[]]"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(encodeJsonText(value), text);
    EXPECT_FALSE(AnyCodable(1) == AnyCodable(1.0));
    EXPECT_FALSE(AnyCodable(true) == AnyCodable(1));
}

TEST(AnyCodableTest, UnsupportedValueFailsTheEncodingAtItsPath) {
    // A dictionary of bare values is not a dictionary of AnyCodable.
    const std::map<std::string, int> bare{{"a", 1}};
    const std::tuple<AnyCodable, CodingPath, const char*> cases[] = {
        {AnyCodable(bare), {}, "Unsupported JSON value"},
        {AnyCodable(AnyCodable::Dictionary{{"outer", AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(bare)})}}),
         {"outer", "Index 1"}, "Unsupported JSON value"},
        {AnyCodable(nullptr), {}, "Unsupported JSON value"},
        {AnyCodable(), {}, "Unsupported JSON value"},
        {AnyCodable(std::nan("")), {}, "Unable to encode Double.nan directly in JSON."},
        {AnyCodable(AnyCodable::Array{AnyCodable(-std::numeric_limits<double>::infinity())}), {"Index 0"},
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

}  // namespace
}  // namespace tavrin
