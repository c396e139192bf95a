#include "tavrin/transport/internal/offline_cache_manager.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;
using platform::PathStatus;

// The mark of each data submission sent, "consent" for a consent.
std::vector<std::string> marksOf(const std::vector<RecordedRequest>& requests) {
    std::vector<std::string> marks;
    for (const auto& request : requests) {
        const Json data = Json::parse(request.body)["data"];
        marks.push_back(data.contains("variables") ? data["variables"]["mark"].get<std::string>() : "consent");
    }
    return marks;
}

class OfflineCacheManagerTest : public TransportTest {
protected:
    void cacheRaw(Type type, const std::string& body) {
        std::promise<void> done;
        OfflineCacheManager::shared()->cacheRequest(type, platform::toBytes(body), [&] { done.set_value(); });
        done.get_future().get();
    }
    void cacheSubmissions(const std::vector<std::string>& marks) {
        for (const auto& mark : marks) cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission(mark)));
    }
};

// Sent requests leave the cache, a consent that no longer decodes is dropped
// at once, and monitor requests are not the walk's to send.
TEST_F(OfflineCacheManagerTest, WalkLeavesOnlyMonitorRequestsCached) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    cacheSubmissions({"first"});
    cacheRaw(Type::monitorRequest, "{}");
    cacheRaw(Type::consentSubmission, R"({"version":"3"})");
    cacheRaw(Type::consentSubmission, encodeJsonText(sampleConsent()));
    cacheSubmissions({"second"});

    OfflineCacheManager::shared()->resendCachedRequests().get();
    const auto requests = server.requests();
    ASSERT_EQ(marksOf(requests), (std::vector<std::string>{"first", "consent", "second"}));
    EXPECT_EQ(requests[1].body, encodeJsonText(sampleConsent()));
    for (std::size_t i : {0u, 2u}) EXPECT_EQ(Json::parse(requests[i].body)["app_offline_cached_data"], "true");
    const auto left = cached();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].type, Type::monitorRequest);
    EXPECT_EQ(left[0].retryCount, 0);
    const auto errors = log.sink->messages(platform::LogType::error);
    EXPECT_TRUE(!errors.empty() && errors.back().starts_with("Decoding error: ")) << ::testing::PrintToString(errors);
}

// A refused connection and a server error count alike: three retries, then
// the request is dropped with a warning.
TEST_F(OfflineCacheManagerTest, RequestIsDiscardedOnTheFourthFailedWalk) {
    RefusingPort refusing;
    LoopbackServer failing;
    failing.respondWith(ScriptedResponse{503, {}, ""});
    for (int port : {refusing.port(), failing.port()}) {
        SCOPED_TRACE(port == refusing.port() ? "refused" : "503");
        configure(trackConfig(hostPort(port)));
        cacheSubmissions({"m"});
        auto manager = OfflineCacheManager::shared();
        for (int walk = 1; walk <= 3; ++walk) {
            manager->resendCachedRequests().get();
            manager->offlineCache().drain();
            ASSERT_EQ(cached().size(), 1u) << walk;
            EXPECT_EQ(cached()[0].retryCount, walk);
        }
        log.sink->clear();
        manager->resendCachedRequests().get();
        manager->offlineCache().drain();
        EXPECT_TRUE(cached().empty());
        EXPECT_TRUE(
            log.sink->contains("Request of type dataSubmission exceeded maximum retries and will be discarded."));
    }
}

TEST_F(OfflineCacheManagerTest, RegainingTheNetworkResendsEachCachedRequestOnce) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    auto path = monitorPath(PathStatus::satisfied);
    // Repeated reports of one state are no transitions.
    for (const auto& [status, marks] :
         std::vector<std::pair<PathStatus, std::vector<std::string>>>{{PathStatus::unsatisfied, {"a", "b"}},
                                                                      {PathStatus::unsatisfied, {}},
                                                                      {PathStatus::satisfied, {}},
                                                                      {PathStatus::satisfied, {}},
                                                                      {PathStatus::unsatisfied, {"c"}},
                                                                      {PathStatus::satisfied, {}}}) {
        path->setStatus(status);
        const bool offline = status != PathStatus::satisfied;
        ASSERT_TRUE(waitUntil([&] { return OfflineCacheManager::shared()->isCurrentlyOffline() == offline; }));
        for (const auto& mark : marks) Service::shared()->sendDataSubmission(sampleSubmission(mark)).get();
        if (!offline) {
            ASSERT_TRUE(waitUntil([&] { return cached().empty(); }));
        }
    }
    EXPECT_EQ(marksOf(server.requests()), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(OfflineCacheManagerTest, ShutdownLeavesUnansweredRequestsUntouched) {
    RawTcpServer silent;  // accepts and never answers
    configure(trackConfig(silent.baseUrl().substr(7)));
    cacheSubmissions({"a", "b"});
    auto manager = OfflineCacheManager::shared();
    auto walk = manager->resendCachedRequests();
    ASSERT_TRUE(silent.waitForConnections(1));
    EXPECT_FALSE(manager->shutdown(100ms)) << "the request still out was not abandoned";
    client->shutdown();  // fails the request still out with cancelled
    walk.get();
    manager->offlineCache().drain();
    const auto left = cached();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(left[0].retryCount, 0);
    EXPECT_EQ(silent.received().size(), 1u) << "the walk went on after shutdown";
}

TEST_F(OfflineCacheManagerTest, DisabledOfflineTrackingCachesNothing) {
    auto manager = OfflineCacheManager::shared();
    manager->configure(false, 60);
    bool told = false;
    manager->cacheRequest(Type::dataSubmission, platform::toBytes("{}"), [&] { told = true; });
    EXPECT_TRUE(told);
    EXPECT_TRUE(cached().empty());
}

// A path monitor that reports only when the test says so.
class HeldPathMonitor final : public platform::PathMonitor {
public:
    void setUpdateHandler(UpdateHandler handler) override { handler_ = std::move(handler); }
    void start(platform::SerialQueue&) override {}
    void cancel() override {}
    void report(PathStatus status) { handler_(status); }

private:
    UpdateHandler handler_;
};

// A send without a path would use up an attempt of every request.
TEST_F(OfflineCacheManagerTest, WalkSendsNothingUntilThePathIsKnownToBeUp) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    cacheSubmissions({"a"});
    auto path = std::make_shared<HeldPathMonitor>();
    platform::PathMonitor::setFactory([path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
    auto manager = OfflineCacheManager::shared();
    manager->startNetworkMonitoring();

    auto walk = manager->resendCachedRequests();
    EXPECT_EQ(walk.wait_for(200ms), std::future_status::timeout);
    path->report(PathStatus::unsatisfied);
    ASSERT_EQ(walk.wait_for(5s), std::future_status::ready);
    manager->offlineCache().drain();
    EXPECT_TRUE(server.requests().empty());
    ASSERT_EQ(cached().size(), 1u);
    EXPECT_EQ(cached()[0].retryCount, 0);

    path->report(PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1 && cached().empty(); }));
}

}  // namespace
}  // namespace tavrin::testing
