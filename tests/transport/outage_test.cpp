// A server outage loses nothing: with offline tracking on, a live send that
// the server or the network lets down is cached and retried later, on a
// backoff timer, at the server's Retry-After, or as soon as a live send gets
// through again.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "tavrin/transport/internal/retry_policy.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;
using detail::RetryBackoff;

class OutageTest : public TransportTest {
protected:
    void SetUp() override {
        TransportTest::SetUp();
        monitorPath(platform::PathStatus::satisfied);
    }
    // How often the server received the data submission marked `mark`.
    std::size_t received(const std::string& mark) {
        std::size_t n = 0;
        for (const auto& request : server.requests()) {
            const Json body = Json::parse(request.body);
            n += body["data"].contains("variables") && body["data"]["variables"]["mark"] == mark;
        }
        return n;
    }
    LoopbackServer server;
};

TEST_F(OutageTest, FailuresTheServerMayGetOverAreCachedAndRefusalsFail) {
    RefusingPort refusing;
    RawTcpServer hangingUp("");  // accepts the request and closes without a word
    struct Case {
        std::string name;
        std::string domain;
        int status;  // answer of `server`; 0: not this server
        bool cached;
    };
    const std::string here = hostPort(server.port());
    const std::vector<Case> cases{
        {"refused", hostPort(refusing.port()), 0, true},
        {"reset", hangingUp.baseUrl().substr(7), 0, true},
        {"408", here, 408, true},
        {"429", here, 429, true},
        {"500", here, 500, true},
        {"503", here, 503, true},
        {"302", here, 302, true},
        {"400", here, 400, false},
        {"404", here, 404, false},
        {"413", here, 413, false},
    };
    std::size_t expected = 0;
    for (const auto& c : cases) {
        if (c.status) server.respondWith({c.status, {{"Retry-After", "300"}}, ""});
        configure(trackConfig(c.domain));
        if (c.cached) {
            EXPECT_NO_THROW(Service::shared()->sendDataSubmission(sampleSubmission(c.name)).get()) << c.name;
            EXPECT_NO_THROW(Service::shared()->sendConsentSubmission(sampleConsent()).get()) << c.name;
            expected += 2;
        } else {
            EXPECT_THROW(Service::shared()->sendDataSubmission(sampleSubmission(c.name)).get(), Service::ServiceError);
            EXPECT_THROW(Service::shared()->sendConsentSubmission(sampleConsent()).get(), Service::ServiceError);
        }
        const auto left = cached();
        ASSERT_EQ(left.size(), expected) << c.name;
        if (!c.cached) continue;
        EXPECT_EQ(left[expected - 2].type, Type::dataSubmission);
        EXPECT_EQ(left[expected - 1].type, Type::consentSubmission);
        EXPECT_EQ(left[expected - 1].retryCount, 0);
        // The body that went out, live marker included; the resend adds its own on top.
        const Json body = Json::parse(platform::toString(left[expected - 2].payload));
        EXPECT_EQ(body["data"]["variables"]["mark"], c.name);
        EXPECT_EQ(body["data"]["variables"]["app_offline_cached_data"], "false");
    }
    EXPECT_EQ(log.sink->count("Send failed: Caching data submission request"), expected / 2);
    EXPECT_EQ(log.sink->count("Send failed: Caching consent request"), expected / 2);

    // Offline tracking off: the same failures reach the caller, nothing is cached.
    server.respondWith({503, {}, ""});
    configure(trackConfig(here, "http", false));
    EXPECT_THROW(Service::shared()->sendDataSubmission(sampleSubmission()).get(), Service::ServiceError);
    configure(trackConfig(hostPort(refusing.port()), "http", false));
    EXPECT_THROW(Service::shared()->sendDataSubmission(sampleSubmission()).get(), platform::UrlError);
    EXPECT_EQ(cached().size(), expected);
}

