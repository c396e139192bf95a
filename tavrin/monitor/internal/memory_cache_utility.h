#pragma once
// The SDK's in-memory store: a keyed object cache (tag list, product data)
// and the list of pushed payloads waiting for the next submission. Nothing
// here is persisted. Reads run synchronously and see every write submitted
// before them; a write is applied at once on the caller's thread, holding the
// data exclusively (writes are all in memory, so no caller waits long).

#include <any>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/model/internal/push_payload.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/object_cache.h"

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
        return read<T>(key, [](const T* value) { return value ? std::optional<T>(*value) : std::nullopt; });
    }
    // The value under the key, empty when absent.
    std::any getAny(const std::string& key) const;

    // Calls `reader` with the value under the key (nullptr when absent or not
    // a T) without copying it, and returns what the reader returns.
    template <class T, class F>
    auto read(const std::string& key, F&& reader) const {
        return queue_.sync([&] {
            const auto slot = cache_.objectAs<Slot>(key);
            return reader(slot ? std::any_cast<T>(slot->get()) : static_cast<const T*>(nullptr));
        });
    }

    // Changes the value under the key in place, in one write: `mutate` gets
    // the stored T (a default T when the key holds none or another type), so
    // no update made meanwhile by another thread can be lost.
    template <class T, class F>
    void update(const std::string& key, F mutate) {
        updateAny(key, [mutate = std::move(mutate)](std::any& value) mutable {
            T* stored = std::any_cast<T>(&value);
            mutate(stored ? *stored : value.emplace<T>());
        });
    }

    void remove(const std::string& key);

    // ---- pushed payloads, in push order

    using PushPayloads = std::deque<PushPayload>;

    // Adds `payload` (about `bytes` in memory), then drops the oldest while
    // more than `maxPushes` or more than `maxBytes` are kept (the newest one
    // always stays). Returns how many were dropped.
    std::size_t appendPushPayload(PushPayload payload, std::size_t bytes = 0,
                                  std::size_t maxPushes = static_cast<std::size_t>(-1),
                                  std::size_t maxBytes = static_cast<std::size_t>(-1));
    std::vector<PushPayload> getPushPayloads() const;
    // Drops every payload whose id is listed; the rest keep their order.
    void removePushPayloads(std::vector<std::string> ids);
    // Moves every payload out, in order, leaving none: what a submission
    // sends, without copying or moving each push. Not from inside a read of the cache.
    PushPayloads takePushPayloads();

    // Blocks until every write submitted so far has been applied.
    void drain() const { queue_.drain(); }

    // Fork handlers: no read or write is halfway through while the process forks.
    void holdForFork() { queue_.holdForFork(); }
    void releaseAfterFork() { queue_.releaseAfterFork(); }

    const std::string& queueLabel() const noexcept { return queue_.label(); }

private:
    // Each value is boxed, so a write can change it in place instead of
    // copying it out of the object cache and back. The box's content is only
    // touched on the queue: read under its shared side, changed in writes.
    using Slot = std::shared_ptr<std::any>;

    void updateAny(const std::string& key, std::function<void(std::any&)> mutate);
    void clear();

    platform::ObjectCache cache_;
    // The oldest are dropped from the front; each one's approximate size
    // beside it, at the same position.
    PushPayloads pushPayloads_;
    std::deque<std::size_t> pushPayloadSizes_;
    std::size_t pushPayloadBytes_ = 0;
    // Reads take the queue's shared side; sync/drain do not change what is stored.
    // Declared last so it is destroyed first: at exit its thread runs the
    // writes still queued (a tag added just before) while the cache and the
    // push list are alive. The other way round, a process that had shut the
    // SDK down cleanly could crash on its way out.
    mutable platform::ConcurrentQueue queue_;
};

}  // namespace tavrin
