// The in-memory caches of the monitor: the tag list and the pushed payloads.

#include "tavrin/monitor/internal/tag_cache.h"

#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavrin {
namespace {

// The form the collector reads in every monitor report.
TEST(TagTest, InfoTagWritesEveryMemberWithItsExactKeyInOrder) {
    EXPECT_EQ(platform::dumpJson(Tag::makeInfo("AC04", "T-SDK: [CONSENT] - [AC04] x", 1700000000123, true).encode()),
              R"({"id":"AC04","name":"T-SDK: [CONSENT] - [AC04] x","source":"frontend","type":"info",)"
              R"("timestamp":1700000000123,"trigger":{"id":"","executed":true,"conditions":[],"excludeTriggers":[]},)"
              R"("http":{"general":{"requestUrl":"","requestMethod":"","requestStatus":200,"remoteAddress":""},)"
              R"("payload":{},"requestHeaders":{},"queryStringParameters":{},)"
              R"("response":{"status":200,"statusText":"","data":"","success":true,"headers":{}}},)"
              R"("variables":{"frontend":{},"backend":{},"constant":{},"enrichment":{}},"functions":{}})");
    EXPECT_FALSE(Tag::makeInfo("AI01", "n", 1, false).encode()["http"]["response"]["success"].get<bool>());
}

class TagCacheTest : public ::testing::Test {
protected:
    void SetUp() override { MemoryCacheUtility::resetShared(); }
    void TearDown() override { MemoryCacheUtility::resetShared(); }

    void add(const std::vector<std::pair<std::string, std::string>>& tags) {
        for (const auto& [id, name] : tags) cache.addOrReplace(Tag::makeInfo(id, name, 1, true));
    }
    static std::vector<std::string> namesOf(const std::vector<Tag>& tags) {
        std::vector<std::string> out;
        for (const auto& t : tags) out.push_back(t.name);
        return out;
    }
    std::vector<std::string> names() const { return namesOf(cache.tags()); }

    TagCache& cache = TagCache::shared();
};

// The start-up ("AI01") and stored-consent ("AC03") tags are kept once, the newest last.
TEST_F(TagCacheTest, StartUpTagsAreReplacedWhileOthersAccumulate) {
    add({{"AI01", "init 1"},
         {"AC03", "consent 1"},
         {"AD01", "push 1"},
         {"AC04", "c4"},
         {"AI01", "init 2"},
         {"AD01", "push 2"},
         {"AC03", "consent 2"},
         {"AC04", "c4"}});
    EXPECT_EQ(names(), (std::vector<std::string>{"push 1", "c4", "init 2", "push 2", "consent 2", "c4"}));
}

// Tags added while a report is on the wire stay for the next one.
TEST_F(TagCacheTest, RemovingASentSnapshotKeepsTagsAddedSinceIt) {
    add({{"AI01", "init 1"}, {"AD01", "push 1"}, {"AS01", "state 1"}});
    const auto sent = cache.snapshot();
    EXPECT_EQ(namesOf(sent.tags), (std::vector<std::string>{"init 1", "push 1", "state 1"}));
    add({{"AD01", "push 2"}, {"AI01", "init 2"}});
    cache.remove(sent);
    EXPECT_EQ(names(), (std::vector<std::string>{"push 2", "init 2"}));
    cache.remove(sent);
    EXPECT_EQ(names(), (std::vector<std::string>{"push 2", "init 2"}));

    // A snapshot taken before the whole list was removed never reaches a later list.
    const auto stale = cache.snapshot();
    MemoryCacheUtility::shared().remove(cache.userDefaultsKey);
    add({{"AD01", "fresh"}});
    cache.remove(stale);
    EXPECT_EQ(names(), std::vector<std::string>{"fresh"});
}

TEST_F(TagCacheTest, HoldsAtMostOneThousandDroppingTheOldestButTheStartUpTags) {
    // Pushes' tags are made when read; the start-up tags are made at once.
    const auto made = [&](const std::string& id, std::string name) {
        cache.addOrReplace(id, [id, name] { return Tag::makeInfo(id, name, 1, true); });
    };
    made("AD01", "first push");
    add({{"AI01", "init"}, {"AC03", "consent"}});
    // What the dropped tags hold is freed, on the pool.
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> dropped = held;
    for (int i = 0; i < 200; ++i) cache.addOrReplace("AD01", [held] { return Tag::makeInfo("AD01", "held", 1, true); });
    held.reset();
    for (int i = 200; i < 1500; ++i) made("AD01", "push " + std::to_string(i));
    EXPECT_TRUE(testing::waitUntil([&] { return dropped.expired(); }));
    auto kept = names();
    ASSERT_EQ(kept.size(), TagCache::capacity);
    EXPECT_EQ((std::vector<std::string>{kept[0], kept[1], kept[2], kept.back()}),
              (std::vector<std::string>{"init", "consent", "push 502", "push 1499"}));
    // Replacing a single tag at the cap keeps the size and moves it to the end.
    made("AI01", "init again");
    kept = names();
    ASSERT_EQ(kept.size(), TagCache::capacity);
    EXPECT_EQ((std::vector<std::string>{kept[0], kept[1], kept.back()}),
              (std::vector<std::string>{"consent", "push 502", "init again"}));
}

// A non-finite number would make the whole report unencodable.
TEST_F(TagCacheTest, NonFiniteNumbersAreDroppedOnTheWayIn) {
    const double nan = std::nan(""), inf = std::numeric_limits<double>::infinity();
    Tag tag = Tag::makeInfo("AD01", "push", 1, true);
    tag.variables.frontend = {{"price", 9.5}, {"bad", nan}, {"nested", Tag::Dictionary{{"deep", -inf}, {"ok", 1}}}};
    tag.trigger.conditions = {AnyCodable(1.5), AnyCodable(inf), AnyCodable(Tag::Array{AnyCodable(nan), "x"})};
    tag.functions = {{"f", AnyCodable(static_cast<float>(nan))}};
    cache.addOrReplace(tag);
    const auto stored = cache.tags();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_NO_THROW(stored[0].encode());
    EXPECT_TRUE(stored[0].variables.frontend ==
                (Tag::Dictionary{{"price", 9.5}, {"nested", Tag::Dictionary{{"ok", 1}}}}));
    EXPECT_TRUE(stored[0].trigger.conditions == (Tag::Array{AnyCodable(1.5), AnyCodable(Tag::Array{"x"})}));
    EXPECT_TRUE(stored[0].functions.empty());
}

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
