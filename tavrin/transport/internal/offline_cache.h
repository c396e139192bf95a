#pragma once
// The persisted list of request bodies that could not be sent while the
// device was offline, with their kind, caching time and failed resends.
//
// Each request is one record of the key-value store, keyed
// "com.tavrin.OfflineCache/<zero-padded sequence>" so key order is insertion
// order, and holding the JSON object {"type", "payload" (base64), "timestamp",
// "retryCount"}. A change writes only the request it changes: rewriting the
// whole list on every change made draining a full cache quadratic.
//
// Changes are barrier writes on the queue "com.tavrin.OfflineCacheQueue",
// applied one at a time in submission order; each store write is synchronous
// inside its barrier, so a change's `done` runs only once the change is on
// disk. Reads are synchronous and see every change submitted before them.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/platform/bytes.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/tracking/internal/coding.h"

namespace tavrin {

namespace platform {
class KeyValueStore;
}

class OfflineCache {
public:
    struct Request {
        enum class RequestType { consentSubmission, dataSubmission, monitorRequest };

        RequestType type = RequestType::dataSubmission;
        Bytes payload;           // the exact JSON body that was to be sent
        double timestamp = 0;    // seconds since 1970 when it was cached
        std::int64_t retryCount = 0;

        Json encode() const;
        static Request decode(const Decoder& decoder);
        friend bool operator==(const Request&, const Request&) = default;
    };
    using RequestType = Request::RequestType;
    // Runs once the change is durable (on the cache's queue; must not block).
    using Done = std::function<void()>;

    static constexpr const char* cacheKey = "com.tavrin.OfflineCache";
    static constexpr std::int64_t maxCacheSize = 1000;

    // Uses the standard store. Loading is scheduled at once on the queue.
    OfflineCache();
    explicit OfflineCache(std::shared_ptr<platform::KeyValueStore> store);
    ~OfflineCache();
    OfflineCache(const OfflineCache&) = delete;
    OfflineCache& operator=(const OfflineCache&) = delete;

    void add(Request request, Done done = {});
    // The first request of that type and exact timestamp; none: nothing happens.
    void remove(const Request& request, Done done = {});
    void incrementRetryCount(const Request& request, Done done = {});
    // Drops every request cached before now minus `timeout` seconds; always
    // logs the count, also 0.
    void removeExpiredRequests(double timeout, Done done = {});
    // A snapshot, oldest first.
    std::vector<Request> getCachedRequests() const;

    // Blocks until every change submitted so far is applied.
    void drain() const { queue_.drain(); }

    const std::string& queueLabel() const noexcept { return queue_.label(); }

    // "com.tavrin.OfflineCache/00000000000000000042".
    static std::string recordKey(std::uint64_t sequence);

private:
    struct Entry {
        Request request;
        std::uint64_t sequence;
    };

    void change(std::function<void()> apply, Done done);
    void loadCache();
    void saveRecord(const Entry& entry);
    void eraseRecord(const Entry& entry);
    std::deque<Entry>::iterator find(const Request& request);

    std::shared_ptr<platform::KeyValueStore> store_;
    // Owned by the queue's writes.
    std::deque<Entry> cachedRequests_;
    std::uint64_t nextSequence_ = 0;
    mutable platform::ConcurrentQueue queue_;
};

const char* requestTypeName(OfflineCache::RequestType type) noexcept;
std::optional<OfflineCache::RequestType> requestTypeFromName(std::string_view name) noexcept;

}  // namespace tavrin
