#include "tavrin/transport/service.h"

#include <strings.h>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/monitor/internal/timestamp_utility.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/sdk/internal/fatal_error.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/tracking/internal/data_submission_model.h"
#include "tavrin/transport/internal/offline_cache_manager.h"

namespace tavrin {

namespace {

using ServiceError = Service::ServiceError;

constexpr double kRequestTimeoutSeconds = 30;

LoggerUtility& log() { return LoggerUtility::shared(); }

const char* errorDescription(ServiceError::Code code) noexcept {
    switch (code) {
        case ServiceError::Code::invalidURL: return "The tracking endpoint is not a valid URL.";
        case ServiceError::Code::invalidRequestBody: return "The request body could not be encoded as a JSON object.";
        case ServiceError::Code::invalidResponse: return "The server did not answer with a success status (200-299).";
    }
    return "";
}

std::exception_ptr serviceError(ServiceError::Code code) { return std::make_exception_ptr(ServiceError(code)); }

using detail::describe;

// Swift-like dictionary text of header fields: ["Name": "value", ...]. The
// credential is never written out.
std::string headersText(const platform::HttpHeaders& headers, bool redactAuthorization) {
    std::string text = "[";
    for (const auto& [name, value] : headers) {
        if (text.size() > 1) text += ", ";
        const bool secret = redactAuthorization && strcasecmp(name.c_str(), "Authorization") == 0;
        text += "\"" + name + "\": \"" + (secret ? std::string("Bearer <redacted>") : value) + "\"";
    }
    return text + "]";
}

// Runs the completion exactly once, even when it throws.
void complete(const ServiceProtocol::Completion& completion, std::exception_ptr error) {
    if (!completion) return;
    try {
        completion(std::move(error));
    } catch (const std::exception& e) {
        log().error([&] { return std::string("A send completion failed: ") + e.what(); });
    } catch (...) {
        log().error("A send completion failed.");
    }
}

detail::SharedInstance<Service>& sharedSlot() {
    static auto* slot = new detail::SharedInstance<Service>();
    return *slot;
}

}  // namespace

Service::ServiceError::ServiceError(Code code)
    : std::runtime_error(std::string(errorDescription(code)) + " (Service.ServiceError." + name(code) + ")"), code_(code) {}

const char* Service::ServiceError::name(Code code) noexcept {
    switch (code) {
        case Code::invalidURL: return "invalidURL";
        case Code::invalidRequestBody: return "invalidRequestBody";
        case Code::invalidResponse: return "invalidResponse";
    }
    return "";
}

// What one request reads, taken once at its start.
struct Service::Parts {
    std::shared_ptr<platform::HttpClient> session;
    std::shared_ptr<TrackingSettings> settings;
    std::shared_ptr<OfflineCacheManaging> offlineCacheManager;

    const TrackConfig& config() const {
        if (!settings || !settings->config()) detail::fatalError("TrackConfig is not available.");
        return *settings->config();
    }

    // scheme "://" domain path; empty when it does not parse (logged).
    std::optional<std::string> buildURL(const std::string& path) const {
        const TrackConfig& current = config();
        const std::string text = current.customProtocol.value_or("https") + "://" + current.trackDomain + path;
        log().info([&] { return "Constructing URL: " + text; });
        if (!platform::Url::parse(text)) {
            log().error([&] { return "Invalid URL: " + text; });
            return std::nullopt;
        }
        return text;
    }

    bool isOfflineTrackingEnabled() const {
        const bool enabled = settings && settings->config() && settings->config()->enableOfflineTracking;
        log().info(std::string("Offline tracking enabled: ") + (enabled ? "true" : "false"));
        return enabled;
    }

    template <class T>
    static std::optional<Bytes> encodeToJSON(const T& value) {
        try {
            Bytes body = platform::toBytes(encodeJsonText(value));
            log().info([&] { return "Object successfully encoded to JSON. Size: " + std::to_string(body.size()) + " bytes"; });
            return body;
        } catch (const std::exception& error) {
            log().error([&] { return std::string("Failed to encode object to JSON: ") + error.what(); });
            return std::nullopt;
        }
    }

    // What a live send falls back to when the SDK shuts down under it: the
    // body goes to the offline cache instead of being lost.
    struct KeepOnShutdown {
        OfflineCache::RequestType type;
        Bytes body;
    };

    static bool isCancellation(const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const platform::UrlError& e) {
            return e.code() == platform::UrlError::Code::cancelled;
        } catch (...) {
            return false;
        }
    }

    void sendRequest(const std::string& url, Bytes body, Completion completion,
                     std::optional<KeepOnShutdown> keep = std::nullopt) const {
        platform::HttpRequest request;
        request.method = "POST";
        request.url = url;
        request.setHeader("Content-Type", "application/json");
        // A 60-second default is overridden here on purpose: 30 seconds stand.
        request.timeoutSeconds = kRequestTimeoutSeconds;
        const std::string& token = config().authorizationToken;
        if (!token.empty()) request.setHeader("Authorization", "Bearer " + token);
        request.body = std::move(body);
        log().info([&] {
            return "Sending request:\n- URL: " + url + "\n- Headers: " + headersText(request.headers, true) +
                   "\n- Payload size: " + std::to_string(request.body.size()) + " bytes";
        });
        session->send(std::move(request), [url, completion = std::move(completion), keep = std::move(keep),
                                           manager = offlineCacheManager](platform::HttpResult result) mutable {
            std::exception_ptr error = result.error;
            if (error && keep && manager && isCancellation(error)) {
                // The client was shut down before an answer came: the request
                // waits in the offline cache for the next launch, and counts as
                // delivered once it is durable, as an offline send does.
                log().info([&] { return "Request to " + url + " cancelled by shutdown. Caching it for the next launch."; });
                manager->cacheRequest(keep->type, std::move(keep->body), [completion] { complete(completion, nullptr); });
                return;
            }
            if (!error) {
                const auto& response = *result.response;
                if (response.statusCode >= 200 && response.statusCode <= 299) {
                    log().info([&] {
                        return "Request to " + url + " completed successfully. Status Code: " +
                               std::to_string(response.statusCode);
                    });
                    complete(completion, nullptr);
                    return;
                }
                log().error([&] {
                    return "Received invalid HTTP response:\n- Status Code: " + std::to_string(response.statusCode) +
                           "\n- Headers: " + headersText(response.headers, false);
                });
                error = serviceError(ServiceError::Code::invalidResponse);
            }
            log().error([&] { return "Request to " + url + " failed: " + describe(error); });
            complete(completion, error);
        });
    }
};

