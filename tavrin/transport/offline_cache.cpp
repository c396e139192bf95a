#include "tavrin/transport/internal/offline_cache.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <mutex>

#include <unordered_map>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

constexpr std::string_view kRecordPrefix = "com.tavrin.OfflineCache/";

LoggerUtility& log() { return LoggerUtility::shared(); }

std::atomic<std::size_t> gMaxTotalBytes{OfflineCache::defaultMaxTotalBytes};
std::atomic<std::size_t> gMaxRequestBytes{OfflineCache::defaultMaxRequestBytes};

// The largest record a request within the limit can make: base64 of the
// payload plus the other members. A larger record is dropped unread.
std::size_t recordLimit(std::size_t maxRequestBytes) { return maxRequestBytes / 3 * 4 + 4 + 1024; }

std::string logType(OfflineCache::RequestType type) { return requestTypeName(type); }

}  // namespace

const char* requestTypeName(OfflineCache::RequestType type) noexcept {
    switch (type) {
        case OfflineCache::RequestType::consentSubmission: return "consentSubmission";
        case OfflineCache::RequestType::dataSubmission: return "dataSubmission";
        case OfflineCache::RequestType::monitorRequest: return "monitorRequest";
    }
    return "dataSubmission";
}

std::optional<OfflineCache::RequestType> requestTypeFromName(std::string_view name) noexcept {
    for (auto type : {OfflineCache::RequestType::consentSubmission, OfflineCache::RequestType::dataSubmission,
                      OfflineCache::RequestType::monitorRequest})
        if (name == requestTypeName(type)) return type;
    return std::nullopt;
}

// ---- Request

Json OfflineCache::Request::encode() const {
    Json out = Json::object();
    out["type"] = requestTypeName(type);
    out["payload"] = encodeJson(payload);
    out["timestamp"] = timestamp;
    out["retryCount"] = retryCount;
    return out;
}

OfflineCache::Request OfflineCache::Request::decode(const Decoder& decoder) {
    Request request;
    const auto typeDecoder = decoder.nested("type");
    const auto type = requestTypeFromName(typeDecoder.decodeString());
    if (!type)
        typeDecoder.dataCorrupted("Cannot initialize RequestType from invalid String value " +
                                  typeDecoder.decodeString());
    request.type = *type;
    request.payload = decodeMember<Bytes>(decoder, "payload");
    request.timestamp = decodeMember<double>(decoder, "timestamp");
    request.retryCount = decodeMember<std::int64_t>(decoder, "retryCount");
    return request;
}

// ---- OfflineCache

void OfflineCache::setLimits(std::size_t maxTotalBytes, std::size_t maxRequestBytes) {
    gMaxTotalBytes = maxTotalBytes;
    gMaxRequestBytes = std::min(maxRequestBytes, maxTotalBytes);
}

std::size_t OfflineCache::maxTotalBytes() { return gMaxTotalBytes.load(); }

std::size_t OfflineCache::maxRequestBytes() { return gMaxRequestBytes.load(); }

std::shared_ptr<OfflineCache> OfflineCache::forStore(std::shared_ptr<platform::KeyValueStore> store) {
    struct Owner {
        std::weak_ptr<platform::KeyValueStore> store;
        std::weak_ptr<OfflineCache> cache;
    };
    static std::mutex mutex;
    static auto* owners = new std::vector<Owner>();  // leaked: caches may outlive static destruction
    std::lock_guard lock(mutex);
    std::erase_if(*owners, [](const Owner& owner) { return owner.cache.expired() || owner.store.expired(); });
    for (const auto& owner : *owners)
        if (owner.store.lock() == store)
            if (auto cache = owner.cache.lock()) return cache;
    auto cache = std::make_shared<OfflineCache>(store);
    owners->push_back(Owner{store, cache});
    return cache;
}

OfflineCache::OfflineCache() : OfflineCache(platform::KeyValueStore::standard()) {}

OfflineCache::OfflineCache(std::shared_ptr<platform::KeyValueStore> store)
    : store_(std::move(store)), queue_("com.tavrin.OfflineCacheQueue") {
    queue_.asyncBarrier([this] { loadCache(); });
}

