#include "tavrin/consent/internal/user_defaults_utility.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::minimalConfig;
using testing::StoreTest;

TEST_F(StoreTest, TextAndIntegersWriteThroughAndTheCacheHidesChangesBehindItsBack) {
    auto store = countReads();
    UserDefaultsUtility::setString("123", "k");
    UserDefaultsUtility::setInt(1731667200123, "n");
    EXPECT_EQ(store->writes, 2);
    EXPECT_EQ(store->flushes, 2);
    EXPECT_EQ(openFile()->string("k"), "123");
    EXPECT_EQ(openFile()->integer("n"), 1731667200123);
    EXPECT_EQ(UserDefaultsUtility::string("k"), "123");
    EXPECT_EQ(store->reads, 0);

    // The first read of a key fills the cache; later changes in the store are not seen.
    // A miss is not cached.
    EXPECT_EQ(UserDefaultsUtility::string("other"), std::nullopt);
    store->inner().setString("other", "first");
    EXPECT_EQ(UserDefaultsUtility::string("other"), "first");
    store->inner().setString("other", "second");
    EXPECT_EQ(UserDefaultsUtility::string("other"), "first");
    EXPECT_EQ(store->reads, 2);
}

TEST_F(StoreTest, TextReadsOfOtherKindsAreAbsent) {
    auto store = countReads();
    store->inner().setInteger("n", 5);
    store->inner().setData("d", platform::toBytes("\"x\""));
    EXPECT_EQ(UserDefaultsUtility::string("n"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::string("d"), std::nullopt);

    // A cached integer does not answer a text read; the store is asked, and the
    // miss drops the cached integer, so the next text read asks again.
    UserDefaultsUtility::setInt(7, "i");
    const int before = store->reads;
    EXPECT_EQ(UserDefaultsUtility::string("i"), std::nullopt);
    store->inner().setString("i", "now text");
    EXPECT_EQ(UserDefaultsUtility::string("i"), "now text");
    EXPECT_EQ(UserDefaultsUtility::string("i"), "now text");
    EXPECT_EQ(store->reads, before + 2);
}

TEST_F(StoreTest, SavedBytesAreAJsonStringOfBase64CachedRawAndUndecodableOnesAbsentSilently) {
    auto store = countReads();
    const Bytes inner = platform::toBytes(R"({"x":"allow"})");
    UserDefaultsUtility::save(inner, "blob");
    EXPECT_EQ(store->writes, 1);
    EXPECT_EQ(store->flushes, 1);
    EXPECT_EQ(platform::toString(openFile()->data("blob").value_or(Bytes{})),
              "\"" + platform::base64Encode(inner) + "\"");
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    EXPECT_EQ(store->reads, 0);

    // From the file after the cache is gone, then cached again.
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    store->inner().setData("blob", platform::toBytes("\"" + platform::base64Encode("other") + "\""));
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    EXPECT_EQ(store->reads, 1);

    for (const char* stored : {R"({"x":"allow"})", "\"not base64!\"", "\"YWJj\"junk", "", "\xff"}) {
        store->inner().setData("bad", platform::toBytes(stored));
        EXPECT_EQ(UserDefaultsUtility::loadData("bad"), std::nullopt) << stored;
    }
    store->inner().setString("text", "\"YWJj\"");  // text, not data
    EXPECT_EQ(UserDefaultsUtility::loadData("text"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::loadData("missing"), std::nullopt);
    EXPECT_TRUE(log.sink->messages().empty());
    // Nothing of that was cached.
    store->inner().setData("bad", platform::toBytes("\"YWJj\""));
    EXPECT_EQ(UserDefaultsUtility::loadData("bad"), platform::toBytes("abc"));
}

TEST_F(StoreTest, RecordsRoundTripThroughTheFileAndTheCacheUntilRemoved) {
    auto store = countReads();
    UserDefaultsUtility::save(minimalConfig(), "cfg");
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(store->reads, 0);
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(store->reads, 1);

    UserDefaultsUtility::remove("cfg");
    EXPECT_EQ(store->removals, 1);
    EXPECT_EQ(store->flushes, 2);
    EXPECT_EQ(openFile()->value("cfg"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), std::nullopt);
    EXPECT_EQ(store->reads, 2);

    // A cached value of another type is not taken for the record.
    UserDefaultsUtility::setString("x", "other");
    store->inner().setData("other", platform::toBytes("garbage"));
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("other"), std::nullopt);
    EXPECT_TRUE(log.sink->messages().empty());
}

// Reads that miss the cache race writes of the same key (a read lingers after
// reaching the store, long enough for a write to finish meanwhile). Whatever the interleaving, the cached
// value ends up being the one the store holds: a read never puts back a value
// that a write has already replaced.
TEST_F(StoreTest, RacingReadsAndWritesNeverLeaveAStaleValueCached) {
    auto store = countReads();
    store->readPause = std::chrono::milliseconds(5);
    constexpr int kRounds = 30, kWriters = 2, kReaders = 3;
    std::vector<std::string> stale;
    for (int round = 0; round < kRounds; ++round) {
        const std::string key = "global_user_id" + std::to_string(round);
        ASSERT_TRUE(store->inner().setString(key, "before"));
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int w = 0; w < kWriters; ++w)
            threads.emplace_back([&, w] {
                while (!go) std::this_thread::yield();
                UserDefaultsUtility::setString("written by " + std::to_string(w), key);
            });
        for (int r = 0; r < kReaders; ++r)
            threads.emplace_back([&] {
                while (!go) std::this_thread::yield();
                for (int i = 0; i < 3; ++i) UserDefaultsUtility::string(key);
            });
        go = true;
        for (auto& thread : threads) thread.join();
        const auto cached = UserDefaultsUtility::string(key);
        const auto stored = store->inner().string(key);
        if (cached != stored || cached == "before")
            stale.push_back(key + " cached " + cached.value_or("<none>") + ", stored " + stored.value_or("<none>"));
    }
    EXPECT_TRUE(stale.empty()) << stale.size() << " of " << kRounds << " rounds, first " << stale.front();
}

TEST_F(StoreTest, EncodingFailureIsLoggedAndWritesNothing) {
    auto store = countReads();
    UserDefaultsUtility::save(minimalConfig(std::nan("")), "cfg");
    UserDefaultsUtility::save(std::string("\xff"), "bad");  // not UTF-8: no JSON either
    EXPECT_EQ(store->writes, 0);
    EXPECT_EQ(store->flushes, 0);
    EXPECT_EQ(openFile()->value("cfg"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), std::nullopt);

    const auto lines = log.sink->messages(platform::LogType::info);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("❌ UserDefaultsUtility: Failed to encode and save data for key cfg - ", 0), 0u)
        << lines[0];
    EXPECT_NE(lines[0].find("offlineTrackingTimeout"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[1].rfind("❌ UserDefaultsUtility: Failed to encode and save data for key bad - ", 0), 0u)
        << lines[1];
}

}  // namespace
}  // namespace tavrin
