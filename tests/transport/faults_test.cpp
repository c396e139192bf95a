// Smaller faults of the transport: a path monitor that never reports, an HTTP
// client that answers with nothing, and a shutdown's late cache writes meeting
// the next configuration's cache.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tavrin/platform/linux/sqlite_key_value_store.h"
#include "tests/support/network_namespace.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;

class FaultsTest : public TransportTest {
protected:
    void cacheRaw(const std::shared_ptr<OfflineCacheManager>& manager, const std::string& mark) {
        std::promise<void> done;
        manager->cacheRequest(Type::dataSubmission, platform::toBytes(encodeJsonText(sampleSubmission(mark))),
                              [&] { done.set_value(); });
        done.get_future().get();
    }
};

TEST_F(FaultsTest, AMonitorThatFailsToStartHoldsWalksOnlyForABoundedTime) {
    runInOwnNetworkNamespace([&] {
        // Only loopback: a working monitor would report "offline" and nothing would be sent.
        ip("link set lo up");
        LoopbackServer server;
        useHttpClient({});  // its thread and sockets in this namespace
        configure(trackConfig(hostPort(server.port())));
        auto manager = OfflineCacheManager::shared();
        cacheRaw(manager, "a");
        cacheRaw(manager, "b");
        manager->setFirstPathWait(1s);
        // One monitor made and dropped first: the undefined-behaviour sanitizer
        // reads /proc/self/maps the first time it checks a type's vptr, and
        // would find no descriptor for it below.
        platform::PathMonitor::make().reset();
        {
            // No descriptor left for the monitor's sockets while it starts.
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            close(next);
            rlimit none = limit;
            none.rlim_cur = static_cast<rlim_t>(next);
            setrlimit(RLIMIT_NOFILE, &none);
            manager->startNetworkMonitoring();
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        EXPECT_TRUE(
            log.sink->contains("Network path monitor unavailable: rtnetlink socket failed: Too many open files"));
        auto walk = manager->resendCachedRequests();
        ASSERT_EQ(walk.wait_for(20s), std::future_status::ready) << "the walk waits for a report that never comes";
        EXPECT_TRUE(waitUntil([&] { return cached().empty(); }));
        EXPECT_EQ(server.requests().size(), 2u);
        EXPECT_TRUE(
            log.sink->contains("No network status reported within 1.0 s: Cached requests are sent as if online."));
        EXPECT_FALSE(manager->isCurrentlyOffline()) << "live sends are attempted";
        manager->stopNetworkMonitoring();
    });
}

// Completes every request with neither a response nor an error.
class SilentClient final : public platform::HttpClient {
public:
    using HttpClient::send;
    void send(platform::HttpRequest, Completion completion) override { completion(platform::HttpResult{}); }
};

TEST_F(FaultsTest, AClientAnsweringWithNothingIsAnInvalidResponse) {
    configure(trackConfig("127.0.0.1:9", "http", false));
    Service::shared()->setSession(std::make_shared<SilentClient>());
    try {
        Service::shared()->sendDataSubmission(sampleSubmission()).get();
        ADD_FAILURE() << "no error";
    } catch (const Service::ServiceError& error) {
        EXPECT_EQ(error.code(), Service::ServiceError::Code::invalidResponse);
    }
    EXPECT_TRUE(log.sink->contains("Received non-HTTP response"));
}

TEST_F(FaultsTest, ASendCutOffByShutdownAndTheNextConfigurationShareOneCache) {
    RawTcpServer silent;  // holds the live send until the client is shut down
    configure(trackConfig(silent.baseUrl().substr(7)));
    monitorPath(platform::PathStatus::satisfied);
    auto sent = Service::shared()->sendDataSubmission(sampleSubmission("cut-off"));
    ASSERT_TRUE(silent.waitForConnections(1));

    // The shutdown ends the manager, and a new configuration starts another at once.
    OfflineCacheManager::resetShared();
    auto next = OfflineCacheManager::shared();
    next->configure(true, 86400);
    cacheRaw(next, "next");
    client->shutdown();  // the cut-off send caches into the manager it started with
    sent.get();
    next->offlineCache().drain();

    std::vector<std::string> marks;
    platform::SqliteKeyValueStore store(dir / platform::SqliteKeyValueStore::kFileName);
    for (const auto& [key, value] : store.values("com.tavrin.OfflineCache/"))
        marks.push_back(
            Json::parse(platform::toString(decodeJson<OfflineCache::Request>(platform::toString(std::get<Bytes>(value)))
                                               .payload))["data"]["variables"]["mark"]);
    EXPECT_EQ(marks, (std::vector<std::string>{"next", "cut-off"}));
}

}  // namespace
}  // namespace tavrin::testing
