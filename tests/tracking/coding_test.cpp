#include "tavrin/tracking/coding.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavrin {
namespace {

template <class F>
DecodingError decodingErrorOf(F&& f) {
    try {
        f();
    } catch (const DecodingError& e) {
        return e;
    }
    ADD_FAILURE() << "no DecodingError";
    return DecodingError(DecodingError::Kind::dataCorrupted, {}, "none");
}

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

    auto e = decodingErrorOf([&] { root.nested("n").decodeString(); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::valueNotFound);
    EXPECT_EQ(e.codingPath(), CodingPath{"n"});
    e = decodingErrorOf([&] { root.nested("i").decodeString(); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(e.codingPath(), CodingPath{"i"});
    EXPECT_EQ(decodingErrorOf([&] { root.nested("s").decodeBool(); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(decodingErrorOf([&] { root.nested("i").decodeBool(); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(decodingErrorOf([&] { root.nested("b").decodeInt64(); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(decodingErrorOf([&] { root.nested("b").decodeDouble(); }).kind(), DecodingError::Kind::typeMismatch);
    // Integers refuse fractions, exponents and values beyond the signed range.
    for (const char* key : {"f", "e", "big"})
        EXPECT_EQ(decodingErrorOf([&] { root.nested(key).decodeInt64(); }).kind(),
                  DecodingError::Kind::dataCorrupted)
            << key;
}

TEST(Decoder, KeyedAndUnkeyedAccessCarryTheirPath) {
    const Json doc = Json::parse(R"({"list":[{"a":1},{"b":null}],"obj":{"x":"y"}})");
    const Decoder root(doc);
    auto e = decodingErrorOf([&] { root.nested("missing"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(e.debugDescription(), "No value associated with key \"missing\".");

    const auto elements = root.nested("list").elements();
    ASSERT_EQ(elements.size(), 2u);
    EXPECT_EQ(elements[1].codingPath(), (CodingPath{"list", "Index 1"}));
    e = decodingErrorOf([&] { elements[1].nested("a"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(e.codingPath(), (CodingPath{"list", "Index 1"}));
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

    EXPECT_EQ(decodingErrorOf([&] { root.nested("obj").elements(); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(decodingErrorOf([&] { root.nested("list").members(); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(decodingErrorOf([&] { root.nested("list").nested("a"); }).kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(codingPathText({"list", "Index 1", "b"}), "list.Index 1.b");
    EXPECT_EQ(codingPathText({}), "");
}

TEST(Coding, RecordsRoundTripAndLeaveOutAbsentOptionals) {
    const Item full{"n", 5, {0x00, 0xFF, 0x10}};
    const Item bare{"m", std::nullopt, {}};
    EXPECT_EQ(encodeJsonText(full), R"({"name":"n","count":5,"blob":"AP8Q"})");
    EXPECT_EQ(encodeJsonText(bare), R"({"name":"m","blob":""})");
    EXPECT_EQ(decodeJson<Item>(encodeJsonText(full)), full);
    EXPECT_EQ(decodeJson<Item>(encodeJsonText(bare)), bare);
    EXPECT_EQ(decodeJson<Item>(R"({"name":"m","count":null,"blob":""})"), bare);

    auto e = decodingErrorOf([] { decodeJson<Item>(R"({"name":"m","blob":"not base64!"})"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_EQ(e.codingPath(), CodingPath{"blob"});
    e = decodingErrorOf([] { decodeJson<Item>(R"({"blob":""})"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::keyNotFound);
    e = decodingErrorOf([] { decodeJson<Item>(R"({"name":"m","count":"5","blob":""})"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(e.codingPath(), CodingPath{"count"});
}

TEST(Coding, ByteBuffersAreBase64WhereverTheyAppear) {
    const Bytes bytes{'f', 'o', 'o'};
    EXPECT_EQ(encodeJson(bytes), Json("Zm9v"));
    EXPECT_EQ(encodeJson(std::vector<Bytes>{bytes, {}}), Json::parse(R"(["Zm9v",""])"));
    EXPECT_EQ(encodeJson(std::map<std::string, Bytes>{{"k", bytes}}), Json::parse(R"({"k":"Zm9v"})"));
    EXPECT_EQ(decodeJson<std::vector<Bytes>>(R"(["Zm9v",""])"), (std::vector<Bytes>{bytes, {}}));
    // Vectors of other integers stay arrays.
    EXPECT_EQ(encodeJson(std::vector<std::int64_t>{1, 2}), Json::parse("[1,2]"));
}

TEST(Coding, ContainersOfScalars) {
    const std::map<std::string, std::int64_t> m{{"b", 2}, {"a", 1}};
    EXPECT_EQ(decodeJson<std::decay_t<decltype(m)>>(encodeJsonText(m)), m);
    const std::unordered_map<std::string, std::vector<std::string>> u{{"k", {"x", "y"}}};
    EXPECT_EQ(decodeJson<std::decay_t<decltype(u)>>(encodeJsonText(u)), u);
    EXPECT_EQ(decodeJson<std::vector<double>>("[1,2.5]"), (std::vector<double>{1.0, 2.5}));
    auto e = decodingErrorOf([] { decodeJson<std::vector<std::int64_t>>("[1,\"2\"]"); });
    EXPECT_EQ(e.codingPath(), CodingPath{"Index 1"});
    e = decodingErrorOf([] { decodeJson<std::vector<std::int64_t>>("[1,"); });
    EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
    EXPECT_TRUE(e.codingPath().empty());
}

TEST(CodingErrors, DescriptionsNameKindPathAndDetail) {
    const DecodingError d(DecodingError::Kind::keyNotFound, {"a", "Index 0"}, "No value.");
    EXPECT_STREQ(decodingErrorKindName(d.kind()), "keyNotFound");
    const std::string what = d.what();
    EXPECT_NE(what.find("keyNotFound"), std::string::npos) << what;
    EXPECT_NE(what.find("a.Index 0"), std::string::npos) << what;
    EXPECT_NE(what.find("No value."), std::string::npos) << what;

    const EncodingError e({"x"}, "Unsupported JSON value");
    EXPECT_EQ(e.kind(), EncodingError::Kind::invalidValue);
    EXPECT_FALSE(e.value().has_value());
    EXPECT_NE(std::string(e.what()).find("Unsupported JSON value"), std::string::npos);
    const EncodingError withValue(std::any(3), {}, "bad");
    EXPECT_EQ(std::any_cast<int>(withValue.value()), 3);
}

}  // namespace
}  // namespace tavrin
