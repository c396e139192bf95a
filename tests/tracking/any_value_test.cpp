#include "tavrin/tracking/any_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tavrin/platform/internal/json.h"

namespace tavrin {
namespace {

using Kind = AnyValue::Kind;

// The classic implicit-conversion traps, refused at compile time.
static_assert(!std::is_convertible_v<char, AnyValue>, "a single char is neither text nor a number");
static_assert(!std::is_convertible_v<int*, AnyValue>, "a pointer must not become a boolean");
static_assert(!std::is_convertible_v<std::optional<int>, AnyValue>);
static_assert(std::is_convertible_v<const char (&)[4], AnyValue>);

TEST(AnyValueTest, LiteralsLandInTheKindAReaderExpects) {
    const char* pointer = "s";
    char buffer[] = "s";
    constexpr auto int64Max = std::numeric_limits<std::int64_t>::max();
    // Every integer type is an integer (0 is no null pointer), unsigned ones while
    // they fit; a float is a number. Equal values are of the same kind.
    const std::pair<AnyValue, AnyValue> cases[] = {
        {AnyValue(pointer), AnyValue(std::string("s"))}, {AnyValue(buffer), AnyValue(std::string("s"))},
        {AnyValue(std::string_view("s")), AnyValue(std::string("s"))}, {AnyValue(0L), AnyValue(std::int64_t{0})},
        {AnyValue(std::int8_t{-5}), AnyValue(std::int64_t{-5})}, {AnyValue(std::uint8_t{255}), AnyValue(std::int64_t{255})},
        {AnyValue(std::size_t{0}), AnyValue(std::int64_t{0})}, {AnyValue(std::uint64_t{int64Max}), AnyValue(int64Max)},
        {AnyValue(std::uint64_t{int64Max} + 1), AnyValue(9223372036854775808.0)}, {AnyValue(2.5f), AnyValue(2.5)},
        {AnyValue(nullptr), AnyValue()}};
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "row " << i;
    EXPECT_EQ(AnyValue(std::string("s")).kind(), Kind::text);
    EXPECT_EQ(AnyValue(std::int64_t{0}).kind(), Kind::integer);
    EXPECT_EQ(AnyValue(1.0).kind(), Kind::number);  // even when whole
    EXPECT_EQ(AnyValue(false).kind(), Kind::boolean);
}

TEST(AnyValueTest, JsonTextSortsKeysAtEveryLevel) {
    const AnyValue::Dictionary push{
        {"b", 1}, {"a", AnyValue::Dictionary{{"d", nullptr}, {"c", AnyValue::Array{true, "x", 2.5}}}}, {"B", "upper"}};
    EXPECT_EQ(AnyValue::sortedJsonText(push), R"({"B":"upper","a":{"c":[true,"x",2.5],"d":null},"b":1})");
    EXPECT_EQ(AnyValue::sortedJsonText({}), "{}");
}

TEST(AnyValueTest, JsonTextFailsWholeForAnyValueWithoutAJsonForm) {
    // Dates, non-finite numbers, text (keys too) not in UTF-8, at any depth.
    const auto date = AnyValue(std::chrono::system_clock::now());
    const AnyValue::Dictionary cases[] = {{{"ok", 1}, {"when", date}}, {{"list", AnyValue::Array{1, date}}},
                                          {{"deep", AnyValue::Dictionary{{"x", std::nan("")}}}},
                                          {{"inf", std::numeric_limits<double>::infinity()}}, {{"\xc0\xaf", 1}}};
    for (const auto& dictionary : cases) EXPECT_EQ(AnyValue::sortedJsonText(dictionary), std::nullopt);
}

// The text is written by hand for speed; the JSON library's compact dump of the
// same value is the reference it must match byte for byte, or refuse with it.
TEST(AnyValueTest, JsonTextMatchesTheJsonLibrarysDumpByteForByte) {
    const auto check = [](const std::string& key, const AnyValue& value, const nlohmann::json& same) {
        std::optional<std::string> expected;
        try {
            expected = nlohmann::json::object({{key, same}}).dump();
        } catch (const nlohmann::json::exception&) {
        }
        EXPECT_EQ(AnyValue::sortedJsonText({{key, value}}), expected) << describe(value);
    };
    for (const std::string& text : std::vector<std::string>{"", "plain", "quote \" backslash \\ slash /", "\b\f\n\r\t",
                                   std::string("nul \0 and \x01 \x1f \x7f", 15),
                                   "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf",
                                   // not UTF-8: lone continuation, overlong, surrogate, above U+10FFFF,
                                   // cut short, invalid lead bytes
                                   "\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82",
                                   "\xf5\x80\x80\x80", "\xc2", "ok\xff"}) {
        check("k", text, text);
        check(text, 1, 1);
    }
    for (const double number : {0.0, -0.0, 1.0, -2.5, 0.1, 1e300, -1e-300, 5e-324, 123456789012.0, 1e16, 1e15,
                                0.000001, 1.7976931348623157e308, 2.0 / 3.0})
        check("k", number, number);
    for (const std::int64_t integer : {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
                                       std::numeric_limits<std::int64_t>::max()})
        check("k", integer, integer);
}

}  // namespace
}  // namespace tavrin
