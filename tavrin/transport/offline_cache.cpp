#include "tavrin/transport/internal/offline_cache.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

constexpr std::string_view kRecordPrefix = "com.tavrin.OfflineCache/";

LoggerUtility& log() { return LoggerUtility::shared(); }

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
    if (!type) typeDecoder.dataCorrupted("Cannot initialize RequestType from invalid String value " + typeDecoder.decodeString());
    request.type = *type;
    request.payload = decodeMember<Bytes>(decoder, "payload");
    request.timestamp = decodeMember<double>(decoder, "timestamp");
    request.retryCount = decodeMember<std::int64_t>(decoder, "retryCount");
    return request;
}

// ---- OfflineCache

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

void OfflineCache::change(std::function<void()> apply, Done done) {
    queue_.asyncBarrier([apply = std::move(apply), done = std::move(done)] {
        try {
            apply();
        } catch (const std::exception& error) {
            log().error([&] { return std::string("Offline cache change failed: ") + error.what(); });
        }
        if (done) done();
    });
}

void OfflineCache::saveRecord(const Entry& entry) {
    const std::string text = platform::dumpJson(entry.request.encode());
    if (store_->setData(recordKey(entry.sequence), platform::toBytes(text))) log().info("Cache saved to disk.");
}

void OfflineCache::eraseRecord(const Entry& entry) {
    if (store_->remove(recordKey(entry.sequence))) log().info("Cache saved to disk.");
}

std::deque<OfflineCache::Entry>::iterator OfflineCache::find(const Request& request) {
    return std::find_if(cachedRequests_.begin(), cachedRequests_.end(), [&](const Entry& entry) {
        return entry.request.timestamp == request.timestamp && entry.request.type == request.type;
    });
}

void OfflineCache::add(Request request, Done done) {
    change(
        [this, request = std::move(request)]() mutable {
            if (static_cast<std::int64_t>(cachedRequests_.size()) >= maxCacheSize) {
                const Entry oldest = std::move(cachedRequests_.front());
                cachedRequests_.pop_front();
                store_->remove(recordKey(oldest.sequence));
                log().warning("Cache size exceeded. Oldest request removed.");
            }
            cachedRequests_.push_back(Entry{std::move(request), nextSequence_++});
            const Entry& added = cachedRequests_.back();
            log().info([&] {
                return std::string("Request of type ") + requestTypeName(added.request.type) +
                       " saved to cache with retry count: " + std::to_string(added.request.retryCount) + ".";
            });
            saveRecord(added);
        },
        std::move(done));
}

void OfflineCache::remove(const Request& request, Done done) {
    change(
        [this, request] {
            auto found = find(request);
            if (found == cachedRequests_.end()) return;
            const Entry removed = std::move(*found);
            cachedRequests_.erase(found);
            log().info([&] { return std::string("Request of type ") + requestTypeName(removed.request.type) + " removed from cache."; });
            eraseRecord(removed);
        },
        std::move(done));
}

void OfflineCache::incrementRetryCount(const Request& request, Done done) {
    change(
        [this, request] {
            auto found = find(request);
            if (found == cachedRequests_.end()) return;
            ++found->request.retryCount;
            log().info([&] {
                return std::string("Retry count incremented for request of type ") + requestTypeName(found->request.type) +
                       ". New retry count: " + std::to_string(found->request.retryCount) + ".";
            });
            saveRecord(*found);
        },
        std::move(done));
}

void OfflineCache::removeExpiredRequests(double timeout, Done done) {
    change(
        [this, timeout] {
            const double limit = platform::Clock::now() - timeout;
            std::size_t removed = 0;
            for (auto it = cachedRequests_.begin(); it != cachedRequests_.end();) {
                if (it->request.timestamp < limit) {
                    store_->remove(recordKey(it->sequence));
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

std::vector<OfflineCache::Request> OfflineCache::getCachedRequests() const {
    return queue_.sync([this] {
        std::vector<Request> snapshot;
        snapshot.reserve(cachedRequests_.size());
        for (const auto& entry : cachedRequests_) snapshot.push_back(entry.request);
        return snapshot;
    });
}

void OfflineCache::loadCache() {
    const auto records = store_->values(kRecordPrefix);
    for (const auto& record : records) {
        // Not a structured binding: the log lambda captures the key (clang < 16 cannot).
        const std::string& key = record.first;
        const auto& value = record.second;
        std::uint64_t sequence = 0;
        const std::string_view digits = std::string_view(key).substr(kRecordPrefix.size());
        const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), sequence);
        try {
            if (ec != std::errc() || end != digits.data() + digits.size() || digits.empty())
                throw DecodingError(DecodingError::Kind::dataCorrupted, {}, "The record key has no sequence number.");
            std::string text;
            if (const auto* bytes = std::get_if<Bytes>(&value)) {
                text = platform::toString(*bytes);
            } else if (const auto* string = std::get_if<std::string>(&value)) {
                text = *string;
            } else {
                throw DecodingError(DecodingError::Kind::typeMismatch, {}, "The record is not JSON data.");
            }
            cachedRequests_.push_back(Entry{decodeJson<Request>(text), sequence});
            nextSequence_ = std::max(nextSequence_, sequence + 1);
        } catch (const std::exception& error) {
            log().error([&] { return "Failed to load cache: " + std::string(error.what()) + " (record " + key + " removed)"; });
            store_->remove(key);
        }
    }
    if (!records.empty()) log().info("Cache loaded from disk.");
}

}  // namespace tavrin
