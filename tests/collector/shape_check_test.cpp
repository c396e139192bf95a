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

// Each edit of a sample document breaks one rule, reported once with its pointer.
TEST(ClassifyTest, EachBrokenRuleIsReportedOnceWithItsPointer) {
    const auto data = dataSubmission, consent = consentSubmission, resend = offlineResend;
    const auto monitor = [] { return monitorReport(); };
    // The pointer and the start of the reason.
    const std::vector<std::tuple<std::function<Json()>, std::function<void(Json&)>, std::string>> cases = {
        {data, [](Json& d) { d["system"].erase("initiator"); }, "/system/initiator: missing (text expected)"},
        {data, [](Json& d) { d["system"]["timestamp"] = "1795312800123"; }, "/system/timestamp: is text"},
        {data, [](Json& d) { d["system"]["timestamp"] = 1795312800; }, "/system/timestamp: looks like seconds"},
        {data, [](Json& d) { d["data"]["identifier"]["session"]["action"] = "resume"; },
         "/data/identifier/session/action: is \"resume\", \"new\" or \"update\" expected"},
        {data, [](Json& d) { d["configuration"]["version"] = nullptr; },
         "/configuration/version: optional member written as null"},
        {data,
         [](Json& d) {
             d["data"]["variables"]["cart"] = {{"sku", "A1"}};
         },
         "/data/variables/cart: custom property is an object"},
        {data, [](Json& d) { d["data"]["variables"]["tvrpushedcommands"].push_back(3); },
         "/data/variables/tvrpushedcommands/2: is an integer, text expected"},
        {data, [](Json& d) { d["consent"]["vendorA"] = Json::object(); }, "/consent/vendorA/status: missing"},
        {data, [](Json& d) { d["data"]["variables"]["app_offline_cached_data"] = "true"; },
         "/data/variables/app_offline_cached_data: a live send marks itself \"false\""},
        {resend, [](Json& d) { d["app_offline_resend_timestamp"] = "1.7e12"; },
         "/app_offline_resend_timestamp: is \"1.7e12\", a decimal string of milliseconds expected"},
        {resend, [](Json& d) { d["app_offline_cached_data"] = "false"; },
         "/app_offline_cached_data: a resent submission carries \"true\""},
        {consent, [](Json& d) { d["data"]["consent"]["vendors"]["vendorC"] = 1; },
         "/data/consent/vendors/vendorC: is an integer, a boolean or text expected"},
        {monitor, [](Json& d) { d["debugID"] = d["debugid"], d.erase("debugid"); },
         "/debugID: the debug code must be sent as \"debugid\""},
        {monitor, [](Json& d) { d["tags"][1]["http"]["response"].erase("statusText"); },
         "/tags/1/http/response/statusText: missing"},
    };
    for (const auto& [document, edit, problem] : cases) {
        Json body = document();
        edit(body);
        const auto path = body.contains("tags") ? "/monitor" : "/";
        EXPECT_THAT(classify(path, body.dump()).problems, ElementsAre(HasSubstr(problem)));
    }
}

}  // namespace
}  // namespace tavrin::collector
