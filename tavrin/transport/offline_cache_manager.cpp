#include "tavrin/transport/internal/offline_cache_manager.h"

#include <utility>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/monitor/internal/user_agent_utility.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/session/internal/shortest_decimal_text.h"
#include "tavrin/transport/service.h"

namespace tavrin {

namespace {

using namespace std::chrono_literals;

// How long stopNetworkMonitoring waits for a request still out before it
// abandons the walk (whose result is then not written).
constexpr auto kStopGrace = 5s;

LoggerUtility& log() { return LoggerUtility::shared(); }

using detail::describe;

detail::SharedInstance<OfflineCacheManager>& sharedSlot() {
    static auto* slot = new detail::SharedInstance<OfflineCacheManager>();
    return *slot;
}

}  // namespace

std::future<void> OfflineCacheManaging::resendCachedRequests() {
    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    resendCachedRequests([promise](std::exception_ptr error) {
        if (error) {
            promise->set_exception(error);
        } else {
            promise->set_value();
        }
    });
    return future;
}

struct OfflineCacheManager::Walk {
    std::uint64_t generation = 0;
    std::vector<Completion> completions;
    std::vector<OfflineCache::Request> snapshot;
    std::size_t next = 0;
};

OfflineCacheManager::OfflineCacheManager(std::shared_ptr<OfflineCache> cache)
    : offlineCache_(cache ? std::move(cache) : std::make_shared<OfflineCache>()),
      monitorQueue_("com.tavrin.OfflineCacheMonitorQueue") {}

OfflineCacheManager::~OfflineCacheManager() {
    std::shared_ptr<platform::PathMonitor> monitor;
    {
        std::lock_guard lock(monitorMutex_);
        monitor = std::move(monitor_);
    }
    if (monitor) monitor->cancel();
}

std::shared_ptr<OfflineCacheManager> OfflineCacheManager::shared() {
    return sharedSlot().get([] { return std::make_shared<OfflineCacheManager>(); });
}

void OfflineCacheManager::resetShared() {
    auto previous = sharedSlot().take();
    if (previous) previous->shutdown(kStopGrace);
}

void OfflineCacheManager::setService(std::weak_ptr<ServiceProtocol> service) {
    std::lock_guard lock(serviceMutex_);
    service_ = std::move(service);
}

std::shared_ptr<ServiceProtocol> OfflineCacheManager::service() const {
    {
        std::lock_guard lock(serviceMutex_);
        if (auto service = service_.lock()) return service;
    }
    return Service::shared();
}

void OfflineCacheManager::configure(bool enableOfflineTracking, double timeout) {
    isOfflineTrackingEnabled_ = enableOfflineTracking;
    timeout_ = timeout;
    log().info([&] {
        return std::string("OfflineCacheManager configured with enableOfflineTracking: ") +
               (enableOfflineTracking ? "true" : "false") + ", timeout: " + detail::shortestDecimalText(timeout);
    });
}

void OfflineCacheManager::cacheRequest(OfflineCache::RequestType type, Bytes payload, std::function<void()> cached) {
    if (!isOfflineTrackingEnabled_) {
        log().info("Offline tracking is disabled. Request not cached.");
        if (cached) cached();
        return;
    }
    log().info([&] {
        const std::string text = platform::toString(payload);
        return "Caching request payload: " + (detail::isValidUtf8(text) ? text : std::string("Invalid Payload"));
    });
    OfflineCache::Request request{type, std::move(payload), platform::Clock::now(), 0};
    offlineCache_->add(std::move(request), [type, cached = std::move(cached)] {
        log().info([&] { return std::string("Request cached: ") + requestTypeName(type); });
        if (cached) cached();
    });
}

// ---- resend walks

void OfflineCacheManager::resendCachedRequests(Completion completion) {
    std::uint64_t generation;
    {
        std::lock_guard lock(walkMutex_);
        if (walkRunning_) {
            walkPending_ = true;
            pendingWalk_.push_back(std::move(completion));
            return;
        }
        walkRunning_ = true;
        generation = generation_;
    }
    std::vector<Completion> completions;
    completions.push_back(std::move(completion));
    startWalk(std::move(completions), generation);
}

void OfflineCacheManager::startWalk(std::vector<Completion> completions, std::uint64_t generation) {
    auto walk = std::make_shared<Walk>();
    walk->generation = generation;
    walk->completions = std::move(completions);
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] {
        {
            std::lock_guard lock(self->walkMutex_);
            if (walk->generation != self->generation_) {
                self->endWalk(walk);
                return;
            }
            self->offlineCache_->removeExpiredRequests(self->timeout_.load());
        }
        walk->snapshot = self->offlineCache_->getCachedRequests();
        self->step(walk);
    });
}

