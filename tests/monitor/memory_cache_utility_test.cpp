#include "tavrin/monitor/internal/memory_cache_utility.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace tavrin {
namespace {

class MemoryCacheUtilityTest : public ::testing::Test {
protected:
    void SetUp() override { MemoryCacheUtility::resetShared(); }
    void TearDown() override { MemoryCacheUtility::resetShared(); }
    MemoryCacheUtility& cache = MemoryCacheUtility::shared();
};

PushPayload payload(const std::string& id, std::int64_t order) { return PushPayload("pageview", "", {}, order, id); }

std::vector<std::string> idsOf(const std::vector<PushPayload>& payloads) {
    std::vector<std::string> ids;
    for (const auto& p : payloads) ids.push_back(p.id);
    return ids;
}

TEST_F(MemoryCacheUtilityTest, KeyedValuesAreStoredAsTheyAreAndReadByType) {
    using ProductData = std::map<std::string, CodableValue>;
    const ProductData product{{"product_track", CodableValue::array({CodableValue::string("product")})}};
    cache.set("ProductData", product);
    EXPECT_EQ(cache.get<ProductData>("ProductData"), product);
    // Another type under the same key is not converted.
    EXPECT_FALSE(cache.get<std::string>("ProductData"));

    cache.set("ProductData", std::string("replaced"));
    EXPECT_EQ(cache.get<std::string>("ProductData"), "replaced");
    cache.remove("ProductData");
    EXPECT_FALSE(cache.getAny("ProductData").has_value());
    EXPECT_FALSE(cache.get<int>("missing"));
}

TEST_F(MemoryCacheUtilityTest, BarrierWritesAreVisibleToLaterReadsFromAnyThread) {
    // Many writes queued back to back: each read must see the last one before it.
    for (int i = 0; i < 200; ++i) {
        cache.set("counter", i);
        ASSERT_EQ(cache.get<int>("counter"), i);
    }
    int seen = -1;
    std::thread([&] {
        cache.set("fromThread", 7);
        seen = cache.get<int>("fromThread").value_or(-1);
    }).join();
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(cache.get<int>("fromThread"), 7);
}

TEST_F(MemoryCacheUtilityTest, PushListKeepsOrderRemovesByIdsAndResets) {
    for (int i = 0; i < 5; ++i) cache.appendPushPayload(payload("P" + std::to_string(i), i));
    EXPECT_EQ(idsOf(cache.getPushPayloads()), (std::vector<std::string>{"P0", "P1", "P2", "P3", "P4"}));
    cache.removePushPayloads({"P3", "P0", "unknown"});
    EXPECT_EQ(idsOf(cache.getPushPayloads()), (std::vector<std::string>{"P1", "P2", "P4"}));

    // Payloads appended after a snapshot survive the removal of that snapshot.
    const auto snapshot = cache.getPushPayloads();
    cache.appendPushPayload(payload("P5", 5));
    cache.removePushPayloads(idsOf(snapshot));
    EXPECT_EQ(idsOf(cache.getPushPayloads()), (std::vector<std::string>{"P5"}));
    // The push list is separate from the keyed cache; a reset empties both.
    EXPECT_FALSE(cache.getAny("P5").has_value());
    cache.set("k", 1);
    MemoryCacheUtility::resetShared();
    EXPECT_FALSE(cache.get<int>("k"));
    EXPECT_TRUE(cache.getPushPayloads().empty());
}

TEST_F(MemoryCacheUtilityTest, ConcurrentAppendsAreAllKeptInEachThreadsOrder) {
    constexpr int perThread = 250;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) cache.appendPushPayload(payload(std::to_string(t) + "-" + std::to_string(i), i));
        });
    for (auto& th : threads) th.join();
    const auto all = cache.getPushPayloads();
    ASSERT_EQ(all.size(), 4u * perThread);
    std::map<char, std::int64_t> next;
    for (const auto& p : all) EXPECT_EQ(p.order, next[p.id[0]]++) << p.id;
}

}  // namespace
}  // namespace tavrin
