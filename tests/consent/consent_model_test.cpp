#include "tavrin/consent/consent_model.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavrin {
namespace {

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it) keys.push_back(it.key());
    return keys;
}

template <class T>
DecodingError decodeFailure(std::string_view text) {
    try {
        decodeJson<T>(text);
    } catch (const DecodingError& e) {
        return e;
    }
    ADD_FAILURE() << text << " decoded";
    return DecodingError(DecodingError::Kind::dataCorrupted, {}, "decoded");
}

ConsentModel sampleModel() {
    return ConsentModel{
        .version = "3",
        .system = {.type = "sdk-ios",
                   .timestamp = 1731667200123,
                   .navigatorUserAgent = "Agent/1.0",
                   .initiator = "tvr_push_submit"},
        .configuration = {.container = "shop-app", .environment = "live", .version = "7", .debugcode = "dbg"},
        .data = {.identifier = {.user = {.id = "4821731667200123077", .action = "update"},
                                .consent = {.id = "0f0e-consent", .action = "new"}},
                 .consent = {.lastupdate = 1731667200123,
                             .data = {},
                             .vendors = {{"vendorA", VendorValue::boolean(true)},
                                         {"vendorB", VendorValue::string("ncm")}},
                             .vendorsChanged = {{"vendorB", VendorValue::string("ncm")}}}}};
}

TEST(ConsentStatus, EncodesAsRawTextAndDecodesOnlyExactNames) {
    EXPECT_EQ(encodeJsonText(VendorConsents{{"a", ConsentStatus::allow},
                                            {"b", ConsentStatus::deny},
                                            {"c", ConsentStatus::ncm}}),
              R"({"a":"allow","b":"deny","c":"ncm"})");
    for (auto status : allConsentStatuses) {
        EXPECT_EQ(decodeJson<ConsentStatus>(encodeJsonText(status)), status);
        EXPECT_EQ(consentStatusFromRawValue(rawValue(status)), status);
    }
    for (const char* text : {R"("Allow")", R"("ALLOW")", R"("")", R"(" allow")", R"("yes")"}) {
        auto e = decodeFailure<ConsentStatus>(text);
        EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted) << text;
        EXPECT_EQ(e.debugDescription(), "Invalid value for ConsentStatus") << text;
    }
    // Not a string at all: the decoder's own type error, at the member's path.
    auto e = decodeFailure<VendorConsents>(R"({"v":true})");
    EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(e.codingPath(), CodingPath{"v"});
    EXPECT_EQ(consentStatusFromRawValue("Deny"), std::nullopt);
}

TEST(ConsentStatus, MapsToVendorValues) {
    EXPECT_EQ(toVendorValue(ConsentStatus::allow), VendorValue::boolean(true));
    EXPECT_EQ(toVendorValue(ConsentStatus::deny), VendorValue::boolean(false));
    EXPECT_EQ(toVendorValue(ConsentStatus::ncm), VendorValue::string("ncm"));
    EXPECT_NE(toVendorValue(ConsentStatus::deny), VendorValue::string("deny"));
    const VendorValues mapped =
        toVendorValues({{"x", ConsentStatus::allow}, {"y", ConsentStatus::deny}, {"z", ConsentStatus::ncm}});
    EXPECT_EQ(mapped, (VendorValues{{"x", VendorValue::boolean(true)},
                                    {"y", VendorValue::boolean(false)},
                                    {"z", VendorValue::string("ncm")}}));
    EXPECT_EQ(describe(mapped), R"(["x": bool(true), "y": bool(false), "z": string("ncm")])");
    EXPECT_EQ(describe(VendorValues{}), "[:]");
}

TEST(VendorValue, EqualityAndBareEncoding) {
    EXPECT_EQ(VendorValue::boolean(true), VendorValue::boolean(true));
    EXPECT_NE(VendorValue::boolean(true), VendorValue::boolean(false));
    EXPECT_NE(VendorValue::boolean(true), VendorValue::string("true"));
    EXPECT_NE(VendorValue::string("a"), VendorValue::string("A"));
    EXPECT_EQ(encodeJsonText(VendorValue::boolean(false)), "false");
    EXPECT_EQ(encodeJsonText(VendorValue::string("ncm")), R"("ncm")");
}

TEST(VendorValue, DecodesBooleanBeforeStringAndRejectsEverythingElse) {
    EXPECT_EQ(decodeJson<VendorValue>("true"), VendorValue::boolean(true));
    EXPECT_EQ(decodeJson<VendorValue>(R"("true")"), VendorValue::string("true"));
    EXPECT_EQ(decodeJson<VendorValue>(R"("")"), VendorValue::string(""));
    for (const char* text : {"1", "0", "1.5", "null", "{}", "[true]"}) {
        auto e = decodeFailure<VendorValue>(text);
        EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch) << text;
        EXPECT_EQ(e.debugDescription(), "Failed to decode VendorValue") << text;
    }
    // The error carries the path of the failing value.
    auto e = decodeFailure<VendorValues>(R"({"ok":true,"bad":1})");
    EXPECT_EQ(e.codingPath(), CodingPath{"bad"});
    EXPECT_EQ(e.debugDescription(), "Failed to decode VendorValue");
}

