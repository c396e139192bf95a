// The offline manager over the real rtnetlink path monitor, in a network
// namespace of its own whose default route the test removes and restores
// (needs root or CAP_SYS_ADMIN; skipped elsewhere).

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>

#include "tests/support/transport_fixture.h"
#include "tests/support/network_namespace.h"

namespace tavrin::testing {
namespace {

using NetworkNamespaceTest = TransportTest;

TEST_F(NetworkNamespaceTest, LosingTheDefaultRouteCachesAndRegainingItResendsOnceInOrder) {
    runInOwnNetworkNamespace([&] {
        ip("link set lo up");
        if (!ip("link add v0 type veth peer name v1")) return;
        ip("link set v0 up");
        ip("link set v1 up");
        ip("addr add 10.200.0.1/24 dev v0");
        ip("route add default via 10.200.0.2");
        LoopbackServer server;  // on this namespace's loopback, reachable without the default route
        useHttpClient({});
        configure(trackConfig(hostPort(server.port())));
        auto manager = OfflineCacheManager::shared();
        manager->startNetworkMonitoring();
        ASSERT_TRUE(waitUntil([&] { return log.sink->count("Network status changed: Online") == 1; }));

        ip("route del default via 10.200.0.2");
        ASSERT_TRUE(waitUntil([&] { return manager->isCurrentlyOffline(); })) << "no offline report";
        for (const char* mark : {"o1", "o2", "o3"}) Service::shared()->sendDataSubmission(sampleSubmission(mark)).get();
        EXPECT_EQ(cached().size(), 3u);
        EXPECT_TRUE(server.requests().empty());

        ip("route add default via 10.200.0.2");
        ASSERT_TRUE(waitUntil([&] { return server.requests().size() >= 3 && cached().empty(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        auto requests = server.requests();
        ASSERT_EQ(requests.size(), 3u);
        std::vector<std::string> marks;  // resends of data may overlap: any order
        for (const auto& request : requests) {
            const Json body = Json::parse(request.body);
            marks.push_back(body["data"]["variables"]["mark"]);
            EXPECT_EQ(body["app_offline_cached_data"], "true");
            EXPECT_TRUE(body.contains("app_offline_resend_timestamp"));
        }
        std::sort(marks.begin(), marks.end());
        EXPECT_EQ(marks, (std::vector<std::string>{"o1", "o2", "o3"}));
        EXPECT_EQ(log.sink->count("Cached requests successfully resent after regaining network connectivity."), 1u);

        // Quick flaps with submissions in between: each delivered exactly once.
        for (int i = 0; i < 20; ++i) {
            ip("route del default via 10.200.0.2");
            Service::shared()->sendDataSubmission(sampleSubmission("f" + std::to_string(i))).get();
            ip("route add default via 10.200.0.2");
        }
        ASSERT_TRUE(waitUntil([&] { return server.requests().size() >= 23 && cached().empty(); }, std::chrono::seconds(20)))
            << server.requests().size() << " delivered, " << cached().size() << " cached";
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_GT(log.sink->count("Offline: Caching data submission request"), 3u) << "no flap was seen offline";
        std::map<std::string, int> deliveries;
        for (const auto& request : server.requests())
            ++deliveries[Json::parse(request.body)["data"]["variables"]["mark"].get<std::string>()];
        EXPECT_EQ(deliveries.size(), 23u);
        for (const auto& [mark, times] : deliveries) EXPECT_EQ(times, 1) << mark;
        manager->stopNetworkMonitoring();
        client->shutdown();
    });
}

}  // namespace
}  // namespace tavrin::testing
