#include "tavrin/tracking/internal/any_codable.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <string_view>

#include "tavrin/tracking/internal/dynamic_coding_key.h"
#include "tests/support/decoding_assertions.h"

namespace tavrin {
namespace {

AnyCodable decodeText(std::string_view text) { return decodeJson<AnyCodable>(text); }

TEST(AnyCodableDecode, TriesBooleanIntegerDoubleTextDictionaryArrayInOrder) {
    using Dict = AnyCodable::Dictionary;
    using Arr = AnyCodable::Array;
    const std::pair<const char*, AnyCodable> cases[] = {
        {"true", true},
        {"false", false},
        // 1 and 0 stay integers; only JSON booleans are booleans.
        {"1", 1},
        {"0", 0},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"1.5", 1.5},
        {"1e2", 100.0},
        // Beyond the signed range the integer attempt fails and the double one wins.
        {"9223372036854775808", 9223372036854775808.0},
        // Text that looks like other kinds stays text.
        {"\"true\"", "true"},
        {"\"1\"", "1"},
        {R"({"a":1,"b":{"c":[true,"s"]},"e":[]})", Dict{{"a", 1}, {"b", Dict{{"c", Arr{true, "s"}}}}, {"e", Arr{}}}},
    };
    for (const auto& [text, expected] : cases) {
        const AnyCodable decoded = decodeText(text);
        EXPECT_TRUE(decoded == expected) << text;
        // Held as the C++ type the literal gives (std::int64_t for integers, wrappers in containers).
        EXPECT_STREQ(decoded.value().type().name(), expected.value().type().name()) << text;
    }
}

TEST(AnyCodableDecode, NullIsUnsupported) {
    const auto unsupported = [](auto decode, const CodingPath& path) {
        return testing::failsWith(decode, DecodingError::Kind::typeMismatch, path, "Unsupported JSON value");
    };
    EXPECT_TRUE(unsupported([] { decodeText("null"); }, CodingPath{}));
    // A failing member fails its whole container, reported at the container's path.
    EXPECT_TRUE(unsupported([] { decodeText(R"({"a":[1,null]})"); }, CodingPath{}));
    EXPECT_TRUE(unsupported([] { decodeJson<std::map<std::string, AnyCodable>>(R"({"ok":1,"k":{"x":null}})"); },
                            CodingPath{"k"}));
    EXPECT_TRUE(unsupported([] { decodeJson<std::vector<AnyCodable>>("[1,2,null]"); }, CodingPath{"Index 2"}));
}

TEST(AnyCodableEncode, WritesEachSupportedKind) {
    const std::pair<AnyCodable, const char*> cases[] = {
        {AnyCodable(true), "true"},
        {AnyCodable(42), "42"},
        {AnyCodable(short{-7}), "-7"},
        {AnyCodable(2.5), "2.5"},
        {AnyCodable(1.0), "1.0"},  // doubles keep their own form
        {AnyCodable(0.25f), "0.25"},
        {AnyCodable("literal"), "\"literal\""},
        {AnyCodable(std::string_view("view")), "\"view\""},
        {AnyCodable(AnyCodable::Dictionary{{"k", AnyCodable(1)}, {"j", AnyCodable("v")}}), R"({"j":"v","k":1})"},
        {AnyCodable(
             AnyCodable::Array{AnyCodable(1), AnyCodable(AnyCodable::Array{}), AnyCodable(AnyCodable::Dictionary{})}),
         "[1,[],{}]"},
    };
    for (const auto& [value, text] : cases) EXPECT_EQ(encodeJsonText(value), text);
    EXPECT_FALSE(AnyCodable(1) == AnyCodable(1.0));
    EXPECT_FALSE(AnyCodable(true) == AnyCodable(1));
    EXPECT_TRUE(decodeText(R"({"a":[1,2.5,"x",{}]})") == decodeText(R"({"a":[1,2.5,"x",{}]})"));
    EXPECT_FALSE(AnyCodable(std::map<std::string, int>{}) == AnyCodable(std::map<std::string, int>{}));
}

TEST(AnyCodableEncode, UnsupportedValuesFailWithTheirPath) {
    auto expectInvalid = [](const AnyCodable& value, const CodingPath& path, const std::string& debug) {
        try {
            value.encode();
            ADD_FAILURE() << "encoded";
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
            EXPECT_EQ(e.debugDescription(), debug);
            EXPECT_EQ(e.codingPath(), path);
            EXPECT_TRUE(e.value().has_value());
        }
    };
    // A dictionary of bare values is not a dictionary of AnyCodable.
    const std::map<std::string, int> bare{{"a", 1}};
    expectInvalid(AnyCodable(bare), {}, "Unsupported JSON value");
    expectInvalid(
        AnyCodable(AnyCodable::Dictionary{{"outer", AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(bare)})}}),
        {"outer", "Index 1"}, "Unsupported JSON value");
    expectInvalid(AnyCodable(nullptr), {}, "Unsupported JSON value");
    expectInvalid(AnyCodable(std::vector<int>{1}), {}, "Unsupported JSON value");
    expectInvalid(AnyCodable(std::nan("")), {}, "Unable to encode Double.nan directly in JSON.");
    expectInvalid(AnyCodable(AnyCodable::Array{AnyCodable(-std::numeric_limits<double>::infinity())}), {"Index 0"},
                  "Unable to encode Double.-infinity directly in JSON.");
    // The rejected value travels with the error.
    try {
        AnyCodable(bare).encode();
    } catch (const EncodingError& e) {
        const auto* value = std::any_cast<std::map<std::string, int>>(&e.value());
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(*value, bare);
    }
    // An empty wrapper holds nothing encodable.
    EXPECT_THROW(AnyCodable().encode(), EncodingError);
}

TEST(DynamicCodingKey, TextKeysOnly) {
    EXPECT_EQ(DynamicCodingKey("x").description(), "DynamicCodingKey(stringValue: \"x\", intValue: nil)");
    EXPECT_FALSE(DynamicCodingKey("x").intValue().has_value());
    EXPECT_FALSE(DynamicCodingKey::fromIntValue(0).has_value());
}

}  // namespace
}  // namespace tavrin
