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

std::vector<std::string> idsOf(const std::vector<PushPayload>& payloads) {
    std::vector<std::string> ids;
    for (const auto& p : payloads) ids.push_back(p.id);
    return ids;
}

TEST_F(MemoryCacheUtilityTest, KeyedValueIsReadOnlyAsTheTypeItWasStoredAs) {
    cache.set("k", std::string("text"));
    EXPECT_EQ(cache.get<std::string>("k"), "text");
    EXPECT_FALSE(cache.get<int>("k"));
    cache.set("k", 7);
    EXPECT_EQ(cache.get<int>("k"), 7);
    cache.remove("k");
    EXPECT_FALSE(cache.getAny("k").has_value());
}

// Payloads appended after a snapshot survive the removal of that snapshot.
TEST_F(MemoryCacheUtilityTest, RemovingPushPayloadsByIdKeepsTheRestInOrder) {
    for (int i = 0; i < 5; ++i) cache.appendPushPayload(PushPayload("pageview", "", {}, i, "P" + std::to_string(i)));
    cache.removePushPayloads({"P3", "P0", "unknown"});
    const auto snapshot = cache.getPushPayloads();
    EXPECT_EQ(idsOf(snapshot), (std::vector<std::string>{"P1", "P2", "P4"}));
    cache.appendPushPayload(PushPayload("pageview", "", {}, 5, "P5"));
    cache.removePushPayloads(idsOf(snapshot));
    EXPECT_EQ(idsOf(cache.getPushPayloads()), std::vector<std::string>{"P5"});
}

}  // namespace
}  // namespace tavrin
