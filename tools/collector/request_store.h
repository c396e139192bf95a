#pragma once
// Every request the collector received, kept in SQLite so it survives a
// restart. Safe to use from several server threads at once.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace tavrin::collector {

struct StoredRequest {
    std::int64_t id = 0;
    std::int64_t receivedMs = 0;  // milliseconds since 1970
    std::string method, path;
    std::vector<std::pair<std::string, std::string>> headers;  // Authorization already redacted
    std::string body;                                          // as received
    int status = 0;                                            // what the collector answered
    std::string kind;                                          // kindName() of the classification
    std::vector<std::string> problems;
};

class RequestStore {
public:
    // Opens or creates <directory>/collector.sqlite3; throws std::runtime_error on failure.
    explicit RequestStore(const std::filesystem::path& directory);
    ~RequestStore();
    RequestStore(const RequestStore&) = delete;
    RequestStore& operator=(const RequestStore&) = delete;

    // Stores the request durably and returns it with its new id.
    StoredRequest add(StoredRequest request);
    // Newest first; at most `limit`, only ids above `afterId`.
    std::vector<StoredRequest> list(std::size_t limit, std::int64_t afterId = 0) const;
    std::optional<StoredRequest> get(std::int64_t id) const;

private:
    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
};

// The header value with the credential replaced, keeping the scheme ("Bearer [redacted]").
std::string redactAuthorization(const std::string& value);

}  // namespace tavrin::collector
