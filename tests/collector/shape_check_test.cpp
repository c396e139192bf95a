// The collector's classification and shape checks, on documents shaped like
// what the SDK sends and on each way they can go wrong.

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "classify.h"
#include "sample_documents.h"

namespace tavrin::collector {
namespace {

using namespace tavrin::testing::samples;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(CollectorShapeCheck, WellFormedDocumentsOfEachKindPass) {
    Json minimalData = dataSubmission();
    minimalData["configuration"].erase("version");
    minimalData["configuration"].erase("debugcode");
    minimalData["data"].erase("enrichment");
    minimalData["data"]["variables"].erase("app_offline_cached_data");
    Json emptyEnrichment = dataSubmission();
    emptyEnrichment["data"]["enrichment"] = Json::object();

    const struct {
        const char* path;
        Json body;
        RequestKind kind;
    } cases[] = {
        {"/", dataSubmission(), RequestKind::dataSubmission},
        {"/", minimalData, RequestKind::dataSubmission},
        {"/", emptyEnrichment, RequestKind::dataSubmission},
        {"/", offlineResend(), RequestKind::offlineResend},
        {"/", consentSubmission(), RequestKind::consentSubmission},
        {"/monitor", monitorReport(), RequestKind::monitorReport},
        {"/monitor", monitorReport(Json::array()), RequestKind::monitorReport},
    };
    for (const auto& c : cases) {
        const auto result = classify(c.path, c.body.dump());
        EXPECT_EQ(result.kind, c.kind) << c.body.dump();
        EXPECT_THAT(result.problems, IsEmpty()) << c.body.dump();
    }
}

TEST(CollectorShapeCheck, BodiesThatAreNotDocumentsAreInvalid) {
    EXPECT_THAT(classify("/", "{\"version\": ").problems, ElementsAre("/: body is not JSON"));
    EXPECT_THAT(classify("/", "").problems, ElementsAre("/: body is not JSON"));
    EXPECT_THAT(classify("/", "[1,2]").problems, ElementsAre("/: body is an array, a JSON object expected"));
    EXPECT_THAT(classify("/track", dataSubmission().dump()).problems, ElementsAre(HasSubstr("no such endpoint /track")));
    for (const char* body : {"{\"version\": ", "[1,2]", "\"x\""}) EXPECT_EQ(classify("/", body).kind, RequestKind::invalid);
}

// One edit of a sample document that breaks one rule of the wire shapes.
struct Mutation {
    const char* what;
    Json (*document)();
    std::function<void(Json&)> edit;
    const char* problem;  // the one problem expected
};

Json monitor() { return monitorReport(); }

// Each mutation must produce exactly one problem, with its pointer.
TEST(CollectorShapeCheck, EachBrokenRuleIsReportedOnceWithItsPointer) {
    const auto data = dataSubmission, consent = consentSubmission, resend = offlineResend;
    const std::vector<Mutation> mutations = {
        {"required member missing", data, [](Json& d) { d["system"].erase("initiator"); },
         "/system/initiator: missing (text expected)"},
        {"user agent under the field name", data,
         [](Json& d) {
             d["system"].erase("navigator-userAgent");
             d["system"]["navigatorUserAgent"] = "x";
         },
         "/system/navigatorUserAgent: the user agent must be sent as \"navigator-userAgent\""},
        {"timestamp as text", data, [](Json& d) { d["system"]["timestamp"] = "1795312800123"; },
         "/system/timestamp: is text, an integer expected"},
        {"timestamp in seconds", data, [](Json& d) { d["system"]["timestamp"] = 1795312800; },
         "/system/timestamp: looks like seconds"},
        {"unknown action", data, [](Json& d) { d["data"]["identifier"]["session"]["action"] = "resume"; },
         "/data/identifier/session/action: is \"resume\", \"new\" or \"update\" expected"},
        {"unknown environment", data, [](Json& d) { d["configuration"]["environment"] = "prod"; },
         "/configuration/environment: is \"prod\""},
        {"optional version null", data, [](Json& d) { d["configuration"]["version"] = nullptr; },
         "/configuration/version: optional member written as null"},
        {"optional debugcode null", consent, [](Json& d) { d["configuration"]["debugcode"] = nullptr; },
         "/configuration/debugcode: optional member written as null"},
        {"optional enrichment null", data, [](Json& d) { d["data"]["enrichment"] = nullptr; },
         "/data/enrichment: optional member written as null"},
        {"custom property null", data, [](Json& d) { d["data"]["variables"]["coupon"] = nullptr; },
         "/data/variables/coupon: custom property is null"},
        {"custom property object", data, [](Json& d) { d["data"]["variables"]["cart"] = {{"sku", "A1"}}; },
         "/data/variables/cart: custom property is an object"},
        {"pushed command not text", data, [](Json& d) { d["data"]["variables"]["tvrpushedcommands"].push_back(3); },
         "/data/variables/tvrpushedcommands/2: is an integer, text expected"},
        {"vendor status missing", data, [](Json& d) { d["consent"]["vendorA"] = Json::object(); },
         "/consent/vendorA/status: missing"},
        {"enrichment argument object", data,
         [](Json& d) { d["data"]["enrichment"]["geo"]["arguments"]["where"] = Json::object(); },
         "/data/enrichment/geo/arguments/where: is an object"},
        {"live marker says true", data, [](Json& d) { d["data"]["variables"]["app_offline_cached_data"] = "true"; },
         "/data/variables/app_offline_cached_data: a live send marks itself \"false\""},
        {"resend time not decimal", resend, [](Json& d) { d["app_offline_resend_timestamp"] = "1.7e12"; },
         "/app_offline_resend_timestamp: is \"1.7e12\", a decimal string of milliseconds expected"},
        {"resend time as a number", resend, [](Json& d) { d["app_offline_resend_timestamp"] = kNow; },
         "/app_offline_resend_timestamp: is an integer, text expected"},
        {"resend without its time", resend, [](Json& d) { d.erase("app_offline_resend_timestamp"); },
         "/app_offline_resend_timestamp: missing"},
        {"resend marked false", resend, [](Json& d) { d["app_offline_cached_data"] = "false"; },
         "/app_offline_cached_data: a resent submission carries \"true\""},
        {"unexpected top-level member", data, [](Json& d) { d["debug"] = true; }, "/debug: unexpected member"},
        {"vendor value a number", consent, [](Json& d) { d["data"]["consent"]["vendors"]["vendorC"] = 1; },
         "/data/consent/vendors/vendorC: is an integer, a boolean or text expected"},
        {"vendorsChanged missing", consent, [](Json& d) { d["data"]["consent"].erase("vendorsChanged"); },
         "/data/consent/vendorsChanged: missing (an object expected)"},
        {"consent id missing", consent, [](Json& d) { d["data"]["identifier"]["consent"].erase("id"); },
         "/data/identifier/consent/id: missing"},
        {"debug code misspelt", monitor,
         [](Json& d) {
             d.erase("debugid");
             d["debugID"] = "dbg-42";
         },
         "/debugID: the debug code must be sent as \"debugid\""},
        {"event document id misspelt", monitor,
         [](Json& d) {
             d.erase("eventDocumentId");
             d["eventDocumentID"] = "";
         },
         "/eventDocumentID: must be sent as \"eventDocumentId\""},
        {"tags not an array", monitor, [](Json& d) { d["tags"] = Json::object(); },
         "/tags: is an object, an array expected"},
        {"tag response without statusText", monitor,
         [](Json& d) { d["tags"][1]["http"]["response"].erase("statusText"); },
         "/tags/1/http/response/statusText: missing"},
        {"tag trigger without excludeTriggers", monitor, [](Json& d) { d["tags"][0]["trigger"].erase("excludeTriggers"); },
         "/tags/0/trigger/excludeTriggers: missing"},
        {"tag not an object", monitor, [](Json& d) { d["tags"].push_back("AS01"); },
         "/tags/3: is text, a tag object expected"},
    };
    for (const auto& m : mutations) {
        Json document = m.document();
        m.edit(document);
        const auto result = classify(m.document == monitor ? "/monitor" : "/", document.dump());
        EXPECT_THAT(result.problems, ElementsAre(HasSubstr(m.problem))) << m.what;
    }
}

// Parsed JSON keeps one value per key, so a custom property named like a fixed
// variable is only visible in the raw text the SDK wrote.
TEST(CollectorShapeCheck, RepeatedKeysAreFoundInTheRawText) {
    const std::string clean = dataSubmission().dump();
    const std::string needle = "\"price\":9.99";
    ASSERT_NE(clean.find(needle), std::string::npos);
    for (const char* fixed : {"document_location_href", "fb_browser_id", "tvrpushedcommands"}) {
        std::string body = clean;
        const std::string value = std::string(fixed) == "tvrpushedcommands" ? "[\"again\"]" : "\"again\"";
        body.replace(body.find(needle), needle.size(), needle + ",\"" + fixed + "\":" + value);
        const auto result = classify("/", body);
        EXPECT_EQ(result.kind, RequestKind::dataSubmission);
        EXPECT_THAT(result.problems,
                    ElementsAre("/data/variables: custom property \"" + std::string(fixed) +
                                "\" collides with the fixed variable of that name (written twice)"));
    }

    std::string repeatedVendor = consentSubmission().dump();
    const std::string vendors = "\"vendors\":{";
    repeatedVendor.insert(repeatedVendor.find(vendors) + vendors.size(), "\"vendorB\":false,");
    EXPECT_THAT(classify("/", repeatedVendor).problems,
                ElementsAre("/data/consent/vendors: key \"vendorB\" appears more than once"));

    std::string repeatedInTag = monitorReport().dump();
    const std::string tagName = "\"name\":";
    repeatedInTag.insert(repeatedInTag.find(tagName, repeatedInTag.find("\"AD01\"")), "\"name\":\"first\",");
    EXPECT_THAT(classify("/monitor", repeatedInTag).problems, ElementsAre("/tags/1: key \"name\" appears more than once"));
}

}  // namespace
}  // namespace tavrin::collector
