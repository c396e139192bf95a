// Network flaps: a host submits at random intervals while its default route
// is removed and restored again and again, in the client namespace of a
// split network (fault_support.h), so without the route the server really is
// unreachable and the real rtnetlink monitor sees each change. Each
// submission either reaches the server once or its future reports the failed
// live send; none arrives twice, and once the network stays up the offline
// cache is empty.

#include <random>

#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/fault_support.h"

namespace tavrin::testing {
namespace {

TEST(TavrinServiceNetworkFlapTest, EachSubmissionArrivesOnceOrItsFutureFails) {
    TempDir dataDir;
    const int flaps = scaled(100), submissions = scaled(500);
    inSplitNetwork([&](LoopbackServer& server, const std::string& domain) {
        // A collector that takes a moment to answer: route changes also catch
        // requests in flight, live sends and resends alike.
        server.setHandler([](const RecordedRequest&) {
            thread_local std::mt19937 random(std::random_device{}());
            std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 200)(random)));
            return ScriptedResponse{};
        });
        ASSERT_TRUE(routeUp());
        LogCapture logs(LogLevel::info);
        platform::KeyValueStore::setDataDirectory(dataDir.path().string());
        TavrinService::configure(trackConfig(domain));
        ASSERT_TRUE(waitUntil([&] { return logs.sink->contains("Network status changed: Online"); }));
        std::thread flapper([&] {
            std::mt19937 random(std::random_device{}());
            for (int i = 0; i < 2 * flaps; ++i) {  // down, up; each after 20-500 ms
                std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 500)(random)));
                i % 2 ? routeUp() : routeDown();
            }
        });
        // Submissions spread over the time the flaps take, 520 ms each on average.
        std::mt19937 random(std::random_device{}());
        std::vector<std::future<void>> sent;
        for (int i = 0; i < submissions; ++i) {
            TrackingService::shared()->push({{"track", "pageview"}, {"uid", "f-" + std::to_string(i)}});
            sent.push_back(TrackingService::shared()->submit());
            std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, flaps * 1040 / submissions)(random)));
        }
        // A live send ends within the 30-second request timeout.
        std::vector<std::string> ok, failed, hung;
        for (int i = 0; i < submissions; ++i) {
            const std::string id = "f-" + std::to_string(i);
            if (sent[i].wait_for(40s) != std::future_status::ready) {
                hung.push_back(id);
            } else {
                try {
                    sent[i].get();
                    ok.push_back(id);
                } catch (...) {
                    failed.push_back(id);
                }
            }
        }
        flapper.join();
        // The last restoration started a walk; once the cache is empty, the
        // server has recorded every request it sent.
        auto manager = OfflineCacheManager::shared();
        waitUntil([&] { return manager->offlineCache().getCachedRequests().empty(); }, 300s);
        const auto left = manager->offlineCache().getCachedRequests().size();
        const auto offlineReports = logs.sink->count("Network status changed: Offline");
        std::size_t discarded = 0;
        for (const auto& line : logs.sink->messages(platform::LogType::error))
            discarded += line.find("exceeded maximum retries and will be discarded.") != std::string::npos;
        EXPECT_TRUE(TavrinService::shutdown(5s));
        platform::KeyValueStore::setDataDirectory(std::nullopt);

        // A cached request that failed all its attempts is discarded with a
        // warning, not lost silently: timing decides whether any is.
        const Deliveries delivered(server);
        std::vector<std::string> notDelivered;
        for (const auto& id : ok)
            if (delivered.count(id) == 0) notDelivered.push_back(id);
        const auto twice = delivered.duplicated();
        EXPECT_TRUE(hung.empty()) << hung.size() << " futures never completed, first " << hung.front();
        EXPECT_LE(notDelivered.size(), discarded) << "reported success but never arrived, first " << notDelivered.front();
        EXPECT_TRUE(twice.empty()) << twice.size() << " arrived more than once, first " << twice.front();
        EXPECT_EQ(left, 0u) << "requests still cached after the network came back";
        EXPECT_EQ(delivered.count("<without id>"), 0);
        // The scenario means something only if flaps were seen and used.
        EXPECT_GT(offlineReports, 0u);
        EXPECT_GT(delivered.resent, 0);
        printFigure("network flaps: " + std::to_string(submissions) + " submissions during " + std::to_string(flaps) +
                    " route removals (" + std::to_string(offlineReports) + " seen offline): " +
                    std::to_string(delivered.total - delivered.resent) + " delivered live, " + std::to_string(delivered.resent) +
                    " cached and resent, " + std::to_string(failed.size()) + " failed live sends reported in their future; " +
                    std::to_string(twice.size()) + " duplicated, " + std::to_string(left) + " left cached, " +
                    std::to_string(discarded) + " discarded after their last attempt");
    });
}

}  // namespace
}  // namespace tavrin::testing
