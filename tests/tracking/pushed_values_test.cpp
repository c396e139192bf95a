// The loosely typed values a host pushes, their JSON text for the debug tag,
// and their conversion into custom properties.
#include "tavrin/tracking/any_value.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tavrin/platform/internal/json.h"
#include "tavrin/tracking/internal/custom_properties.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using Kind = AnyValue::Kind;
using testing::LogCapture;
using CV = CodableValue;
using Properties = std::map<std::string, CodableValue>;

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
        {AnyValue(pointer), AnyValue(std::string("s"))},
        {AnyValue(buffer), AnyValue(std::string("s"))},
        {AnyValue(std::string_view("s")), AnyValue(std::string("s"))},
        {AnyValue(0L), AnyValue(std::int64_t{0})},
        {AnyValue(std::int8_t{-5}), AnyValue(std::int64_t{-5})},
        {AnyValue(std::uint8_t{255}), AnyValue(std::int64_t{255})},
        {AnyValue(std::size_t{0}), AnyValue(std::int64_t{0})},
        {AnyValue(std::uint64_t{int64Max}), AnyValue(int64Max)},
        {AnyValue(std::uint64_t{int64Max} + 1), AnyValue(9223372036854775808.0)},
        {AnyValue(2.5f), AnyValue(2.5)},
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
    const AnyValue::Dictionary cases[] = {{{"ok", 1}, {"when", date}},
                                          {{"list", AnyValue::Array{1, date}}},
                                          {{"deep", AnyValue::Dictionary{{"x", std::nan("")}}}},
                                          {{"inf", std::numeric_limits<double>::infinity()}},
                                          {{"\xc0\xaf", 1}}};
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
    const std::vector<std::string> texts = {
        "", "plain", "quote \" backslash \\ slash /", "\b\f\n\r\t", std::string("nul \0 and \x01 \x1f \x7f", 15),
        "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf",
        // not UTF-8: lone continuation, overlong, surrogate, above U+10FFFF, cut short, invalid lead bytes
        "\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xf5\x80\x80\x80", "\xc2",
        "ok\xff"};
    for (const auto& text : texts) {
        check("k", text, text);
        check(text, 1, 1);
    }
    for (const double number : {0.0, -0.0, 1.0, -2.5, 0.1, 1e300, -1e-300, 5e-324, 123456789012.0, 1e16, 1e15, 0.000001,
                                1.7976931348623157e308, 2.0 / 3.0})
        check("k", number, number);
    for (const std::int64_t integer : {std::int64_t{0}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
                                       std::numeric_limits<std::int64_t>::max()})
        check("k", integer, integer);
}

// The text log lines show for a push: numbers and dates in six significant digits, as a stream prints them.
TEST(AnyValueTest, DescriptionNamesEachKindAndPrintsNumbersShort) {
    const AnyValue::Dictionary pushed{
        {"price", 9.99},
        {"big", 1234567.0},
        {"tiny", 1e-7},
        {"qty", 3},
        {"ok", true},
        {"when", std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000500))},
        {"tags", AnyValue::Array{"a", nullptr}},
    };
    EXPECT_EQ(describe(pushed),
              "dictionary{\"big\": number(1.23457e+06), \"ok\": boolean(true), \"price\": number(9.99), \"qty\": "
              "integer(3), \"tags\": array[text(\"a\"), null], \"tiny\": number(1e-07), \"when\": date(1.7e+09)}");
}

TEST(CustomPropertiesTest, EachValueKeepsItsKindDownToOneArrayLevel) {
    LogCapture log;
    const AnyValue::Array mixed{1,
                                "a",
                                AnyValue::Array{2, 3},
                                AnyValue::Dictionary{{"k", "v"}},
                                2.5,
                                nullptr,
                                std::chrono::system_clock::now(),
                                false};
    // A boolean is never a number, a whole integer never a double, a double stays
    // a double even when whole; nested values in arrays are dropped silently.
    EXPECT_EQ(
        validatedCustomProperties({{"int", 3},
                                   {"zero", 0},
                                   {"bool", true},
                                   {"text", "hello"},
                                   {"emptyText", ""},
                                   {"whole", 2.0},
                                   {"big", std::numeric_limits<std::uint64_t>::max()},
                                   {"max", std::numeric_limits<double>::max()},
                                   {"mixed", mixed},
                                   {"allDropped", AnyValue::Array{AnyValue::Array{}, nullptr}}}),
        (Properties{{"int", CV::integer(3)},
                    {"zero", CV::integer(0)},
                    {"bool", CV::boolean(true)},
                    {"text", CV::string("hello")},
                    {"emptyText", CV::string("")},
                    {"whole", CV::decimalNumber(2.0)},
                    {"big", CV::decimalNumber(18446744073709551616.0)},
                    {"max", CV::decimalNumber(std::numeric_limits<double>::max())},
                    {"mixed", CV::array({CV::integer(1), CV::string("a"), CV::decimalNumber(2.5), CV::boolean(false)})},
                    {"allDropped", CV::array({})}}));
    EXPECT_TRUE(log.sink->messages().empty());
    // A one-entry literal is a dictionary, not a pair of iterators.
    EXPECT_EQ(validatedCustomProperties({{"only", "one"}}), (Properties{{"only", CV::string("one")}}));
}

TEST(CustomPropertiesTest, ReservedKeysMatchOnlyExactly) {
    LogCapture log;
    EXPECT_EQ(
        validatedCustomProperties(
            {{"track", 5}, {"type", "click"}, {"Track", "kept"}, {"type ", 1}, {"tracking", "x"}, {"", "empty key"}}),
        (Properties{{"Track", CV::string("kept")},
                    {"type ", CV::integer(1)},
                    {"tracking", CV::string("x")},
                    {"", CV::string("empty key")}}));
}

TEST(CustomPropertiesTest, EachDroppedEntryIsNamedInADebugWarning) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const AnyValue::Dictionary input{{"track", "x"},
                                     {"when", std::chrono::system_clock::now()},
                                     {"dict", AnyValue::Dictionary{{"a", 1}}},
                                     {"nothing", nullptr},
                                     {"nan", nan},
                                     {"list", AnyValue::Array{nan, "a", -inf}},
                                     {"longDouble", static_cast<long double>(1e4000L)},
                                     {"kept", 1}};
    const Properties expected{{"kept", CV::integer(1)}, {"list", CV::array({CV::string("a")})}};
    const auto unsupported = [](const std::string& key) {
        return "Warning: Unsupported type for custom property " + key +
               ". Only String, Bool, Number, and Array are allowed.";
    };
    const auto nonFinite = [](const std::string& where) {
        return "Warning: Non-finite number for custom property " + where +
               " dropped. JSON cannot carry NaN or infinity.";
    };
    LogCapture log;
    EXPECT_EQ(validatedCustomProperties(input), expected);
    // In sorted key order.
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              (std::vector<std::string>{unsupported("dict"), nonFinite("list[0]"), nonFinite("list[2]"),
                                        nonFinite("longDouble"), nonFinite("nan"), unsupported("nothing"),
                                        "Warning: track is a reserved key and cannot be set.", unsupported("when")}));
}

}  // namespace
}  // namespace tavrin
