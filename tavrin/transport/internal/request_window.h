#pragma once
// A bounded window of requests between the transport and the HTTP client:
// at most a few requests to one endpoint are with the client at a time (its
// connections to one host), live sends and resends together; the rest wait
// here in order, each holding nothing but its request. A client handed
// thousands of transfers at once holds them all in memory, and removing each
// finished one costs more as its queue grows.

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "tavrin/platform/http_client.h"

namespace tavrin::detail {

class RequestWindow : public std::enable_shared_from_this<RequestWindow> {
public:
    explicit RequestWindow(std::size_t perEndpoint = 6) : perEndpoint_(perEndpoint ? perEndpoint : 1) {}

    // Sends the request with `body` through `client` now, or once an earlier
    // request to the same URL has finished; while it waits, the body is held
    // once (shared with the caller, who may keep it for later). The request's
    // timeout counts from this call, waiting included: one whose time runs out
    // while it waits fails with UrlError timedOut unsent. The completion runs
    // exactly once.
    void send(std::shared_ptr<platform::HttpClient> client, platform::HttpRequest request,
              std::shared_ptr<const Bytes> body, platform::HttpClient::Completion completion);

    // Requests handed to a client and not yet finished, over all URLs.
    std::size_t inFlight() const;
    std::size_t waiting() const;

private:
    using Clock = std::chrono::steady_clock;
    struct Request {
        std::shared_ptr<platform::HttpClient> client;
        platform::HttpRequest request;
        std::shared_ptr<const Bytes> body;
        Clock::time_point deadline;
        platform::HttpClient::Completion completion;
        bool waited = false;
    };
    struct Lane {
        std::size_t inFlight = 0;
        std::deque<Request> waiting;
    };

    void launch(Request request);
    void finished(const std::string& url);

    const std::size_t perEndpoint_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, Lane> lanes_;
};

}  // namespace tavrin::detail
