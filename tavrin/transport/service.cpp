#include "tavrin/transport/internal/service.h"

#include <strings.h>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/model/internal/data_submission_model.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/fatal_error.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/transport/internal/offline_cache_manager.h"
#include "tavrin/transport/internal/request_window.h"
#include "tavrin/transport/internal/retry_policy.h"

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

ServiceError::ServiceError(Code code, int statusCode, std::optional<std::chrono::seconds> retryAfter)
    : std::runtime_error(std::string(errorDescription(code)) + " (Service.ServiceError." + name(code) + ")"),
      code_(code),
      statusCode_(statusCode),
      retryAfter_(retryAfter) {}

const char* ServiceError::name(Code code) noexcept {
    switch (code) {
        case Code::invalidURL: return "invalidURL";
        case Code::invalidRequestBody: return "invalidRequestBody";
        case Code::invalidResponse: return "invalidResponse";
    }
    return "";
}

// What one request reads, taken once at its start.
struct Service::Parts {
    std::shared_ptr<detail::RequestWindow> window;
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
            log().info(
                [&] { return "Object successfully encoded to JSON. Size: " + std::to_string(body.size()) + " bytes"; });
            return body;
        } catch (const std::exception& error) {
            log().error([&] { return std::string("Failed to encode object to JSON: ") + error.what(); });
            return std::nullopt;
        }
    }

    // A live send with offline tracking on: what goes to the offline cache
    // when the send cannot be completed now (the server or the network failed,
    // or the SDK shut down under it). The body sent is the one kept: a resend
    // marks it as late at the top level and leaves the live marker inside.
    struct KeepOnFailure {
        OfflineCache::RequestType type;
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
                     std::optional<KeepOnFailure> keep = std::nullopt) const {
        platform::HttpRequest request;
        request.method = "POST";
        request.url = url;
        request.setHeader("Content-Type", "application/json");
        // A 60-second default is overridden here on purpose: 30 seconds stand.
        request.timeoutSeconds = kRequestTimeoutSeconds;
        const std::string& token = config().authorizationToken;
        if (!token.empty()) request.setHeader("Authorization", "Bearer " + token);
        log().info([&] {
            return "Sending request:\n- URL: " + url + "\n- Headers: " + headersText(request.headers, true) +
                   "\n- Payload size: " + std::to_string(body.size()) + " bytes";
        });
        // Held once while the request waits for its turn; the completion keeps
        // it only when it may have to be cached.
        auto shared = std::make_shared<const Bytes>(std::move(body));
        std::shared_ptr<const Bytes> kept = keep && offlineCacheManager ? shared : nullptr;
        auto onAnswer = [url, completion = std::move(completion), keep, kept = std::move(kept),
                         manager = offlineCacheManager](platform::HttpResult result) {
            std::exception_ptr error = result.error;
            if (error && kept && isCancellation(error)) {
                // The client was shut down before an answer came: the request
                // waits in the offline cache for the next launch, and counts as
                // delivered once it is durable, as an offline send does.
                log().info(
                    [&] { return "Request to " + url + " cancelled by shutdown. Caching it for the next launch."; });
                manager->cacheRequest(keep->type, *kept,
                                      OfflineCacheManaging::Completion(
                                          [completion](std::exception_ptr refused) { complete(completion, refused); }));
                return;
            }
            if (!error && !result.response) {
                // A client that reports neither an answer nor an error.
                log().error("Received non-HTTP response");
                error = serviceError(ServiceError::Code::invalidResponse);
            }
            if (!error) {
                const auto& response = *result.response;
                if (response.statusCode >= 200 && response.statusCode <= 299) {
                    log().info([&] {
                        return "Request to " + url +
                               " completed successfully. Status Code: " + std::to_string(response.statusCode);
                    });
                    if (kept) manager->serverReachable();
                    complete(completion, nullptr);
                    return;
                }
                log().error([&] {
                    return "Received invalid HTTP response:\n- Status Code: " + std::to_string(response.statusCode) +
                           "\n- Headers: " + headersText(response.headers, false);
                });
                std::optional<std::chrono::seconds> retryAfter;
                if (response.statusCode == 429 || response.statusCode == 503)
                    if (const auto field = response.header("Retry-After"))
                        retryAfter = detail::parseRetryAfter(*field, platform::Clock::now());
                error = std::make_exception_ptr(
                    ServiceError(ServiceError::Code::invalidResponse, response.statusCode, retryAfter));
            }
            log().error([&] { return "Request to " + url + " failed: " + describe(error); });
            if (kept && detail::isRetryableFailure(error)) {
                const bool data = keep->type == OfflineCache::RequestType::dataSubmission;
                log().info(data ? "Send failed: Caching data submission request"
                                : "Send failed: Caching consent request");
                manager->cacheRequest(
                    keep->type, *kept,
                    OfflineCacheManaging::Completion(
                        [completion, manager, retryAfter = detail::retryAfterOf(error)](std::exception_ptr refused) {
                            if (!refused) manager->retryLater(retryAfter);
                            complete(completion, refused);
                        }));
                return;
            }
            complete(completion, error);
        };
        window->send(session, std::move(request), std::move(shared), std::move(onAnswer));
    }
};