Service::Service(std::shared_ptr<platform::HttpClient> session, std::shared_ptr<TrackingSettings> trackConfig,
                 std::shared_ptr<OfflineCacheManaging> offlineCacheManager)
    : session_(session ? std::move(session) : platform::HttpClient::shared()),
      trackConfig_(trackConfig ? std::move(trackConfig) : TrackingSettings::shared()),
      offlineCacheManager_(offlineCacheManager ? std::move(offlineCacheManager) : OfflineCacheManager::shared()) {}

Service::~Service() = default;

std::shared_ptr<Service> Service::shared() {
    return sharedSlot().get([] { return std::make_shared<Service>(nullptr, nullptr, nullptr); });
}

void Service::resetShared() { sharedSlot().reset(); }

void Service::setSession(std::shared_ptr<platform::HttpClient> session) {
    std::lock_guard lock(mutex_);
    session_ = std::move(session);
}

void Service::setTrackConfig(std::shared_ptr<TrackingSettings> trackConfig) {
    std::lock_guard lock(mutex_);
    trackConfig_ = std::move(trackConfig);
}

void Service::setOfflineCacheManager(std::shared_ptr<OfflineCacheManaging> offlineCacheManager) {
    std::lock_guard lock(mutex_);
    offlineCacheManager_ = std::move(offlineCacheManager);
}

Service::Parts Service::parts() const {
    std::lock_guard lock(mutex_);
    return Parts{session_, trackConfig_, offlineCacheManager_};
}

void Service::sendConsentSubmission(ConsentModel consent, Completion completion) {
    const Parts p = parts();
    const auto url = p.buildURL("");
    if (!url) return complete(completion, serviceError(ServiceError::Code::invalidURL));
    auto body = Parts::encodeToJSON(consent);
    if (!body) return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    log().info([&] { return "Initiating consent submission request. URL: " + *url; });
    if (p.isOfflineTrackingEnabled() && p.offlineCacheManager->isCurrentlyOffline()) {
        log().info("Offline: Caching consent request");
        p.offlineCacheManager->cacheRequest(OfflineCache::RequestType::consentSubmission, std::move(*body),
                                            [completion] { complete(completion, nullptr); });
        return;
    }
    log().info("Online mode. Sending consent submission request.");
    std::optional<Parts::KeepOnShutdown> keep;
    if (p.isOfflineTrackingEnabled()) keep = Parts::KeepOnShutdown{OfflineCache::RequestType::consentSubmission, *body};
    p.sendRequest(*url, std::move(*body), std::move(completion), std::move(keep));
}

void Service::sendDataSubmission(DataSubmissionModel data, Completion completion) {
    const Parts p = parts();
    const auto url = p.buildURL("");
    if (!url) return complete(completion, serviceError(ServiceError::Code::invalidURL));
    auto body = Parts::encodeToJSON(data);
    if (!body) return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    log().info([&] { return "Initiating data submission request. URL: " + *url; });
    std::optional<Parts::KeepOnShutdown> keep;
    if (p.isOfflineTrackingEnabled()) {
        // Cached as an offline send would be: without the live marker.
        keep = Parts::KeepOnShutdown{OfflineCache::RequestType::dataSubmission, *body};
        if (p.offlineCacheManager->isCurrentlyOffline()) {
            log().info("Offline: Caching data submission request");
            p.offlineCacheManager->cacheRequest(OfflineCache::RequestType::dataSubmission, std::move(*body),
                                                [completion] { complete(completion, nullptr); });
            return;
        }
        log().info("Online but offline mode enabled. Adding offline-specific properties to payload.");
        // Live sends carry the marker inside the variables; resends put theirs
        // at the top level. The server relies on the difference.
        data.data.variables.customProperties.insert_or_assign("app_offline_cached_data", CodableValue::string("false"));
        body = Parts::encodeToJSON(data);
        if (!body) return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    }
    log().info("Online mode. Sending data submission request.");
    p.sendRequest(*url, std::move(*body), std::move(completion), std::move(keep));
}

void Service::resendCachedDataSubmission(Bytes payload, Completion completion) {
    const Parts p = parts();
    const auto url = p.buildURL("");
    if (!url) return complete(completion, serviceError(ServiceError::Code::invalidURL));
    auto object = platform::parseJson(platform::toString(payload));
    if (!object || !object->is_object()) {
        log().error("Failed to parse cached payload as JSON");
        return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    }
    (*object)["app_offline_cached_data"] = "true";
    (*object)["app_offline_resend_timestamp"] = std::to_string(TimestampUtility::currentTimestampInMillis());
    Bytes body = platform::toBytes(platform::dumpJson(*object));
    log().info("Resending cached data submission with offline metadata.");
    p.sendRequest(*url, std::move(body), std::move(completion));
}

}  // namespace tavrin
