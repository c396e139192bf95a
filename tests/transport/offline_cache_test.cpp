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
    std::shared_ptr<platform::KeyValueStore> openStore() { return platform::os::openDefaultStore(dir.path()); }
    TempDir dir;
    LogCapture log;
};

TEST_F(OfflineCacheTest, ChangesToRequestsSurviveARestart) {
    auto store = openStore();
    {
        OfflineCache cache(store);
        for (const auto& r :
             {request("a", 10), request("b", 20, Type::consentSubmission), request("c", 30), request("c2", 30)})
            cache.add(r);
        // Requests are matched by type and timestamp; of two alike, the older one.
        cache.remove(request("?", 20, Type::dataSubmission));
        cache.remove(request("?", 20, Type::consentSubmission));
        cache.incrementRetryCount(request("?", 30));
        cache.remove(request("?", 30));
        cache.incrementRetryCount(request("?", 10));
        cache.incrementRetryCount(request("?", 10));
    }
    // One record per request; the stored form is read by later versions too.
    const auto records = store->values(kPrefix);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].first, "com.tavrin.OfflineCache/00000000000000000000");
    EXPECT_EQ(platform::toString(std::get<Bytes>(records[0].second)),
              R"({"type":"dataSubmission","payload":"YQ==","timestamp":10.0,"retryCount":2})");
    // Keys just outside the records' prefix are not the cache's to load (or delete).
    for (const char* foreign : {"com.tavrin.OfflineCache", "com.tavrin.OfflineCache0"}) store->setString(foreign, "{}");

    OfflineCache reloaded(openStore());
    const auto requests = reloaded.getCachedRequests();
    EXPECT_EQ(bodies(requests), (std::vector<std::string>{"a", "c2"}));
    EXPECT_EQ(requests.at(0).retryCount, 2);
    EXPECT_EQ(requests.at(1).retryCount, 0);
    EXPECT_TRUE(log.sink->messages(platform::LogType::error).empty());
    // A request added after the restart goes after the others, also on disk.
    reloaded.add(request("d", 40));
    reloaded.drain();
    const auto relaunched = openStore();
    EXPECT_EQ(relaunched->values(kPrefix).back().first, OfflineCache::recordKey(4));
    EXPECT_EQ(bodies(OfflineCache(relaunched).getCachedRequests()), (std::vector<std::string>{"a", "c2", "d"}));
    EXPECT_EQ(relaunched->values("com.tavrin.OfflineCache").size(), 5u);
}

// The resend walk changes records by entry: its retry counts and removals
// reach the disk as the request-based changes above do.
TEST_F(OfflineCacheTest, TheWalksChangesByEntrySurviveARestart) {
    auto store = openStore();
    {
        OfflineCache cache(store);
        for (const auto& r : {request("a", 10), request("b", 20), request("c", 30)}) cache.add(r);
        cache.drain();
        const auto entries = cache.entries();
        ASSERT_EQ(entries.size(), 3u);
        cache.incrementRetryCount(entries[0].sequence);
        cache.incrementRetryCount(entries[0].sequence);
        cache.removeEntries({entries[1].sequence});
        cache.drain();
    }
    const auto requests = OfflineCache(openStore()).getCachedRequests();
    EXPECT_EQ(bodies(requests), (std::vector<std::string>{"a", "c"}));
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].retryCount, 2);
    EXPECT_EQ(requests[1].retryCount, 0);
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
