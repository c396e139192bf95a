// Runs under ThreadSanitizer as well (label "threads").
#include "tavrin/tracking/tracking_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <utility>

#include "tests/tracking/tracking_service_fixture.h"

namespace tavrin {
namespace {

using PushConcurrency = testing::TrackingServiceTest;

TEST_F(PushConcurrency, PushesFromFourThreadsAreStoredOnceAndNumberedWithoutGaps) {
    LoggerUtility::shared().setLogLevel(LogLevel::warning);  // 10,000 pushes' worth of lines would only slow it
    const auto service = start();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 2500;

    // The monitor empties the tag list now and then, as after each submission.
    std::atomic<bool> pushing{true};
    std::thread monitor([&] {
        while (pushing.load()) {
            MemoryCacheUtility::shared().remove(TagCache::shared().userDefaultsKey);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready.load() < kThreads) std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i)
                service->push({{"track", "t" + std::to_string(t)}, {"i", i}, {"price", 1.5}});
        });
    }
    for (auto& thread : threads) thread.join();
    settle(*service);
    pushing = false;
    monitor.join();

    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), std::size_t{kThreads * kPerThread});
    std::set<std::pair<std::string, std::int64_t>> seen;
    std::vector<int> lastOfThread(kThreads, -1);
    std::int64_t expectedOrder = 0;
    for (const auto& p : payloads) {
        // Stored in the order they were numbered, each thread's in its call order.
        EXPECT_EQ(p.order, ++expectedOrder);
        const auto i = p.customProperties.at("i").asInteger();
        const int t = p.track[1] - '0';
        EXPECT_TRUE(seen.emplace(p.track, i).second) << p.track << " " << i;
        EXPECT_GT(i, lastOfThread[t]);
        lastOfThread[t] = static_cast<int>(i);
    }
    EXPECT_EQ(seen.size(), std::size_t{kThreads * kPerThread});
    EXPECT_EQ(lastOfThread, std::vector<int>(kThreads, kPerThread - 1));
}

}  // namespace
}  // namespace tavrin
