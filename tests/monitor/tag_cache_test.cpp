#include "tavrin/monitor/internal/tag_cache.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

class TagCacheTest : public ::testing::Test {
protected:
    void SetUp() override { MemoryCacheUtility::resetShared(); }
    void TearDown() override { MemoryCacheUtility::resetShared(); }

    void add(const std::vector<std::pair<std::string, std::string>>& tags) {
        for (const auto& [id, name] : tags) cache.addOrReplace(Tag::makeInfo(id, name, 1, true));
    }
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const auto& t : cache.tags()) out.push_back(t.name);
        return out;
    }

    testing::LogCapture log{LogLevel::debug};
    TagCache& cache = TagCache::shared();
};

TEST_F(TagCacheTest, StartUpAndStoredConsentTagsStaySingleNewestLastOthersAccumulate) {
    add({{"AI01", "init 1"}, {"AC03", "consent 1"}, {"AD01", "push 1"}, {"AS01", "state"}, {"AC04", "c4"},
         {"AI01", "init 2"}, {"AD01", "push 2"}, {"AC03", "consent 2"}, {"AC04", "c4"}});
    EXPECT_EQ(names(), (std::vector<std::string>{"push 1", "state", "c4", "init 2", "push 2", "consent 2", "c4"}));
    EXPECT_EQ(log.sink->messages(platform::LogType::info).back(), "Added or replaced tag with id: c4");
}

TEST_F(TagCacheTest, ListIsAnOrdinaryMemoryCacheEntry) {
    add({{"AD01", "one"}});
    const auto stored = MemoryCacheUtility::shared().get<std::vector<Tag>>("TagCacheKey");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->size(), 1u);

    // What the monitor does after a successful send: the next tag starts a new list.
    MemoryCacheUtility::shared().remove("TagCacheKey");
    add({{"AI01", "after send"}});
    EXPECT_EQ(names(), std::vector<std::string>{"after send"});
}

}  // namespace
}  // namespace tavrin
