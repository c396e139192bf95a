// Network flaps: a host submits at random intervals while its default route
// is removed and restored again and again. Each submission either reaches
// the server exactly once or its future reports the failed live send; none
// is lost silently, none arrives twice, and once the network stays up the
// offline cache is empty.
//
// The host runs in the client namespace of a SplitNetwork, so without the
// route the server really is unreachable and the real rtnetlink monitor sees
// each change (tests/reliability/netfault_support.h).

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"
#include "tests/reliability/netfault_support.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;

TEST(NetworkFlaps, EverySubmissionArrivesOnceOrItsFutureReportsTheFailure) {
    SplitNetwork network;
    if (const auto reason = network.setUp(); !reason.empty()) GTEST_SKIP() << reason;
    TempDir dataDir;
    const int flaps = scaled(100);
    const int submissions = scaled(500);
    // Spread the submissions over the time the flaps take (each flap two
    // intervals of 20-500 ms, 520 ms on average).
    const int meanGapMs = flaps * 520 / submissions;

    // A collector takes a moment to answer, so route changes also catch
    // requests in flight, live sends and resends alike.
    network.server->setHandler([](const RecordedRequest&) {
        thread_local std::mt19937 random(std::random_device{}());
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 200)(random)));
        return ScriptedResponse{};
    });

    std::vector<std::string> ok, failed, hung;
    std::size_t left = 0;
    long offlineReports = 0, cachedOffline = 0, resendFailures = 0, discarded = 0;
    network.inClient([&] {
        ASSERT_TRUE(SplitNetwork::routeUp());
        LogCapture logs(LogLevel::info);
        platform::KeyValueStore::setDataDirectory(dataDir.path().string());
        TavrinService::configure(trackConfig(network.domain()));
        auto tracking = TrackingService::shared();
        auto manager = OfflineCacheManager::shared();
        const auto linesWith = [&](const std::string& text) {
            const auto lines = logs.sink->messages();
            return std::count(lines.begin(), lines.end(), text);
        };
        ASSERT_TRUE(waitUntil([&] { return linesWith("Network status changed: Online") > 0; }));

        std::thread flapper([&] {
            std::mt19937 random(std::random_device{}());
            std::uniform_int_distribution<int> interval(20, 500);
            for (int i = 0; i < flaps; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(interval(random)));
                SplitNetwork::routeDown();
                std::this_thread::sleep_for(std::chrono::milliseconds(interval(random)));
                SplitNetwork::routeUp();
            }
        });
        std::mt19937 random(std::random_device{}());
        std::uniform_int_distribution<int> gap(0, 2 * meanGapMs);
        std::vector<std::pair<std::string, std::future<void>>> sent;
        for (int i = 0; i < submissions; ++i) {
            const std::string id = "f-" + std::to_string(i);
            tracking->push({{"track", "pageview"}, {"uid", id}});
            sent.emplace_back(id, tracking->submit());
            std::this_thread::sleep_for(std::chrono::milliseconds(gap(random)));
        }
        // A live send is bounded by the 30-second request timeout.
        for (auto& [id, future] : sent) {
            if (future.wait_for(40s) != std::future_status::ready) {
                hung.push_back(id);
                continue;
            }
            try {
                future.get();
                ok.push_back(id);
            } catch (...) {
                failed.push_back(id);
            }
        }
        flapper.join();

        // The last restore started a resend; when the cache is empty, every
        // request it sent has been recorded by the server.
        waitUntil([&] { return manager->offlineCache().getCachedRequests().empty(); }, 60s);
        left = manager->offlineCache().getCachedRequests().size();
        offlineReports = linesWith("Network status changed: Offline");
        cachedOffline = linesWith("Offline: Caching data submission request");
        for (const auto& line : logs.sink->messages()) {
            if (line.rfind("Network error: ", 0) == 0 || line.rfind("Unexpected error: ", 0) == 0) ++resendFailures;
            if (line.find("exceeded maximum retries") != std::string::npos) ++discarded;
        }
        EXPECT_TRUE(TavrinService::shutdown(5s));
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    });

    const auto delivered = Deliveries::of(*network.server);
    std::vector<std::string> lost;
    for (const auto& id : ok)
        if (delivered.count(id) != 1) lost.push_back(id + " x" + std::to_string(delivered.count(id)));
    int failedButArrived = 0;
    for (const auto& id : failed) failedButArrived += delivered.count(id) > 0;
    const auto twice = delivered.duplicated();
    EXPECT_TRUE(hung.empty()) << hung.size() << " futures never completed, first " << hung.front();
    EXPECT_TRUE(lost.empty()) << lost.size() << " reported success but did not arrive once, first " << lost.front();
    EXPECT_TRUE(twice.empty()) << twice.size() << " arrived more than once, first " << twice.front();
    EXPECT_EQ(left, 0u) << "requests still cached after the network came back";
    EXPECT_EQ(delivered.count("<unreadable>") + delivered.count("<without id>"), 0);
    // The scenario only means something if the flaps were seen and used.
    EXPECT_GE(offlineReports, flaps / 2);
    EXPECT_GT(cachedOffline, 0);
    printFigure("network flaps: " + std::to_string(submissions) + " submissions during " + std::to_string(flaps) +
                " default-route removals and restorations (20-500 ms apart, " + std::to_string(offlineReports) +
                " seen offline): " + std::to_string(delivered.total() - delivered.resent) +
                " delivered live, " + std::to_string(delivered.resent) + " cached and resent, " +
                std::to_string(failed.size()) + " live sends failed with the error in the future (" +
                std::to_string(failedButArrived) + " of them had reached the server); " + std::to_string(lost.size()) +
                " silently lost, " + std::to_string(twice.size()) + " duplicated, " + std::to_string(left) +
                " left in the cache; " + std::to_string(resendFailures) + " failed resend attempts, " +
                std::to_string(discarded) + " cached requests discarded after their fourth failure");
}

}  // namespace
}  // namespace tavrin::testing
