#include "tavrin/transport/internal/offline_cache_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;
using platform::PathStatus;

std::string markOf(const RecordedRequest& request) {
    const Json body = Json::parse(request.body);
    return body.contains("data") ? body["data"]["variables"]["mark"].get<std::string>() : "consent";
}

class OfflineCacheManagerTest : public TransportTest {
protected:
    // Caches the submissions while the scripted path is offline.
    void cacheWhileOffline(testing::ScriptedPathMonitor& path, const std::vector<std::string>& marks) {
        path.setStatus(PathStatus::unsatisfied);
        ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
        for (const auto& mark : marks) Service::shared()->sendDataSubmission(sampleSubmission(mark)).get();
    }
    void cacheRaw(Type type, const std::string& body) {
        std::promise<void> done;
        OfflineCacheManager::shared()->cacheRequest(type, platform::toBytes(body), [&] { done.set_value(); });
        done.get_future().get();
    }
};

TEST_F(OfflineCacheManagerTest, WalkResendsInOrderSkipsMonitorRequestsAndDropsBadConsentsAtOnce) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("first")));
    cacheRaw(Type::monitorRequest, "{}");
    cacheRaw(Type::consentSubmission, R"({"version":"3"})");  // no longer decodes
    cacheRaw(Type::consentSubmission, encodeJsonText(sampleConsent()));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("second")));
    EXPECT_TRUE(log.sink->contains("Request cached: monitorRequest"));

    OfflineCacheManager::shared()->resendCachedRequests().get();
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(markOf(requests[0]), "first");
    EXPECT_EQ(requests[1].body, encodeJsonText(sampleConsent()));
    EXPECT_EQ(markOf(requests[2]), "second");
    for (std::size_t i : {0u, 2u}) EXPECT_EQ(Json::parse(requests[i].body)["app_offline_cached_data"], "true");
    const auto left = cached();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].type, Type::monitorRequest);
    EXPECT_EQ(left[0].retryCount, 0);
    EXPECT_EQ(log.sink->count("dataSubmission request sent and removed from cache."), 2u);
    EXPECT_EQ(log.sink->count("consentSubmission request sent and removed from cache."), 1u);
    EXPECT_EQ(log.sink->count("Unknown request type: monitorRequest. Skipping."), 1u);
    const auto errors = log.sink->messages(platform::LogType::error);
    EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](const std::string& line) {
        return line.rfind("Decoding error: ", 0) == 0 && line.ends_with(". Request will not be retried.");
    })) << ::testing::PrintToString(errors);
}

TEST_F(OfflineCacheManagerTest, RequestFailingFourWalksIsDiscardedOnTheFourth) {
    RefusingPort refusing;
    configure(trackConfig(hostPort(refusing.port())));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission()));
    auto manager = OfflineCacheManager::shared();
    for (int walk = 0; walk < 3; ++walk) {
        log.sink->clear();
        manager->resendCachedRequests().get();
        manager->offlineCache().drain();
        ASSERT_EQ(cached().size(), 1u) << walk;
        EXPECT_EQ(cached()[0].retryCount, walk + 1);
        EXPECT_TRUE(log.sink->contains("Retrying request of type dataSubmission. Retry count: " + std::to_string(walk) + "."));
        const auto errors = log.sink->messages(platform::LogType::error);
        EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](const std::string& line) {
            return line.rfind("Network error: ", 0) == 0 && line.ends_with(". Retrying request.");
        })) << ::testing::PrintToString(errors);
    }
    log.sink->clear();
    manager->resendCachedRequests().get();
    EXPECT_TRUE(cached().empty());
    EXPECT_TRUE(log.sink->contains("Request of type dataSubmission exceeded maximum retries and will be discarded."));

    // A rejecting server is an unexpected error, retried the same way.
    LoopbackServer server;
    server.respondWith(ScriptedResponse{503, {}, ""});
    configure(trackConfig(hostPort(server.port())));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission()));
    manager->resendCachedRequests().get();
    EXPECT_EQ(cached().at(0).retryCount, 1);
    const auto errors = log.sink->messages(platform::LogType::error);
    EXPECT_NE(std::find(errors.begin(), errors.end(),
                        std::string("Unexpected error: ") + Service::ServiceError(Service::ServiceError::Code::invalidResponse).what() +
                            ". Retrying request."),
              errors.end());
}

