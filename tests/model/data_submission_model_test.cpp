// The wire records of tracking: the data submission and the push payload
// waiting in the data layer for it.
#include "tavrin/model/internal/data_submission_model.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tavrin/model/internal/push_payload.h"
#include "tests/support/decoding_assertions.h"

namespace tavrin {
namespace {

using K = DecodingError::Kind;
using testing::failsWith;

DataSubmissionModel fullModel() {
    DataSubmissionModel model;
    model.version = "3";
    model.system = {"sdk-ios", 1700000000123, "iOS; iPhone OS 17_2; x86_64 [TavrinSDK/v.1.0.18]", "checkout"};
    model.consent = {{"vendorA", {CodableValue::boolean(true)}}, {"vendorB", {CodableValue::string("ncm")}}};
    model.configuration = {"shop-app", "stage", "3", "dbg-1"};
    model.data.identifier = {{"123", "new"}, {"s-1", "update"}};
    model.data.variables = {"https://shop.example/?",
                            "fb.1.1711009849625.5246926883",
                            {"pageview", "submit"},
                            {{"price", CodableValue::decimalNumber(9.99)},
                             {"tags", CodableValue::array({CodableValue::string("a")})},
                             {"a_first", CodableValue::integer(1)}}};
    model.data.enrichment =
        std::map<std::string, Enrichment>{{"geo", Enrichment{{{"city", CodableValue::string("Vienna")}}, {"region"}}}};
    return model;
}

// Custom properties follow the fixed variables.
constexpr const char* kFullText =
    R"({"version":"3",)"
    R"("system":{"type":"sdk-ios","timestamp":1700000000123,)"
    R"("navigator-userAgent":"iOS; iPhone OS 17_2; x86_64 [TavrinSDK/v.1.0.18]","initiator":"checkout"},)"
    R"("consent":{"vendorA":{"status":true},"vendorB":{"status":"ncm"}},)"
    R"("configuration":{"container":"shop-app","environment":"stage","version":"3","debugcode":"dbg-1"},)"
    R"("data":{"identifier":{"user":{"id":"123","action":"new"},"session":{"id":"s-1","action":"update"}},)"
    R"("variables":{"document_location_href":"https://shop.example/?","fb_browser_id":"fb.1.1711009849625.5246926883",)"
    R"("tvrpushedcommands":["pageview","submit"],"a_first":1,"price":9.99,"tags":["a"]},)"
    R"("enrichment":{"geo":{"arguments":{"city":"Vienna"},"variables":["region"]}}}})";

TEST(DataSubmissionModelTest, EncodesEveryMemberUnderItsWireNameInOrder) {
    EXPECT_EQ(encodeJsonText(fullModel()), kFullText);
    EXPECT_EQ(decodeJson<DataSubmissionModel>(kFullText), fullModel());
}

TEST(DataSubmissionModelTest, OnlyAbsentOptionalMembersAreLeftOut) {
    auto model = fullModel();
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    model.consent.clear();
    model.data.enrichment.reset();
    model.data.variables.customProperties.clear();
    const std::string text = encodeJsonText(model);
    EXPECT_NE(text.find(R"("consent":{},"configuration":{"container":"shop-app","environment":"stage"},)"),
              std::string::npos)
        << text;
    EXPECT_TRUE(text.ends_with(R"("tvrpushedcommands":["pageview","submit"]}}})")) << text;
    model.data.enrichment.emplace();
    EXPECT_TRUE(encodeJsonText(model).ends_with(R"(]},"enrichment":{}}})"));
}

TEST(DataSubmissionModelTest, CustomPropertyNamedLikeAFixedVariableTakesItsPlace) {
    auto model = fullModel();
    model.data.variables.customProperties = {{"fb_browser_id", CodableValue::string("custom")},
                                             {"document_location_href", CodableValue::integer(7)}};
    // Written last, the custom value stands; the member keeps its place and appears once.
    EXPECT_EQ(platform::dumpJson(encodeJson(model)["data"]["variables"]),
              R"({"document_location_href":7,"fb_browser_id":"custom","tvrpushedcommands":["pageview","submit"]})");
}

TEST(DataSubmissionModelTest, NonFiniteNumberFailsTheEncodingAtItsPlace) {
    const auto nan = CodableValue::decimalNumber(std::nan(""));
    std::vector<std::pair<DataSubmissionModel, CodingPath>> cases(3, {fullModel(), {}});
    cases[0].first.data.variables.customProperties.insert_or_assign("ratio", nan);
    cases[0].second = {"data", "variables", "ratio"};
    cases[1].first.data.enrichment->at("geo").arguments.insert_or_assign("r", CodableValue::array({nan}));
    cases[1].second = {"data", "enrichment", "geo", "arguments", "r", "Index 0"};
    cases[2].first.consent.insert_or_assign("v", DataSubmissionModel::VendorConsentStatus{nan});
    cases[2].second = {"consent", "v", "status"};
    for (const auto& [model, path] : cases) {
        try {
            encodeJsonText(model);
            ADD_FAILURE() << "encoded NaN";
        } catch (const EncodingError& e) {
            EXPECT_EQ(e.codingPath(), path);
        }
    }
}

PushPayload samplePayload(std::optional<std::string> id = std::nullopt) {
    return PushPayload("pageview", "click",
                       {{"price", CodableValue::decimalNumber(9.99)},
                        {"qty", CodableValue::integer(3)},
                        {"tags", CodableValue::array({CodableValue::string("a"), CodableValue::boolean(true)})}},
                       7, std::move(id));
}

TEST(PushPayloadTest, EncodesItsFiveMembersInOrder) {
    EXPECT_EQ(encodeJsonText(samplePayload("11111111-2222-4333-8444-555555555555")),
              R"({"track":"pageview","type":"click","customProperties":{"price":9.99,"qty":3,"tags":["a",true]},)"
              R"("order":7,"id":"11111111-2222-4333-8444-555555555555"})");
}

TEST(PushPayloadTest, DecodingKeepsTheStoredId) {
    const auto first = samplePayload();
    EXPECT_EQ(first.id.size(), 36u);
    EXPECT_NE(first.id, samplePayload().id);
    EXPECT_EQ(decodeJson<PushPayload>(encodeJsonText(first)), first);
}

TEST(PushPayloadTest, SharedPropertiesCountAsThePushsOwnInLookupEncodingAndEquality) {
    auto shared = samplePayload("11111111-2222-4333-8444-555555555555");
    shared.customProperties.erase("qty");
    shared.sharedProperties = std::make_shared<const PushPayload::Properties>(
        PushPayload::Properties{{"qty", CodableValue::integer(3)}, {"brand", CodableValue::string("B")}});
    auto own = samplePayload("11111111-2222-4333-8444-555555555555");
    own.customProperties.emplace("brand", CodableValue::string("B"));

    ASSERT_NE(shared.property("qty"), nullptr);
    EXPECT_EQ(*shared.property("qty"), CodableValue::integer(3));
    EXPECT_EQ(*shared.property("price"), CodableValue::decimalNumber(9.99));
    EXPECT_EQ(shared.property("absent"), nullptr);
    EXPECT_EQ(shared.properties(), own.customProperties);
    EXPECT_EQ(shared, own);
    EXPECT_EQ(encodeJsonText(shared), encodeJsonText(own));
    own.customProperties.at("brand") = CodableValue::string("C");
    EXPECT_FALSE(shared == own);
}

}  // namespace
}  // namespace tavrin