TEST(ConsentModel, EncodesMembersInOrderWithExactKeysAndTypes) {
    const auto text = encodeJsonText(sampleModel());
    const Json doc = Json::parse(text);

    EXPECT_EQ(keysOf(doc), (std::vector<std::string>{"version", "system", "configuration", "data"}));
    EXPECT_EQ(doc["version"], "3");

    const Json& system = doc["system"];
    EXPECT_EQ(keysOf(system), (std::vector<std::string>{"type", "timestamp", "navigator-userAgent", "initiator"}));
    EXPECT_EQ(system["type"], "sdk-ios");
    EXPECT_TRUE(system["timestamp"].is_number_integer());
    EXPECT_EQ(system["timestamp"].get<std::int64_t>(), 1731667200123);
    EXPECT_EQ(system["navigator-userAgent"], "Agent/1.0");
    EXPECT_EQ(system["initiator"], "tvr_push_submit");

    EXPECT_EQ(keysOf(doc["configuration"]),
              (std::vector<std::string>{"container", "environment", "version", "debugcode"}));
    EXPECT_EQ(doc["configuration"]["debugcode"], "dbg");

    const Json& data = doc["data"];
    EXPECT_EQ(keysOf(data), (std::vector<std::string>{"identifier", "consent"}));
    EXPECT_EQ(keysOf(data["identifier"]), (std::vector<std::string>{"user", "consent"}));
    EXPECT_EQ(keysOf(data["identifier"]["user"]), (std::vector<std::string>{"id", "action"}));
    EXPECT_EQ(data["identifier"]["user"]["id"], "4821731667200123077");
    EXPECT_EQ(data["identifier"]["consent"]["action"], "new");

    const Json& consent = data["consent"];
    EXPECT_EQ(keysOf(consent), (std::vector<std::string>{"lastupdate", "data", "vendors", "vendorsChanged"}));
    EXPECT_TRUE(consent["lastupdate"].is_number_integer());
    EXPECT_TRUE(consent["data"].is_object());
    EXPECT_TRUE(consent["data"].empty());
    EXPECT_EQ(consent["vendors"]["vendorA"], true);
    EXPECT_EQ(consent["vendors"]["vendorB"], "ncm");
    EXPECT_EQ(consent["vendorsChanged"], Json::parse(R"({"vendorB":"ncm"})"));

    // Integers are written without a fraction or exponent.
    EXPECT_NE(text.find(R"("timestamp":1731667200123,)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("lastupdate":1731667200123,)"), std::string::npos) << text;
}

TEST(ConsentModel, AbsentOptionalsAreLeftOutNotNull) {
    auto model = sampleModel();
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    const Json doc = encodeJson(model);
    EXPECT_EQ(keysOf(doc["configuration"]), (std::vector<std::string>{"container", "environment"}));
    EXPECT_EQ(platform::dumpJson(doc).find("null"), std::string::npos);
}

TEST(ConsentModel, DecodesWhatItEncodesAndAcceptsNullOptionals) {
    const auto model = sampleModel();
    EXPECT_EQ(decodeJson<ConsentModel>(encodeJsonText(model)), model);

    Json doc = encodeJson(model);
    doc["configuration"]["version"] = nullptr;
    doc["configuration"].erase("debugcode");
    const auto decoded = decodeJson<ConsentModel>(platform::dumpJson(doc));
    EXPECT_EQ(decoded.configuration.version, std::nullopt);
    EXPECT_EQ(decoded.configuration.debugcode, std::nullopt);
    EXPECT_EQ(decoded.data, model.data);

    // The vendor maps stay changeable after construction.
    auto changed = decoded;
    changed.data.consent.vendorsChanged.insert_or_assign("vendorC", VendorValue::boolean(false));
    EXPECT_EQ(encodeJson(changed)["data"]["consent"]["vendorsChanged"]["vendorC"], false);
}

TEST(ConsentModel, DecodeFailuresNameTheMemberAndItsPath) {
    Json doc = encodeJson(sampleModel());
    doc["system"].erase("navigator-userAgent");
    auto missing = decodeFailure<ConsentModel>(platform::dumpJson(doc));
    EXPECT_EQ(missing.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(missing.codingPath(), CodingPath{"system"});
    EXPECT_EQ(missing.debugDescription(), R"(No value associated with key "navigator-userAgent".)");

    doc = encodeJson(sampleModel());
    doc["data"]["consent"]["vendors"]["vendorA"] = 1;
    auto badVendor = decodeFailure<ConsentModel>(platform::dumpJson(doc));
    EXPECT_EQ(badVendor.codingPath(), (CodingPath{"data", "consent", "vendors", "vendorA"}));
    EXPECT_EQ(badVendor.debugDescription(), "Failed to decode VendorValue");

    doc = encodeJson(sampleModel());
    doc["system"]["timestamp"] = 1.5;
    EXPECT_EQ(decodeFailure<ConsentModel>(platform::dumpJson(doc)).codingPath(),
              (CodingPath{"system", "timestamp"}));

    doc = encodeJson(sampleModel());
    doc["configuration"]["container"] = nullptr;  // required members do not accept null
    EXPECT_EQ(decodeFailure<ConsentModel>(platform::dumpJson(doc)).kind(), DecodingError::Kind::valueNotFound);
}

}  // namespace
}  // namespace tavrin