TEST_F(OfflineCacheManagerTest, ExactlyOneResendPerOfflineToOnlineTransition) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    auto path = monitorPath(PathStatus::satisfied);
    OfflineCacheManager::shared()->startNetworkMonitoring();
    EXPECT_TRUE(log.sink->contains("Network monitoring is already active."));
    const std::string resent = "Cached requests successfully resent after regaining network connectivity.";
    path->setStatus(PathStatus::satisfied);  // online twice: no resend
    cacheWhileOffline(*path, {"a", "b"});
    path->setStatus(PathStatus::unsatisfied);  // offline twice: still one transition
    path->setStatus(PathStatus::satisfied);
    path->setStatus(PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return log.sink->count(resent) == 1; }));
    EXPECT_EQ(log.sink->count("Network status changed: Online"), 4u);
    EXPECT_EQ(log.sink->count("Network status changed: Offline"), 2u);
    cacheWhileOffline(*path, {"c"});
    path->setStatus(PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return log.sink->count(resent) == 2; }));
    std::this_thread::sleep_for(100ms);  // room for a wrong extra walk
    EXPECT_EQ(log.sink->count(resent), 2u);
    EXPECT_EQ(log.sink->count("0 expired requests removed from cache."), 2u);
    std::vector<std::string> marks;
    for (const auto& request : server.requests()) marks.push_back(markOf(request));
    EXPECT_EQ(marks, (std::vector<std::string>{"a", "b", "c"}));

    OfflineCacheManager::shared()->stopNetworkMonitoring();
    EXPECT_TRUE(log.sink->contains("Network monitoring stopped."));
    EXPECT_TRUE(path->isCancelled());
    OfflineCacheManager::shared()->stopNetworkMonitoring();
    EXPECT_TRUE(log.sink->contains("Network monitoring is not active."));
}

TEST_F(OfflineCacheManagerTest, OnlyOneWalkRunsAndWalksAskedMeanwhileRunOnceAfterIt) {
    LoopbackServer server;
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> arrived{0};
    server.setHandler([&](const RecordedRequest&) {
        if (arrived++ == 0) released.wait();
        return ScriptedResponse{};
    });
    configure(trackConfig(hostPort(server.port())));
    for (const char* mark : {"a", "b", "c"}) cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission(mark)));
    auto manager = OfflineCacheManager::shared();
    auto first = manager->resendCachedRequests();
    ASSERT_TRUE(waitUntil([&] { return arrived == 1; }));
    std::vector<std::future<void>> more;
    for (int i = 0; i < 3; ++i) more.push_back(manager->resendCachedRequests());
    // The silent server holds one request; no pool thread waits on it.
    EXPECT_EQ(platform::TaskPool::shared().submit([] { return 7; }).get(), 7);
    EXPECT_EQ(more[0].wait_for(50ms), std::future_status::timeout);
    release.set_value();
    first.get();
    for (auto& f : more) f.get();
    std::vector<std::string> marks;
    for (const auto& request : server.requests()) marks.push_back(markOf(request));
    std::sort(marks.begin(), marks.end());  // resends of data may overlap
    EXPECT_EQ(marks, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(log.sink->count("0 expired requests removed from cache."), 2u) << "the three waiting walks ran as one";
    EXPECT_TRUE(cached().empty());
}

TEST_F(OfflineCacheManagerTest, NoWalkWritesAfterShutdownReturns) {
    RawTcpServer silent;  // accepts and never answers
    configure(trackConfig(silent.baseUrl().substr(7)));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("a")));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("b")));
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
    EXPECT_FALSE(log.sink->contains("Retrying request of type dataSubmission. Retry count: 0."));
    EXPECT_EQ(silent.received().size(), 1u) << "the walk went on after shutdown";

    // Offline tracking off: nothing is cached, and the caller is told at once.
    manager->configure(false, 60);
    EXPECT_TRUE(log.sink->contains("OfflineCacheManager configured with enableOfflineTracking: false, timeout: 60.0"));
    bool told = false;
    manager->cacheRequest(Type::dataSubmission, platform::toBytes("{}"), [&] { told = true; });
    EXPECT_TRUE(told);
    EXPECT_TRUE(log.sink->contains("Offline tracking is disabled. Request not cached."));
    EXPECT_EQ(cached().size(), 2u);
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

TEST_F(OfflineCacheManagerTest, WalksLeaveRequestsUntouchedUntilAPathIsReported) {
    LoopbackServer server;
    configure(trackConfig(hostPort(server.port())));
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("a")));
    auto path = std::make_shared<HeldPathMonitor>();
    platform::PathMonitor::setFactory([path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
    auto manager = OfflineCacheManager::shared();
    manager->startNetworkMonitoring();

    // Before the first report the path is unknown: the walk waits for it.
    auto walk = manager->resendCachedRequests();
    EXPECT_EQ(walk.wait_for(200ms), std::future_status::timeout);
    path->report(PathStatus::unsatisfied);
    ASSERT_EQ(walk.wait_for(5s), std::future_status::ready);
    manager->offlineCache().drain();
    EXPECT_TRUE(server.requests().empty());
    ASSERT_EQ(cached().size(), 1u);
    EXPECT_EQ(cached()[0].retryCount, 0) << "an attempt was used up without a path";
    EXPECT_TRUE(log.sink->contains("Offline: Cached requests stay cached until the network returns."));

    path->report(PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1 && cached().empty(); }));

    // A walk still waiting when monitoring stops ends with the request kept.
    manager->stopNetworkMonitoring();
    cacheRaw(Type::dataSubmission, encodeJsonText(sampleSubmission("b")));
    manager->startNetworkMonitoring();
    auto waiting = manager->resendCachedRequests();
    EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout);
    manager->stopNetworkMonitoring();
    EXPECT_EQ(waiting.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(cached().size(), 1u);
}

}  // namespace
}  // namespace tavrin::testing