// The queue, the last member, goes first: it applies the pending changes
// while the list and the store are still there.
OfflineCache::~OfflineCache() = default;

std::string OfflineCache::recordKey(std::uint64_t sequence) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(sequence));
    return std::string(kRecordPrefix) + digits;
}

void OfflineCache::change(std::function<void(Batch&)> apply, Done done) {
    bool schedule;
    {
        std::lock_guard lock(pendingMutex_);
        pending_.push_back(Pending{std::move(apply), std::move(done)});
        schedule = !flushScheduled_;
        flushScheduled_ = true;
    }
    if (schedule) queue_.asyncBarrier([this] { flush(); });
}

// Applies every change waiting, in order, and writes what they changed in one
// transaction; then tells each of them.
void OfflineCache::flush() {
    std::vector<Pending> changes;
    {
        std::lock_guard lock(pendingMutex_);
        changes.swap(pending_);
        flushScheduled_ = false;
    }
    Batch batch;
    for (auto& pending : changes) {
        try {
            pending.apply(batch);
        } catch (const std::exception& error) {
            log().error([&] { return std::string("Offline cache change failed: ") + error.what(); });
        }
        pending.apply = nullptr;  // an addition's payload goes now
    }
    if (!batch.changes.empty()) {
        // Only the last change of a key counts, and a record both created and
        // removed within the batch never reaches the store.
        std::unordered_map<std::string, std::size_t> last;
        for (std::size_t i = 0; i < batch.changes.size(); ++i) last[batch.changes[i].key] = i;
        std::vector<platform::KeyValueStore::Change> writes;
        for (std::size_t i = 0; i < batch.changes.size(); ++i) {
            auto& change = batch.changes[i];
            if (last[change.key] != i) continue;
            if (!change.value && batch.created.contains(change.key)) continue;
            writes.push_back(std::move(change));
        }
        if (writes.empty() || store_->apply(writes)) log().info("Cache saved to disk.");
    }
    for (auto& pending : changes)
        if (pending.done) pending.done();
}

void OfflineCache::saveRecord(const Entry& entry, const Bytes& payload, Batch& batch) const {
    Request request{entry.type, payload, entry.timestamp, entry.retryCount};
    batch.set(recordKey(entry.sequence), platform::toBytes(platform::dumpJson(request.encode())));
}

std::deque<OfflineCache::Entry>::iterator OfflineCache::find(const Request& request) {
    return std::find_if(cachedRequests_.begin(), cachedRequests_.end(), [&](const Entry& entry) {
        return entry.timestamp == request.timestamp && entry.type == request.type;
    });
}

void OfflineCache::erase(std::deque<Entry>::iterator found, Batch& batch) {
    const Entry removed = *found;
    cachedRequests_.erase(found);
    totalBytes_ -= removed.payloadBytes;
    log().info([&] { return "Request of type " + logType(removed.type) + " removed from cache."; });
    batch.erase(recordKey(removed.sequence));
}

std::deque<OfflineCache::Entry>::iterator OfflineCache::find(std::uint64_t sequence) {
    // Sequences grow along the list.
    auto found = std::lower_bound(cachedRequests_.begin(), cachedRequests_.end(), sequence,
                                  [](const Entry& entry, std::uint64_t s) { return entry.sequence < s; });
    return found != cachedRequests_.end() && found->sequence == sequence ? found : cachedRequests_.end();
}

void OfflineCache::dropOldest(Batch& batch) {
    const Entry oldest = cachedRequests_.front();
    cachedRequests_.pop_front();
    totalBytes_ -= oldest.payloadBytes;
    batch.erase(recordKey(oldest.sequence));
}

