#pragma once
// Reports the collected debug tags to the tracking domain's "/monitor"
// endpoint when a debug code is configured. MonitorService decides and
// assembles; DefaultMonitorService posts. The report follows every successful
// submission; it is never cached for offline delivery, and the tags stay
// cached when it fails.

#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/model/internal/any_codable.h"
#include "tavrin/monitor/internal/tag.h"
#include "tavrin/monitor/internal/tag_cache.h"

namespace tavrin {

namespace platform {
class HttpClient;
}

struct MonitorPayload {
    std::string debugID;             // "debugid"
    AnyCodable::Dictionary consent;  // "consent"
    AnyCodable::Dictionary docs;     // "docs"
    std::string state;               // "state"
    std::string eventDocumentID;     // "eventDocumentId"
    std::vector<Tag> tags;           // "tags", oldest first

    Json encode() const;
};

class MonitorServiceProtocol {
public:
    using Completion = std::function<void(std::exception_ptr error)>;
    virtual ~MonitorServiceProtocol() = default;
    // The completion runs exactly once, with the error when it failed.
    virtual void send(MonitorPayload payload, Completion completion) = 0;
};

// POST "https://" + domain + "/monitor" (the scheme is always https), 60 s,
// no Authorization. Fails with Service::ServiceError (invalidURL,
// invalidResponse) or the HTTP client's error. Logs nothing itself.
class DefaultMonitorService final : public MonitorServiceProtocol {
public:
    // session: null uses the process-wide HTTP client at each send.
    explicit DefaultMonitorService(std::shared_ptr<platform::HttpClient> session = nullptr);
    void send(MonitorPayload payload, Completion completion) override;

private:
    std::shared_ptr<platform::HttpClient> session_;
};

class MonitorService {
public:
    // service: null uses a DefaultMonitorService.
    explicit MonitorService(std::shared_ptr<MonitorServiceProtocol> service = nullptr);

    static std::shared_ptr<MonitorService> shared();
    // Tests: drops the shared instance.
    static void resetShared();

    void setDebugCode(std::optional<std::string> debugCode);
    std::optional<std::string> debugCode() const;
    void setService(std::shared_ptr<MonitorServiceProtocol> service);

    // Sends the cached tags when a debug code is set; never fails. `done` runs
    // exactly once when the report has ended (at once without a debug code).
    void sendMonitorRequest(std::function<void()> done);
    std::future<void> sendMonitorRequest();

    // Forgets the tags a successful report carried.
    static void clearSentTags(const TagCache::Snapshot& sent);

private:
    mutable std::mutex mutex_;
    std::optional<std::string> debugCode_;
    std::shared_ptr<MonitorServiceProtocol> service_;
};

}  // namespace tavrin
