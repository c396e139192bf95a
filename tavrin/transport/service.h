#pragma once
// The one place where tracking data leaves the device: encodes a data or
// consent submission, and either posts it to the tracking endpoint or, while
// the device is offline with offline tracking on, hands it to the offline
// cache manager. It also resends cached data submissions, marked as late.
//
// Every send reports through its completion (or future); nothing waits on the
// network while holding a thread. A failure is a Service::ServiceError or the
// HTTP client's UrlError.

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "tavrin/transport/service_protocol.h"

namespace tavrin {

class TrackingSettings;
class OfflineCacheManaging;
namespace platform {
class HttpClient;
}

class Service final : public ServiceProtocol {
public:
    class ServiceError : public std::runtime_error {
    public:
        enum class Code {
            invalidURL,          // the endpoint text is not a URL
            invalidRequestBody,  // a record did not encode, or a cached body is not a JSON object
            invalidResponse,     // the status is outside 200-299
        };

        explicit ServiceError(Code code);
        Code code() const noexcept { return code_; }
        // "invalidURL", "invalidRequestBody", "invalidResponse".
        static const char* name(Code code) noexcept;

    private:
        Code code_;
    };

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

private:
    struct Parts;
    Parts parts() const;

    mutable std::mutex mutex_;
    std::shared_ptr<platform::HttpClient> session_;
    std::shared_ptr<TrackingSettings> trackConfig_;
    std::shared_ptr<OfflineCacheManaging> offlineCacheManager_;
};

}  // namespace tavrin
