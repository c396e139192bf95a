#include "tavrin/transport/service.h"

#include <gtest/gtest.h>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tests/support/test_certificates.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using Code = Service::ServiceError::Code;

Service::ServiceError::Code serviceErrorOf(std::future<void> future) {
    try {
        future.get();
    } catch (const Service::ServiceError& error) {
        return error.code();
    }
    ADD_FAILURE() << "no ServiceError";
    return Code::invalidURL;
}

Json body(const RecordedRequest& request) { return Json::parse(request.body); }

class ServiceTest : public TransportTest {};

TEST_F(ServiceTest, PostsToTheDomainRootWithExactHeadersForDefaultAndCustomScheme) {
    const auto certificates = makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    LoopbackServer tlsServer(certificates.servers[0]);
    LoopbackServer plainServer;
    platform::CurlHttpClient::Options options;
    options.caFile = certificates.authority.string();
    useHttpClient(options);

    struct Case {
        std::optional<std::string> customProtocol;
        LoopbackServer* server;
        std::string token;
        std::string scheme;
    };
    for (const auto& c : {Case{std::nullopt, &tlsServer, "abc", "https"}, Case{"http", &plainServer, "", "http"}}) {
        log.sink->clear();
        configure(trackConfig(hostPort(c.server->port()), c.customProtocol, false, c.token));
        const std::string url = c.scheme + "://" + hostPort(c.server->port());
        Service::shared()->sendDataSubmission(sampleSubmission()).get();
        const auto requests = c.server->requests();
        ASSERT_EQ(requests.size(), 1u) << url;
        EXPECT_EQ(requests[0].method, "POST");
        EXPECT_EQ(requests[0].target, "/");
        EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
        // Offline tracking off: the record goes out exactly as it encodes.
        EXPECT_EQ(requests[0].body, encodeJsonText(sampleSubmission()));
        EXPECT_EQ(requests[0].header("Authorization"),
                  c.token.empty() ? std::nullopt : std::optional<std::string>("Bearer " + c.token));
        EXPECT_TRUE(log.sink->contains("Constructing URL: " + url));
        EXPECT_TRUE(log.sink->contains("Initiating data submission request. URL: " + url));
        EXPECT_TRUE(log.sink->contains("Offline tracking enabled: false"));
        EXPECT_TRUE(log.sink->contains("Request to " + url + " completed successfully. Status Code: 200"));
        const std::string headers = c.token.empty() ? R"(["Content-Type": "application/json"])"
                                                    : R"(["Content-Type": "application/json", "Authorization": "Bearer <redacted>"])";
        EXPECT_TRUE(log.sink->contains("Sending request:\n- URL: " + url + "\n- Headers: " + headers +
                                       "\n- Payload size: " + std::to_string(requests[0].body.size()) + " bytes"))
            << ::testing::PrintToString(log.sink->messages());
    }
}

TEST_F(ServiceTest, OnlyStatusesFrom200To299Succeed) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port()), "http", false));
    for (int status : {200, 299, 300}) {
        log.sink->clear();
        server.respondWith({.status = status, .headers = {{"X-Reason", "test"}}, .body = ""});
        auto sent = Service::shared()->sendConsentSubmission(sampleConsent());
        const std::string url = "http://" + hostPort(server.port());
        if (status != 300) {
            EXPECT_NO_THROW(sent.get()) << status;
            continue;
        }
        EXPECT_EQ(serviceErrorOf(std::move(sent)), Code::invalidResponse);
        const auto errors = log.sink->messages(platform::LogType::error);
        ASSERT_EQ(errors.size(), 2u);
        EXPECT_EQ(errors[0].rfind("Received invalid HTTP response:\n- Status Code: 300\n- Headers: [", 0), 0u) << errors[0];
        EXPECT_NE(errors[0].find(R"("X-Reason": "test")"), std::string::npos) << errors[0];
        EXPECT_EQ(errors[1], "Request to " + url + " failed: " + Service::ServiceError(Code::invalidResponse).what());
    }
    // An interim status the server ends the exchange with stands as its answer.
    RawTcpServer interim("HTTP/1.1 199 Odd\r\n\r\n");
    configure(trackConfig(interim.baseUrl().substr(7), "http", false));
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendConsentSubmission(sampleConsent())), Code::invalidResponse);
    EXPECT_TRUE(log.sink->contains("Received invalid HTTP response:\n- Status Code: 199\n- Headers: []"));
}

TEST_F(ServiceTest, DomainThatIsNoUrlFailsBeforeCachingOrSending) {
    monitorPath(platform::PathStatus::unsatisfied);
    configure(trackConfig("bad host", std::nullopt, true));
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendDataSubmission(sampleSubmission())), Code::invalidURL);
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendConsentSubmission(sampleConsent())), Code::invalidURL);
    EXPECT_EQ(serviceErrorOf(Service::shared()->resendCachedDataSubmission(platform::toBytes("{}"))), Code::invalidURL);
    EXPECT_TRUE(log.sink->contains("Invalid URL: https://bad host"));
    EXPECT_TRUE(cached().empty());
    EXPECT_EQ(std::string(Service::ServiceError(Code::invalidURL).what()),
              "The tracking endpoint is not a valid URL. (Service.ServiceError.invalidURL)");
}

