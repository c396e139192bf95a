#include "tavrin/tracking/internal/json_stringify.h"
#include "tavrin/tracking/internal/codable_value_coding.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "tavrin/tracking/internal/any_codable.h"
#include "tavrin/tracking/codable_value.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using testing::LogCapture;

// A record with a fixed member order, to show keys are not sorted.
struct Sample {
    std::string name;
    std::int64_t count;
    Json encode() const {
        Json out = Json::object();
        out["name"] = name;
        out["count"] = count;
        return out;
    }
};

struct Holder {
    AnyCodable payload;
    Json encode() const {
        Json out = Json::object();
        out["payload"] = payload.encode();
        return out;
    }
};

struct RawText {
    std::string text;
    Json encode() const { return Json(text); }
};

constexpr std::string_view kEncodingFailed = "Error: JSON encoding failed. ";
constexpr std::string_view kLoggedFailure = "Failed to encode object to JSON: ";

TEST(JsonStringify, WritesCompactUnsortedJsonOrTheConversionMessageWithoutLogging) {
    LogCapture capture(LogLevel::debug);
    EXPECT_EQ(jsonString(Sample{"zeta", 3}), R"({"name":"zeta","count":3})");
    EXPECT_EQ(jsonString(CodableValue::array({CodableValue::integer(1), CodableValue::string("a")})), R"([1,"a"])");
    EXPECT_EQ(jsonString(std::map<std::string, CodableValue>{{"k", CodableValue::boolean(true)}}), R"({"k":true})");
    EXPECT_EQ(jsonString(RawText{"caf\xC3\xA9"}), "\"caf\xC3\xA9\"");
    // Text that is not UTF-8 cannot be written.
    EXPECT_EQ(jsonString(RawText{"bad \xFF byte"}), "Error: Failed to convert JSON data to string.");
    EXPECT_EQ(jsonString(std::vector<std::string>{"ok", "\xC3"}), "Error: Failed to convert JSON data to string.");
    EXPECT_TRUE(capture.sink->records().empty());
}

TEST(JsonStringify, EncodingFailureBecomesTextAndOneErrorLine) {
    LogCapture capture(LogLevel::debug);
    const std::string result = jsonString(Holder{AnyCodable(std::map<std::string, int>{{"a", 1}})});
    ASSERT_EQ(result.rfind(kEncodingFailed, 0), 0u) << result;
    const auto records = capture.sink->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, platform::LogType::error);
    ASSERT_EQ(records[0].message.rfind(kLoggedFailure, 0), 0u) << records[0].message;
    // The same error description follows both prefixes.
    const std::string description = result.substr(kEncodingFailed.size());
    EXPECT_NE(description.find("Unsupported JSON value"), std::string::npos) << description;
    EXPECT_EQ(records[0].message.substr(kLoggedFailure.size()), description);

    // With errors filtered out the failure text is still returned, and nothing is logged.
    LoggerUtility::shared().setLogLevel(LogLevel::none);
    capture.sink->clear();
    const std::string filtered = jsonString(CodableValue::decimalNumber(std::numeric_limits<double>::infinity()));
    EXPECT_EQ(filtered.rfind(kEncodingFailed, 0), 0u) << filtered;
    EXPECT_TRUE(capture.sink->records().empty());
}

}  // namespace
}  // namespace tavrin
