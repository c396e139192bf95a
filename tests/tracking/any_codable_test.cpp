#include "tavrin/tracking/any_codable.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <string_view>

#include "tavrin/tracking/dynamic_coding_key.h"

namespace tavrin {
namespace {

AnyCodable decodeText(std::string_view text) { return decodeJson<AnyCodable>(text); }

template <class T>
const T& held(const AnyCodable& value) {
    const T* p = std::any_cast<T>(&value.value());
    if (!p) throw std::runtime_error(std::string("holds ") + value.value().type().name());
    return *p;
}

TEST(AnyCodableDecode, TriesBooleanIntegerDoubleTextDictionaryArrayInOrder) {
    EXPECT_TRUE(held<bool>(decodeText("true")));
    EXPECT_FALSE(held<bool>(decodeText("false")));
    // 1 and 0 stay integers; only JSON booleans are booleans.
    EXPECT_EQ(held<std::int64_t>(decodeText("1")), 1);
    EXPECT_EQ(held<std::int64_t>(decodeText("0")), 0);
    EXPECT_EQ(held<std::int64_t>(decodeText("-9223372036854775808")), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(held<double>(decodeText("1.5")), 1.5);
    EXPECT_EQ(held<double>(decodeText("1e2")), 100.0);
    // Beyond the signed range the integer attempt fails and the double one wins.
    EXPECT_EQ(held<double>(decodeText("9223372036854775808")), 9223372036854775808.0);
    // Text that looks like other kinds stays text.
    EXPECT_EQ(held<std::string>(decodeText("\"x\"")), "x");
    EXPECT_EQ(held<std::string>(decodeText("\"true\"")), "true");
    EXPECT_EQ(held<std::string>(decodeText("\"1\"")), "1");
}

TEST(AnyCodableDecode, ContainersHoldWrappersNotBareValues) {
    const auto object = decodeText(R"({"a":1,"b":{"c":[true,"s"]}})");
    const auto& dict = held<AnyCodable::Dictionary>(object);
    ASSERT_EQ(dict.size(), 2u);
    EXPECT_EQ(held<std::int64_t>(dict.at("a")), 1);
    const auto& inner = held<AnyCodable::Dictionary>(dict.at("b"));
    const auto& array = held<AnyCodable::Array>(inner.at("c"));
    ASSERT_EQ(array.size(), 2u);
    EXPECT_TRUE(held<bool>(array[0]));
    EXPECT_EQ(held<std::string>(array[1]), "s");

    EXPECT_TRUE(held<AnyCodable::Dictionary>(decodeText("{}")).empty());
    EXPECT_TRUE(held<AnyCodable::Array>(decodeText("[]")).empty());
}

TEST(AnyCodableDecode, NullIsUnsupported) {
    auto expectUnsupported = [](auto decode, const CodingPath& path) {
        try {
            decode();
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
            EXPECT_EQ(e.debugDescription(), "Unsupported JSON value");
            EXPECT_EQ(e.codingPath(), path);
        }
    };
    expectUnsupported([] { return decodeText("null"); }, CodingPath{});
    // A failing member fails its whole container, reported at the container's path.
    expectUnsupported([] { return decodeText(R"({"a":[1,null]})"); }, CodingPath{});
    expectUnsupported([] { return decodeJson<std::map<std::string, AnyCodable>>(R"({"ok":1,"k":{"x":null}})"); },
                      CodingPath{"k"});
    expectUnsupported([] { return decodeJson<std::vector<AnyCodable>>("[1,2,null]"); }, CodingPath{"Index 2"});
}

TEST(AnyCodableEncode, WritesEachSupportedKind) {
    EXPECT_EQ(encodeJsonText(AnyCodable(true)), "true");
    EXPECT_EQ(encodeJsonText(AnyCodable(42)), "42");
    EXPECT_EQ(encodeJsonText(AnyCodable(std::int64_t{-7})), "-7");
    EXPECT_EQ(encodeJsonText(AnyCodable(2.5)), "2.5");
    EXPECT_EQ(encodeJsonText(AnyCodable(0.25f)), "0.25");
    EXPECT_EQ(encodeJsonText(AnyCodable("literal")), "\"literal\"");
    EXPECT_EQ(encodeJsonText(AnyCodable(std::string_view("view"))), "\"view\"");
    EXPECT_EQ(encodeJsonText(AnyCodable(AnyCodable::Dictionary{{"k", AnyCodable(1)}, {"j", AnyCodable("v")}})),
              R"({"j":"v","k":1})");
    EXPECT_EQ(encodeJsonText(AnyCodable(AnyCodable::Array{AnyCodable(1), AnyCodable(AnyCodable::Array{}),
                                                          AnyCodable(AnyCodable::Dictionary{})})),
              "[1,[],{}]");
    // Integers and doubles keep their own form.
    EXPECT_EQ(held<std::int64_t>(AnyCodable(short{3})), 3);
    EXPECT_EQ(encodeJsonText(AnyCodable(1.0)), "1.0");
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
    expectInvalid(AnyCodable(AnyCodable::Dictionary{{"outer", AnyCodable(AnyCodable::Array{AnyCodable(1),
                                                                                           AnyCodable(bare)})}}),
                  {"outer", "Index 1"}, "Unsupported JSON value");
    expectInvalid(AnyCodable(std::chrono::system_clock::now()), {}, "Unsupported JSON value");
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

TEST(AnyCodable, DecodedValuesEncodeBackToTheSameDocument) {
    for (const char* text : {R"({"a":1,"b":[true,2.5,"x",{"c":null}]})", R"({"n":-1,"s":"\u00e9","z":[[],{}]})"}) {
        const Json original = Json::parse(text);
        Json input = original;
        // null is not decodable; drop it before the round trip.
        if (input.contains("b")) input["b"][3].erase("c");
        const auto decoded = decodeText(input.dump());
        EXPECT_EQ(Json::parse(encodeJsonText(decoded)), Json::parse(input.dump())) << text;
        EXPECT_TRUE(decoded == decodeText(input.dump()));
    }
    EXPECT_FALSE(AnyCodable(1) == AnyCodable(1.0));
    EXPECT_FALSE(AnyCodable(true) == AnyCodable(1));
    EXPECT_FALSE(AnyCodable(std::map<std::string, int>{}) == AnyCodable(std::map<std::string, int>{}));
}

TEST(DynamicCodingKey, TextKeysOnly) {
    const DynamicCodingKey key("x");
    EXPECT_EQ(key.stringValue, "x");
    EXPECT_FALSE(key.intValue().has_value());
    EXPECT_FALSE(DynamicCodingKey::fromIntValue(3).has_value());
    EXPECT_FALSE(DynamicCodingKey::fromIntValue(0).has_value());
    // Stored unchanged, whatever the text.
    EXPECT_EQ(DynamicCodingKey("").stringValue, "");
    EXPECT_EQ(DynamicCodingKey("a.b [0] \"q\"").stringValue, "a.b [0] \"q\"");
    EXPECT_EQ(key.description(), "DynamicCodingKey(stringValue: \"x\", intValue: nil)");
    EXPECT_EQ(key.debugDescription(), key.description());
    EXPECT_EQ(DynamicCodingKey("x"), key);
    EXPECT_NE(DynamicCodingKey("y"), key);
}

}  // namespace
}  // namespace tavrin