TEST_F(OutageTest, RetryAfterOfA503DecidesWhenTheCacheIsWalkedAgain) {
    std::atomic<int> answered{0};
    server.setHandler([&](const RecordedRequest&) {
        return answered++ < 2 ? ScriptedResponse{503, {{"Retry-After", "1"}}, ""} : ScriptedResponse{};
    });
    configure(trackConfig(hostPort(server.port())));
    Service::shared()->sendDataSubmission(sampleSubmission("a")).get();
    Service::shared()->sendConsentSubmission(sampleConsent()).get();
    EXPECT_EQ(cached().size(), 2u);
    const auto lines = log.sink->messages();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("Server failure: Cached requests are retried in 1.", 0) == 0;
    })) << "no timer at the server's Retry-After";
    // Nothing else happens: the timer alone walks the cache, in order.
    ASSERT_TRUE(waitUntil([&] { return cached().empty(); }, 20s));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(Json::parse(requests[2].body)["data"]["variables"]["mark"], "a");
    EXPECT_EQ(Json::parse(requests[2].body)["app_offline_cached_data"], "true");
    EXPECT_EQ(requests[3].body, encodeJsonText(sampleConsent()));
    EXPECT_TRUE(log.sink->contains("Retrying cached requests after a server failure."));
}

TEST_F(OutageTest, AWalkStopsAtTheFirstServerFailureAndALiveSuccessResumesIt) {
    server.respondWith({503, {{"Retry-After", "300"}}, ""});  // no timer fires during the test
    configure(trackConfig(hostPort(server.port())));
    for (const char* mark : {"a", "b", "c"}) Service::shared()->sendDataSubmission(sampleSubmission(mark)).get();
    auto manager = OfflineCacheManager::shared();
    manager->resendCachedRequests().get();
    manager->offlineCache().drain();
    auto left = cached();
    ASSERT_EQ(left.size(), 3u);
    // One attempt spent on the outage, not one per cached request.
    EXPECT_EQ(left[0].retryCount + left[1].retryCount + left[2].retryCount, 1);
    EXPECT_EQ(server.requests().size(), 4u);

    server.respondWith({});
    Service::shared()->sendDataSubmission(sampleSubmission("d")).get();
    ASSERT_TRUE(waitUntil([&] { return cached().empty(); }));
    EXPECT_TRUE(log.sink->contains("The server answers again: Retrying cached requests now."));
    // "a" met the outage live and in the walk, "b" and "c" only live.
    EXPECT_EQ(received("a"), 3u);
    EXPECT_EQ(received("b"), 2u);
    EXPECT_EQ(received("c"), 2u);
    EXPECT_EQ(received("d"), 1u);
}

TEST(RetryPolicy, BackoffDoublesToItsMaximumAndRetryAfterStandsWithinIt) {
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    struct Case {
        int attempt;
        std::optional<seconds> retryAfter;
        double random;
        milliseconds expected;
    };
    for (const auto& c :
         {Case{0, {}, 0.0, milliseconds(2500)}, Case{0, {}, 0.999999, milliseconds(4999)},
          Case{1, {}, 0.0, milliseconds(5000)}, Case{3, {}, 0.5, milliseconds(30000)},
          Case{6, {}, 0.0, milliseconds(150000)}, Case{60, {}, 1.0, milliseconds(300000)},
          Case{0, seconds(1), 0.0, milliseconds(1000)}, Case{5, seconds(0), 0.5, milliseconds(1050)},
          Case{0, seconds(40), 1.0, milliseconds(44000)}, Case{0, seconds(3600), 0.0, milliseconds(300000)}})
        EXPECT_EQ(RetryBackoff::delay(c.attempt, c.retryAfter, c.random), c.expected)
            << c.attempt << " " << (c.retryAfter ? c.retryAfter->count() : -1) << " " << c.random;

    const double now = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
    struct Field {
        const char* text;
        std::optional<long> seconds;
    };
    for (const auto& f :
         {Field{"120", 120}, Field{" 0 ", 0}, Field{"99999999999", 86400}, Field{"Sun, 06 Nov 1994 08:51:37 GMT", 120},
          Field{"Sunday, 06-Nov-94 08:50:37 GMT", 60}, Field{"Sun Nov  6 08:49:47 1994", 10},
          Field{"Sat, 05 Nov 1994 08:49:37 GMT", 0}, Field{"-5", std::nullopt}, Field{"1.5", std::nullopt},
          Field{"soon", std::nullopt}, Field{"Sun, 06 Nov 1994 08:51:37 CET", std::nullopt}, Field{"", std::nullopt}}) {
        const auto parsed = detail::parseRetryAfter(f.text, now);
        EXPECT_EQ(parsed ? std::optional<long>(parsed->count()) : std::nullopt, f.seconds) << f.text;
    }
}

}  // namespace
}  // namespace tavrin::testing
