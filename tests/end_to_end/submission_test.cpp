// Start-up, submission and consent as an application drives them, checked by
// what the loopback collector received.

#include <cctype>
#include <regex>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/support/test_certificates.h"

namespace tavrin::testing {
namespace {

const std::regex kUserId("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");

std::vector<std::string> tagIds() {
    std::vector<std::string> ids;
    for (const auto& tag : TagCache::shared().tags()) ids.push_back(tag.id);
    return ids;
}

using SubmissionTest = EndToEndTest;

TEST_F(SubmissionTest, DataSubmissionHasTheExactLayoutAndFirstPushWins) {
    auto tracking = start();
    tracking->push({{"track", "pageview"}, {"name", "first"}, {"price", 9.99}});
    tracking->push({{"track", "click"}, {"name", "second"}, {"count", 2}});
    tracking->submit("checkout").get();

    auto sent = submissions();
    ASSERT_EQ(sent.size(), 1u);
    const auto& body = sent[0];
    EXPECT_EQ(memberNames(body), (std::vector<std::string>{"version", "system", "consent", "configuration", "data"}));
    EXPECT_EQ(body["version"], "3");
    EXPECT_EQ(memberNames(body["system"]),
              (std::vector<std::string>{"type", "timestamp", "navigator-userAgent", "initiator"}));
    EXPECT_EQ(body["system"]["type"], "sdk-ios");
    EXPECT_TRUE(body["system"]["timestamp"].is_number_integer());
    EXPECT_EQ(body["system"]["initiator"], "checkout");
    EXPECT_EQ(body["consent"], PlainJson::object());
    EXPECT_EQ(body["configuration"], PlainJson::parse(R"({"container":"shop-app","environment":"live"})"));
    EXPECT_EQ(memberNames(body["data"]), (std::vector<std::string>{"identifier", "variables"}));

    const auto& identifier = body["data"]["identifier"];
    EXPECT_EQ(memberNames(identifier), (std::vector<std::string>{"user", "session"}));
    EXPECT_EQ(memberNames(identifier["user"]), (std::vector<std::string>{"id", "action"}));
    const std::string userId = identifier["user"]["id"];
    EXPECT_TRUE(std::regex_match(userId, kUserId)) << userId;
    EXPECT_EQ(identifier["user"]["action"], "new");
    const std::string sessionId = identifier["session"]["id"];
    EXPECT_EQ(sessionId.size(), 36u);
    EXPECT_TRUE(std::none_of(sessionId.begin(), sessionId.end(), [](unsigned char c) { return std::islower(c); }));
    EXPECT_EQ(identifier["session"]["action"], "new");

    const auto& variables = body["data"]["variables"];
    const auto names = memberNames(variables);
    ASSERT_GE(names.size(), 3u);
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + 3),
              (std::vector<std::string>{"document_location_href", "fb_browser_id", "tvrpushedcommands"}));
    const std::string location = variables["document_location_href"];
    EXPECT_EQ(location.rfind("https://", 0), 0u);
    EXPECT_TRUE(location.ends_with("/?"));
    EXPECT_EQ(variables["fb_browser_id"], "fb.1.1711009849625.5246926883");
    EXPECT_EQ(variables["tvrpushedcommands"], PlainJson::parse(R"(["pageview","click","submit"])"));
    EXPECT_EQ(variables["name"], "first");
    EXPECT_EQ(variables["price"], 9.99);
    EXPECT_EQ(variables["count"], 2);
    EXPECT_TRUE(variables["app_device_width"].is_string());
    EXPECT_TRUE(variables["app_device_height"].is_string());
    EXPECT_FALSE(variables.contains("track"));
    EXPECT_TRUE(logs.sink->contains("Skipping duplicate key during push aggregation: name"));
    EXPECT_TRUE(logs.sink->contains("Data submission completed."));
    EXPECT_EQ(tagIds().back(), "AS01");

