#pragma once
// The persisted list of request bodies that could not be sent while the
// device was offline (or the server was failing), with their kind, caching
// time and failed resends.
//
// Each request is one record of the key-value store, keyed
// "com.tavrin.OfflineCache/<zero-padded sequence>" so key order is insertion
// order, and holding the JSON object {"type", "payload" (base64), "timestamp",
// "retryCount"}. A change writes only the requests it changes: rewriting the
// whole list on every change made draining a full cache quadratic.
//
// Only the list's metadata stays in memory; a payload is read from the store
// when it is sent, and start-up reads the records one by one, so memory does
// not grow with what is cached. Besides the 1000-entry cap there is a byte
// budget: a total (oldest dropped first to make room) and a per-request limit
// (a larger request is refused).
//
// Changes are barrier writes on the queue "com.tavrin.OfflineCacheQueue",
// applied in submission order; the changes waiting when a write starts are
// written together in one transaction, so requests that arrive together (a
// burst of submissions, a window of resends ending) cost one durable write. A
// change's `done` runs only once the change is on disk. Reads are synchronous
// and see every change submitted before them.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "tavrin/platform/bytes.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/coding.h"
#include "tavrin/platform/key_value_store.h"

namespace tavrin {

class OfflineCache {
public:
    struct Request {
        enum class RequestType { consentSubmission, dataSubmission, monitorRequest };

        RequestType type = RequestType::dataSubmission;
        Bytes payload;         // the exact JSON body that was to be sent
        double timestamp = 0;  // seconds since 1970 when it was cached
        std::int64_t retryCount = 0;

        Json encode() const;
        static Request decode(const Decoder& decoder);
        friend bool operator==(const Request&, const Request&) = default;
    };
    using RequestType = Request::RequestType;

    // A cached request as the list keeps it: all but the payload.
    struct Entry {
        std::uint64_t sequence = 0;  // its record's number; unique in the store
        RequestType type = RequestType::dataSubmission;
        double timestamp = 0;
        std::int64_t retryCount = 0;
        std::size_t payloadBytes = 0;
    };

    // Runs once the change is durable (on the cache's queue; must not block).
    using Done = std::function<void()>;
    // The same for an addition, told whether the request was kept.
    using Added = std::function<void(bool added)>;

    static constexpr const char* cacheKey = "com.tavrin.OfflineCache";
    static constexpr std::int64_t maxCacheSize = 1000;
    static constexpr std::size_t defaultMaxTotalBytes = std::size_t{10} << 20;
    static constexpr std::size_t defaultMaxRequestBytes = std::size_t{1} << 20;

    // The payload bytes all cached requests together may hold, and one
    // request may have; process-wide, applied from the next addition (and at
    // start-up). A request limit above the total is cut to it.
    static void setLimits(std::size_t maxTotalBytes, std::size_t maxRequestBytes);
    static std::size_t maxTotalBytes();
    static std::size_t maxRequestBytes();

    // The one cache of `store` in this process, created when there is none.
    // Two caches of one store would each number new records from what they
    // loaded, and overwrite each other's (a shutdown's late writes against the
    // next configuration's cache); one owner per store keeps them apart.
    static std::shared_ptr<OfflineCache> forStore(std::shared_ptr<platform::KeyValueStore> store);

    // Uses the standard store. Loading is scheduled at once on the queue.
    OfflineCache();
    explicit OfflineCache(std::shared_ptr<platform::KeyValueStore> store);
    ~OfflineCache();
    OfflineCache(const OfflineCache&) = delete;
    OfflineCache& operator=(const OfflineCache&) = delete;

    // `done` runs also when the request is refused (too large).
    void add(Request request, Done done = {});
    void tryAdd(Request request, Added added);
    // The first request of that type and exact timestamp; none: nothing happens.
    void remove(const Request& request, Done done = {});
    void incrementRetryCount(const Request& request, Done done = {});
    // Drops every request cached before now minus `timeout` seconds; always
    // logs the count, also 0.
    void removeExpiredRequests(double timeout, Done done = {});
    // A snapshot, oldest first, payloads read from the store (every one of
    // them: for inspection, not for walking a large cache).
    std::vector<Request> getCachedRequests() const;

    // ---- by entry, for the resend walk
    // The list without payloads, oldest first.
    std::vector<Entry> entries() const;
    // The entry's request with its payload, read from the store; nothing when
    // it is gone (dropped meanwhile) or its record no longer decodes.
    std::optional<Request> request(const Entry& entry) const;
    // Removes the requests of these records, all in one write.
    void removeEntries(std::vector<std::uint64_t> sequences, Done done = {});
    void incrementRetryCount(std::uint64_t sequence, Done done = {});

    // Blocks until every change submitted so far is applied.
    void drain() const { queue_.drain(); }

    const std::string& queueLabel() const noexcept { return queue_.label(); }

    // "com.tavrin.OfflineCache/00000000000000000042".
    static std::string recordKey(std::uint64_t sequence);

private:
    // The store changes of one write, gathered from the changes waiting.
    struct Batch {
        std::vector<platform::KeyValueStore::Change> changes;
        // Records new in this batch: removed again, they need no write at all.
        std::unordered_set<std::string> created;
        void set(std::string key, Bytes value) {
            changes.push_back({std::move(key), platform::KeyValueStore::Value(std::move(value))});
        }
        void erase(std::string key) { changes.push_back({std::move(key), std::nullopt}); }
        // The request the record holds once the batch is written.
        std::optional<Request> latest(const platform::KeyValueStore& store, const std::string& key) const;
    };
    struct Pending {
        std::function<void(Batch&)> apply;
        Done done;
    };

    void change(std::function<void(Batch&)> apply, Done done);
    void flush();
    void loadCache();
    void addNow(Request request, Batch& batch, const Added& added);
    void dropOldest(Batch& batch);
    void saveRecord(const Entry& entry, const Bytes& payload, Batch& batch) const;
    std::deque<Entry>::iterator find(const Request& request);
    std::deque<Entry>::iterator find(std::uint64_t sequence);
    // With the queue held: drops the entry and its record (in `batch`), with the log line.
    void erase(std::deque<Entry>::iterator found, Batch& batch);

    std::shared_ptr<platform::KeyValueStore> store_;
    // Owned by the queue's writes.
    std::deque<Entry> cachedRequests_;
    std::size_t totalBytes_ = 0;
    std::uint64_t nextSequence_ = 0;

    std::mutex pendingMutex_;
    std::vector<Pending> pending_;
    bool flushScheduled_ = false;

    mutable platform::ConcurrentQueue queue_;
};

const char* requestTypeName(OfflineCache::RequestType type) noexcept;
std::optional<OfflineCache::RequestType> requestTypeFromName(std::string_view name) noexcept;

}  // namespace tavrin
