#include "tavrin/tracking/custom_properties.h"

#include <gtest/gtest.h>

#include "tavrin/tracking/variables_wrapper.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using testing::LogCapture;

const std::string unsupportedTail = ". Only String, Bool, Number, and Array are allowed.";

TEST(ValidatedCustomProperties, ReservedKeysAreLoggedAndLeftOut) {
    LogCapture log;
    const auto result = validatedCustomProperties({{"track", "pageview"}, {"type", "click"}, {"price", 9.99}});
    ASSERT_EQ(result.size(), 1u);
    EXPECT_EQ(result.at("price"), CodableValue::decimalNumber(9.99));
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              (std::vector<std::string>{"Warning: track is a reserved key and cannot be set.",
                                        "Warning: type is a reserved key and cannot be set."}));
}

TEST(ValidatedCustomProperties, ReservedMatchIsExactAndCaseSensitive) {
    LogCapture log;
    // Reserved whatever the value's kind; near misses are ordinary properties.
    const auto result = validatedCustomProperties(
        {{"track", 5}, {"Track", "kept"}, {"TYPE", true}, {"type ", 1}, {"tracking", "x"}, {"", "empty key"}});
    EXPECT_EQ(result.count("track"), 0u);
    EXPECT_EQ(result.at("Track"), CodableValue::string("kept"));
    EXPECT_EQ(result.at("TYPE"), CodableValue::boolean(true));
    EXPECT_EQ(result.at("type "), CodableValue::integer(1));
    EXPECT_EQ(result.at("tracking"), CodableValue::string("x"));
    EXPECT_EQ(result.at(""), CodableValue::string("empty key"));
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              std::vector<std::string>{"Warning: track is a reserved key and cannot be set."});
}

TEST(ValidatedCustomProperties, ScalarsKeepTheirKind) {
    LogCapture log;
    const auto result = validatedCustomProperties({{"int", 3},
                                                   {"bool", true},
                                                   {"false", false},
                                                   {"text", "hello"},
                                                   {"zero", 0},
                                                   {"whole", 2.0},
                                                   {"big", std::numeric_limits<std::uint64_t>::max()},
                                                   {"emptyText", ""}});
    EXPECT_EQ(result.at("int"), CodableValue::integer(3));
    // A boolean is never a number and a whole integer never a double.
    EXPECT_EQ(result.at("bool"), CodableValue::boolean(true));
    EXPECT_EQ(result.at("false"), CodableValue::boolean(false));
    EXPECT_EQ(result.at("zero"), CodableValue::integer(0));
    EXPECT_EQ(result.at("text"), CodableValue::string("hello"));
    EXPECT_EQ(result.at("emptyText"), CodableValue::string(""));
    // A double stays a double even when whole.
    EXPECT_EQ(result.at("whole"), CodableValue::decimalNumber(2.0));
    EXPECT_EQ(result.at("big"), CodableValue::decimalNumber(18446744073709551616.0));
    EXPECT_TRUE(log.sink->messages().empty());
    // A one-entry literal is a dictionary, not a pair of iterators.
    EXPECT_EQ(validatedCustomProperties({{"only", "one"}}),
              (std::map<std::string, CodableValue>{{"only", CodableValue::string("one")}}));
}

TEST(ValidatedCustomProperties, ArraysKeepOneLevelAndDropTheRestSilently) {
    LogCapture log;
    const AnyValue::Array mixed{1,
                                "a",
                                AnyValue::Array{2, 3},
                                AnyValue::Dictionary{{"k", "v"}},
                                2.5,
                                nullptr,
                                std::chrono::system_clock::now(),
                                false};
    const auto result = validatedCustomProperties(
        {{"mixed", mixed}, {"allDropped", AnyValue::Array{AnyValue::Array{}, nullptr}}, {"empty", AnyValue::Array{}}});
    EXPECT_EQ(result.at("mixed"),
              CodableValue::array({CodableValue::integer(1), CodableValue::string("a"), CodableValue::decimalNumber(2.5),
                                   CodableValue::boolean(false)}));
    EXPECT_EQ(result.at("allDropped"), CodableValue::array({}));
    EXPECT_EQ(result.at("empty"), CodableValue::array({}));
    EXPECT_TRUE(log.sink->messages().empty());
}

TEST(ValidatedCustomProperties, UnsupportedValuesAreLoggedAndLeftOut) {
    LogCapture log;
    const auto result = validatedCustomProperties({{"when", std::chrono::system_clock::now()},
                                                   {"dict", AnyValue::Dictionary{{"a", 1}}},
                                                   {"nothing", nullptr},
                                                   {"kept", 1}});
    EXPECT_EQ(result.size(), 1u);
    EXPECT_EQ(result.at("kept"), CodableValue::integer(1));
    // Dictionary iteration is by sorted key.
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              (std::vector<std::string>{"Warning: Unsupported type for custom property dict" + unsupportedTail,
                                        "Warning: Unsupported type for custom property nothing" + unsupportedTail,
                                        "Warning: Unsupported type for custom property when" + unsupportedTail}));
}

TEST(ValidatedCustomProperties, WarningsStayOutOfTheLogAboveDebugLevel) {
    LogCapture log(LogLevel::info);
    const auto result = validatedCustomProperties({{"track", "x"}, {"nothing", nullptr}, {"n", 1}});
    EXPECT_EQ(result.size(), 1u);
    EXPECT_TRUE(log.sink->messages().empty());
}

// It mirrors the variables block of a data submission but has no JSON form of its own.
static_assert(!detail::HasEncode<VariablesWrapper>::value);

TEST(VariablesWrapper, HoldsItsFourFieldsInOrder) {
    const VariablesWrapper wrapper("https://shop.example/cart", "fb.1.123", {"pageview", "checkout"},
                                   {{"price", CodableValue::decimalNumber(9.99)}});
    EXPECT_EQ(wrapper.documentLocationHref, "https://shop.example/cart");
    EXPECT_EQ(wrapper.fbBrowserId, "fb.1.123");
    EXPECT_EQ(wrapper.tvrpushedcommands, (std::vector<std::string>{"pageview", "checkout"}));
    EXPECT_EQ(wrapper.customProperties.at("price"), CodableValue::decimalNumber(9.99));
}

}  // namespace
}  // namespace tavrin
