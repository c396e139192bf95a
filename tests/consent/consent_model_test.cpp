#include "tavrin/consent/internal/consent_model.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::decodeFailure;

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
                 .consent = {.lastupdate = 1731667200124,
                             .data = {},
                             .vendors = {{"vendorA", VendorValue::boolean(true)},
                                         {"vendorB", VendorValue::string("ncm")}},
                             .vendorsChanged = {{"vendorB", VendorValue::string("ncm")}}}}};
}

TEST(ConsentStatus, RawTextBothWaysAndMappedToVendorValues) {
    const VendorConsents decision{{"a", ConsentStatus::allow}, {"b", ConsentStatus::deny}, {"c", ConsentStatus::ncm}};
    EXPECT_EQ(encodeJsonText(decision), R"({"a":"allow","b":"deny","c":"ncm"})");
    EXPECT_EQ(encodeJsonText(toVendorValues(decision)), R"({"a":true,"b":false,"c":"ncm"})");
    EXPECT_EQ(describe(toVendorValues(decision)), R"(["a": bool(true), "b": bool(false), "c": string("ncm")])");
    EXPECT_EQ(describe(VendorValues{}), "[:]");
    for (auto status : allConsentStatuses) EXPECT_EQ(decodeJson<ConsentStatus>(encodeJsonText(status)), status);
}

TEST(ConsentStatus, DecodesOnlyExactNames) {
    for (const char* text : {R"("Allow")", R"("ALLOW")", R"("")", R"(" allow")", R"("yes")"}) {
        auto e = decodeFailure<ConsentStatus>(text);
        EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted) << text;
        EXPECT_EQ(e.debugDescription(), "Invalid value for ConsentStatus") << text;
    }
    // Not a string at all: the decoder's own type error, at the member's path.
    auto e = decodeFailure<VendorConsents>(R"({"v":true})");
    EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
    EXPECT_EQ(e.codingPath(), CodingPath{"v"});
}

TEST(VendorValue, DecodesBooleanBeforeStringAndNothingElse) {
    EXPECT_EQ(decodeJson<VendorValue>("true"), VendorValue::boolean(true));
    EXPECT_EQ(decodeJson<VendorValue>(R"("true")"), VendorValue::string("true"));
    EXPECT_NE(VendorValue::boolean(true), VendorValue::string("true"));
    for (const char* text : {"1", "0", "1.5", "null", "{}", "[true]"}) {
        auto e = decodeFailure<VendorValue>(text);
        EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch) << text;
        EXPECT_EQ(e.debugDescription(), "Failed to decode VendorValue") << text;
    }
}

TEST(ConsentModel, EncodesMembersInOrderWithExactKeysAndTypes) {
    EXPECT_EQ(encodeJsonText(sampleModel()),
              R"({"version":"3","system":{"type":"sdk-ios","timestamp":1731667200123,)"
              R"("navigator-userAgent":"Agent/1.0","initiator":"tvr_push_submit"},)"
              R"("configuration":{"container":"shop-app","environment":"live","version":"7","debugcode":"dbg"},)"
              R"("data":{"identifier":{"user":{"id":"4821731667200123077","action":"update"},)"
              R"("consent":{"id":"0f0e-consent","action":"new"}},)"
              R"("consent":{"lastupdate":1731667200124,"data":{},"vendors":{"vendorA":true,"vendorB":"ncm"},)"
              R"("vendorsChanged":{"vendorB":"ncm"}}}})");

    // Absent optionals are left out, not written as null.
    auto model = sampleModel();
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    const auto text = encodeJsonText(model);
    EXPECT_NE(text.find(R"("configuration":{"container":"shop-app","environment":"live"},)"), std::string::npos) << text;
    EXPECT_EQ(text.find("null"), std::string::npos) << text;
}

TEST(ConsentModel, DecodesWhatItEncodesAndAcceptsNullOptionals) {
    auto model = sampleModel();
    EXPECT_EQ(decodeJson<ConsentModel>(encodeJsonText(model)), model);

    Json doc = encodeJson(model);
    doc["configuration"]["version"] = nullptr;
    doc["configuration"].erase("debugcode");
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    EXPECT_EQ(decodeJson<ConsentModel>(platform::dumpJson(doc)), model);
}

TEST(ConsentModel, DecodeFailuresNameTheMemberAndItsPath) {
    auto failure = [](const std::function<void(Json&)>& change) {
        Json doc = encodeJson(sampleModel());
        change(doc);
        return decodeFailure<ConsentModel>(platform::dumpJson(doc));
    };
    auto missing = failure([](Json& doc) { doc["system"].erase("navigator-userAgent"); });
    EXPECT_EQ(missing.kind(), DecodingError::Kind::keyNotFound);
    EXPECT_EQ(missing.codingPath(), CodingPath{"system"});
    EXPECT_EQ(missing.debugDescription(), R"(No value associated with key "navigator-userAgent".)");

    auto badVendor = failure([](Json& doc) { doc["data"]["consent"]["vendors"]["vendorA"] = 1; });
    EXPECT_EQ(badVendor.codingPath(), (CodingPath{"data", "consent", "vendors", "vendorA"}));
    EXPECT_EQ(badVendor.debugDescription(), "Failed to decode VendorValue");

    EXPECT_EQ(failure([](Json& doc) { doc["system"]["timestamp"] = 1.5; }).codingPath(),
              (CodingPath{"system", "timestamp"}));
    // Required members do not accept null.
    EXPECT_EQ(failure([](Json& doc) { doc["configuration"]["container"] = nullptr; }).kind(),
              DecodingError::Kind::valueNotFound);
}

}  // namespace
}  // namespace tavrin
