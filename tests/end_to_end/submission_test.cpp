// Start-up, submission and consent as an application drives them, checked by
// what the loopback collector received.

#include <regex>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/key_value_store.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#if !defined(_WIN32)
#include "tests/support/test_certificates.h"
#endif

namespace tavrin::testing {
namespace {

constexpr const char* kUserId = "[0-9]{1,5}[0-9]{13}[0-9]{1,5}";
constexpr const char* kUpperUuid = "[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}";
constexpr const char* kLowerUuid = "[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}";

bool matches(const PlainJson& value, const char* pattern) {
    return value.is_string() && std::regex_match(value.get<std::string>(), std::regex(pattern));
}

// The exception a future ended with, kept by the caller while read (the HTTP thread may hold another).
template <class T>
std::exception_ptr failureOf(std::future<T> future) try {
    future.get();
    return nullptr;
} catch (...) {
    return std::current_exception();
}

template <class E>
bool isError(const std::exception_ptr& error, typename E::Code code) {
    try {
        if (error) std::rethrow_exception(error);
    } catch (const E& e) {
        return e.code() == code;
    } catch (...) {
    }
    return false;
}

using TavrinServiceEndToEndTest = EndToEndTest;

TEST_F(TavrinServiceEndToEndTest, DataSubmissionArrivesInTheWireLayout) {
    auto tracking = start();
    tracking->push({{"track", "pageview"}, {"name", "first"}, {"price", 9.99}});
    tracking->push(
        {{"track", "click"}, {"name", "second"}, {"count", 2}});  // "name" again: the first push's value stays
    tracking->submit("checkout").get();

    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 1u);
    auto body = sent[0];
    // What differs per run or machine: its form checked, then masked.
    const auto mask = [](PlainJson& value, bool wellFormed) {
        EXPECT_TRUE(wellFormed) << value;
        value = "*";
    };
    auto& identifier = body["data"]["identifier"];
    mask(body["system"]["timestamp"], body["system"]["timestamp"].is_number_integer());
    mask(body["system"]["navigator-userAgent"], body["system"]["navigator-userAgent"].is_string());
    mask(identifier["user"]["id"], matches(identifier["user"]["id"], kUserId));
    mask(identifier["session"]["id"], matches(identifier["session"]["id"], kUpperUuid));
    for (auto& [key, value] : body["data"]["variables"].items())
        if (key.starts_with("app_device_") || key.starts_with("app_application_")) mask(value, value.is_string());
    EXPECT_EQ(
        body.dump(),
        R"({"version":"3","system":{"type":"sdk-ios","timestamp":"*","navigator-userAgent":"*","initiator":"checkout"},)"
        R"("consent":{},"configuration":{"container":"shop-app","environment":"live"},)"
        R"("data":{"identifier":{"user":{"id":"*","action":"new"},"session":{"id":"*","action":"new"}},)"
        R"("variables":{"document_location_href":"https://demo.tavrin.io/app/?","fb_browser_id":"fb.1.1711009849625.5246926883",)"
        R"("tvrpushedcommands":["pageview","click","submit"],"app_application_build_number":"*","app_application_name":"*",)"
        R"("app_application_version":"*","app_device_brand":"*","app_device_carrier":"*","app_device_height":"*",)"
        R"("app_device_id":"*","app_device_language":"*","app_device_model":"*","app_device_network_type":"*",)"
        R"("app_device_os":"*","app_device_os_version":"*","app_device_region":"*","app_device_width":"*",)"
        R"("app_offline_cached_data":"false","count":2,"name":"first","price":9.99}}})");
    EXPECT_EQ(TagCache::shared().tags().back().id, "AS01");
}

TEST_F(TavrinServiceEndToEndTest, ConsentReportCarriesTheChangedVendorsOnly) {
    auto tracking = start();
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::ncm}}).get());  // vendorA changes, vendorB is dropped
    tracking->submit().get();

    const auto reports = consentReports();
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_EQ(reports[0]["system"]["type"], "sdk-ios");
    EXPECT_EQ(reports[0]["system"]["initiator"], "tvr_push_submit");
    const auto& first = reports[0]["data"];
    EXPECT_EQ(first["identifier"]["user"]["action"], "new");
    EXPECT_EQ(first["identifier"]["consent"]["action"], "new");
    EXPECT_TRUE(matches(first["identifier"]["consent"]["id"], kLowerUuid)) << first["identifier"]["consent"]["id"];
    EXPECT_EQ(first["consent"]["vendors"], PlainJson::parse(R"({"vendorA":true,"vendorB":false})"));
    EXPECT_EQ(first["consent"]["vendorsChanged"], first["consent"]["vendors"]);
    const auto& same = reports[1]["data"];
    EXPECT_EQ(same["identifier"]["user"], PlainJson({{"id", first["identifier"]["user"]["id"]}, {"action", "update"}}));
    EXPECT_EQ(same["identifier"]["consent"],
              PlainJson({{"id", first["identifier"]["consent"]["id"]}, {"action", "update"}}));
    EXPECT_EQ(same["consent"]["vendorsChanged"], PlainJson::object());
    EXPECT_EQ(reports[2]["data"]["consent"]["vendors"], PlainJson::parse(R"({"vendorA":"ncm"})"));
    EXPECT_EQ(reports[2]["data"]["consent"]["vendorsChanged"], PlainJson::parse(R"({"vendorA":"ncm"})"));
    // The time of the last decision is kept beside it, as sent.
    const auto lastupdate = platform::KeyValueStore::standard()->value("VendorConsents_lastupdate");
    ASSERT_TRUE(lastupdate && std::holds_alternative<std::int64_t>(*lastupdate));
    EXPECT_EQ(std::get<std::int64_t>(*lastupdate), reports[2]["data"]["consent"]["lastupdate"].get<std::int64_t>());
    // The data submission carries the stored decision, without the dropped vendor.
    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["consent"], PlainJson::parse(R"({"vendorA":{"status":"ncm"}})"));
    EXPECT_EQ(sent[0]["data"]["identifier"]["user"]["id"], first["identifier"]["user"]["id"]);
}

