#include "tavrin/tracking/any_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <stdexcept>
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

TEST(AnyValueConversion, LiteralsLandInTheKindAReaderExpects) {
    const char* pointer = "s";
    char buffer[] = "s";
    for (const AnyValue& v : {AnyValue("s"), AnyValue(pointer), AnyValue(buffer), AnyValue(std::string("s")),
                              AnyValue(std::string_view("s"))}) {
        ASSERT_EQ(v.kind(), Kind::text);
        EXPECT_EQ(v.asText(), "s");
    }
    EXPECT_EQ(AnyValue(true).kind(), Kind::boolean);
    EXPECT_FALSE(AnyValue(false).asBool());
    // Every integer type is an integer (0 is not a null pointer); unsigned ones while they fit.
    for (const AnyValue& v : {AnyValue(0), AnyValue(0L), AnyValue(0LL), AnyValue(short{0}), AnyValue(std::int8_t{0}),
                              AnyValue(0u), AnyValue(std::size_t{0}), AnyValue(std::uint8_t{0})}) {
        ASSERT_EQ(v.kind(), Kind::integer);
        EXPECT_EQ(v.asInteger(), 0);
    }
    EXPECT_EQ(AnyValue(std::int8_t{-5}).asInteger(), -5);
    EXPECT_EQ(AnyValue(std::uint8_t{255}).asInteger(), 255);
    EXPECT_EQ(AnyValue(std::numeric_limits<std::int64_t>::min()).asInteger(), std::numeric_limits<std::int64_t>::min());
    const std::uint64_t largestFit = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(AnyValue(largestFit).asInteger(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(AnyValue(largestFit + 1), AnyValue(9223372036854775808.0));
    EXPECT_EQ(AnyValue(std::numeric_limits<std::uint64_t>::max()), AnyValue(18446744073709551616.0));

    EXPECT_EQ(AnyValue(9.99).asNumber(), 9.99);
    EXPECT_EQ(AnyValue(2.5f).asNumber(), 2.5);
    EXPECT_EQ(AnyValue(1.0).kind(), Kind::number);  // a double stays a number even when whole
    EXPECT_TRUE(AnyValue().isNull());
    EXPECT_TRUE(AnyValue(nullptr).isNull());
    const auto now = std::chrono::system_clock::now();
    EXPECT_EQ(AnyValue(now).asDate(), now);
    const std::chrono::sys_seconds seconds{std::chrono::seconds{1'700'000'000}};
    EXPECT_EQ(AnyValue(seconds).asDate(), AnyValue::Date(seconds));
}

TEST(AnyValueEquality, KindsNeverMixAndNumbersFollowIeee) {
    EXPECT_NE(AnyValue(1), AnyValue(1.0));
    EXPECT_NE(AnyValue(true), AnyValue(1));
    EXPECT_NE(AnyValue("true"), AnyValue(true));
    EXPECT_NE(AnyValue(), AnyValue(""));
    EXPECT_EQ(AnyValue(), AnyValue(nullptr));
    const AnyValue nan(std::nan(""));
    EXPECT_NE(nan, nan);
    EXPECT_EQ(AnyValue(0.0), AnyValue(-0.0));
    EXPECT_EQ(AnyValue(AnyValue::Array{1, "a"}), AnyValue(AnyValue::Array{1, "a"}));
    EXPECT_NE(AnyValue(AnyValue::Array{1, "a"}), AnyValue(AnyValue::Array{"a", 1}));
}

TEST(AnyValueJson, SortsKeysAtEveryLevelOrFailsTheWholeText) {
    const AnyValue::Dictionary push{
        {"b", 1}, {"a", AnyValue::Dictionary{{"d", nullptr}, {"c", AnyValue::Array{true, "x", 2.5}}}}, {"B", "upper"}};
    EXPECT_EQ(AnyValue::sortedJsonText(push), R"({"B":"upper","a":{"c":[true,"x",2.5],"d":null},"b":1})");
    EXPECT_EQ(AnyValue::sortedJsonText({}), "{}");
    EXPECT_EQ(AnyValue::sortedJsonText({{"q", "say \"hi\""}}), R"({"q":"say \"hi\""})");
    // Values without a JSON form fail the whole text: dates, non-finite numbers, text (keys too) not in UTF-8.
    const auto date = AnyValue(std::chrono::system_clock::now());
    EXPECT_EQ(AnyValue::sortedJsonText({{"ok", 1}, {"when", date}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"list", AnyValue::Array{1, date}}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"deep", AnyValue::Dictionary{{"x", std::nan("")}}}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"inf", std::numeric_limits<double>::infinity()}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"bytes", "\xff\xfe"}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"\xc0\xaf", 1}}), std::nullopt);
}

