#include "tavrin/transport/internal/service.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include "tests/support/test_certificates.h"
#endif
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using Code = Service::ServiceError::Code;

Code serviceErrorOf(std::future<void> future) {
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

// Records what a send asks of the HTTP client and answers 200 at once.
class RecordingHttpClient : public platform::HttpClient {
public:
    using platform::HttpClient::send;
    void send(platform::HttpRequest request, Completion completion) override {
        sent.push_back(std::move(request));
        completion(platform::HttpResult{platform::HttpResponse{.statusCode = 200, .headers = {}, .body = {}}, nullptr});
    }
    std::vector<platform::HttpRequest> sent;
};

TEST_F(ServiceTest, EachSendGetsThirtySecondsNotTheClientsDefault) {
    auto recording = std::make_shared<RecordingHttpClient>();
    platform::HttpClient::setShared(recording);
    configure(trackConfig("collect.example.com"));
    Service::shared()->sendDataSubmission(sampleSubmission()).get();
    Service::shared()->sendConsentSubmission(sampleConsent()).get();
    ASSERT_EQ(recording->sent.size(), 2u);
    for (const auto& request : recording->sent) EXPECT_EQ(request.timeoutSeconds, 30);
}

// Windows has no HTTPS loopback server (making its certificates needs OpenSSL).
#if !defined(_WIN32)
TEST_F(ServiceTest, PostsTheEncodedRecordToTheDomainRootOverHttpsByDefault) {
    const auto certificates = makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    LoopbackServer server(certificates.servers[0]);
    platform::HttpClientOptions options;
    options.caFile = certificates.authority.string();
    useHttpClient(options);
    configure(trackConfig(hostPort(server.port()), std::nullopt, false, "abc"));
    Service::shared()->sendDataSubmission(sampleSubmission()).get();
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].header("Authorization"), "Bearer abc");
    // Offline tracking off: the record goes out exactly as it encodes.
    EXPECT_EQ(requests[0].body, encodeJsonText(sampleSubmission()));
}
#endif

TEST_F(ServiceTest, OnlyStatusesFrom200To299Succeed) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port()), "http", false, ""));
    for (int status : {200, 299, 300, 404}) {
        server.respondWith({.status = status, .headers = {}, .body = ""});
        log.sink->clear();
        auto sent = Service::shared()->sendConsentSubmission(sampleConsent());
        if (status <= 299) {
            EXPECT_NO_THROW(sent.get()) << status;
        } else {
            EXPECT_EQ(serviceErrorOf(std::move(sent)), Code::invalidResponse) << status;
            // The host's only sign that the server refused the record.
            EXPECT_TRUE(log.sink->messages(platform::LogType::error)
                            .at(0)
                            .starts_with("Received invalid HTTP response:\n- Status Code: " + std::to_string(status)));
        }
    }
    EXPECT_EQ(server.requests().at(0).header("Authorization"), std::nullopt) << "no token, no header";
    // An interim status the server ends the exchange with stands as its answer.
    RawTcpServer interim("HTTP/1.1 199 Odd\r\n\r\n");
    configure(trackConfig(interim.baseUrl().substr(7), "http", false));
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendConsentSubmission(sampleConsent())), Code::invalidResponse);
}

TEST_F(ServiceTest, DomainThatIsNoUrlFailsBeforeCachingOrSending) {
    monitorPath(platform::PathStatus::unsatisfied);
    configure(trackConfig("bad host", std::nullopt, true));
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendDataSubmission(sampleSubmission())), Code::invalidURL);
    EXPECT_EQ(serviceErrorOf(Service::shared()->sendConsentSubmission(sampleConsent())), Code::invalidURL);
    EXPECT_EQ(serviceErrorOf(Service::shared()->resendCachedDataSubmission(platform::toBytes("{}"))), Code::invalidURL);
    EXPECT_TRUE(log.sink->contains("Invalid URL: https://bad host"));
    EXPECT_TRUE(cached().empty());
}

// The server tells a live send from a resend by where the marker is.
TEST_F(ServiceTest, OfflineMarkerTellsAResendFromALiveSend) {
    LoopbackServer server;
    monitorPath(platform::PathStatus::satisfied);
    configure(trackConfig(hostPort(server.port())));
    Service::shared()->sendDataSubmission(sampleSubmission()).get();
    const Json live = body(server.requests().at(0));
    EXPECT_EQ(live["data"]["variables"]["app_offline_cached_data"], "false");
    EXPECT_FALSE(live.contains("app_offline_cached_data"));

    platform::Clock::setFixed(1700000000.1234);
    Service::shared()->resendCachedDataSubmission(platform::toBytes(live.dump())).get();
    Json resent = body(server.requests().at(1));
    EXPECT_EQ(resent["app_offline_cached_data"], "true");
    EXPECT_EQ(resent["app_offline_resend_timestamp"], "1700000000123");
    resent.erase("app_offline_cached_data");
    resent.erase("app_offline_resend_timestamp");
    EXPECT_EQ(resent, live);
}

TEST_F(ServiceTest, CachedBodyThatIsNoJsonObjectIsDroppedUnsent) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    for (const char* payload : {"[1,2]", "not json"}) {
        auto refused = Service::shared()->resendCachedDataSubmission(platform::toBytes(payload));
        EXPECT_EQ(serviceErrorOf(std::move(refused)), Code::invalidRequestBody) << payload;
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(log.sink->count("Failed to parse cached payload as JSON"), 2u);
}

// Cached and resent requests included.
TEST_F(ServiceTest, BearerTokenIsWrittenNowhereButTheHeader) {
    const std::string token = "tok-SECRET-9f2c";
    LoopbackServer server;
    auto path = monitorPath(platform::PathStatus::satisfied);
    configure(trackConfig(hostPort(server.port()), "http", true, token));
    Service::shared()->sendDataSubmission(sampleSubmission("live")).get();
    path->setStatus(platform::PathStatus::unsatisfied);
    ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    Service::shared()->sendDataSubmission(sampleSubmission("cached")).get();
    ASSERT_EQ(cached().size(), 1u);
    EXPECT_EQ(platform::toString(cached()[0].payload).find(token), std::string::npos);
    path->setStatus(platform::PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 2 && cached().empty(); }));
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.header("Authorization"), "Bearer " + token);
        EXPECT_EQ(request.body.find(token), std::string::npos);
    }
    for (const auto& line : log.sink->messages()) EXPECT_EQ(line.find(token), std::string::npos) << line;
}

}  // namespace
}  // namespace tavrin::testing
