#include "tavrin/tracking/codable_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>

namespace tavrin {
namespace {

CodableValue decodeText(std::string_view text) { return decodeJson<CodableValue>(text); }

TEST(CodableValueDecode, TriesTextBoolIntegerDoubleArrayInOrder) {
    EXPECT_EQ(decodeText("1"), CodableValue::integer(1));
    EXPECT_EQ(decodeText("1.5"), CodableValue::decimalNumber(1.5));
    EXPECT_EQ(decodeText("true"), CodableValue::boolean(true));
    EXPECT_EQ(decodeText("\"1\""), CodableValue::string("1"));
    EXPECT_EQ(decodeText("[1,\"a\",[true]]"),
              CodableValue::array({CodableValue::integer(1), CodableValue::string("a"),
                                   CodableValue::array({CodableValue::boolean(true)})}));
    // Exponent and out-of-range numbers are not integers.
    EXPECT_EQ(decodeText("1e3").kind(), CodableValue::Kind::decimalNumber);
    EXPECT_EQ(decodeText("18446744073709551615").kind(), CodableValue::Kind::decimalNumber);
    EXPECT_EQ(decodeText("-9223372036854775808"), CodableValue::integer(std::numeric_limits<std::int64_t>::min()));
}

TEST(CodableValueDecode, NullAndObjectFailWithTypeMismatch) {
    for (const char* text : {"null", "{}", "[1,null]", "{\"a\":1}"}) {
        try {
            decodeText(text);
            FAIL() << text << " decoded";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch) << text;
            EXPECT_EQ(e.debugDescription(), "Failed to decode CodableValue") << text;
        }
    }
}

TEST(CodableValueDecode, FailureInsideARecordCarriesTheMemberPath) {
    try {
        decodeJson<std::map<std::string, CodableValue>>(R"({"ok":[1],"bad":[1,{}]})");
        FAIL() << "decoded";
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
        // The array as a whole fails, at its own path.
        EXPECT_EQ(e.codingPath(), CodingPath{"bad"});
        EXPECT_EQ(e.debugDescription(), "Failed to decode CodableValue");
    }
}

TEST(CodableValueDecode, MalformedTextIsDataCorrupted) {
    for (const char* text : {"", "[1,", "{\"a\"", "tru", "\"unterminated", "[1]]", "\xff"}) {
        try {
            decodeText(text);
            FAIL() << "decoded malformed text";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
        }
    }
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

TEST(CodableValueEncode, WritesBarePayloads) {
    EXPECT_EQ(encodeJsonText(CodableValue::integer(1)), "1");
    EXPECT_EQ(encodeJsonText(CodableValue::decimalNumber(1.5)), "1.5");
    EXPECT_EQ(encodeJsonText(CodableValue::boolean(false)), "false");
    EXPECT_EQ(encodeJsonText(CodableValue::string("a\"b")), "\"a\\\"b\"");
    EXPECT_EQ(encodeJsonText(CodableValue::array({CodableValue::integer(1), CodableValue::string("x")})),
              "[1,\"x\"]");
    // Round trip keeps the case.
    for (const auto& v : {CodableValue::integer(-7), CodableValue::decimalNumber(2.25), CodableValue::boolean(true)})
        EXPECT_EQ(decodeText(encodeJsonText(v)), v);
    EXPECT_THROW(encodeJsonText(CodableValue::decimalNumber(std::nan(""))), EncodingError);
}

TEST(CodableValueEncode, NonFiniteNumbersFailWithTheirPath) {
    try {
        CodableValue::array({CodableValue::integer(1), CodableValue::array({CodableValue::decimalNumber(
                                                           std::numeric_limits<double>::infinity())})})
            .encode();
        FAIL() << "encoded infinity";
    } catch (const EncodingError& e) {
        EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
        EXPECT_EQ(e.codingPath(), (CodingPath{"Index 1", "Index 0"}));
        EXPECT_EQ(e.debugDescription(), "Unable to encode Double.infinity directly in JSON.");
    }
}

}  // namespace
}  // namespace tavrin