// The text is written by hand for speed; the JSON library's compact dump of the
// same values is the reference it must match byte for byte, or refuse with it.
nlohmann::json reference(const AnyValue& value) {
    switch (value.kind()) {
        case Kind::null: return nullptr;
        case Kind::text: return value.asText();
        case Kind::boolean: return value.asBool();
        case Kind::integer: return value.asInteger();
        case Kind::number: return value.asNumber();
        case Kind::array: {
            auto out = nlohmann::json::array();
            for (const auto& element : value.asArray()) out.push_back(reference(element));
            return out;
        }
        case Kind::dictionary: {
            auto out = nlohmann::json::object();
            for (const auto& [key, member] : value.asDictionary()) out[key] = reference(member);
            return out;
        }
        case Kind::date: break;
    }
    throw std::logic_error("no reference for a date");
}

std::optional<std::string> referenceText(const AnyValue::Dictionary& dictionary) {
    try {
        return reference(AnyValue(dictionary)).dump();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

TEST(AnyValueJson, MatchesTheJsonLibrarysDumpByteForByte) {
    const std::vector<std::string> texts = {
        "", "plain", "quote \" backslash \\ slash /", std::string("nul \0 and \x01 \x1f \x7f", 15),
        "\b\f\n\r\t", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf",
        // not UTF-8: lone continuation, overlong, surrogate, above U+10FFFF, cut short, invalid lead bytes
        "\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xf5\x80\x80\x80",
        "\xc2", "ok\xff"};
    const std::vector<double> numbers = {0.0, -0.0, 1.0, -2.5, 0.1, 1e300, -1e-300, 5e-324, 123456789012.0,
                                         1e16, 1e15, 0.000001, 1.7976931348623157e308, 2.0 / 3.0};
    const std::vector<std::int64_t> integers = {0, -1, 42, std::numeric_limits<std::int64_t>::min(),
                                                std::numeric_limits<std::int64_t>::max()};
    std::mt19937 random(20261122);
    const auto pick = [&](const auto& list) { return list[random() % list.size()]; };
    std::function<AnyValue(int)> make = [&](int depth) -> AnyValue {
        switch (random() % (depth < 3 ? 7 : 5)) {
            case 0: return nullptr;
            case 1: return AnyValue(pick(texts));
            case 2: return AnyValue(pick(integers));
            case 3: return AnyValue(pick(numbers));
            case 4: return AnyValue(random() % 2 == 0);
            case 5: {
                AnyValue::Array array;
                for (auto n = random() % 4; n > 0; --n) array.push_back(make(depth + 1));
                return array;
            }
            default: {
                AnyValue::Dictionary dictionary;
                for (auto n = random() % 4; n > 0; --n) dictionary.emplace(pick(texts), make(depth + 1));
                return dictionary;
            }
        }
    };
    int refused = 0;
    for (int round = 0; round < 3000; ++round) {
        AnyValue::Dictionary push;
        for (auto n = random() % 5; n > 0; --n) push.emplace(pick(texts), make(0));
        const auto expected = referenceText(push);
        refused += !expected;
        ASSERT_EQ(AnyValue::sortedJsonText(push), expected) << describe(AnyValue(push));
    }
    EXPECT_GT(refused, 100) << "invalid UTF-8 was drawn";
    EXPECT_LT(refused, 2900) << "valid documents were drawn";
}

}  // namespace
}  // namespace tavrin
