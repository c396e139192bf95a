#include "tavrin/monitor/internal/memory_cache_utility.h"

#include <algorithm>
#include <unordered_set>

namespace tavrin {

MemoryCacheUtility::MemoryCacheUtility() : queue_("com.tavrin.cache") {}

MemoryCacheUtility& MemoryCacheUtility::shared() {
    static auto* instance = new MemoryCacheUtility();
    return *instance;
}

void MemoryCacheUtility::resetShared() {
    auto& cache = shared();
    cache.clear();
    cache.drain();
}

void MemoryCacheUtility::setAny(const std::string& key, std::any value) {
    queue_.barrier([this, key, value = std::move(value)]() mutable {
        cache_.setObject(key, std::make_shared<std::any>(std::move(value)));
    });
}

std::any MemoryCacheUtility::getAny(const std::string& key) const {
    return queue_.sync([&] {
        const auto slot = cache_.objectAs<Slot>(key);
        return slot ? **slot : std::any{};
    });
}

void MemoryCacheUtility::updateAny(const std::string& key, std::function<void(std::any&)> mutate) {
    queue_.barrier([this, key, mutate = std::move(mutate)] {
        auto slot = cache_.objectAs<Slot>(key);
        if (!slot) {
            slot = std::make_shared<std::any>();
            cache_.setObject(key, *slot);
        }
        mutate(**slot);
    });
}

void MemoryCacheUtility::remove(const std::string& key) {
    queue_.barrier([this, key] { cache_.removeObject(key); });
}

void MemoryCacheUtility::appendPushPayload(PushPayload payload) {
    queue_.barrier([this, payload = std::move(payload)]() mutable { pushPayloads_.push_back(std::move(payload)); });
}

std::vector<PushPayload> MemoryCacheUtility::getPushPayloads() const {
    return queue_.sync([&] { return pushPayloads_; });
}

void MemoryCacheUtility::removePushPayloads(std::vector<std::string> ids) {
    queue_.barrier([this, ids = std::move(ids)] {
        const std::unordered_set<std::string> drop(ids.begin(), ids.end());
        std::erase_if(pushPayloads_, [&](const PushPayload& p) { return drop.contains(p.id); });
    });
}

void MemoryCacheUtility::clear() {
    queue_.barrier([this] {
        cache_.removeAllObjects();
        pushPayloads_.clear();
    });
}

}  // namespace tavrin
