#pragma once
// The one place where tracking data leaves the device: encodes a data or
// consent submission and posts it to the tracking endpoint. Wired by
// TavrinService::configure; applications meet only its ServiceError.
//
// While the device is offline with offline tracking on, a submission goes to
// the offline cache manager instead. It also resends cached data submissions,
// marked as late.
//
// Every send reports through its completion (or future); nothing waits on the
// network while holding a thread. A failure is a ServiceError or the HTTP
// client's UrlError.
//
// With offline tracking on, a live send that the server or the network let
// down (a transport failure, or status 3xx, 408, 429 or 5xx) is cached like an
// offline one and retried later by the offline cache manager; its caller sees
// success once the cached request is durable. Other refusals (4xx) fail.

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "tavrin/transport/internal/service_protocol.h"
#include "tavrin/transport/service_error.h"

namespace tavrin {

class TrackingSettings;
class OfflineCacheManaging;
namespace platform {
class HttpClient;
}
namespace detail {
class RequestWindow;
}

class Service final : public ServiceProtocol {
public:
    // What a refused submission throws; spelt Service::ServiceError too.
    using ServiceError = tavrin::ServiceError;

    // All three may be null: the process-wide HTTP client, the shared settings
    // (read when constructed: configure first) and the shared offline cache
    // manager are then used.
    Service(std::shared_ptr<platform::HttpClient> session, std::shared_ptr<TrackingSettings> trackConfig,
            std::shared_ptr<OfflineCacheManaging> offlineCacheManager);
    ~Service() override;

    // The shared instance, created on first use. Creating it reads the shared
    // settings, so the SDK must be configured first (a fatal stop otherwise).
    static std::shared_ptr<Service> shared();
    // Tests: drops the shared instance; the next shared() creates a new one.
    static void resetShared();

    // The start-up wiring points the shared service at the current objects.
    void setSession(std::shared_ptr<platform::HttpClient> session);
    void setTrackConfig(std::shared_ptr<TrackingSettings> trackConfig);
    void setOfflineCacheManager(std::shared_ptr<OfflineCacheManaging> offlineCacheManager);

    using ServiceProtocol::resendCachedDataSubmission;
    using ServiceProtocol::sendConsentSubmission;
    using ServiceProtocol::sendDataSubmission;

    void sendConsentSubmission(ConsentModel consent, Completion completion) override;
    void sendDataSubmission(DataSubmissionModel data, Completion completion) override;
    void resendCachedDataSubmission(Bytes payload, Completion completion) override;
    void resendCachedConsentSubmission(ConsentModel consent, Completion completion) override;

private:
    struct Parts;
    Parts parts() const;
    void sendConsent(ConsentModel consent, Completion completion, bool live);

    mutable std::mutex mutex_;
    // Live sends and resends together: at most six at a time with the client.
    const std::shared_ptr<detail::RequestWindow> window_;
    std::shared_ptr<platform::HttpClient> session_;
    std::shared_ptr<TrackingSettings> trackConfig_;
    std::shared_ptr<OfflineCacheManaging> offlineCacheManager_;
};

}  // namespace tavrin