    // Nothing pushed since: only the submit command, the same user and session.
    tracking->submit().get();
    sent = submissions();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1]["data"]["variables"]["tvrpushedcommands"], PlainJson::parse(R"(["submit"])"));
    EXPECT_EQ(sent[1]["system"]["initiator"], "tvr_push_submit");
    EXPECT_EQ(sent[1]["data"]["identifier"]["user"], PlainJson({{"id", userId}, {"action", "update"}}));
    EXPECT_EQ(sent[1]["data"]["identifier"]["session"], PlainJson({{"id", sessionId}, {"action", "update"}}));
}

TEST_F(SubmissionTest, AddToCartSendsProductArraysAndEndsItsCommands) {
    auto tracking = start();
    tracking->push({{"track", "product"}, {"type", "view"}, {"sku", "B2"}});
    tracking->addToCart({{"sku", "A1"}, {"track", "ignored"}, {"type", "ignored"}}).get();

    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 1u);
    const auto& variables = sent[0]["data"]["variables"];
    EXPECT_EQ(variables["tvrpushedcommands"], PlainJson::parse(R"(["product","product","addtocart","submit"])"));
    EXPECT_EQ(variables["product_track"], PlainJson::parse(R"(["product","product"])"));
    EXPECT_EQ(variables["product_type"], PlainJson::parse(R"(["view","addtocart"])"));
    EXPECT_EQ(variables["sku"], PlainJson::parse(R"(["B2","A1"])"));
    EXPECT_TRUE(logs.sink->contains("Add-To-Cart data submitted successfully."));
}

TEST_F(SubmissionTest, ConsentDecisionsReportWhatChanged) {
    auto tracking = start();
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    // vendorA changes, vendorB is dropped.
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::ncm}}).get());
    tracking->submit().get();

    const auto reports = consentReports();
    ASSERT_EQ(reports.size(), 3u);
    const auto& first = reports[0]["data"];
    EXPECT_EQ(first["identifier"]["user"]["action"], "new");
    EXPECT_EQ(first["identifier"]["consent"]["action"], "new");
    const std::string consentId = first["identifier"]["consent"]["id"];
    EXPECT_EQ(consentId.size(), 36u);
    EXPECT_TRUE(std::none_of(consentId.begin(), consentId.end(), [](unsigned char c) { return std::isupper(c); }));
    EXPECT_EQ(first["consent"]["vendors"], PlainJson::parse(R"({"vendorA":true,"vendorB":false})"));
    EXPECT_EQ(first["consent"]["vendorsChanged"], first["consent"]["vendors"]);

    const auto& same = reports[1]["data"];
    EXPECT_EQ(same["identifier"]["user"], PlainJson({{"id", first["identifier"]["user"]["id"]}, {"action", "update"}}));
    EXPECT_EQ(same["identifier"]["consent"], PlainJson({{"id", consentId}, {"action", "update"}}));
    EXPECT_EQ(same["consent"]["vendorsChanged"], PlainJson::object());

    const auto& changed = reports[2]["data"]["consent"];
    EXPECT_EQ(changed["vendors"], PlainJson::parse(R"({"vendorA":"ncm"})"));
    EXPECT_EQ(changed["vendorsChanged"], PlainJson::parse(R"({"vendorA":"ncm"})"));
    EXPECT_TRUE(logs.sink->contains("Key 'vendorA' values differ. Adding to vendorChangesMapped."));

    // The data submission carries the stored decision, without the dropped vendor.
    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0]["consent"], PlainJson::parse(R"({"vendorA":{"status":"ncm"}})"));
    EXPECT_EQ(sent[0]["data"]["identifier"]["user"]["id"], first["identifier"]["user"]["id"]);
}