void OfflineCache::addNow(Request request, Batch& batch, const Added& added) {
    const std::size_t bytes = request.payload.size();
    const std::size_t maxRequest = maxRequestBytes();
    if (bytes > maxRequest) {
        log().error([&] {
            return "Request of type " + logType(request.type) + " not cached: its " + std::to_string(bytes) +
                   " bytes exceed the limit of " + std::to_string(maxRequest) + " bytes per request.";
        });
        if (added) added(false);
        return;
    }
    if (static_cast<std::int64_t>(cachedRequests_.size()) >= maxCacheSize) {
        dropOldest(batch);
        log().warning("Cache size exceeded. Oldest request removed.");
    }
    const std::size_t maxTotal = maxTotalBytes();
    while (!cachedRequests_.empty() && totalBytes_ + bytes > maxTotal) {
        dropOldest(batch);
        log().warning("Cache byte limit exceeded. Oldest request removed.");
    }
    const Entry entry{nextSequence_++, request.type, request.timestamp, request.retryCount, bytes};
    cachedRequests_.push_back(entry);
    totalBytes_ += bytes;
    log().info([&] {
        return "Request of type " + logType(entry.type) +
               " saved to cache with retry count: " + std::to_string(entry.retryCount) + ".";
    });
    saveRecord(entry, request.payload, batch);
    batch.created.insert(recordKey(entry.sequence));
    if (added) added(true);
}

void OfflineCache::add(Request request, Done done) {
    change([this, request = std::move(request)](Batch& batch) mutable { addNow(std::move(request), batch, {}); },
           std::move(done));
}

void OfflineCache::tryAdd(Request request, Added added) {
    // The verdict is told once the write is durable, with the other changes'.
    auto kept = std::make_shared<bool>(false);
    change([this, request = std::move(request),
            kept](Batch& batch) mutable { addNow(std::move(request), batch, [kept](bool ok) { *kept = ok; }); },
           [kept, added = std::move(added)] {
               if (added) added(*kept);
           });
}

void OfflineCache::remove(const Request& request, Done done) {
    change(
        [this, request](Batch& batch) {
            if (auto found = find(request); found != cachedRequests_.end()) erase(found, batch);
        },
        std::move(done));
}

void OfflineCache::removeEntries(std::vector<std::uint64_t> sequences, Done done) {
    change(
        [this, sequences = std::move(sequences)](Batch& batch) {
            for (const auto sequence : sequences)
                if (auto found = find(sequence); found != cachedRequests_.end()) erase(found, batch);
        },
        std::move(done));
}

namespace {

OfflineCache::Request decodeRecord(const platform::KeyValueStore::Value& value) {
    std::string text;
    if (const auto* bytes = std::get_if<Bytes>(&value)) {
        text = platform::toString(*bytes);
    } else if (const auto* string = std::get_if<std::string>(&value)) {
        text = *string;
    } else {
        throw DecodingError(DecodingError::Kind::typeMismatch, {}, "The record is not JSON data.");
    }
    return decodeJson<OfflineCache::Request>(text);
}

// The record's request, when the store still holds one that decodes.
std::optional<OfflineCache::Request> readRecord(const platform::KeyValueStore& store, const std::string& key) {
    const auto value = store.value(key);
    if (!value) return std::nullopt;
    return decodeRecord(*value);
}

}  // namespace

std::optional<OfflineCache::Request> OfflineCache::Batch::latest(const platform::KeyValueStore& store,
                                                                 const std::string& key) const {
    for (auto it = changes.rbegin(); it != changes.rend(); ++it)
        if (it->key == key) return it->value ? std::optional<Request>(decodeRecord(*it->value)) : std::nullopt;
    return readRecord(store, key);
}

void OfflineCache::incrementRetryCount(const Request& request, Done done) {
    change(
        [this, request](Batch& batch) {
            auto found = find(request);
            if (found == cachedRequests_.end()) return;
            const auto stored = batch.latest(*store_, recordKey(found->sequence));
            ++found->retryCount;
            log().info([&] {
                return "Retry count incremented for request of type " + logType(found->type) +
                       ". New retry count: " + std::to_string(found->retryCount) + ".";
            });
            saveRecord(*found, stored ? stored->payload : request.payload, batch);
        },
        std::move(done));
}