void OfflineCacheManager::step(std::shared_ptr<Walk> walk) {
    try {
        std::lock_guard lock(walkMutex_);
        while (walk->next < walk->snapshot.size() && walk->generation == generation_) {
            // A send without a path fails and uses up one of the request's
            // attempts: a host launched again and again without network, or a
            // link that drops during a walk, would have its requests discarded
            // unsent. They stay untouched instead; regaining the path starts
            // the next walk.
            if (awaitingFirstPath_) {
                log().info("Resending cached requests waits for the first network status.");
                parkedWalk_ = std::move(walk);
                return;
            }
            if (isCurrentlyOffline_.load()) {
                log().info("Offline: Cached requests stay cached until the network returns.");
                break;
            }
            const std::size_t index = walk->next;
            const auto& request = walk->snapshot[index];
            auto done = [self = shared_from_this(), walk, index](std::exception_ptr error) {
                self->finished(walk, index, std::move(error));
            };
            switch (request.type) {
                case OfflineCache::RequestType::dataSubmission:
                    service()->resendCachedDataSubmission(request.payload, std::move(done));
                    return;
                case OfflineCache::RequestType::consentSubmission: {
                    ConsentModel consent;
                    try {
                        consent = decodeJson<ConsentModel>(platform::toString(request.payload));
                    } catch (const DecodingError&) {
                        done(std::current_exception());
                        return;
                    }
                    // Sent again offline, it is cached again: under the lock too.
                    service()->sendConsentSubmission(std::move(consent), std::move(done));
                    return;
                }
                case OfflineCache::RequestType::monitorRequest:
                    log().warning([&] {
                        return std::string("Unknown request type: ") + requestTypeName(request.type) + ". Skipping.";
                    });
                    ++walk->next;
                    break;
            }
        }
    } catch (const std::exception& error) {
        log().error([&] { return std::string("Resending cached requests stopped: ") + error.what(); });
    }
    endWalk(walk);
}

void OfflineCacheManager::finished(std::shared_ptr<Walk> walk, std::size_t index, std::exception_ptr error) {
    const auto& request = walk->snapshot[index];
    {
        // The cache writes are submitted under the walk lock, so a stop that
        // bumped the generation and then drained the cache has seen them all.
        std::lock_guard lock(walkMutex_);
        if (walk->generation != generation_) {
            endWalk(walk);
            return;
        }
        const char* type = requestTypeName(request.type);
        if (!error) {
            offlineCache_->remove(request);
            log().info([&] { return std::string(type) + " request sent and removed from cache."; });
        } else {
            try {
                std::rethrow_exception(error);
            } catch (const platform::UrlError& e) {
                log().error([&] { return "Network error: " + std::string(e.what()) + ". Retrying request."; });
                handleRetry(request, maxRetries);
            } catch (const DecodingError& e) {
                log().error([&] { return "Decoding error: " + std::string(e.what()) + ". Request will not be retried."; });
                offlineCache_->remove(request);
            } catch (...) {
                log().error([&] { return "Unexpected error: " + describe(error) + ". Retrying request."; });
                handleRetry(request, maxRetries);
            }
        }
        walk->next = index + 1;
    }
    // On a pool thread rather than here: this may be the HTTP client's thread,
    // or the sender's own stack when it failed before sending.
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] { self->step(walk); });
}

