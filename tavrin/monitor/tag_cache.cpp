#include "tavrin/monitor/internal/tag_cache.h"

#include <atomic>
#include <memory>
#include <utility>

#include "tavrin/platform/dispatch.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

// Numbers tags across every list of the process, so a snapshot taken before
// the whole list was removed can never reach tags of a list started later.
std::uint64_t nextSequence() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

// Dropped tags freed in one task on the pool.
constexpr std::size_t kFreedTogether = 256;

std::string joined(const CodingPath& path) {
    std::string out;
    for (const auto& part : path) {
        if (!out.empty()) out += '.';
        out += part;
    }
    return out;
}

}  // namespace

void TagList::add(std::string id, TagMaker make, std::uint64_t sequence, std::size_t capacity) {
    if (isSingle(id)) {
        auto [single, added] = singles_.try_emplace(id, sequence);
        if (!added) {
            entries_.erase(single->second);
            single->second = sequence;
        }
    }
    entries_.emplace_hint(entries_.end(), sequence, Entry{std::move(id), std::move(make)});
    while (entries_.size() > capacity) {
        // The two single tags are never dropped, so the oldest other tag is
        // at most the third from the front.
        auto oldest = entries_.begin();
        while (oldest != entries_.end() && isSingle(oldest->second.id)) ++oldest;
        if (oldest == entries_.end()) break;
        dropped_.push_back(std::move(oldest->second));
        entries_.erase(oldest);
    }
    if (dropped_.size() >= kFreedTogether) {
        platform::TaskPool::shared().detach([spent = std::exchange(dropped_, {})] {});
    }
}

void TagList::removeThrough(std::uint64_t sequence) {
    entries_.erase(entries_.begin(), entries_.upper_bound(sequence));
    std::erase_if(singles_, [&](const auto& single) { return single.second <= sequence; });
}

std::vector<Tag> TagList::tags() const {
    // Filled in place: a growing vector of tags is much code for a small host.
    std::vector<Tag> out(entries_.size());
    auto next = out.begin();
    for (const auto& [sequence, entry] : entries_) *next++ = entry.make();
    return out;
}

TagCache::TagCache() : cache_(&MemoryCacheUtility::shared()) {}

TagCache& TagCache::shared() {
    static auto* instance = new TagCache();
    return *instance;
}

void TagCache::addOrReplace(Tag tag) {
    auto& logger = LoggerUtility::shared();
    tag.dropNonFiniteNumbers([&](const CodingPath& path) {
        logger.debug(
            [&] { return "Warning: Non-finite number dropped from tag " + tag.id + " at " + joined(path) + "."; });
    });
    // Prints the name on purpose: it carries the readable message of the step.
    logger.info([&] { return "Added or replaced tag with id: " + tag.name; });
    std::string id = tag.id;
    store(std::move(id), [tag = std::make_shared<const Tag>(std::move(tag))] { return *tag; });
}

void TagCache::addOrReplace(std::string id, TagList::TagMaker make) {
    LoggerUtility::shared().info([&] { return "Added or replaced tag with id: " + make().name; });
    store(std::move(id), std::move(make));
}

void TagCache::store(std::string id, TagList::TagMaker make) {
    // The number is drawn inside the write, so numbers follow the list's order.
    cache_->update<TagList>(userDefaultsKey, [id = std::move(id), make = std::move(make)](TagList& list) mutable {
        list.add(std::move(id), std::move(make), nextSequence(), capacity);
    });
}

std::vector<Tag> TagCache::tags() const {
    return cache_->read<TagList>(userDefaultsKey,
                                 [](const TagList* list) { return list ? list->tags() : std::vector<Tag>{}; });
}

TagCache::Snapshot TagCache::snapshot() const {
    return cache_->read<TagList>(userDefaultsKey, [](const TagList* list) {
        return list ? Snapshot{list->tags(), list->lastSequence()} : Snapshot{};
    });
}

void TagCache::remove(const Snapshot& sent) {
    if (sent.through == 0) return;
    cache_->update<TagList>(userDefaultsKey, [through = sent.through](TagList& list) { list.removeThrough(through); });
}

}  // namespace tavrin