void OfflineCache::incrementRetryCount(std::uint64_t sequence, Done done) {
    change(
        [this, sequence](Batch& batch) {
            auto found = find(sequence);
            if (found == cachedRequests_.end()) return;
            // Read before the count moves: the record may not decode any more.
            const auto stored = batch.latest(*store_, recordKey(sequence));
            if (!stored) return;
            ++found->retryCount;
            log().info([&] {
                return "Retry count incremented for request of type " + logType(found->type) +
                       ". New retry count: " + std::to_string(found->retryCount) + ".";
            });
            saveRecord(*found, stored->payload, batch);
        },
        std::move(done));
}

void OfflineCache::removeExpiredRequests(double timeout, Done done) {
    change(
        [this, timeout](Batch& batch) {
            const double limit = platform::Clock::now() - timeout;
            std::size_t removed = 0;
            for (auto it = cachedRequests_.begin(); it != cachedRequests_.end();) {
                if (it->timestamp < limit) {
                    batch.erase(recordKey(it->sequence));
                    totalBytes_ -= it->payloadBytes;
                    it = cachedRequests_.erase(it);
                    ++removed;
                } else {
                    ++it;
                }
            }
            // Logged on every call, also when nothing expired.
            log().info("Cache saved to disk.");
            log().info([&] { return std::to_string(removed) + " expired requests removed from cache."; });
        },
        std::move(done));
}

std::vector<OfflineCache::Entry> OfflineCache::entries() const {
    return queue_.sync([this] { return std::vector<Entry>(cachedRequests_.begin(), cachedRequests_.end()); });
}

std::optional<OfflineCache::Request> OfflineCache::request(const Entry& entry) const {
    try {
        auto stored = readRecord(*store_, recordKey(entry.sequence));
        if (stored) stored->retryCount = entry.retryCount;
        return stored;
    } catch (const std::exception& error) {
        log().error([&] { return "Failed to read cached request: " + std::string(error.what()); });
        return std::nullopt;
    }
}

std::vector<OfflineCache::Request> OfflineCache::getCachedRequests() const {
    std::vector<Request> snapshot;
    for (const auto& entry : entries())
        if (auto stored = request(entry)) snapshot.push_back(std::move(*stored));
    return snapshot;
}

// Reads the records one at a time, keeping only what the list needs, so a
// launch with a full cache never holds every payload at once. Records too
// large for a request are dropped unread; then the oldest go until the total
// fits the budget.
void OfflineCache::loadCache() {
    const auto records = store_->keySizes(kRecordPrefix);
    const std::size_t largestRecord = recordLimit(maxRequestBytes());
    std::vector<platform::KeyValueStore::Change> dropped;
    for (const auto& [key, size] : records) {
        std::uint64_t sequence = 0;
        const std::string_view digits = std::string_view(key).substr(kRecordPrefix.size());
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), sequence);
        try {
            if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty())
                throw DecodingError(DecodingError::Kind::dataCorrupted, {}, "The record key has no sequence number.");
            if (size > largestRecord)
                throw DecodingError(DecodingError::Kind::dataCorrupted, {},
                                    "The record of " + std::to_string(size) +
                                        " bytes is larger than a cached request may be.");
            const auto request = readRecord(*store_, key);
            if (!request) continue;  // removed meanwhile
            cachedRequests_.push_back(
                Entry{sequence, request->type, request->timestamp, request->retryCount, request->payload.size()});
            totalBytes_ += request->payload.size();
            nextSequence_ = std::max(nextSequence_, sequence + 1);
        } catch (const std::exception& error) {
            // Not a structured binding above: the log lambda captures the key (clang < 16 cannot).
            const std::string& recordKeyText = key;
            log().error([&] {
                return "Failed to load cache: " + std::string(error.what()) + " (record " + recordKeyText + " removed)";
            });
            dropped.push_back({key, std::nullopt});
        }
    }
    Batch batch;
    const std::size_t maxTotal = maxTotalBytes();
    while (!cachedRequests_.empty() && totalBytes_ > maxTotal) {
        dropOldest(batch);
        log().warning("Cache byte limit exceeded. Oldest request removed.");
    }
    for (auto& change : batch.changes) dropped.push_back(std::move(change));
    if (!dropped.empty()) store_->apply(dropped);
    if (!records.empty()) log().info("Cache loaded from disk.");
}

}  // namespace tavrin
