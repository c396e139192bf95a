#include "tavrin/tracking/internal/custom_properties.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using testing::LogCapture;
using CV = CodableValue;
using Properties = std::map<std::string, CodableValue>;

TEST(CustomPropertiesTest, ValuesKeepTheirKindAndArraysOneLevelOfScalars) {
    LogCapture log;
    const AnyValue::Array mixed{1, "a", AnyValue::Array{2, 3}, AnyValue::Dictionary{{"k", "v"}}, 2.5, nullptr,
                                std::chrono::system_clock::now(), false};
    // A boolean is never a number, a whole integer never a double, a double stays
    // a double even when whole; nested values in arrays are dropped silently.
    EXPECT_EQ(validatedCustomProperties(
                  {{"int", 3}, {"zero", 0}, {"bool", true}, {"text", "hello"}, {"emptyText", ""}, {"whole", 2.0},
                   {"big", std::numeric_limits<std::uint64_t>::max()}, {"max", std::numeric_limits<double>::max()},
                   {"mixed", mixed}, {"allDropped", AnyValue::Array{AnyValue::Array{}, nullptr}}}),
              (Properties{{"int", CV::integer(3)}, {"zero", CV::integer(0)}, {"bool", CV::boolean(true)},
                          {"text", CV::string("hello")}, {"emptyText", CV::string("")},
                          {"whole", CV::decimalNumber(2.0)}, {"big", CV::decimalNumber(18446744073709551616.0)},
                          {"max", CV::decimalNumber(std::numeric_limits<double>::max())},
                          {"mixed", CV::array({CV::integer(1), CV::string("a"), CV::decimalNumber(2.5),
                                               CV::boolean(false)})},
                          {"allDropped", CV::array({})}}));
    EXPECT_TRUE(log.sink->messages().empty());
    // A one-entry literal is a dictionary, not a pair of iterators.
    EXPECT_EQ(validatedCustomProperties({{"only", "one"}}), (Properties{{"only", CV::string("one")}}));
}

TEST(CustomPropertiesTest, ReservedKeysMatchOnlyExactly) {
    LogCapture log;
    EXPECT_EQ(validatedCustomProperties({{"track", 5}, {"type", "click"}, {"Track", "kept"}, {"type ", 1},
                                         {"tracking", "x"}, {"", "empty key"}}),
              (Properties{{"Track", CV::string("kept")}, {"type ", CV::integer(1)}, {"tracking", CV::string("x")},
                          {"", CV::string("empty key")}}));
}

TEST(CustomPropertiesTest, EachDroppedEntryIsNamedInADebugWarning) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const AnyValue::Dictionary input{{"track", "x"}, {"when", std::chrono::system_clock::now()},
                                     {"dict", AnyValue::Dictionary{{"a", 1}}}, {"nothing", nullptr}, {"nan", nan},
                                     {"list", AnyValue::Array{nan, "a", -inf}},
                                     {"longDouble", static_cast<long double>(1e4000L)}, {"kept", 1}};
    const Properties expected{{"kept", CV::integer(1)}, {"list", CV::array({CV::string("a")})}};
    const auto unsupported = [](const std::string& key) {
        return "Warning: Unsupported type for custom property " + key +
               ". Only String, Bool, Number, and Array are allowed.";
    };
    const auto nonFinite = [](const std::string& where) {
        return "Warning: Non-finite number for custom property " + where + " dropped. JSON cannot carry NaN or infinity.";
    };
    {
        LogCapture log;
        EXPECT_EQ(validatedCustomProperties(input), expected);
        // In sorted key order.
        EXPECT_EQ(log.sink->messages(platform::LogType::debug),
                  (std::vector<std::string>{unsupported("dict"), nonFinite("list[0]"), nonFinite("list[2]"),
                                            nonFinite("longDouble"), nonFinite("nan"), unsupported("nothing"),
                                            "Warning: track is a reserved key and cannot be set.",
                                            unsupported("when")}));
    }
    // Only at debug level.
    LogCapture log(LogLevel::info);
    EXPECT_EQ(validatedCustomProperties(input), expected);
    EXPECT_TRUE(log.sink->messages().empty());
}

}  // namespace
}  // namespace tavrin
