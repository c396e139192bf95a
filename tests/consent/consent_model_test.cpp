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
        .data = {
            .identifier = {.user = {.id = "4821731667200123077", .action = "update"},
                           .consent = {.id = "0f0e-consent", .action = "new"}},
            .consent = {.lastupdate = 1731667200124,
                        .data = {},
                        .vendors = {{"vendorA", VendorValue::boolean(true)}, {"vendorB", VendorValue::string("ncm")}},
                        .vendorsChanged = {{"vendorB", VendorValue::string("ncm")}}}}};
}

TEST(ConsentStatusTest, StoredAsItsNameSentAsTrueFalseOrNcm) {
    const VendorConsents decision{{"a", ConsentStatus::allow}, {"b", ConsentStatus::deny}, {"c", ConsentStatus::ncm}};
    EXPECT_EQ(encodeJsonText(decision), R"({"a":"allow","b":"deny","c":"ncm"})");
    EXPECT_EQ(decodeJson<VendorConsents>(encodeJsonText(decision)), decision);
    EXPECT_EQ(encodeJsonText(toVendorValues(decision)), R"({"a":true,"b":false,"c":"ncm"})");
}

TEST(ConsentModelTest, EncodesMembersInOrderWithExactKeys) {
    EXPECT_EQ(encodeJsonText(sampleModel()),
              R"({"version":"3","system":{"type":"sdk-ios","timestamp":1731667200123,)"
              R"("navigator-userAgent":"Agent/1.0","initiator":"tvr_push_submit"},)"
              R"("configuration":{"container":"shop-app","environment":"live","version":"7","debugcode":"dbg"},)"
              R"("data":{"identifier":{"user":{"id":"4821731667200123077","action":"update"},)"
              R"("consent":{"id":"0f0e-consent","action":"new"}},)"
              R"("consent":{"lastupdate":1731667200124,"data":{},"vendors":{"vendorA":true,"vendorB":"ncm"},)"
              R"("vendorsChanged":{"vendorB":"ncm"}}}})");
}

// Absent optionals are left out; null or missing ones read as absent.
TEST(ConsentModelTest, DecodesWhatItEncodes) {
    auto model = sampleModel();
    EXPECT_EQ(decodeJson<ConsentModel>(encodeJsonText(model)), model);
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    Json doc = encodeJson(model);
    EXPECT_EQ(doc["configuration"].dump(), R"({"container":"shop-app","environment":"live"})");
    doc["configuration"]["version"] = nullptr;
    EXPECT_EQ(decodeJson<ConsentModel>(platform::dumpJson(doc)), model);
}

}  // namespace
}  // namespace tavrin