// Offline tracking off in these two: a server error fails the send, nothing is kept for later.
TEST_F(TavrinServiceEndToEndTest, EnrichmentIsSentUntilASubmissionSucceeds) {
    auto tracking = start(trackConfig(hostPort(server.port()), "http", /*offline=*/false));
    tracking->addCustomEnrichment("geo", {{"city", CodableValue::string("Berlin")}}, {"region"});
    server.respondWith({.status = 500, .headers = {}, .body = ""});
    const auto failed = failureOf(tracking->submit());
    EXPECT_TRUE(isError<Service::ServiceError>(failed, Service::ServiceError::Code::invalidResponse));
    server.respondWith({.status = 200, .headers = {}, .body = ""});
    tracking->submit().get();
    tracking->submit().get();

    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 3u);
    const auto expected = PlainJson::parse(R"({"geo":{"arguments":{"city":"Berlin"},"variables":["region"]}})");
    EXPECT_EQ(sent[0]["data"]["enrichment"], expected);
    EXPECT_EQ(sent[1]["data"]["enrichment"], expected);
    EXPECT_FALSE(sent[2]["data"].contains("enrichment"));
}

TEST_F(TavrinServiceEndToEndTest, ConsentDecisionIsStoredEvenWhenItsReportFails) {
    auto tracking = start(trackConfig(hostPort(server.port()), "http", /*offline=*/false));
    server.respondWith({.status = 500, .headers = {}, .body = ""});
    const auto failed = failureOf(tracking->setConsents({{"vendorA", ConsentStatus::allow}}));
    EXPECT_TRUE(isError<TrackingServiceError>(failed, TrackingServiceError::Code::submissionFailed));
    server.respondWith({.status = 200, .headers = {}, .body = ""});
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}}).get());
    const auto reports = consentReports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[1]["data"]["consent"]["vendorsChanged"], PlainJson::object());
}

