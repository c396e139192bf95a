#include "tavrin/monitor/internal/memory_cache_utility.h"

#include <algorithm>
#include <atomic>
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

std::size_t MemoryCacheUtility::appendPushPayload(PushPayload payload, std::size_t bytes, std::size_t maxPushes,
                                                  std::size_t maxBytes) {
    // Shared: inside a read of this cache the write runs later, and counts nothing here.
    auto dropped = std::make_shared<std::atomic<std::size_t>>(0);
    queue_.barrier([this, payload = std::move(payload), bytes, maxPushes, maxBytes, dropped]() mutable {
        pushPayloads_.push_back(std::move(payload));
        pushPayloadSizes_.push_back(bytes);
        pushPayloadBytes_ += bytes;
        while (pushPayloads_.size() > 1 && (pushPayloads_.size() > maxPushes || pushPayloadBytes_ > maxBytes)) {
            pushPayloadBytes_ -= pushPayloadSizes_.front();
            pushPayloads_.pop_front();
            pushPayloadSizes_.pop_front();
            dropped->fetch_add(1, std::memory_order_relaxed);
        }
    });
    return dropped->load(std::memory_order_relaxed);
}

std::vector<PushPayload> MemoryCacheUtility::getPushPayloads() const {
    return queue_.sync([&] { return std::vector<PushPayload>(pushPayloads_.begin(), pushPayloads_.end()); });
}

MemoryCacheUtility::PushPayloads MemoryCacheUtility::takePushPayloads() {
    // Shared with the write, which a read of this cache on the calling thread
    // would defer (there is none on the submission path).
    auto taken = std::make_shared<PushPayloads>();
    queue_.barrier([this, taken] {
        taken->swap(pushPayloads_);
        pushPayloadSizes_.clear();
        pushPayloadBytes_ = 0;
    });
    return std::move(*taken);
}

void MemoryCacheUtility::removePushPayloads(std::vector<std::string> ids) {
    queue_.barrier([this, ids = std::move(ids)] {
        const std::unordered_set<std::string> drop(ids.begin(), ids.end());
        PushPayloads keptPayloads;
        std::deque<std::size_t> keptSizes;
        for (std::size_t i = 0; i < pushPayloads_.size(); ++i) {
            if (drop.contains(pushPayloads_[i].id)) {
                pushPayloadBytes_ -= pushPayloadSizes_[i];
            } else {
                keptPayloads.push_back(std::move(pushPayloads_[i]));
                keptSizes.push_back(pushPayloadSizes_[i]);
            }
        }
        pushPayloads_ = std::move(keptPayloads);
        pushPayloadSizes_ = std::move(keptSizes);
    });
}

void MemoryCacheUtility::clear() {
    queue_.barrier([this] {
        cache_.removeAllObjects();
        pushPayloads_.clear();
        pushPayloadSizes_.clear();
        pushPayloadBytes_ = 0;
    });
}

}  // namespace tavrin
