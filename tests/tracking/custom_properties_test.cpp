#include "tavrin/tracking/internal/custom_properties.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using testing::LogCapture;

std::string reserved(const std::string& key) { return "Warning: " + key + " is a reserved key and cannot be set."; }
std::string unsupported(const std::string& key) {
    return "Warning: Unsupported type for custom property " + key +
           ". Only String, Bool, Number, and Array are allowed.";
}

TEST(ValidatedCustomProperties, ReservedKeysAreExactCaseSensitiveLoggedAndLeftOut) {
    LogCapture log;
    // Reserved whatever the value's kind; near misses are ordinary properties.
    const auto result = validatedCustomProperties({{"track", 5}, {"type", "click"}, {"Track", "kept"}, {"TYPE", true},
                                                   {"type ", 1}, {"tracking", "x"}, {"", "empty key"}});
    EXPECT_EQ(result, (std::map<std::string, CodableValue>{
                          {"Track", CodableValue::string("kept")}, {"TYPE", CodableValue::boolean(true)},
                          {"type ", CodableValue::integer(1)}, {"tracking", CodableValue::string("x")},
                          {"", CodableValue::string("empty key")}}));
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              (std::vector<std::string>{reserved("track"), reserved("type")}));
}

TEST(ValidatedCustomProperties, ValuesKeepTheirKindAndArraysDropNestedValuesSilently) {
    LogCapture log;
    const AnyValue::Array mixed{1,     "a",     AnyValue::Array{2, 3}, AnyValue::Dictionary{{"k", "v"}},
                                2.5,   nullptr, std::chrono::system_clock::now(), false};
    const auto result = validatedCustomProperties({{"int", 3}, {"zero", 0}, {"bool", true}, {"false", false},
                                                   {"text", "hello"}, {"emptyText", ""}, {"whole", 2.0},
                                                   {"big", std::numeric_limits<std::uint64_t>::max()},
                                                   {"mixed", mixed},
                                                   {"allDropped", AnyValue::Array{AnyValue::Array{}, nullptr}},
                                                   {"empty", AnyValue::Array{}}});
    // A boolean is never a number, a whole integer never a double, a double stays a double even when whole;
    // arrays keep one level of scalars.
    EXPECT_EQ(result, (std::map<std::string, CodableValue>{
                          {"int", CodableValue::integer(3)}, {"zero", CodableValue::integer(0)},
                          {"bool", CodableValue::boolean(true)}, {"false", CodableValue::boolean(false)},
                          {"text", CodableValue::string("hello")}, {"emptyText", CodableValue::string("")},
                          {"whole", CodableValue::decimalNumber(2.0)},
                          {"big", CodableValue::decimalNumber(18446744073709551616.0)},
                          {"mixed", CodableValue::array({CodableValue::integer(1), CodableValue::string("a"),
                                                         CodableValue::decimalNumber(2.5),
                                                         CodableValue::boolean(false)})},
                          {"allDropped", CodableValue::array({})},
                          {"empty", CodableValue::array({})}}));
    EXPECT_TRUE(log.sink->messages().empty());
    // A one-entry literal is a dictionary, not a pair of iterators.
    EXPECT_EQ(validatedCustomProperties({{"only", "one"}}),
              (std::map<std::string, CodableValue>{{"only", CodableValue::string("one")}}));
}

TEST(ValidatedCustomProperties, UnsupportedValuesAreLoggedAtDebugAndLeftOut) {
    const AnyValue::Dictionary input{{"when", std::chrono::system_clock::now()},
                                     {"dict", AnyValue::Dictionary{{"a", 1}}},
                                     {"nothing", nullptr},
                                     {"kept", 1}};
    const std::map<std::string, CodableValue> expected{{"kept", CodableValue::integer(1)}};
    {
        LogCapture log;
        EXPECT_EQ(validatedCustomProperties(input), expected);
        // Dictionary iteration is by sorted key.
        EXPECT_EQ(log.sink->messages(platform::LogType::debug),
                  (std::vector<std::string>{unsupported("dict"), unsupported("nothing"), unsupported("when")}));
    }
    LogCapture log(LogLevel::info);
    EXPECT_EQ(validatedCustomProperties(input), expected);
    EXPECT_EQ(validatedCustomProperties({{"track", "x"}}).size(), 0u);
    EXPECT_TRUE(log.sink->messages().empty());
}

TEST(ValidatedCustomProperties, NumbersJsonCannotCarryAreDroppedWithADebugLine) {
    LogCapture log;
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    const auto result = validatedCustomProperties(
        {{"nan", nan}, {"inf", inf}, {"minusInf", -inf}, {"max", std::numeric_limits<double>::max()},
         {"list", AnyValue::Array{1.5, nan, "a", -inf, 2}}, {"longDouble", static_cast<long double>(1e4000L)}});
    EXPECT_EQ(result, (std::map<std::string, CodableValue>{
                          {"max", CodableValue::decimalNumber(std::numeric_limits<double>::max())},
                          {"list", CodableValue::array({CodableValue::decimalNumber(1.5), CodableValue::string("a"),
                                                        CodableValue::integer(2)})}}));
    const auto dropped = [](const std::string& where) {
        return "Warning: Non-finite number for custom property " + where + " dropped. JSON cannot carry NaN or infinity.";
    };
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              (std::vector<std::string>{dropped("inf"), dropped("list[1]"), dropped("list[3]"), dropped("longDouble"),
                                        dropped("minusInf"), dropped("nan")}));
}

}  // namespace
}  // namespace tavrin
