// The JSON coding layer the records are built on: the decoder's checks, byte
// buffers in containers, and JSON text for log lines.
// Random malformed input is the fuzz targets' job (tests/fuzz).
#include "tavrin/tracking/internal/coding.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "tavrin/tracking/internal/any_codable.h"
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tavrin/tracking/internal/json_stringify.h"
#include "tests/support/decoding_assertions.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using K = DecodingError::Kind;
using testing::failsWith;

TEST(DecoderTest, SingleValuesOfAnotherTypeFailWithTheirKind) {
    const Json doc = Json::parse(R"({"n":null,"i":7,"f":1.5,"e":1e3,"b":true,"big":18446744073709551615})");
    const Decoder root(doc);
    EXPECT_EQ(root.nested("i").decodeDouble(), 7.0);
    EXPECT_TRUE(failsWith([&] { root.nested("n").decodeString(); }, K::valueNotFound, {"n"}));
    EXPECT_TRUE(failsWith([&] { root.nested("i").decodeBool(); }, K::typeMismatch, {"i"}));
    EXPECT_TRUE(failsWith([&] { root.nested("b").decodeDouble(); }, K::typeMismatch, {"b"}));
    // Integers refuse fractions, exponents and values beyond the signed range.
    for (const char* key : {"f", "e", "big"})
        EXPECT_TRUE(failsWith([&] { root.nested(key).decodeInt64(); }, K::dataCorrupted, {key})) << key;
}

TEST(DecoderTest, NestingDeeperThanTheLimitIsRefused) {
    const auto nested = [](int depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); };
    EXPECT_EQ(decodeJson<CodableValue>(nested(512)).kind(), CodableValue::Kind::array);
    for (const std::string& text : {nested(513), std::string(200000, '['), std::string(100000, '{') + "\"a\":1"})
        EXPECT_TRUE(failsWith([&] { decodeJson<AnyCodable>(text); }, K::dataCorrupted, {})) << text.size();
}

TEST(DecoderTest, NulByteDoesNotEndTheText) {
    EXPECT_TRUE(failsWith([] { decodeJson<CodableValue>(std::string_view("[1]\0[2", 7)); }, K::dataCorrupted, {}));
}

TEST(JsonCodingTest, ByteBuffersAreBase64InAnyContainer) {
    const Bytes bytes{'f', 'o', 'o'};
    EXPECT_EQ(encodeJsonText(std::map<std::string, std::vector<Bytes>>{{"k", {bytes, {}}}}), R"({"k":["Zm9v",""]})");
    EXPECT_EQ(decodeJson<std::vector<Bytes>>(R"(["Zm9v",""])"), (std::vector<Bytes>{bytes, {}}));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<Bytes>>(R"(["Zm9v","not base64!"])"); }, K::dataCorrupted,
                          {"Index 1"}));
    // Vectors of other integers stay arrays.
    EXPECT_EQ(encodeJsonText(std::unordered_map<std::string, std::vector<std::int64_t>>{{"k", {1, 2}}}),
              R"({"k":[1,2]})");
}

// A record with a fixed member order, to show keys are not sorted.
struct Sample {
    Json encode() const { return Json::parse(R"({"name":"zeta","count":3})"); }
};
struct RawText {
    std::string text;
    Json encode() const { return Json(text); }
};

TEST(JsonStringifyTest, WritesCompactJsonInTheRecordsOwnOrder) {
    testing::LogCapture capture;
    EXPECT_EQ(jsonString(Sample{}), R"({"name":"zeta","count":3})");
    EXPECT_EQ(jsonString(CodableValue::array({CodableValue::integer(1), CodableValue::string("a")})), R"([1,"a"])");
    EXPECT_EQ(jsonString(RawText{"caf\xC3\xA9"}), "\"caf\xC3\xA9\"");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringifyTest, TextNotInUtf8IsReplacedWithoutALogLine) {
    testing::LogCapture capture;
    EXPECT_EQ(jsonString(RawText{"bad \xFF byte"}), "Error: Failed to convert JSON data to string.");
    EXPECT_EQ(jsonString(std::vector<std::string>{"ok", "\xC3"}), "Error: Failed to convert JSON data to string.");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringifyTest, EncodingFailureIsReturnedAndLoggedOnce) {
    testing::LogCapture capture;
    const std::string result = jsonString(CodableValue::decimalNumber(std::numeric_limits<double>::infinity()));
    const std::string prefix = "Error: JSON encoding failed. ";
    ASSERT_EQ(result.rfind(prefix, 0), 0u) << result;
    // The same error description follows the returned and the logged prefix.
    const std::string description = result.substr(prefix.size());
    EXPECT_NE(description.find("infinity"), std::string::npos) << description;
    EXPECT_EQ(capture.sink->messages(platform::LogType::error),
              std::vector<std::string>{"Failed to encode object to JSON: " + description});
}

}  // namespace
}  // namespace tavrin
