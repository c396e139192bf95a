#pragma once
// Collects debug tags in the memory cache until the monitor sends them.
// The list lives in memory only, whatever the key's name suggests.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag.h"

namespace tavrin {

// The value kept under the tag cache's key: tags in the order they were added,
// each under a sequence number that no later tag of the process reuses.
class TagList {
public:
    // Makes a tag when it is read. Most tags are dropped unread (a process
    // without a debug code never sends them), and some take long to make.
    using TagMaker = std::function<Tag()>;

    // Appends the tag of id `id` that `make` makes (a start-up or
    // stored-consent tag first drops its predecessor) and, beyond `capacity`,
    // drops the oldest other tag. Constant time amortised apart from the
    // logarithmic index lookups. Dropped tags are freed together on the
    // shared pool, a few hundred at a time: a push's tag holds the pushed
    // dictionary, and freeing them one by one is work the adding thread need
    // not do.
    void add(std::string id, TagMaker make, std::uint64_t sequence, std::size_t capacity);
    // Drops every tag numbered up to `sequence`.
    void removeThrough(std::uint64_t sequence);

    std::vector<Tag> tags() const;
    // The newest tag's number, 0 when empty.
    std::uint64_t lastSequence() const noexcept { return entries_.empty() ? 0 : entries_.rbegin()->first; }
    std::size_t size() const noexcept { return entries_.size(); }

private:
    static bool isSingle(const std::string& id) { return id == "AI01" || id == "AC03"; }

    // A tag is large: the list keeps only what makes it.
    struct Entry {
        std::string id;
        TagMaker make;
    };

    std::map<std::uint64_t, Entry> entries_;
    std::vector<Entry> dropped_;  // waiting to be freed together
    // The numbers of the single "AI01" and "AC03" tags, when present.
    std::map<std::string, std::uint64_t> singles_;
};

class TagCache {
public:
    // Tags kept at most: a process without a debug code never sends (and so
    // never clears) them, and must not keep every tag forever.
    static constexpr std::size_t capacity = 1000;

    // The tags as a reader found them, and how far that reading reached.
    struct Snapshot {
        std::vector<Tag> tags;
        std::uint64_t through = 0;
    };

    // Uses the shared memory cache.
    TagCache();
    explicit TagCache(MemoryCacheUtility& cache) : cache_(&cache) {}

    static TagCache& shared();

    // Appends the tag; a start-up ("AI01") or stored-consent ("AC03") tag
    // first drops any earlier tag of the same id, so those stay single. Beyond
    // `capacity` tags the oldest other than those two is dropped. NaN and
    // infinite numbers in the tag's values are dropped with a debug line, so
    // the list can always be encoded. One write on the cache's queue: tags
    // added at the same moment from different threads are all kept.
    void addOrReplace(Tag tag);
    // The same for a tag of id `id` that `make` makes when it is read; what
    // it makes must hold finite numbers only.
    void addOrReplace(std::string id, TagList::TagMaker make);

    // The cached tags, oldest first (empty when none are cached).
    std::vector<Tag> tags() const;
    // The cached tags with the mark that `remove` takes after they were sent.
    Snapshot snapshot() const;
    // Removes the tags of the snapshot that are still cached; tags added
    // since it was taken (a newer "AI01" among them) stay for the next send.
    void remove(const Snapshot& sent);

    const std::string userDefaultsKey = "TagCacheKey";

private:
    void store(std::string id, TagList::TagMaker make);

    MemoryCacheUtility* cache_;
};

}  // namespace tavrin
