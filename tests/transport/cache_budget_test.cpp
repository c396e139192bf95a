// The offline cache's byte budget: a total (oldest dropped first) and a limit
// per request (larger ones refused), kept across launches without reading
// every payload into memory at start-up.

#include <gtest/gtest.h>

#include <fstream>

#include "tavrin/platform/linux/sqlite_key_value_store.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using Type = OfflineCache::RequestType;
constexpr std::size_t KiB = 1024;

long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

class CacheBudgetTest : public TransportTest {
protected:
    void TearDown() override {
        OfflineCache::setLimits(OfflineCache::defaultMaxTotalBytes, OfflineCache::defaultMaxRequestBytes);
        TransportTest::TearDown();
    }
    OfflineCache::Request request(std::size_t bytes, double timestamp) {
        return {Type::dataSubmission, Bytes(bytes, 'x'), timestamp, 0};
    }
    std::shared_ptr<platform::SqliteKeyValueStore> store =
        std::make_shared<platform::SqliteKeyValueStore>(dir / "budget.sqlite");
};

TEST_F(CacheBudgetTest, TheOldestGoFirstToMakeRoomAndOversizedRequestsAreRefused) {
    TavrinService::setOfflineCacheLimits(10 * KiB, 4 * KiB);
    EXPECT_TRUE(log.sink->contains("Offline cache limits set to 10240 bytes in total, 4096 bytes per request."));
    OfflineCache cache(store);
    for (int i = 0; i < 5; ++i) cache.add(request(3 * KiB, i));
    std::promise<bool> kept;
    cache.tryAdd(request(4 * KiB + 1, 9), [&](bool added) { kept.set_value(added); });
    EXPECT_FALSE(kept.get_future().get());
    std::vector<double> left;
    for (const auto& entry : cache.entries()) left.push_back(entry.timestamp);
    EXPECT_EQ(left, (std::vector<double>{2, 3, 4}));
    EXPECT_EQ(log.sink->count("Cache byte limit exceeded. Oldest request removed."), 2u);
    EXPECT_TRUE(
        log.sink->contains("Request of type dataSubmission not cached: its 4097 bytes exceed the limit of 4096 "
                           "bytes per request."));
    EXPECT_EQ(store->keySizes("com.tavrin.OfflineCache/").size(), 3u);

    // An offline submission too large for the cache fails instead of vanishing.
    monitorPath(platform::PathStatus::unsatisfied);
    configure(trackConfig("127.0.0.1:9"));
    auto big = sampleSubmission(std::string(8 * KiB, 'm'));
    EXPECT_THROW(Service::shared()->sendDataSubmission(big).get(), std::length_error);
    EXPECT_NO_THROW(Service::shared()->sendDataSubmission(sampleSubmission()).get());
}

TEST_F(CacheBudgetTest, StartUpReadsRecordsOneAtATimeAndDropsWhatTheBudgetCannotHold) {
    // Twelve records of 900 KiB, written as an earlier launch with a larger
    // budget would have left them.
    std::vector<platform::KeyValueStore::Change> records;
    for (int i = 0; i < 12; ++i)
        records.push_back(
            {OfflineCache::recordKey(i), platform::toBytes(platform::dumpJson(request(900 * KiB, i).encode()))});
    ASSERT_TRUE(store->apply(records));
    records.clear();

    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = peakResidentKiB();
    auto cache = std::make_unique<OfflineCache>(store);
    const auto entries = cache->entries();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // there shadow memory dwarfs the heap
    EXPECT_LT(peakResidentKiB() - before, 10 * 1024) << "KiB more at the peak of loading 14 MB of records";
#else
    (void)before;
#endif
    ASSERT_EQ(entries.size(), 11u);  // 11 * 900 KiB fit in 10 MiB
    EXPECT_EQ(entries.front().sequence, 1u);
    EXPECT_EQ(log.sink->count("Cache byte limit exceeded. Oldest request removed."), 1u);
    EXPECT_EQ(cache->request(entries.back())->payload.size(), 900 * KiB);

    // With a smaller limit per request, records larger than a request may be
    // are dropped unread.
    cache.reset();
    OfflineCache::setLimits(10 << 20, 512 * KiB);
    log.sink->clear();
    EXPECT_TRUE(OfflineCache(store).entries().empty());
    const auto errors = log.sink->messages(platform::LogType::error);
    ASSERT_EQ(errors.size(), 11u);
    EXPECT_EQ(errors[0].rfind("Failed to load cache: ", 0), 0u);
    EXPECT_NE(errors[0].find("larger than a cached request may be"), std::string::npos) << errors[0];
    EXPECT_TRUE(errors[0].ends_with("(record com.tavrin.OfflineCache/00000000000000000001 removed)")) << errors[0];
    EXPECT_TRUE(store->keySizes("com.tavrin.OfflineCache/").empty());
}

}  // namespace
}  // namespace tavrin::testing
