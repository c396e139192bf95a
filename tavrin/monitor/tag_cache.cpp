#include "tavrin/monitor/internal/tag_cache.h"

#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

TagCache::TagCache() : cache_(&MemoryCacheUtility::shared()) {}

TagCache& TagCache::shared() {
    static TagCache instance;
    return instance;
}

void TagCache::addOrReplace(const Tag& tag) {
    std::vector<Tag> list = tags();
    if (tag.id == "AI01" || tag.id == "AC03")
        std::erase_if(list, [&](const Tag& t) { return t.id == tag.id; });
    list.push_back(tag);
    // Prints the name on purpose: it carries the readable message of the step.
    LoggerUtility::shared().info([&] { return "Added or replaced tag with id: " + tag.name; });
    cache_->set(userDefaultsKey, std::move(list));
}

std::vector<Tag> TagCache::tags() const {
    return cache_->get<std::vector<Tag>>(userDefaultsKey).value_or(std::vector<Tag>{});
}

}  // namespace tavrin
