#include "tavrin/tracking/codable_value.h"
#include "tavrin/tracking/internal/codable_value_coding.h"

#include <gtest/gtest.h>

#include "tests/support/decoding_assertions.h"

#include <cmath>
#include <limits>
#include <map>

namespace tavrin {
namespace {

CodableValue decodeText(std::string_view text) { return decodeJson<CodableValue>(text); }

using testing::failsWith;

TEST(CodableValueDecode, TriesTextBoolIntegerDoubleArrayInOrder) {
    EXPECT_EQ(decodeText("1"), CodableValue::integer(1));
    EXPECT_EQ(decodeText("1.5"), CodableValue::decimalNumber(1.5));
    EXPECT_EQ(decodeText("true"), CodableValue::boolean(true));
    EXPECT_EQ(decodeText("\"1\""), CodableValue::string("1"));
    EXPECT_EQ(decodeText("[1,\"a\",[true]]"),
              CodableValue::array({CodableValue::integer(1), CodableValue::string("a"),
                                   CodableValue::array({CodableValue::boolean(true)})}));
    // Exponent and out-of-range numbers are not integers.
    EXPECT_EQ(decodeText("1e3"), CodableValue::decimalNumber(1000.0));
    EXPECT_EQ(decodeText("18446744073709551615").kind(), CodableValue::Kind::decimalNumber);
    EXPECT_EQ(decodeText("-9223372036854775808"), CodableValue::integer(std::numeric_limits<std::int64_t>::min()));
}

TEST(CodableValueDecode, NullAndObjectFailWithTypeMismatchMalformedTextIsDataCorrupted) {
    for (const char* text : {"null", "{}", "[1,null]", "{\"a\":1}"})
        EXPECT_TRUE(failsWith([&] { decodeText(text); }, DecodingError::Kind::typeMismatch, {},
                              "Failed to decode CodableValue"))
            << text;
    // Inside a record the array as a whole fails, at its own path.
    EXPECT_TRUE(failsWith([] { decodeJson<std::map<std::string, CodableValue>>(R"({"ok":[1],"bad":[1,{}]})"); },
                          DecodingError::Kind::typeMismatch, {"bad"}, "Failed to decode CodableValue"));
    for (const char* text : {"", "[1,", "{\"a\"", "tru", "\"unterminated", "[1]]", "\xff"})
        EXPECT_TRUE(failsWith([&] { decodeText(text); }, DecodingError::Kind::dataCorrupted, {})) << text;
}

TEST(CodableValueEquality, FollowsCaseAndIeeeRules) {
    EXPECT_FALSE(CodableValue::integer(1) == CodableValue::decimalNumber(1.0));
    EXPECT_FALSE(CodableValue::string("true") == CodableValue::boolean(true));
    EXPECT_TRUE(CodableValue::array({}) == CodableValue::array({}));
    const auto nan = CodableValue::decimalNumber(std::nan(""));
    EXPECT_FALSE(nan == nan);
    EXPECT_TRUE(CodableValue::decimalNumber(0.0) == CodableValue::decimalNumber(-0.0));
    EXPECT_FALSE(CodableValue::array({CodableValue::integer(1)}) ==
                 CodableValue::array({CodableValue::integer(1), CodableValue::integer(2)}));
    EXPECT_FALSE(CodableValue::array({nan}) == CodableValue::array({nan}));
}

TEST(CodableValueEncode, WritesBarePayloadsAndFailsOnNonFiniteNumbers) {
    EXPECT_EQ(encodeJsonText(CodableValue::integer(-7)), "-7");
    EXPECT_EQ(encodeJsonText(CodableValue::decimalNumber(1.5)), "1.5");
    EXPECT_EQ(encodeJsonText(CodableValue::boolean(false)), "false");
    EXPECT_EQ(encodeJsonText(CodableValue::array({CodableValue::integer(1), CodableValue::string("a\"b")})),
              "[1,\"a\\\"b\"]");
    try {
        encodeJson(CodableValue::array(
            {CodableValue::integer(1),
             CodableValue::array({CodableValue::decimalNumber(std::numeric_limits<double>::infinity())})}));
        FAIL() << "encoded infinity";
    } catch (const EncodingError& e) {
        EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
        EXPECT_EQ(e.codingPath(), (CodingPath{"Index 1", "Index 0"}));
        EXPECT_EQ(e.debugDescription(), "Unable to encode Double.infinity directly in JSON.");
    }
    EXPECT_THROW(encodeJsonText(CodableValue::decimalNumber(std::nan(""))), EncodingError);
}

}  // namespace
}  // namespace tavrin