void OfflineCacheManager::handleRetry(const OfflineCache::Request& request, std::int64_t maxRetries) {
    const char* type = requestTypeName(request.type);
    if (request.retryCount >= maxRetries) {
        log().warning([&] { return std::string("Request of type ") + type + " exceeded maximum retries and will be discarded."; });
        offlineCache_->remove(request);
        return;
    }
    offlineCache_->incrementRetryCount(request);
    // The count from the snapshot, before the increment.
    log().info([&] {
        return std::string("Retrying request of type ") + type + ". Retry count: " + std::to_string(request.retryCount) + ".";
    });
}

// Called with or without walkMutex_ held; the completions run on a pool task,
// outside the lock.
void OfflineCacheManager::endWalk(const std::shared_ptr<Walk>& walk) {
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] {
        std::vector<Completion> pending;
        std::uint64_t generation = 0;
        {
            std::lock_guard lock(self->walkMutex_);
            if (self->walkPending_) {
                self->walkPending_ = false;
                pending.swap(self->pendingWalk_);
                generation = self->generation_;
            } else {
                self->walkRunning_ = false;
                self->walkIdle_.notify_all();
            }
        }
        for (auto& completion : walk->completions)
            if (completion) completion(nullptr);
        if (!pending.empty()) self->startWalk(std::move(pending), generation);
    });
}

bool OfflineCacheManager::endWalks(std::chrono::milliseconds timeout) {
    std::vector<Completion> dropped;
    bool idle;
    {
        std::unique_lock<std::recursive_mutex> lock(walkMutex_);
        ++generation_;
        walkPending_ = false;
        dropped.swap(pendingWalk_);
        // Without a monitor no first report comes: a waiting walk ends here.
        awaitingFirstPath_ = false;
        if (parkedWalk_) endWalk(std::exchange(parkedWalk_, nullptr));
        idle = walkIdle_.wait_for(lock, timeout, [&] { return !walkRunning_; });
    }
    offlineCache_->drain();
    for (auto& completion : dropped)
        if (completion) completion(nullptr);
    return idle;
}

// ---- network monitoring

void OfflineCacheManager::startNetworkMonitoring() {
    std::lock_guard lock(monitorMutex_);
    if (isMonitoring_) {
        log().warning("Network monitoring is already active.");
        return;
    }
    {
        std::lock_guard walkLock(walkMutex_);
        awaitingFirstPath_ = true;
    }
    auto monitor = platform::PathMonitor::make();
    monitor->setUpdateHandler([weak = weak_from_this()](platform::PathStatus status) {
        if (auto self = weak.lock()) self->handlePathUpdate(status != platform::PathStatus::satisfied);
    });
    monitor->start(monitorQueue_);
    monitor_ = std::move(monitor);
    isMonitoring_ = true;
}

void OfflineCacheManager::handlePathUpdate(bool offline) {
    const bool wasOffline = isCurrentlyOffline_.exchange(offline);
    log().info(std::string("Network status changed: ") + (offline ? "Offline" : "Online"));
    std::shared_ptr<Walk> parked;
    {
        std::lock_guard lock(walkMutex_);
        awaitingFirstPath_ = false;
        parked = std::move(parkedWalk_);
    }
    if (parked) platform::TaskPool::shared().detach([self = shared_from_this(), parked] { self->step(parked); });
    if (!wasOffline || offline) return;
    resendCachedRequests([](std::exception_ptr error) {
        if (!error) {
            log().info("Cached requests successfully resent after regaining network connectivity.");
        } else {
            log().error([&] {
                return "Failed to resend cached requests after regaining network connectivity: " + describe(error);
            });
        }
    });
}

void OfflineCacheManager::stopNetworkMonitoring() {
    {
        std::lock_guard lock(monitorMutex_);
        if (!isMonitoring_) {
            log().warning("Network monitoring is not active.");
            return;
        }
        monitor_->cancel();
        monitor_.reset();
        isMonitoring_ = false;
        log().info("Network monitoring stopped.");
    }
    endWalks(kStopGrace);
}

bool OfflineCacheManager::shutdown(std::chrono::milliseconds timeout) {
    {
        std::lock_guard lock(monitorMutex_);
        if (monitor_) monitor_->cancel();
        monitor_.reset();
        isMonitoring_ = false;
    }
    return endWalks(timeout);
}

}  // namespace tavrin