Service::Service(std::shared_ptr<platform::HttpClient> session, std::shared_ptr<TrackingSettings> trackConfig,
                 std::shared_ptr<OfflineCacheManaging> offlineCacheManager)
    : window_(std::make_shared<detail::RequestWindow>()),
      session_(session ? std::move(session) : platform::HttpClient::shared()),
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
    return Parts{window_, session_, trackConfig_, offlineCacheManager_};
}

void Service::sendConsentSubmission(ConsentModel consent, Completion completion) {
    sendConsent(std::move(consent), std::move(completion), true);
}

void Service::resendCachedConsentSubmission(ConsentModel consent, Completion completion) {
    sendConsent(std::move(consent), std::move(completion), false);
}

void Service::sendConsent(ConsentModel consent, Completion completion, bool live) {
    const Parts p = parts();
    const auto url = p.buildURL("");
    if (!url) return complete(completion, serviceError(ServiceError::Code::invalidURL));
    auto body = Parts::encodeToJSON(consent);
    if (!body) return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    log().info([&] { return "Initiating consent submission request. URL: " + *url; });
    const bool offlineTracking = p.isOfflineTrackingEnabled();
    if (offlineTracking && p.offlineCacheManager->isCurrentlyOffline()) {
        log().info("Offline: Caching consent request");
        p.offlineCacheManager->cacheRequest(
            OfflineCache::RequestType::consentSubmission, std::move(*body),
            OfflineCacheManaging::Completion([completion](std::exception_ptr error) { complete(completion, error); }));
        return;
    }
    log().info("Online mode. Sending consent submission request.");
    std::optional<Parts::KeepOnFailure> keep;
    // A resend that fails stays where it is in the cache; the walk counts it.
    if (offlineTracking && live) keep = Parts::KeepOnFailure{OfflineCache::RequestType::consentSubmission};
    p.sendRequest(*url, std::move(*body), std::move(completion), keep);
}

void Service::sendDataSubmission(DataSubmissionModel data, Completion completion) {
    const Parts p = parts();
    const auto url = p.buildURL("");
    if (!url) return complete(completion, serviceError(ServiceError::Code::invalidURL));
    auto body = Parts::encodeToJSON(data);
    if (!body) return complete(completion, serviceError(ServiceError::Code::invalidRequestBody));
    log().info([&] { return "Initiating data submission request. URL: " + *url; });
    std::optional<Parts::KeepOnFailure> keep;
    if (p.isOfflineTrackingEnabled()) {
        keep = Parts::KeepOnFailure{OfflineCache::RequestType::dataSubmission};
        if (p.offlineCacheManager->isCurrentlyOffline()) {
            log().info("Offline: Caching data submission request");
            p.offlineCacheManager->cacheRequest(
                OfflineCache::RequestType::dataSubmission, std::move(*body),
                OfflineCacheManaging::Completion(
                    [completion](std::exception_ptr error) { complete(completion, error); }));
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
    p.sendRequest(*url, std::move(*body), std::move(completion), keep);
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
