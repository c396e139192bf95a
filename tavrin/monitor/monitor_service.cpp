#include "tavrin/monitor/internal/monitor_service.h"

#include <atomic>

#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/transport/internal/service.h"

namespace tavrin {

namespace {

constexpr double kMonitorTimeoutSeconds = 60;

using detail::describe;

detail::SharedInstance<MonitorService>& sharedSlot() {
    static auto* slot = new detail::SharedInstance<MonitorService>();
    return *slot;
}

}  // namespace

Json MonitorPayload::encode() const {
    Json out = jsonObject(6);
    out["debugid"] = debugID;
    out["consent"] = encodeJson(consent);
    out["docs"] = encodeJson(docs);
    out["state"] = state;
    out["eventDocumentId"] = eventDocumentID;
    out["tags"] = encodeJson(tags);
    return out;
}

// ---- DefaultMonitorService

DefaultMonitorService::DefaultMonitorService(std::shared_ptr<platform::HttpClient> session)
    : session_(std::move(session)) {}

void DefaultMonitorService::send(MonitorPayload payload, Completion completion) {
    // Always https, whatever customProtocol says.
    const std::string url = "https://" + TrackingSettings::shared()->trackDomain() + "/monitor";
    if (!platform::Url::parse(url))
        return completion(std::make_exception_ptr(Service::ServiceError(Service::ServiceError::Code::invalidURL)));
    platform::HttpRequest request;
    request.method = "POST";
    request.url = url;
    request.timeoutSeconds = kMonitorTimeoutSeconds;
    request.setHeader("Content-Type", "application/json");
    try {
        request.body = platform::toBytes(encodeJsonText(payload));
    } catch (...) {
        return completion(std::current_exception());
    }
    auto session = session_ ? session_ : platform::HttpClient::shared();
    session->send(std::move(request), [completion = std::move(completion)](platform::HttpResult result) {
        if (result.error) return completion(result.error);
        const int status = result.response->statusCode;
        if (status >= 200 && status <= 299) return completion(nullptr);
        completion(std::make_exception_ptr(Service::ServiceError(Service::ServiceError::Code::invalidResponse)));
    });
}

// ---- MonitorService

MonitorService::MonitorService(std::shared_ptr<MonitorServiceProtocol> service)
    : service_(service ? std::move(service) : std::make_shared<DefaultMonitorService>()) {}

std::shared_ptr<MonitorService> MonitorService::shared() {
    return sharedSlot().get([] { return std::make_shared<MonitorService>(); });
}

void MonitorService::resetShared() { sharedSlot().reset(); }

void MonitorService::setDebugCode(std::optional<std::string> debugCode) {
    std::lock_guard lock(mutex_);
    debugCode_ = std::move(debugCode);
}

std::optional<std::string> MonitorService::debugCode() const {
    std::lock_guard lock(mutex_);
    return debugCode_;
}

void MonitorService::setService(std::shared_ptr<MonitorServiceProtocol> service) {
    std::lock_guard lock(mutex_);
    service_ = std::move(service);
}

void MonitorService::clearSentTags(const TagCache::Snapshot& sent) {
    // Only what the report carried: tags added while it was on its way stay
    // for the next one.
    TagCache::shared().remove(sent);
}

void MonitorService::sendMonitorRequest(std::function<void()> done) {
    std::optional<std::string> code;
    std::shared_ptr<MonitorServiceProtocol> service;
    {
        std::lock_guard lock(mutex_);
        code = debugCode_;
        service = service_;
    }
    if (!code) {
        if (done) done();
        return;
    }
    MonitorPayload payload;
    payload.debugID = *code;
    auto sent = TagCache::shared().snapshot();
    payload.tags = sent.tags;
    // Exactly once, also when the sender throws after completing.
    auto ran = std::make_shared<std::atomic<bool>>(false);
    auto finish = [done = std::move(done), sent = std::move(sent), ran](std::exception_ptr error) {
        if (ran->exchange(true)) return;
        if (!error) {
            try {
                clearSentTags(sent);
                LoggerUtility::shared().info("/monitor request sent successfully. Cache cleared.");
            } catch (...) {
                LoggerUtility::shared().error([&] {
                    return "/monitor request sent, but its tags could not be cleared: " +
                           describe(std::current_exception());
                });
            }
        } else {
            LoggerUtility::shared().error([&] { return "Failed to send /monitor request: " + describe(error); });
        }
        if (done) done();
    };
    try {
        service->send(std::move(payload), finish);
    } catch (...) {
        finish(std::current_exception());
    }
}

std::future<void> MonitorService::sendMonitorRequest() {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    sendMonitorRequest([promise] { promise->set_value(); });
    return future;
}

}  // namespace tavrin