TEST_F(SubmissionTest, EnrichmentGoesOnceAndStaysAfterAFailure) {
    auto tracking = start();
    tracking->addCustomEnrichment("geo", {{"city", CodableValue::string("Berlin")}}, {"region"});

    // Refused (400): a server failure would keep the submission for a retry instead.
    server.respondWith({.status = 400, .headers = {}, .body = ""});
    try {
        tracking->submit().get();
        FAIL() << "a 400 answer did not fail the submission";
    } catch (const Service::ServiceError& error) {
        EXPECT_EQ(error.code(), Service::ServiceError::Code::invalidResponse);
    }
    try {
        tracking->setConsents({{"vendorA", ConsentStatus::allow}}).get();
        FAIL() << "a 400 answer did not fail the consent report";
    } catch (const TrackingServiceError& error) {
        EXPECT_EQ(error.code(), TrackingServiceError::Code::submissionFailed);
        EXPECT_EQ(std::string(error.what()).rfind("Data submission failed: ", 0), 0u) << error.what();
    }
    EXPECT_FALSE(logs.sink->contains("Data submission completed."));

    server.respondWith({.status = 200, .headers = {}, .body = ""});
    tracking->submit().get();
    tracking->submit().get();
    // The decision stored before the failed send is now the previous one.
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}}).get());

    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 3u);
    const auto expected = PlainJson::parse(R"({"geo":{"arguments":{"city":"Berlin"},"variables":["region"]}})");
    EXPECT_EQ(sent[0]["data"]["enrichment"], expected);
    EXPECT_EQ(sent[1]["data"]["enrichment"], expected);
    EXPECT_FALSE(sent[2]["data"].contains("enrichment"));
    const auto reports = consentReports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[1]["data"]["consent"]["vendorsChanged"], PlainJson::object());
}

TEST_F(SubmissionTest, MonitorReportOverTlsCarriesTheTagsInOrderAndClearsThem) {
    const auto certificates = makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    LoopbackServer secure(certificates.servers.at(0));
    platform::CurlHttpClient::Options options;
    options.caFile = certificates.authority.string();
    platform::HttpClient::setShared(std::make_shared<platform::CurlHttpClient>(options));
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
    EXPECT_EQ(std::string(body["tags"][3]["name"]), "T-SDK: [STATE] - [AS01] State executed: checkout");
    EXPECT_TRUE(TagCache::shared().tags().empty());
}

TEST_F(SubmissionTest, SecondConfigureKeepsOneNewestStartUpTagOfEachKind) {
    auto first = start();
    auto second = start(trackConfig("127.0.0.1:1"));
    EXPECT_NE(first, second);
    EXPECT_EQ(TrackingService::shared(), second);
    const auto tags = TagCache::shared().tags();
    ASSERT_EQ(tags.size(), 2u);
    EXPECT_EQ(tags[0].id, "AI01");
    EXPECT_EQ(tags[0].name, "T-SDK: [INIT] - [AI01] Initialization finished: https://127.0.0.1:1");
    EXPECT_EQ(tags[1].id, "AC03");
    EXPECT_EQ(tags[1].name, "T-SDK: [CONSENT] - [AC03] Consent information received - data from storage used: {}");
    EXPECT_TRUE(logs.sink->contains("No stored consent information found."));
    EXPECT_TRUE(logs.sink->contains("MonitorService not initialized due to missing debugCode."));
}

TEST_F(SubmissionTest, ShutdownFinishesWorkInFlightAndAllowsANewStart) {
    auto tracking = start();
    std::vector<std::future<void>> pending;
    for (int i = 0; i < 5; ++i) {
        for (int j = 0; j < 20; ++j) tracking->push({{"track", "step"}, {"n", j}});
        pending.push_back(tracking->submit());
    }
    auto consent = tracking->setConsents({{"vendorA", ConsentStatus::allow}});
    EXPECT_TRUE(TavrinService::shutdown(std::chrono::seconds(10)));
    EXPECT_EQ(submissions().size(), 5u);
    EXPECT_EQ(consentReports().size(), 1u);
    for (auto& future : pending) EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_THROW(TrackingService::shared(), TrackingServiceError);

    tracking = start();
    tracking->submit().get();
    EXPECT_EQ(submissions().size(), 6u);
}

// ---- across processes

constexpr const char* kDirVariable = "TAVRIN_E2E_DIR";
constexpr const char* kDomainVariable = "TAVRIN_E2E_DOMAIN";
constexpr const char* kExitDirVariable = "TAVRIN_E2E_EXIT_DIR";

// The first launch of the restart test: a submission and a consent decision.
TEST(EndToEndChild, FirstLaunch) {
    const char* directory = std::getenv(kDirVariable);
    if (!directory) GTEST_SKIP() << "runs only as the child process of the restart test";
    platform::KeyValueStore::setDataDirectory(std::string(directory));
    TavrinService::configure(trackConfig(std::getenv(kDomainVariable)));
    auto tracking = TrackingService::shared();
    tracking->submit().get();
    ASSERT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}}).get());
    TavrinService::shutdown(std::chrono::seconds(5));
}

