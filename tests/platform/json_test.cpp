#include "tavrin/platform/internal/json.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrin::platform {
namespace {

TEST(Base64Test, RoundTripsTheStandardVectorsAndEveryByte) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"\xFB\xFF\xBF", "+/+/"}};
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
        const auto decoded = base64Decode(encoded);
        ASSERT_TRUE(decoded) << encoded;
        EXPECT_EQ(toString(*decoded), plain);
    }
    Bytes all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(base64Decode(base64Encode(all)), all);
}

TEST(Base64Test, RejectsMalformedText) {
    for (const char* bad :
         {"Zg", "Zg=", "Zm9", "Z===", "====", "Zg==Zg==", "Zm=v", "Zm9v=", "Zm9v====",  // length, padding
          "Zh==", "Zm9=",                                                               // padding hides set bits
          "Zm9v\n", " Zm9v", "Zm-_", "Zm9*", "Zm9v\xC3\xA9"}) {
        EXPECT_FALSE(base64Decode(bad).has_value()) << ::testing::PrintToString(std::string(bad));
    }
    EXPECT_FALSE(base64Decode(std::string_view("Zm\0v", 4)).has_value());
}

TEST(JsonTest, ParseGivesNothingForMalformedText) {
    for (const char* bad : {"", " ", "{", "[1,]", "{\"a\":1,}", "{'a':1}", "nul", "1 2", "\"\\x\"", "\"\xff\"", "NaN",
                            "[1] x", "{\"a\"}", "01", "1e999", "\"\\ud800\""}) {
        EXPECT_FALSE(parseJson(bad).has_value()) << ::testing::PrintToString(std::string(bad));
    }
    EXPECT_FALSE(parseJson(std::string_view("[1]\0", 4)).has_value());
}

TEST(JsonTest, ParseKeepsMemberOrderAndNumberKinds) {
    const auto doc = parseJson(R"( {"z":1,"a":-2,"m":1.5,"b":18446744073709551615,"t":true,"n":null} )");
    ASSERT_TRUE(doc);
    std::vector<std::string> keys;
    for (auto it = doc->begin(); it != doc->end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"z", "a", "m", "b", "t", "n"}));
    EXPECT_TRUE((*doc)["a"].is_number_integer());
    EXPECT_TRUE((*doc)["m"].is_number_float());
    EXPECT_TRUE((*doc)["b"].is_number_unsigned());
}

TEST(JsonTest, ParseLimitsNestingDepth) {
    const auto arrays = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_TRUE(parseJson(arrays(512)).has_value());
    EXPECT_FALSE(parseJson(arrays(513)).has_value());
    EXPECT_FALSE(parseJson(std::string(1'000'000, '[')).has_value());
    std::string objects;
    for (int i = 0; i < 513; ++i) objects += "{\"k\":";
    EXPECT_FALSE(parseJson(objects + "1" + std::string(513, '}')).has_value());
    // Brackets in strings, escaped quotes included, are text.
    EXPECT_TRUE(parseJson("[\"" + std::string(600, '[') + "\\\"" + std::string(600, '{') + "\"]").has_value());
}

TEST(JsonTest, DumpIsCompactInMemberOrder) {
    Json doc = Json::object();
    doc["b"] = 1;
    doc["a"] = Json::array({1.0, "caf\xC3\xA9", nullptr, false});
    EXPECT_EQ(dumpJson(doc), "{\"b\":1,\"a\":[1.0,\"caf\xC3\xA9\",null,false]}");
}

TEST(JsonTest, DumpReplacesInvalidUtf8InsteadOfThrowing) { EXPECT_EQ(dumpJson(Json("a\xFF")), "\"a\xEF\xBF\xBD\""); }

}  // namespace
}  // namespace tavrin::platform
