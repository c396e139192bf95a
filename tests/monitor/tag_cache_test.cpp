#include "tavrin/monitor/tag_cache.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

class TagCacheTest : public ::testing::Test {
protected:
    void SetUp() override { MemoryCacheUtility::resetShared(); }
    void TearDown() override { MemoryCacheUtility::resetShared(); }

    static Tag tag(const std::string& id, const std::string& name) { return Tag::makeInfo(id, name, 1, true); }
    static std::vector<std::string> names(const std::vector<Tag>& tags) {
        std::vector<std::string> out;
        for (const auto& t : tags) out.push_back(t.name);
        return out;
    }

    testing::LogCapture log{LogLevel::debug};
    TagCache& cache = TagCache::shared();
};

TEST_F(TagCacheTest, StartUpAndStoredConsentTagsStaySingleNewestLast) {
    EXPECT_EQ(cache.userDefaultsKey, "TagCacheKey");
    EXPECT_TRUE(cache.tags().empty());

    cache.addOrReplace(tag("AI01", "init 1"));
    cache.addOrReplace(tag("AC03", "consent 1"));
    cache.addOrReplace(tag("AD01", "push 1"));
    cache.addOrReplace(tag("AI01", "init 2"));
    cache.addOrReplace(tag("AD01", "push 2"));
    cache.addOrReplace(tag("AC03", "consent 2"));

    EXPECT_EQ(names(cache.tags()), (std::vector<std::string>{"push 1", "init 2", "push 2", "consent 2"}));
}

TEST_F(TagCacheTest, OtherTagsAccumulateInOrder) {
    for (const char* id : {"AD01", "AD01", "AS01", "AC04", "AC04"}) cache.addOrReplace(tag(id, std::string(id) + "#"));
    EXPECT_EQ(names(cache.tags()), (std::vector<std::string>{"AD01#", "AD01#", "AS01#", "AC04#", "AC04#"}));
}

TEST_F(TagCacheTest, ListIsAnOrdinaryMemoryCacheEntry) {
    cache.addOrReplace(tag("AD01", "one"));
    const auto stored = MemoryCacheUtility::shared().get<std::vector<Tag>>("TagCacheKey");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->size(), 1u);

    // What the monitor does after a successful send: the next tag starts a new list.
    MemoryCacheUtility::shared().remove("TagCacheKey");
    cache.addOrReplace(tag("AI01", "after send"));
    EXPECT_EQ(names(cache.tags()), std::vector<std::string>{"after send"});
}

TEST_F(TagCacheTest, LogLinePrintsTheNameNotTheId) {
    cache.addOrReplace(tag("AD01", "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push()"));
    const auto info = log.sink->messages(platform::LogType::info);
    EXPECT_EQ(info, std::vector<std::string>{"Added or replaced tag with id: T-SDK: [TAVRIN DL] - [AD01] Received SDK.push()"});
}

}  // namespace
}  // namespace tavrin
