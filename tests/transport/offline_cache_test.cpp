#include "tavrin/transport/internal/offline_cache.h"

#include <gtest/gtest.h>

#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using Request = OfflineCache::Request;
using Type = OfflineCache::RequestType;
constexpr const char* kPrefix = "com.tavrin.OfflineCache/";

Request request(const std::string& body, double timestamp, Type type = Type::dataSubmission) {
    return Request{type, platform::toBytes(body), timestamp, 0};
}

std::vector<std::string> bodies(const std::vector<Request>& requests) {
    std::vector<std::string> out;
    for (const auto& r : requests) out.push_back(platform::toString(r.payload));
    return out;
}

// The cache finds its records by prefix: a listing that reaches past it would
// load foreign keys as requests.
TEST(SqliteKeyValueStoreTest, ValuesListsExactlyThePrefixedKeysInKeyOrder) {
    TempDir dir;
    platform::SqliteKeyValueStore store(dir / "kv.sqlite");
    for (const char* key : {"p/2", "p/10", "p.", "p0", "p", "q/1", "p/1"}) ASSERT_TRUE(store.setString(key, key));
    store.setInteger("p/int", 7);
    store.setData("p/\xff", platform::toBytes("x"));
    const auto listed = store.values("p/");
    std::vector<std::string> keys;
    for (const auto& [key, value] : listed) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"p/1", "p/10", "p/2", "p/int", "p/\xff"}));
    EXPECT_EQ(std::get<std::int64_t>(listed[3].second), 7);
    EXPECT_EQ(std::get<Bytes>(listed[4].second), platform::toBytes("x"));
}

class OfflineCacheTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::SqliteKeyValueStore> openStore() {
        return std::make_shared<platform::SqliteKeyValueStore>(dir / platform::SqliteKeyValueStore::kFileName);
    }
    TempDir dir;
    LogCapture log;
};

// Requests are matched by type and timestamp; of two alike, the older one.
TEST_F(OfflineCacheTest, RemoveAndRetryChangeTheFirstRequestOfTypeAndTimestamp) {
    OfflineCache cache(openStore());
    for (const auto& r : {request("a", 10), request("b", 20, Type::consentSubmission), request("c", 30), request("c2", 30)})
        cache.add(r);
    cache.remove(request("?", 20, Type::dataSubmission));
    cache.incrementRetryCount(request("?", 30));
    EXPECT_EQ(cache.getCachedRequests().at(2).retryCount, 1);
    cache.remove(request("?", 30));
    cache.remove(request("?", 20, Type::consentSubmission));
    EXPECT_EQ(bodies(cache.getCachedRequests()), (std::vector<std::string>{"a", "c2"}));
}

TEST_F(OfflineCacheTest, RestartReloadsRequestsInOrderWithTheirRetryCounts) {
    auto store = openStore();
    {
        OfflineCache cache(store);
        for (const auto& r : {request("a", 10), request("b", 20), request("c", 30)}) cache.add(r);
        cache.remove(request("?", 20));
        cache.incrementRetryCount(request("?", 10));
        cache.incrementRetryCount(request("?", 10));
    }
    // One record per request; the stored form is read by later versions too.
    const auto records = store->values(kPrefix);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].first, "com.tavrin.OfflineCache/00000000000000000000");
    EXPECT_EQ(platform::toString(std::get<Bytes>(records[0].second)),
              R"({"type":"dataSubmission","payload":"YQ==","timestamp":10.0,"retryCount":2})");

    OfflineCache reloaded(openStore());
    EXPECT_EQ(bodies(reloaded.getCachedRequests()), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(reloaded.getCachedRequests()[0].retryCount, 2);
    // A request added after the restart goes after the others, also on disk.
    reloaded.add(request("d", 40));
    reloaded.drain();
    EXPECT_EQ(store->values(kPrefix).back().first, OfflineCache::recordKey(3));
    EXPECT_EQ(bodies(OfflineCache(openStore()).getCachedRequests()), (std::vector<std::string>{"a", "c", "d"}));
}

TEST_F(OfflineCacheTest, FullCacheDropsTheOldestRequestForEachNewOne) {
    auto store = openStore();
    {
        OfflineCache cache(store);
        for (int i = 0; i < 1000; ++i) cache.add(request(std::to_string(i), i));
        cache.drain();
        log.sink->clear();
        cache.add(request("new", 1000));
        const auto requests = cache.getCachedRequests();
        ASSERT_EQ(requests.size(), 1000u);
        EXPECT_EQ(platform::toString(requests.front().payload), "1");
        EXPECT_EQ(platform::toString(requests.back().payload), "new");
        EXPECT_EQ(log.sink->messages(platform::LogType::error),
                  std::vector<std::string>{"Cache size exceeded. Oldest request removed."});
    }
    const auto records = store->values(kPrefix);
    ASSERT_EQ(records.size(), 1000u);
    EXPECT_EQ(records.front().first, OfflineCache::recordKey(1));
}

TEST_F(OfflineCacheTest, ExpiryRemovesRequestsOlderThanTheTimeout) {
    platform::Clock::setFixed(1000);
    auto store = openStore();
    OfflineCache cache(store);
    for (double t : {100.0, 899.5, 900.0, 950.0}) cache.add(request(std::to_string(t), t));
    cache.removeExpiredRequests(100);  // strictly before 900 goes
    EXPECT_EQ(bodies(cache.getCachedRequests()), (std::vector<std::string>{"900.000000", "950.000000"}));
    EXPECT_EQ(store->values(kPrefix).size(), 2u);
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin::testing
