#include "tavrin/sdk/internal/user_defaults_utility.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::minimalConfig;
using UserDefaultsUtilityTest = testing::StoreTest;

TEST_F(UserDefaultsUtilityTest, WritesGoThroughToTheFileAtOnce) {
    auto store = countReads();
    UserDefaultsUtility::setString("123", "k");
    UserDefaultsUtility::setInt(1731667200123, "n");
    UserDefaultsUtility::save(minimalConfig(), "cfg");
    UserDefaultsUtility::save(platform::toBytes("raw"), "blob");
    EXPECT_EQ(store->flushes, 4);
    EXPECT_EQ(openFile()->string("k"), "123");
    EXPECT_EQ(openFile()->integer("n"), 1731667200123);
    EXPECT_EQ(platform::toString(openFile()->data("cfg").value_or(Bytes{})), encodeJsonText(minimalConfig()));
    // Raw bytes go in as a JSON string of their base64 form.
    EXPECT_EQ(platform::toString(openFile()->data("blob").value_or(Bytes{})),
              "\"" + platform::base64Encode("raw") + "\"");
    UserDefaultsUtility::remove("cfg");
    EXPECT_EQ(store->flushes, 5);
    EXPECT_EQ(openFile()->value("cfg"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), std::nullopt);
}

// The first read of a key fills the cache; later changes in the store are not seen.
TEST_F(UserDefaultsUtilityTest, ReadsAreCachedButMissesAreNot) {
    auto store = countReads();
    UserDefaultsUtility::save(minimalConfig(), "cfg");
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(store->reads, 0);
    EXPECT_EQ(UserDefaultsUtility::string("other"), std::nullopt);
    store->inner().setString("other", "first");
    EXPECT_EQ(UserDefaultsUtility::string("other"), "first");
    store->inner().setString("other", "second");
    EXPECT_EQ(UserDefaultsUtility::string("other"), "first");
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), minimalConfig());
    EXPECT_EQ(store->reads, 3);
}

// A read that misses the cache lingers after reaching the store, long enough
// for a write to finish meanwhile: it must not put back the value the write replaced.
TEST_F(UserDefaultsUtilityTest, RacingReadsNeverLeaveAStaleValueCached) {
    auto store = countReads();
    store->readPause = std::chrono::milliseconds(5);
    std::vector<std::string> stale;
    for (int round = 0; round < 30; ++round) {
        const std::string key = "global_user_id" + std::to_string(round);
        ASSERT_TRUE(store->inner().setString(key, "before"));
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (int w = 0; w < 2; ++w)
            threads.emplace_back([&, w] {
                while (!go) std::this_thread::yield();
                UserDefaultsUtility::setString("written by " + std::to_string(w), key);
            });
        for (int r = 0; r < 3; ++r)
            threads.emplace_back([&] {
                while (!go) std::this_thread::yield();
                for (int i = 0; i < 3; ++i) UserDefaultsUtility::string(key);
            });
        go = true;
        for (auto& thread : threads) thread.join();
        const auto cached = UserDefaultsUtility::string(key);
        const auto stored = store->inner().string(key);
        if (cached != stored || cached == "before") stale.push_back(key + " cached " + cached.value_or("<none>"));
    }
    EXPECT_TRUE(stale.empty()) << stale.size() << " of 30 rounds, first " << stale.front();
}

}  // namespace
}  // namespace tavrin
