// The client interface: results, the future form and the process-wide client.
// Header fields and UrlError: http_fields.cpp; Url: http_url.cpp; the libcurl
// client: curl_http_client.cpp.

#include "tavrin/platform/http_client.h"

#include "tavrin/platform/dispatch.h"

#include <mutex>

namespace tavrin::platform {

HttpResponse HttpResult::get() && {
    if (error) std::rethrow_exception(error);
    return std::move(*response);
}

std::future<HttpResponse> HttpClient::send(HttpRequest request) {
    auto promise = std::make_shared<std::promise<HttpResponse>>();
    auto future = promise->get_future();
    send(std::move(request), [promise](HttpResult result) {
        if (result.error) {
            promise->set_exception(result.error);
        } else {
            promise->set_value(std::move(*result.response));
        }
    });
    return future;
}

std::future<HttpResponse> HttpClient::post(std::string url, HttpHeaders headers, Bytes body, double timeoutSeconds) {
    HttpRequest request;
    request.method = "POST";
    request.url = std::move(url);
    request.headers = std::move(headers);
    request.body = std::move(body);
    request.timeoutSeconds = timeoutSeconds;
    return send(std::move(request));
}

std::future<HttpResponse> HttpClient::get(std::string url, HttpHeaders headers, double timeoutSeconds) {
    HttpRequest request;
    request.url = std::move(url);
    request.headers = std::move(headers);
    request.timeoutSeconds = timeoutSeconds;
    return send(std::move(request));
}

namespace {
std::mutex gSharedMutex;
std::shared_ptr<HttpClient> gShared;
std::uint32_t gSharedGeneration = 0;  // the fork generation gShared was set in
}  // namespace

std::shared_ptr<HttpClient> HttpClient::shared() {
    std::lock_guard lock(gSharedMutex);
    // A forked child starts its own client: the parent's thread is not there.
    if (gShared && gSharedGeneration != forkGeneration()) keepForever(std::exchange(gShared, nullptr));
    if (!gShared) {
        gShared = std::make_shared<SystemHttpClient>();
        gSharedGeneration = forkGeneration();
    }
    return gShared;
}

void HttpClient::setShared(std::shared_ptr<HttpClient> client) {
    std::shared_ptr<HttpClient> previous;
    {
        std::lock_guard lock(gSharedMutex);
        previous = std::exchange(gShared, std::move(client));
        gSharedGeneration = forkGeneration();
    }
    // The previous client (and its thread) goes away outside the lock.
}

}  // namespace tavrin::platform
