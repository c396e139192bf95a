#include "tavrin/tracking/internal/coding.h"
#include "tavrin/tracking/internal/codable_value_coding.h"

#include <gtest/gtest.h>

#include "tests/support/decoding_assertions.h"

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavrin {
namespace {

using K = DecodingError::Kind;

using testing::failsWith;

// A record with one required, one optional and one byte-buffer member.
struct Item {
    std::string name;
    std::optional<std::int64_t> count;
    Bytes blob;

    Json encode() const {
        Json out = Json::object();
        out["name"] = encodeJson(name);
        encodeMemberIfPresent(out, "count", count);
        out["blob"] = encodeJson(blob);
        return out;
    }
    static Item decode(const Decoder& d) {
        return Item{decodeMember<std::string>(d, "name"), decodeMemberIfPresent<std::int64_t>(d, "count"),
                    decodeMember<Bytes>(d, "blob")};
    }
    friend bool operator==(const Item&, const Item&) = default;
};

TEST(Decoder, SingleValuesReportNullAndWrongTypesDistinctly) {
    const Json doc = Json::parse(R"({"s":"x","n":null,"i":7,"f":1.5,"e":1e3,"b":true,"big":18446744073709551615})");
    const Decoder root(doc);
    EXPECT_EQ(root.nested("s").decodeString(), "x");
    EXPECT_TRUE(root.nested("b").decodeBool());
    EXPECT_EQ(root.nested("i").decodeInt64(), 7);
    EXPECT_EQ(root.nested("i").decodeDouble(), 7.0);
    EXPECT_EQ(root.nested("f").decodeDouble(), 1.5);

    EXPECT_TRUE(failsWith([&] { root.nested("n").decodeString(); }, K::valueNotFound, {"n"}));
    EXPECT_TRUE(failsWith([&] { root.nested("i").decodeString(); }, K::typeMismatch, {"i"}));
    EXPECT_TRUE(failsWith([&] { root.nested("s").decodeBool(); }, K::typeMismatch, {"s"}));
    EXPECT_TRUE(failsWith([&] { root.nested("i").decodeBool(); }, K::typeMismatch, {"i"}));
    EXPECT_TRUE(failsWith([&] { root.nested("b").decodeInt64(); }, K::typeMismatch, {"b"}));
    EXPECT_TRUE(failsWith([&] { root.nested("b").decodeDouble(); }, K::typeMismatch, {"b"}));
    // Integers refuse fractions, exponents and values beyond the signed range.
    for (const char* key : {"f", "e", "big"})
        EXPECT_TRUE(failsWith([&] { root.nested(key).decodeInt64(); }, K::dataCorrupted, {key})) << key;
}

TEST(Decoder, KeyedAndUnkeyedAccessCarryTheirPath) {
    const Json doc = Json::parse(R"({"list":[{"a":1},{"b":null}],"obj":{"x":"y"}})");
    const Decoder root(doc);
    EXPECT_TRUE(
        failsWith([&] { root.nested("missing"); }, K::keyNotFound, {}, "No value associated with key \"missing\"."));
    const auto elements = root.nested("list").elements();
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(elements[1].codingPath(), (CodingPath{"list", "Index 1"}));
    EXPECT_TRUE(failsWith([&] { elements[1].nested("a"); }, K::keyNotFound, {"list", "Index 1"}));
    // Missing or null members are absent for optionals.
    EXPECT_FALSE(elements[1].nestedIfPresent("b").has_value());
    EXPECT_FALSE(elements[1].nestedIfPresent("c").has_value());
    ASSERT_TRUE(elements[0].nestedIfPresent("a").has_value());
    EXPECT_EQ(elements[0].nestedIfPresent("a")->codingPath(), (CodingPath{"list", "Index 0", "a"}));
    EXPECT_TRUE(root.contains("obj"));
    EXPECT_FALSE(root.nested("list").contains("obj"));

    const auto members = root.nested("obj").members();
    ASSERT_EQ(members.size(), 1u);
    EXPECT_EQ(members[0].first, "x");
    EXPECT_EQ(members[0].second.codingPath(), (CodingPath{"obj", "x"}));
    EXPECT_TRUE(failsWith([&] { root.nested("obj").elements(); }, K::typeMismatch, {"obj"}));
    EXPECT_TRUE(failsWith([&] { root.nested("list").members(); }, K::typeMismatch, {"list"}));
    EXPECT_TRUE(failsWith([&] { root.nested("list").nested("a"); }, K::typeMismatch, {"list"}));
}

TEST(Coding, RecordsRoundTripAndLeaveOutAbsentOptionals) {
    const Item full{"n", 5, {0x00, 0xFF, 0x10}};
    const Item bare{"m", std::nullopt, {}};
    EXPECT_EQ(encodeJsonText(full), R"({"name":"n","count":5,"blob":"AP8Q"})");
    EXPECT_EQ(encodeJsonText(bare), R"({"name":"m","blob":""})");
    EXPECT_EQ(decodeJson<Item>(encodeJsonText(full)), full);
    EXPECT_EQ(decodeJson<Item>(encodeJsonText(bare)), bare);
    EXPECT_EQ(decodeJson<Item>(R"({"name":"m","count":null,"blob":""})"), bare);
    EXPECT_TRUE(
        failsWith([] { decodeJson<Item>(R"({"name":"m","blob":"not base64!"})"); }, K::dataCorrupted, {"blob"}));
    EXPECT_TRUE(failsWith([] { decodeJson<Item>(R"({"blob":""})"); }, K::keyNotFound, {}));
    EXPECT_TRUE(
        failsWith([] { decodeJson<Item>(R"({"name":"m","count":"5","blob":""})"); }, K::typeMismatch, {"count"}));
}

TEST(Coding, ContainersOfScalarsAndByteBuffers) {
    const std::map<std::string, std::int64_t> m{{"b", 2}, {"a", 1}};
    EXPECT_EQ(decodeJson<std::decay_t<decltype(m)>>(encodeJsonText(m)), m);
    const std::unordered_map<std::string, std::vector<std::string>> u{{"k", {"x", "y"}}};
    EXPECT_EQ(decodeJson<std::decay_t<decltype(u)>>(encodeJsonText(u)), u);
    EXPECT_EQ(decodeJson<std::vector<double>>("[1,2.5]"), (std::vector<double>{1.0, 2.5}));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<std::int64_t>>("[1,\"2\"]"); }, K::typeMismatch, {"Index 1"}));
    EXPECT_TRUE(failsWith([] { decodeJson<std::vector<std::int64_t>>("[1,"); }, K::dataCorrupted, {}));
    // Byte buffers are base64 wherever they appear; vectors of other integers stay arrays.
    const Bytes bytes{'f', 'o', 'o'};
    EXPECT_EQ(encodeJson(std::vector<Bytes>{bytes, {}}), Json::parse(R"(["Zm9v",""])"));
    EXPECT_EQ(encodeJson(std::map<std::string, Bytes>{{"k", bytes}}), Json::parse(R"({"k":"Zm9v"})"));
    EXPECT_EQ(decodeJson<std::vector<Bytes>>(R"(["Zm9v",""])"), (std::vector<Bytes>{bytes, {}}));
    EXPECT_EQ(encodeJson(std::vector<std::int64_t>{1, 2}), Json::parse("[1,2]"));
}

TEST(CodingErrors, DescriptionsNameKindPathAndDetail) {
    const std::string what = DecodingError(K::keyNotFound, {"a", "Index 0"}, "No value.").what();
    for (const char* part : {"keyNotFound", "a.Index 0", "No value."})
        EXPECT_NE(what.find(part), std::string::npos) << what;
    const std::string encoding = EncodingError({"x"}, "Unsupported JSON value").what();
    EXPECT_NE(encoding.find("Unsupported JSON value"), std::string::npos) << encoding;
}

}  // namespace
}  // namespace tavrin