TEST_F(SubmissionTest, IdentifiersAndConsentsSurviveARestart) {
    ASSERT_EQ(runChild("EndToEndChild.FirstLaunch", {std::string(kDirVariable) + "=" + dir.path().string(),
                                                     std::string(kDomainVariable) + "=" + hostPort(server.port())}),
              0);
    ASSERT_EQ(submissions().size(), 1u);
    const auto firstUser = submissions()[0]["data"]["identifier"]["user"]["id"];
    const auto firstConsent = consentReports().at(0)["data"]["identifier"]["consent"]["id"];

    useDirectory(dir.path().string());
    auto tracking = start();
    EXPECT_TRUE(logs.sink->contains("AC03 consent tag added to TagCache with stored consent information."));
    tracking->submit().get();
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}}).get());

    const auto sent = submissions();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1]["data"]["identifier"]["user"], PlainJson({{"id", firstUser}, {"action", "update"}}));
    EXPECT_EQ(sent[1]["consent"], PlainJson::parse(R"({"vendorA":{"status":true}})"));
    const auto reports = consentReports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[1]["data"]["identifier"]["consent"], PlainJson({{"id", firstConsent}, {"action", "update"}}));
    EXPECT_EQ(reports[1]["data"]["consent"]["vendorsChanged"], PlainJson::object());
}

// A host that returns from main with work in flight, without flush or shutdown.
TEST(EndToEndChild, ExitWithWorkInFlight) {
    const char* domain = std::getenv(kDomainVariable);
    const char* directory = std::getenv(kExitDirVariable);
    if (!domain || !directory) GTEST_SKIP() << "runs only as the child process of the exit test";
    platform::KeyValueStore::setDataDirectory(std::string(directory));
    TavrinService::configure(trackConfig(domain));
    auto tracking = TrackingService::shared();
    for (int i = 0; i < 1000; ++i) {
        tracking->push({{"track", "step"}, {"n", i}});
        if (i % 50 == 49) (void)tracking->submit();
    }
}

// Runs the exit child against `domain` and gives back its exit status and how long it took.
std::pair<int, std::chrono::milliseconds> runExitChild(const std::string& domain, const TempDir& dir) {
    std::chrono::milliseconds took{};
    const int status = runChild("EndToEndChild.ExitWithWorkInFlight",
                                {std::string(kDomainVariable) + "=" + domain,
                                 std::string(kExitDirVariable) + "=" + dir.path().string()},
                                std::chrono::seconds(30), &took);
    return {status, took};
}

TEST_F(SubmissionTest, HostReturningFromMainWithWorkInFlightExitsCleanly) {
    server.setHandler([](const RecordedRequest&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // keeps requests out at exit
        return ScriptedResponse{};
    });
    const auto [status, took] = runExitChild(hostPort(server.port()), dir);
    EXPECT_EQ(status, 0);
    EXPECT_LT(took, std::chrono::seconds(5));
    // The child ran (a skipped child also exits 0) and its work went out.
    EXPECT_FALSE(submissions().empty());
}

TEST_F(SubmissionTest, HostReturningFromMainWhileTheServerIsSilentExitsInTime) {
    RawTcpServer silent;  // accepts and never answers: every request stays out
    const auto [status, took] = runExitChild(silent.baseUrl().substr(std::string("http://").size()), dir);
    EXPECT_EQ(status, 0);
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(silent.waitForConnections(1, std::chrono::seconds(0)));
    // Offline tracking is on: the 20 submissions the shutdown cancelled wait in
    // the offline cache for the next launch, none lost.
    const auto cached = platform::KeyValueStore::standard()->values("com.tavrin.OfflineCache/");
    EXPECT_EQ(cached.size(), 20u);
    for (const auto& [key, value] : cached)
        EXPECT_NE(std::get<Bytes>(value).size(), 0u) << key;
}

}  // namespace
}  // namespace tavrin::testing
