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

class OfflineCacheTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::SqliteKeyValueStore> openStore() {
        return std::make_shared<platform::SqliteKeyValueStore>(dir / platform::SqliteKeyValueStore::kFileName);
    }
    TempDir dir;
    LogCapture log;
};

TEST(KeyValueStoreListing, GivesExactlyThePrefixedKeysInKeyOrder) {
    TempDir dir;
    platform::SqliteKeyValueStore store(dir / "kv.sqlite");
    for (const char* key : {"p/2", "p/10", "p.", "p0", "p", "q/1", "p/1"}) ASSERT_TRUE(store.setString(key, key));
    store.setInteger("p/int", 7);
    store.setData("p/\xff", platform::toBytes("x"));
    store.setString(std::string("\xff\xff", 2), "top");
    const auto listed = store.values("p/");
    std::vector<std::string> keys;
    for (const auto& [key, value] : listed) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"p/1", "p/10", "p/2", "p/int", "p/\xff"}));
    EXPECT_EQ(std::get<std::string>(listed[0].second), "p/1");
    EXPECT_EQ(std::get<std::int64_t>(listed[3].second), 7);
    EXPECT_EQ(std::get<Bytes>(listed[4].second), platform::toBytes("x"));
    EXPECT_EQ(store.values("").size(), 10u);
    // A prefix of 0xFF bytes has no upper bound.
    EXPECT_EQ(store.values(std::string("\xff", 1)).size(), 1u);
    EXPECT_TRUE(store.values("none").empty());
}

TEST_F(OfflineCacheTest, KeepsOneRecordPerRequestInInsertionOrderAcrossLaunches) {
    auto store = openStore();
    {
        OfflineCache cache(store);
        cache.add(request("a", 10));
        cache.add(request("b", 20, Type::consentSubmission));
        cache.add(request("c", 30));
        cache.add(request("c-twin", 30));
        cache.remove(request("?", 20, Type::dataSubmission));  // wrong type: no match
        cache.remove(request("?", 20, Type::consentSubmission));
        cache.incrementRetryCount(request("?", 30));  // the first of the two at 30
        cache.remove(request("?", 30));               // again the first: "c" goes, "c-twin" stays
        cache.incrementRetryCount(request("?", 10));
        cache.incrementRetryCount(request("?", 10));
        EXPECT_EQ(bodies(cache.getCachedRequests()), (std::vector<std::string>{"a", "c-twin"}));
    }
    EXPECT_TRUE(log.sink->contains("Request of type consentSubmission removed from cache."));
    EXPECT_TRUE(log.sink->contains("Retry count incremented for request of type dataSubmission. New retry count: 2."));
    EXPECT_TRUE(log.sink->contains("Request of type dataSubmission saved to cache with retry count: 0."));

    // On disk: one record per request, in the element form.
    const auto records = store->values(kPrefix);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].first, OfflineCache::recordKey(0));
    EXPECT_EQ(records[1].first, OfflineCache::recordKey(3));
    EXPECT_EQ(records[0].first, "com.tavrin.OfflineCache/00000000000000000000");
    EXPECT_EQ(platform::toString(std::get<Bytes>(records[0].second)),
              R"({"type":"dataSubmission","payload":"YQ==","timestamp":10.0,"retryCount":2})");

    log.sink->clear();
    OfflineCache reloaded(openStore());
    const auto requests = reloaded.getCachedRequests();
    EXPECT_EQ(bodies(requests), (std::vector<std::string>{"a", "c-twin"}));
    EXPECT_EQ(requests[0].retryCount, 2);
    EXPECT_TRUE(log.sink->contains("Cache loaded from disk."));
    // New records continue after the highest sequence.
    reloaded.add(request("d", 40));
    reloaded.drain();
    EXPECT_EQ(store->values(kPrefix).back().first, OfflineCache::recordKey(4));
}

TEST_F(OfflineCacheTest, UndecodableRecordsAreRemovedAndTheRestLoad) {
    auto store = openStore();
    store->setData(OfflineCache::recordKey(1), platform::toBytes(R"({"type":"dataSubmission","payload":"YQ==","timestamp":1,"retryCount":0})"));
    store->setData(OfflineCache::recordKey(2), platform::toBytes(R"({"type":"pageView","payload":"YQ==","timestamp":1,"retryCount":0})"));
    store->setData(OfflineCache::recordKey(3), platform::toBytes("not json"));
    store->setData(OfflineCache::recordKey(4), platform::toBytes(R"({"type":"consentSubmission","payload":"Yg==","timestamp":2})"));
    store->setString(std::string(kPrefix) + "junk", "{}");
    store->setData(OfflineCache::recordKey(5), platform::toBytes(R"({"type":"consentSubmission","payload":"Yg==","timestamp":2,"retryCount":1})"));
    OfflineCache cache(store);
    EXPECT_EQ(bodies(cache.getCachedRequests()), (std::vector<std::string>{"a", "b"}));
    const auto errors = log.sink->messages(platform::LogType::error);
    ASSERT_EQ(errors.size(), 4u) << ::testing::PrintToString(errors);
    for (const auto& line : errors) EXPECT_EQ(line.rfind("Failed to load cache: ", 0), 0u) << line;
    const auto remaining = store->values(kPrefix);
    ASSERT_EQ(remaining.size(), 2u);
    EXPECT_EQ(remaining[0].first, OfflineCache::recordKey(1));
    EXPECT_EQ(remaining[1].first, OfflineCache::recordKey(5));
}

TEST_F(OfflineCacheTest, FullCacheDropsTheOldestForEachAddition) {
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
        const auto warnings = log.sink->messages(platform::LogType::error);
        EXPECT_EQ(warnings, std::vector<std::string>{"Cache size exceeded. Oldest request removed."});
    }
    const auto records = store->values(kPrefix);
    ASSERT_EQ(records.size(), 1000u);
    EXPECT_EQ(records.front().first, OfflineCache::recordKey(1));
}

TEST_F(OfflineCacheTest, ExpiryRemovesOlderThanTheTimeoutAndAlwaysLogs) {
    platform::Clock::setFixed(1000);
    auto store = openStore();
    OfflineCache cache(store);
    cache.removeExpiredRequests(0);
    cache.drain();
    EXPECT_TRUE(log.sink->contains("0 expired requests removed from cache."));
    for (double t : {100.0, 899.5, 900.0, 950.0}) cache.add(request(std::to_string(t), t));
    cache.removeExpiredRequests(100);  // strictly before 900 goes
    EXPECT_EQ(cache.getCachedRequests().size(), 2u);
    EXPECT_TRUE(log.sink->contains("2 expired requests removed from cache."));
    EXPECT_EQ(store->values(kPrefix).size(), 2u);
    cache.removeExpiredRequests(0);
    EXPECT_TRUE(cache.getCachedRequests().empty());
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin::testing