TEST_F(ServiceTest, OfflineWithOfflineTrackingCachesAndSendsNothing) {
    LoopbackServer server;
    monitorPath(platform::PathStatus::unsatisfied);
    configure(trackConfig(hostPort(server.port())));
    Service::shared()->sendDataSubmission(sampleSubmission()).get();
    Service::shared()->sendConsentSubmission(sampleConsent()).get();
    const auto requests = cached();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].type, OfflineCache::RequestType::dataSubmission);
    EXPECT_EQ(platform::toString(requests[0].payload), encodeJsonText(sampleSubmission()));
    EXPECT_EQ(requests[1].type, OfflineCache::RequestType::consentSubmission);
    EXPECT_EQ(platform::toString(requests[1].payload), encodeJsonText(sampleConsent()));
    EXPECT_EQ(requests[0].retryCount, 0);
    EXPECT_TRUE(log.sink->contains("Offline: Caching data submission request"));
    EXPECT_TRUE(log.sink->contains("Offline: Caching consent request"));
    EXPECT_TRUE(server.requests().empty());

    // Offline tracking off: the send is attempted and its transport error reaches the caller.
    RefusingPort refusing;
    configure(trackConfig(hostPort(refusing.port()), "http", false));
    EXPECT_THROW(Service::shared()->sendDataSubmission(sampleSubmission()).get(), platform::UrlError);
    EXPECT_EQ(cached().size(), 2u);
}

TEST_F(ServiceTest, LiveSendMarksTheVariablesAndResendMarksTheTopLevel) {
    LoopbackServer server;
    monitorPath(platform::PathStatus::satisfied);
    configure(trackConfig(hostPort(server.port())));
    Service::shared()->sendDataSubmission(sampleSubmission()).get();
    Service::shared()->sendConsentSubmission(sampleConsent()).get();
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    const Json live = body(requests[0]);
    EXPECT_EQ(live["data"]["variables"]["app_offline_cached_data"], "false");
    EXPECT_EQ(live["data"]["variables"]["mark"], "m1");
    EXPECT_FALSE(live.contains("app_offline_cached_data"));
    EXPECT_EQ(requests[1].body, encodeJsonText(sampleConsent()));
    EXPECT_TRUE(log.sink->contains("Online but offline mode enabled. Adding offline-specific properties to payload."));

    // The cached body keeps the "false" it may carry; both markers go on top.
    platform::Clock::setFixed(1700000000.1234);
    Service::shared()->resendCachedDataSubmission(platform::toBytes(requests[0].body)).get();
    requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    const Json resent = body(requests[2]);
    EXPECT_EQ(resent["app_offline_cached_data"], "true");
    EXPECT_EQ(resent["app_offline_resend_timestamp"], "1700000000123");
    EXPECT_EQ(resent["data"]["variables"]["app_offline_cached_data"], "false");
    Json withoutMarkers = resent;
    withoutMarkers.erase("app_offline_cached_data");
    withoutMarkers.erase("app_offline_resend_timestamp");
    EXPECT_EQ(withoutMarkers, live);
    EXPECT_TRUE(log.sink->contains("Resending cached data submission with offline metadata."));

    // A cached body that is not a JSON object is refused without a request.
    for (const char* payload : {"[1,2]", "not json"}) {
        EXPECT_EQ(serviceErrorOf(Service::shared()->resendCachedDataSubmission(platform::toBytes(payload))),
                  Code::invalidRequestBody);
    }
    EXPECT_EQ(server.requests().size(), 3u);
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              (std::vector<std::string>{"Failed to parse cached payload as JSON", "Failed to parse cached payload as JSON"}));
}

TEST_F(ServiceTest, BearerTokenAppearsInNoLogLineTagOrCachedBody) {
    const std::string token = "tok-SECRET-9f2c";
    LoopbackServer server;
    auto path = monitorPath(platform::PathStatus::satisfied);
    configure(trackConfig(hostPort(server.port()), "http", true, token));
    MonitorService::shared()->setDebugCode("dbg");
    TagCache::shared().addOrReplace(Tag::makeInfo("AD01", "T-SDK: [TAVRIN DL] - [AD01] push", 1, true));

    Service::shared()->sendDataSubmission(sampleSubmission("live")).get();
    server.respondWith(ScriptedResponse{400, {}, ""});  // refused: not kept for a retry
    EXPECT_THROW(Service::shared()->sendConsentSubmission(sampleConsent()).get(), Service::ServiceError);
    server.respondWith(ScriptedResponse{200, {}, ""});
    path->setStatus(platform::PathStatus::unsatisfied);
    ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    Service::shared()->sendDataSubmission(sampleSubmission("cached")).get();
    Service::shared()->sendConsentSubmission(sampleConsent()).get();
    const auto cachedBodies = cached();
    ASSERT_EQ(cachedBodies.size(), 2u);
    path->setStatus(platform::PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 4; }));
    ASSERT_TRUE(waitUntil([&] { return cached().empty(); }));

    // The token did go out, in the header only.
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.header("Authorization"), "Bearer " + token);
        EXPECT_EQ(request.body.find(token), std::string::npos);
    }
    std::size_t redacted = 0;
    for (const auto& line : log.sink->messages()) {
        EXPECT_EQ(line.find(token), std::string::npos) << line;
        redacted += line.find("Bearer <redacted>") != std::string::npos;
    }
    EXPECT_EQ(redacted, 4u);
    for (const auto& tag : TagCache::shared().tags()) EXPECT_EQ(encodeJsonText(tag).find(token), std::string::npos);
    for (const auto& request : cachedBodies) EXPECT_EQ(platform::toString(request.payload).find(token), std::string::npos);
    auto store = platform::SqliteKeyValueStore(dir / platform::SqliteKeyValueStore::kFileName);
    for (const auto& [key, value] : store.values("")) {
        if (key == TrackingSettings::userDefaultsKey) continue;  // the configuration itself
        EXPECT_EQ(platform::toString(std::get<Bytes>(value)).find(token), std::string::npos) << key;
    }
}

}  // namespace
}  // namespace tavrin::testing
