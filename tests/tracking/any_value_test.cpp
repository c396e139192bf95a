#include "tavrin/tracking/any_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

namespace tavrin {
namespace {

using Kind = AnyValue::Kind;

// The classic implicit-conversion traps, refused at compile time.
static_assert(!std::is_convertible_v<char, AnyValue>, "a single char is neither text nor a number");
static_assert(!std::is_convertible_v<int*, AnyValue>, "a pointer must not become a boolean");
static_assert(!std::is_convertible_v<std::optional<int>, AnyValue>);
static_assert(std::is_convertible_v<const char (&)[4], AnyValue>);

TEST(AnyValueConversion, LiteralsLandInTheKindAReaderExpects) {
    const char* pointer = "p";
    char buffer[] = "b";
    const std::string text = "s";
    EXPECT_EQ(AnyValue("abc").kind(), Kind::text);
    EXPECT_EQ(AnyValue("").kind(), Kind::text);
    EXPECT_EQ(AnyValue(pointer).asText(), "p");
    EXPECT_EQ(AnyValue(buffer).asText(), "b");
    EXPECT_EQ(AnyValue(text).asText(), "s");
    EXPECT_EQ(AnyValue(std::string_view("v")).asText(), "v");

    EXPECT_EQ(AnyValue(true).kind(), Kind::boolean);
    EXPECT_FALSE(AnyValue(false).asBool());

    EXPECT_EQ(AnyValue(0).kind(), Kind::integer);  // not a null pointer
    EXPECT_EQ(AnyValue(3).asInteger(), 3);
    EXPECT_EQ(AnyValue(-3L).asInteger(), -3);
    EXPECT_EQ(AnyValue(3LL).asInteger(), 3);
    EXPECT_EQ(AnyValue(std::int64_t{-9'000'000'000}).asInteger(), -9'000'000'000);
    EXPECT_EQ(AnyValue(static_cast<short>(7)).asInteger(), 7);
    EXPECT_EQ(AnyValue(std::int8_t{-5}).asInteger(), -5);
    EXPECT_EQ(AnyValue(std::numeric_limits<std::int64_t>::min()).asInteger(), std::numeric_limits<std::int64_t>::min());

    EXPECT_EQ(AnyValue(9.99).kind(), Kind::number);
    EXPECT_DOUBLE_EQ(AnyValue(9.99).asNumber(), 9.99);
    EXPECT_EQ(AnyValue(2.5f).asNumber(), 2.5);
    EXPECT_EQ(AnyValue(1.0).kind(), Kind::number);  // a double stays a number even when whole

    EXPECT_TRUE(AnyValue().isNull());
    EXPECT_TRUE(AnyValue(nullptr).isNull());

    const auto now = std::chrono::system_clock::now();
    EXPECT_EQ(AnyValue(now).asDate(), now);
    const std::chrono::sys_seconds seconds{std::chrono::seconds{1'700'000'000}};
    EXPECT_EQ(AnyValue(seconds).asDate(), AnyValue::Date(seconds));
}

TEST(AnyValueConversion, UnsignedStaysIntegerWhileItFitsThenBecomesNumber) {
    EXPECT_EQ(AnyValue(3u).asInteger(), 3);
    EXPECT_EQ(AnyValue(std::size_t{42}).asInteger(), 42);
    EXPECT_EQ(AnyValue(std::uint8_t{255}).asInteger(), 255);
    const std::uint64_t largestFit = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(AnyValue(largestFit).asInteger(), std::numeric_limits<std::int64_t>::max());
    const AnyValue tooBig(largestFit + 1);
    EXPECT_EQ(tooBig.kind(), Kind::number);
    EXPECT_EQ(tooBig.asNumber(), 9223372036854775808.0);
    EXPECT_EQ(AnyValue(std::numeric_limits<std::uint64_t>::max()).asNumber(), 18446744073709551616.0);
}

TEST(AnyValueConversion, PushDictionaryLiteralClassifiesEachEntry) {
    const AnyValue::Dictionary push{{"track", "pageview"},
                                    {"price", 9.99},
                                    {"qty", 3},
                                    {"ok", true},
                                    {"tags", AnyValue::Array{"a", "b"}},
                                    {"nested", AnyValue::Dictionary{{"x", 1L}}},
                                    {"none", nullptr}};
    EXPECT_EQ(push.at("track").asText(), "pageview");
    EXPECT_EQ(push.at("price").kind(), Kind::number);
    EXPECT_EQ(push.at("qty").kind(), Kind::integer);
    EXPECT_EQ(push.at("ok").kind(), Kind::boolean);
    ASSERT_EQ(push.at("tags").kind(), Kind::array);
    EXPECT_EQ(push.at("tags").asArray(), (AnyValue::Array{AnyValue("a"), AnyValue("b")}));
    EXPECT_EQ(push.at("nested").asDictionary().at("x").asInteger(), 1);
    EXPECT_TRUE(push.at("none").isNull());
    ASSERT_NE(push.at("track").textIf(), nullptr);
    EXPECT_EQ(push.at("qty").textIf(), nullptr);
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

TEST(AnyValueJson, SortsKeysAtEveryLevelAndWritesNull) {
    const AnyValue::Dictionary push{
        {"b", 1}, {"a", AnyValue::Dictionary{{"d", nullptr}, {"c", AnyValue::Array{true, "x", 2.5}}}}, {"B", "upper"}};
    EXPECT_EQ(AnyValue::sortedJsonText(push), R"({"B":"upper","a":{"c":[true,"x",2.5],"d":null},"b":1})");
    EXPECT_EQ(AnyValue::sortedJsonText({}), "{}");
    EXPECT_EQ(AnyValue::sortedJsonText({{"q", "say \"hi\""}}), R"({"q":"say \"hi\""})");
}

TEST(AnyValueJson, ValuesWithoutJsonFormFailTheWholeText) {
    const auto date = AnyValue(std::chrono::system_clock::now());
    EXPECT_EQ(AnyValue::sortedJsonText({{"ok", 1}, {"when", date}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"list", AnyValue::Array{1, date}}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"deep", AnyValue::Dictionary{{"x", std::nan("")}}}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"inf", std::numeric_limits<double>::infinity()}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"bytes", "\xff\xfe"}}), std::nullopt);
    EXPECT_EQ(AnyValue::sortedJsonText({{"\xc0\xaf", 1}}), std::nullopt);  // invalid key too
}

}  // namespace
}  // namespace tavrin
