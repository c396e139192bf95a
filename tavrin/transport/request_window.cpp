#include "tavrin/transport/internal/request_window.h"

#include <cmath>
#include <functional>
#include <vector>

namespace tavrin::detail {

namespace {

// Launches started while this thread is already launching (a completion that
// runs before send returns starts the next request) go on this list instead
// of deeper into the stack: a client that fails every request at once (shut
// down) would otherwise recurse once per waiting request.
thread_local std::deque<std::function<void()>>* tLaunches = nullptr;

void runLaunch(std::function<void()> launch) {
    if (tLaunches) {
        tLaunches->push_back(std::move(launch));
        return;
    }
    std::deque<std::function<void()>> launches;
    tLaunches = &launches;
    launch();
    while (!launches.empty()) {
        auto next = std::move(launches.front());
        launches.pop_front();
        next();
    }
    tLaunches = nullptr;
}

double defaultedTimeout(double seconds) { return std::isfinite(seconds) && seconds > 0 ? seconds : 60; }

}  // namespace

void RequestWindow::send(std::shared_ptr<platform::HttpClient> client, platform::HttpRequest request,
                         std::shared_ptr<const Bytes> body, platform::HttpClient::Completion completion) {
    const auto timeout = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(defaultedTimeout(request.timeoutSeconds)));
    Request entry{std::move(client), std::move(request), std::move(body), Clock::now() + timeout,
                  std::move(completion)};
    {
        std::lock_guard lock(mutex_);
        Lane& lane = lanes_[entry.request.url];
        if (lane.inFlight >= perEndpoint_) {
            entry.waited = true;
            lane.waiting.push_back(std::move(entry));
            return;
        }
        ++lane.inFlight;
    }
    launch(std::move(entry));
}

void RequestWindow::launch(Request request) {
    runLaunch([self = shared_from_this(), request = std::move(request)]() mutable {
        const auto left = std::chrono::duration<double>(request.deadline - Clock::now()).count();
        const std::string url = request.request.url;
        auto completion = std::move(request.completion);
        auto finish = [self, url, completion = std::move(completion)](platform::HttpResult result) {
            // The next request goes before this one's completion runs.
            self->finished(url);
            if (completion) completion(std::move(result));
        };
        if (left <= 0) {
            finish(platform::HttpResult{
                std::nullopt, std::make_exception_ptr(
                                  platform::UrlError(platform::UrlError::Code::timedOut, "",
                                                     "the request's time ran out while it waited for a connection"))});
            return;
        }
        // Sent at once, the request keeps the timeout its sender chose; after
        // a wait, only what is left of it.
        if (request.waited) request.request.timeoutSeconds = left;
        if (request.body) request.request.body = *request.body;
        request.body = nullptr;
        request.client->send(std::move(request.request), std::move(finish));
    });
}

void RequestWindow::finished(const std::string& url) {
    Request next;
    {
        std::lock_guard lock(mutex_);
        auto found = lanes_.find(url);
        if (found == lanes_.end()) return;
        Lane& lane = found->second;
        if (lane.waiting.empty()) {
            if (--lane.inFlight == 0) lanes_.erase(found);
            return;
        }
        next = std::move(lane.waiting.front());
        lane.waiting.pop_front();
    }
    launch(std::move(next));
}

std::size_t RequestWindow::inFlight() const {
    std::lock_guard lock(mutex_);
    std::size_t total = 0;
    for (const auto& [url, lane] : lanes_) total += lane.inFlight;
    return total;
}

std::size_t RequestWindow::waiting() const {
    std::lock_guard lock(mutex_);
    std::size_t total = 0;
    for (const auto& [url, lane] : lanes_) total += lane.waiting.size();
    return total;
}

}  // namespace tavrin::detail
