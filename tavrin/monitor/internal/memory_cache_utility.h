#pragma once
// The SDK's in-memory store: a keyed object cache (tag list, product data)
// and the list of pushed payloads waiting for the next submission. Nothing
// here is persisted. Reads run synchronously and see every write submitted
// before them; writes are asynchronous barrier blocks applied in order.

#include <any>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/object_cache.h"
#include "tavrin/tracking/internal/push_payload.h"

namespace tavrin {

class MemoryCacheUtility {
public:
    MemoryCacheUtility();
    MemoryCacheUtility(const MemoryCacheUtility&) = delete;
    MemoryCacheUtility& operator=(const MemoryCacheUtility&) = delete;

    static MemoryCacheUtility& shared();
    // Tests: applies pending writes, then empties the keyed cache and the push list.
    static void resetShared();

    // ---- keyed cache; values are kept as they are (no serialisation)

    template <class T>
    void set(const std::string& key, T value) {
        setAny(key, std::any(std::move(value)));
    }
    void setAny(const std::string& key, std::any value);

    // The value under the key when it holds a T; nothing when absent or of another type.
    template <class T>
    std::optional<T> get(const std::string& key) const {
        return queue_.sync([&] { return cache_.objectAs<T>(key); });
    }
    // The value under the key, empty when absent.
    std::any getAny(const std::string& key) const;

    void remove(const std::string& key);

    // ---- pushed payloads, in push order

    void appendPushPayload(PushPayload payload);
    std::vector<PushPayload> getPushPayloads() const;
    // Drops every payload whose id is listed; the rest keep their order.
    void removePushPayloads(std::vector<std::string> ids);

    // Blocks until every write submitted so far has been applied.
    void drain() const { queue_.drain(); }

    const std::string& queueLabel() const noexcept { return queue_.label(); }

private:
    void clear();

    // Reads take the queue's shared side; sync/drain do not change what is stored.
    mutable platform::ConcurrentQueue queue_;
    platform::ObjectCache cache_;
    std::vector<PushPayload> pushPayloads_;
};

}  // namespace tavrin
