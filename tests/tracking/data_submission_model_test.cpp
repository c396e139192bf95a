#include "tavrin/tracking/internal/data_submission_model.h"

#include <gtest/gtest.h>

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
    model.data.enrichment = std::map<std::string, Enrichment>{
        {"geo", Enrichment{{{"city", CodableValue::string("Vienna")}}, {"region"}}}};
    return model;
}

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

TEST(DataSubmissionModel, EncodesEveryMemberInOrderWithCustomPropertiesAfterTheFixedVariables) {
    EXPECT_EQ(encodeJsonText(fullModel()), kFullText);
    EXPECT_EQ(decodeJson<DataSubmissionModel>(kFullText), fullModel());
}

TEST(DataSubmissionModel, AbsentOptionalsAreLeftOutAndEmptyContainersWritten) {
    auto model = fullModel();
    model.configuration.version.reset();
    model.configuration.debugcode.reset();
    model.consent.clear();
    model.data.enrichment.reset();
    model.data.variables.customProperties.clear();
    model.data.variables.tvrpushedcommands = {"submit"};
    const std::string text = encodeJsonText(model);
    EXPECT_NE(text.find(R"("consent":{},"configuration":{"container":"shop-app","environment":"stage"},)"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(R"("tvrpushedcommands":["submit"]}})"), std::string::npos) << text;
    EXPECT_EQ(text.find("enrichment"), std::string::npos);
    EXPECT_EQ(text.find("null"), std::string::npos);
    EXPECT_EQ(decodeJson<DataSubmissionModel>(text), model);

    model.data.enrichment.emplace();
    EXPECT_NE(encodeJsonText(model).find(R"("tvrpushedcommands":["submit"]},"enrichment":{}}})"), std::string::npos);

    // A null optional reads as absent.
    Json json = encodeJson(fullModel());
    json["configuration"]["version"] = nullptr;
    json["data"]["enrichment"] = nullptr;
    const auto decoded = decodeJson<DataSubmissionModel>(Decoder(json));
    EXPECT_EQ(decoded.configuration.version, std::nullopt);
    EXPECT_EQ(decoded.configuration.debugcode, "dbg-1");
    EXPECT_EQ(decoded.data.enrichment, std::nullopt);
}

TEST(DataSubmissionModel, CustomPropertyNamedLikeAFixedVariableReplacesItsValueInPlace) {
    auto model = fullModel();
    model.data.variables.customProperties = {{"fb_browser_id", CodableValue::string("custom")},
                                             {"document_location_href", CodableValue::integer(7)}};
    const Json variables = encodeJson(model)["data"]["variables"];
    // The custom value, written last, stands; the member keeps its place and appears once.
    EXPECT_EQ(platform::dumpJson(variables),
              R"({"document_location_href":7,"fb_browser_id":"custom","tvrpushedcommands":["pageview","submit"]})");
    // Read back, the fixed member takes the value and no custom property remains.
    Json json = encodeJson(model);
    json["data"]["variables"]["document_location_href"] = "https://shop.example/?";
    const auto decoded = decodeJson<DataSubmissionModel>(Decoder(json));
    EXPECT_EQ(decoded.data.variables.fbBrowserId, "custom");
    EXPECT_TRUE(decoded.data.variables.customProperties.empty());
}

TEST(DataSubmissionModel, DecodingTakesExtraVariablesAsCodableValuesAndRefusesNullOrObjects) {
    Json json = encodeJson(fullModel());
    json["data"]["variables"]["x"] = 1;
    json["data"]["variables"]["y"] = 1.5;
    json["data"]["variables"]["z"] = Json::array({"a", true});
    const auto decoded = decodeJson<DataSubmissionModel>(Decoder(json));
    auto expected = fullModel().data.variables.customProperties;
    expected.insert_or_assign("x", CodableValue::integer(1));
    expected.insert_or_assign("y", CodableValue::decimalNumber(1.5));
    expected.insert_or_assign("z", CodableValue::array({CodableValue::string("a"), CodableValue::boolean(true)}));
    EXPECT_EQ(decoded.data.variables.customProperties, expected);

    for (const Json& bad : {Json(nullptr), Json::object(), Json::array({Json(nullptr)})}) {
        Json withBad = encodeJson(fullModel());
        withBad["data"]["variables"]["bad"] = bad;
        EXPECT_TRUE(failsWith([&] { decodeJson<DataSubmissionModel>(Decoder(withBad)); }, K::typeMismatch,
                              {"data", "variables", "bad"}, "Failed to decode CodableValue"))
            << bad.dump();
    }
}

TEST(DataSubmissionModel, DecodingRequiresEveryFixedMemberUnderItsWireName) {
    const std::vector<std::vector<std::string>> required = {
        {"version"}, {"system"}, {"consent"}, {"configuration"}, {"data"},
        {"system", "type"}, {"system", "timestamp"}, {"system", "navigator-userAgent"}, {"system", "initiator"},
        {"consent", "vendorA", "status"}, {"configuration", "container"}, {"configuration", "environment"},
        {"data", "identifier"}, {"data", "variables"}, {"data", "identifier", "user", "id"},
        {"data", "identifier", "session", "action"}, {"data", "variables", "document_location_href"},
        {"data", "variables", "fb_browser_id"}, {"data", "variables", "tvrpushedcommands"},
        {"data", "enrichment", "geo", "arguments"}, {"data", "enrichment", "geo", "variables"}};
    for (const auto& path : required) {
        Json json = encodeJson(fullModel());
        Json* parent = &json;
        for (std::size_t i = 0; i + 1 < path.size(); ++i) parent = &(*parent)[path[i]];
        parent->erase(path.back());
        EXPECT_TRUE(failsWith([&] { decodeJson<DataSubmissionModel>(Decoder(json)); }, K::keyNotFound,
                              CodingPath(path.begin(), path.end() - 1)))
            << path.back();
    }
    // The field name is not the wire name.
    Json json = encodeJson(fullModel());
    json["system"]["navigatorUserAgent"] = json["system"]["navigator-userAgent"];
    json["system"].erase("navigator-userAgent");
    EXPECT_TRUE(failsWith([&] { decodeJson<DataSubmissionModel>(Decoder(json)); }, K::keyNotFound, {"system"}));
}

TEST(DataSubmissionModel, NonFiniteNumberFailsTheEncodingAtItsPlaceInTheDocument) {
    const auto nan = CodableValue::decimalNumber(std::nan(""));
    const auto pathOfFailure = [](const DataSubmissionModel& model) {
        try {
            encodeJsonText(model);
        } catch (const EncodingError& e) {
            return e.codingPath();
        }
        return CodingPath{"encoded"};
    };
    auto model = fullModel();
    model.data.variables.customProperties.insert_or_assign("ratio", nan);
    EXPECT_EQ(pathOfFailure(model), (CodingPath{"data", "variables", "ratio"}));
    model = fullModel();
    model.data.enrichment->at("geo").arguments.insert_or_assign("r", CodableValue::array({nan}));
    EXPECT_EQ(pathOfFailure(model), (CodingPath{"data", "enrichment", "geo", "arguments", "r", "Index 0"}));
    model = fullModel();
    model.consent.insert_or_assign("v", DataSubmissionModel::VendorConsentStatus{nan});
    EXPECT_EQ(pathOfFailure(model), (CodingPath{"consent", "v", "status"}));
}

}  // namespace
}  // namespace tavrin
