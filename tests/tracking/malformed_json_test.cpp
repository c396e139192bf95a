// Arbitrary input must end in a value or a DecodingError, never in another
// exception or a crash (this suite also runs under the sanitizers).

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "tavrin/tracking/internal/any_codable.h"
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tavrin/tracking/codable_value.h"

namespace tavrin {
namespace {

const std::vector<std::string> kSeeds = {
    R"({"a":1,"b":[true,false,null],"c":{"d":"e\u00e9\n"},"f":-1.5e-3})",
    R"([1,"a",[true],[[[]]],{"k":[1,2,{"x":null}]}])",
    R"("text with \"escapes\" and \\ backslash")",
    R"(18446744073709551616)",
    R"([-0,0.0,1E+2,9223372036854775807,-9223372036854775809])",
    R"({"nested":{"deeper":{"deepest":[1.0,2,"3"]}}})",
};

const std::vector<std::string> kTokens = {
    "[", "]", "{", "}", ",", ":", "null", "true", "fals", "\"", "\\", "\\u", "\\ud800", "1e999", "-", "0x1F",
    "01", "1.", ".5", "NaN", "Infinity", "\xff", "\xc3", "\xed\xa0\x80", std::string(1, '\0'), " ", "\t", "\"k\"",
    "123456789012345678901234567890", "/*", "//", "'",
};

// A random JSON document (valid), with nulls and objects mixed in.
std::string randomDocument(std::mt19937& rng, int depth) {
    switch (rng() % (depth > 4 ? 6 : 8)) {
        case 0: return "null";
        case 1: return rng() % 2 ? "true" : "false";
        case 2: return std::to_string(static_cast<std::int64_t>(rng()) - (1LL << 31));
        case 3: return std::to_string(static_cast<double>(rng()) / 977.0);
        case 4: return "\"s" + std::to_string(rng() % 100) + "\"";
        case 5: return std::to_string(rng());
    }
    const bool object = rng() % 2;
    std::string out(1, object ? '{' : '[');
    for (int i = 0, n = static_cast<int>(rng() % 4); i < n; ++i)
        out += (i ? "," : "") + (object ? "\"k" + std::to_string(i) + "\":" : "") + randomDocument(rng, depth + 1);
    return out + (object ? '}' : ']');
}

std::vector<std::string> generateInputs() {
    std::mt19937 rng(0x7A5EEDu);
    auto anyByte = [&] { return static_cast<char>(rng() & 0xFF); };
    auto anyToken = [&] { return kTokens[rng() % kTokens.size()]; };
    std::vector<std::string> inputs;
    for (int i = 0; i < 600; ++i) {
        std::string text = kSeeds[rng() % kSeeds.size()];
        switch (i % 6) {
            case 0:  // random bytes
                text.assign(rng() % 40, ' ');
                for (char& c : text) c = anyByte();
                break;
            case 1:  // one byte replaced
                text[rng() % text.size()] = anyByte();
                break;
            case 2:  // truncated
                text.resize(rng() % text.size());
                break;
            case 3:  // tokens inserted
                for (int k = 0, n = 1 + static_cast<int>(rng() % 3); k < n; ++k)
                    text.insert(rng() % (text.size() + 1), anyToken());
                break;
            case 4:  // token soup
                text.clear();
                for (int k = 0, n = 1 + static_cast<int>(rng() % 30); k < n; ++k) text += anyToken();
                break;
            default:  // well-formed, with values neither type accepts here and there
                text = randomDocument(rng, 0);
        }
        inputs.push_back(std::move(text));
    }
    return inputs;
}

struct Outcome {
    int decoded = 0;
    int rejected = 0;
};

// Runs one decode; a success must survive a round trip through its own encoding.
template <class T, class Check>
void attempt(const std::string& text, Outcome& outcome, Check check) {
    try {
        const T value = decodeJson<T>(text);
        ++outcome.decoded;
        check(value);
    } catch (const DecodingError&) {
        ++outcome.rejected;
    } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected " << e.what() << " for input " << ::testing::PrintToString(text);
    }
}

TEST(MalformedJson, OnlyDecodingErrorsComeOut) {
    const auto inputs = generateInputs();
    ASSERT_GE(inputs.size(), 600u);
    Outcome codable, any, map, list;
    for (const auto& text : inputs) {
        SCOPED_TRACE(::testing::PrintToString(text));
        attempt<CodableValue>(text, codable,
                              [](const CodableValue& v) { EXPECT_EQ(decodeJson<CodableValue>(encodeJsonText(v)), v); });
        attempt<AnyCodable>(text, any, [](const AnyCodable& v) {
            const std::string again = encodeJsonText(v);
            EXPECT_EQ(Json::parse(encodeJsonText(decodeJson<AnyCodable>(again))), Json::parse(again));
        });
        attempt<std::map<std::string, CodableValue>>(text, map, [](const auto& v) {
            EXPECT_EQ((decodeJson<std::map<std::string, CodableValue>>(encodeJsonText(v))), v);
        });
        attempt<std::vector<AnyCodable>>(text, list, [](const auto& v) { EXPECT_NO_THROW(encodeJsonText(v)); });
    }
    // The generator exercises both outcomes for each target type.
    for (const auto* o : {&codable, &any, &map, &list}) {
        EXPECT_GT(o->decoded, 5) << o->rejected;
        EXPECT_GT(o->rejected, 100);
    }
}

TEST(MalformedJson, DeepNestingIsRefusedNotRecursedInto) {
    const auto nested = [](int depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); };
    EXPECT_EQ(decodeJson<CodableValue>(nested(512)).kind(), CodableValue::Kind::array);
    for (const std::string& text : {nested(513), std::string(200000, '['), std::string(100000, '{') + "\"a\":1"}) {
        try {
            decodeJson<AnyCodable>(text);
            ADD_FAILURE() << "decoded " << text.size() << " bytes of nesting";
        } catch (const DecodingError& e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
        }
    }
    // A NUL byte does not end the text early.
    EXPECT_THROW(decodeJson<CodableValue>(std::string_view("[1]\0[2", 7)), DecodingError);
}

}  // namespace
}  // namespace tavrin
