#pragma once
// Collects debug tags in the memory cache until the monitor sends them.
// The list lives in memory only, whatever the key's name suggests.

#include <string>
#include <vector>

#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag.h"

namespace tavrin {

class TagCache {
public:
    // Uses the shared memory cache.
    TagCache();
    explicit TagCache(MemoryCacheUtility& cache) : cache_(&cache) {}

    static TagCache& shared();

    // Appends the tag; a start-up ("AI01") or stored-consent ("AC03") tag
    // first drops any earlier tag of the same id, so those stay single.
    // The read and the write-back are separate cache operations: two tags
    // added at the same moment from different threads can lose one.
    void addOrReplace(const Tag& tag);

    // The cached tags, oldest first (empty when none are cached).
    std::vector<Tag> tags() const;

    const std::string userDefaultsKey = "TagCacheKey";

private:
    MemoryCacheUtility* cache_;
};

}  // namespace tavrin