// Windows has no HTTPS loopback server (making its certificates needs OpenSSL).
#if !defined(_WIN32)
TEST_F(TavrinServiceEndToEndTest, MonitorReportCarriesTheTagsInOrderOverTls) {
    const auto certificates = makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    LoopbackServer secure(certificates.servers.at(0));
    platform::HttpClientOptions options;
    options.caFile = certificates.authority.string();
    platform::HttpClient::setShared(std::make_shared<platform::SystemHttpClient>(options));
    auto config = trackConfig(hostPort(secure.port()), "https");
    config.debugCode = "dbg-1";
    auto tracking = start(config);
    tracking->push({{"track", "pageview"}});
    tracking->submit("checkout").get();

    std::vector<RecordedRequest> monitor;
    for (const auto& request : secure.requests())
        if (request.path == "/monitor") monitor.push_back(request);
    ASSERT_EQ(monitor.size(), 1u);
    const auto body = PlainJson::parse(monitor[0].body);
    EXPECT_EQ(body["debugid"], "dbg-1");
    std::vector<std::string> ids;
    for (const auto& tag : body["tags"]) ids.push_back(tag["id"]);
    EXPECT_EQ(ids, (std::vector<std::string>{"AI01", "AC03", "AD01", "AS01"}));
    EXPECT_EQ(body["tags"][3]["name"], "T-SDK: [STATE] - [AS01] State executed: checkout");
    EXPECT_TRUE(TagCache::shared().tags().empty()) << "sent tags stay cached";
}
#endif

TEST_F(TavrinServiceEndToEndTest, SecondConfigureKeepsOneStartUpTagOfEachKind) {
    const auto first = start(), second = start(trackConfig("127.0.0.1:1"));
    EXPECT_TRUE(first != second && TrackingService::shared() == second);
    std::vector<std::string> names;
    for (const auto& tag : TagCache::shared().tags()) names.push_back(tag.id + " " + tag.name);
    EXPECT_EQ(names, (std::vector<std::string>{
                         "AI01 T-SDK: [INIT] - [AI01] Initialization finished: https://127.0.0.1:1",
                         "AC03 T-SDK: [CONSENT] - [AC03] Consent information received - data from storage used: {}"}));
}

// A host that returns from main with work in flight, without flush or shutdown.
TEST(EndToEndChild, ExitWithWorkInFlight) {
    if (env("TAVRIN_E2E_DIR").empty()) GTEST_SKIP() << "runs only as the child process of the exit test";
    platform::KeyValueStore::setDataDirectory(env("TAVRIN_E2E_DIR"));
    TavrinService::configure(trackConfig(env("TAVRIN_E2E_DOMAIN")));
    auto tracking = TrackingService::shared();
    for (int i = 0; i < 1000; ++i) {
        tracking->push({{"track", "step"}, {"n", i}});
        if (i % 50 == 49) (void)tracking->submit();
    }
}

// A host returning from main with 20 submissions out: each is delivered or cached for the next launch
// (both, when an answer came too late). Exiting does not wait for the server: that would take a
// 30-second request timeout, the exit's own grace is 1.5 s.
TEST_F(TavrinServiceEndToEndTest, ReturningFromMainWithWorkInFlightLosesNothing) {
    server.setHandler([](const RecordedRequest&) {
        std::this_thread::sleep_for(20ms);  // keeps requests out at exit
        return ScriptedResponse{};
    });
    RawTcpServer silent;  // accepts and never answers
    for (const std::string& domain :
         {hostPort(server.port()), silent.baseUrl().substr(std::string("http://").size())}) {
        SCOPED_TRACE(domain);
        TempDir data;
        const auto before = submissions().size();
        EXPECT_EQ(runChild("EndToEndChild.ExitWithWorkInFlight",
                           {"TAVRIN_E2E_DIR=" + data.path().string(), "TAVRIN_E2E_DOMAIN=" + domain}, 15s),
                  0);
        const auto store = platform::os::openDefaultStore(data.path());
        EXPECT_GE(submissions().size() - before + store->values("com.tavrin.OfflineCache/").size(), 20u);
    }
    EXPECT_TRUE(silent.waitForConnections(1, 0s)) << "the child did not run";
}

}  // namespace
}  // namespace tavrin::testing
