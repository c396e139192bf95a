#include "tavrin/transport/internal/offline_cache_manager.h"

#include <stdexcept>
#include <utility>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/secure_random.h"
#include "tavrin/platform/internal/text.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/transport/internal/retry_policy.h"
#include "tavrin/transport/internal/service.h"

namespace tavrin {

namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;

// How long stopNetworkMonitoring waits for a request still out before it
// abandons the walk (whose result is then not written).
constexpr auto kStopGrace = 5s;

LoggerUtility& log() { return LoggerUtility::shared(); }

using detail::describe;

detail::SharedInstance<OfflineCacheManager>& sharedSlot() {
    static auto* slot = new detail::SharedInstance<OfflineCacheManager>();
    return *slot;
}

// The manager whose walk code this thread is running, if any: a stop called
// from there (a host's log sink, say) must not wait for that walk to end.
thread_local const OfflineCacheManager* tWalking = nullptr;

struct Walking {
    explicit Walking(const OfflineCacheManager* manager) : previous(std::exchange(tWalking, manager)) {}
    ~Walking() { tWalking = previous; }
    const OfflineCacheManager* previous;
};

void logResendOutcome(std::exception_ptr error) {
    if (error) log().error([&] { return "Failed to retry cached requests: " + describe(error); });
}

}  // namespace

void OfflineCacheManaging::cacheRequest(OfflineCache::RequestType type, Bytes payload, std::function<void()> cached) {
    cacheRequest(type, std::move(payload), Completion([cached = std::move(cached)](std::exception_ptr) {
                     if (cached) cached();
                 }));
}

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
    std::uint64_t retryEpoch = 0;
    std::vector<Completion> completions;
    std::vector<OfflineCache::Entry> snapshot;
    std::size_t next = 0;      // the first entry not started
    std::size_t inFlight = 0;  // started and not yet answered
    // Grows from one as answers succeed: after an outage a single request
    // finds out whether the server is back.
    std::size_t window = 1;
    std::size_t delivered = 0;
    bool consentInFlight = false;
    bool stopped = false;
    bool ended = false;
    bool pumping = false;
    bool pumpAgain = false;
    // A resend met a server failure: nothing more is sent in this walk.
    bool serverFailed = false;
    std::optional<std::chrono::seconds> retryAfter;
    // Delivered or discarded requests, removed a window at a time.
    std::vector<std::uint64_t> removals;
};

// The walk lock, marking this thread as inside walk code while held.
class OfflineCacheManager::WalkLock {
public:
    explicit WalkLock(OfflineCacheManager& manager) : lock_(manager.walkMutex_), walking_(&manager) {}

private:
    std::unique_lock<std::recursive_mutex> lock_;
    Walking walking_;
};

OfflineCacheManager::OfflineCacheManager(std::shared_ptr<OfflineCache> cache)
    : offlineCache_(cache ? std::move(cache) : OfflineCache::forStore(platform::KeyValueStore::standard())),
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

void OfflineCacheManager::cacheRequest(OfflineCache::RequestType type, Bytes payload, Completion done) {
    if (!isOfflineTrackingEnabled_) {
        log().info("Offline tracking is disabled. Request not cached.");
        if (done) done(nullptr);
        return;
    }
    log().info([&] {
        const std::string text = platform::toString(payload);
        return "Caching request payload: " + (detail::isValidUtf8(text) ? text : std::string("Invalid Payload"));
    });
    const std::size_t size = payload.size();
    OfflineCache::Request request{type, std::move(payload), platform::Clock::now(), 0};
    offlineCache_->tryAdd(std::move(request), [type, size, done = std::move(done)](bool added) {
        if (!added) {
            if (done)
                done(std::make_exception_ptr(std::length_error(
                    "The request of " + std::to_string(size) + " bytes is larger than the offline cache keeps (" +
                    std::to_string(OfflineCache::maxRequestBytes()) + " bytes per request).")));
            return;
        }
        log().info([&] { return std::string("Request cached: ") + requestTypeName(type); });
        if (done) done(nullptr);
    });
}

// ---- resend walks

void OfflineCacheManager::resendCachedRequests(Completion completion) {
    if (shutDown_) {
        if (completion) completion(nullptr);
        return;
    }
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
    {
        std::lock_guard lock(retryMutex_);
        walk->retryEpoch = retryEpoch_;
    }
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] {
        {
            WalkLock lock(*self);
            if (walk->generation != self->generation_) {
                walk->ended = true;
                self->endWalk(walk);
                return;
            }
            self->currentWalk_ = walk;
            self->offlineCache_->removeExpiredRequests(self->timeout_.load());
        }
        // The list as it stands after the expiry, without payloads: each is
        // read when its request is sent.
        walk->snapshot = self->offlineCache_->entries();
        self->pump(walk);
    });
}

// Under the walk lock: moves into `toSend` what the window lets go now.
// False when the walk parks until the first network status report.
bool OfflineCacheManager::takeSendable(const std::shared_ptr<Walk>& walk, std::vector<OfflineCache::Entry>& toSend) {
    while (!walk->stopped && walk->next < walk->snapshot.size() && walk->inFlight < walk->window) {
        // A send without a path fails and uses up one of the request's
        // attempts: a host launched again and again without network, or
        // a link that drops during a walk, would have its requests
        // discarded unsent. They stay untouched instead; regaining the
        // path starts the next walk.
        if (awaitingFirstPath_) {
            if (walk->inFlight == 0) {
                log().info("Resending cached requests waits for the first network status.");
                parkedWalk_ = walk;
                walk->pumping = false;
                return false;
            }
            break;
        }
        if (isCurrentlyOffline_.load()) {
            log().info("Offline: Cached requests stay cached until the network returns.");
            walk->stopped = true;
            break;
        }
        if (walk->serverFailed) {
            log().info("Server failure: The remaining cached requests wait for the next retry.");
            walk->stopped = true;
            break;
        }
        const auto& entry = walk->snapshot[walk->next];
        if (entry.type == Type::monitorRequest) {
            log().warning(
                [&] { return std::string("Unknown request type: ") + requestTypeName(entry.type) + ". Skipping."; });
            ++walk->next;
            continue;
        }
        // A consent report goes alone: after everything cached before
        // it, and before anything cached after it, so the server sees
        // decisions and the data around them in the order they came.
        if (walk->consentInFlight) break;
        const bool consent = entry.type == Type::consentSubmission;
        if (consent && walk->inFlight > 0) break;
        toSend.push_back(entry);
        ++walk->next;
        ++walk->inFlight;
        walk->consentInFlight = consent;
    }
    return true;
}

// Starts what the window allows. One pump runs per walk at a time; an answer
// arriving meanwhile makes the running pump look again.
void OfflineCacheManager::pump(const std::shared_ptr<Walk>& walk) {
    {
        WalkLock lock(*this);
        if (walk->pumping) {
            walk->pumpAgain = true;
            return;
        }
        walk->pumping = true;
    }
    for (;;) {
        std::vector<OfflineCache::Entry> toSend;
        bool finish = false;
        {
            WalkLock lock(*this);
            walk->pumpAgain = false;
            if (walk->generation != generation_) walk->stopped = true;
            if (!takeSendable(walk, toSend)) return;
            if (toSend.empty()) {
                if (walk->pumpAgain) continue;
                walk->pumping = false;
                const bool done = walk->stopped || walk->next >= walk->snapshot.size();
                if (walk->inFlight > 0 || !done || walk->ended) return;
                walk->ended = true;
                if (walk->generation == generation_) flushRemovals(*walk);
                finish = true;
            }
        }
        if (finish) {
            endWalk(walk);
            return;
        }
        Walking walking(this);
        for (const auto& entry : toSend) send(walk, entry);
    }
}

// Outside the walk lock: the sender may answer on this very stack.
void OfflineCacheManager::send(const std::shared_ptr<Walk>& walk, const OfflineCache::Entry& entry) {
    auto done = [self = shared_from_this(), walk, entry](std::exception_ptr error) {
        self->finished(walk, entry, std::move(error));
    };
    try {
        auto request = offlineCache_->request(entry);
        if (!request) {
            // Dropped meanwhile (the cache was full) or unreadable: nothing to send.
            WalkLock lock(*this);
            --walk->inFlight;
            if (entry.type == Type::consentSubmission) walk->consentInFlight = false;
            walk->pumpAgain = true;
            return;
        }
        if (entry.type == Type::dataSubmission) {
            service()->resendCachedDataSubmission(std::move(request->payload), std::move(done));
            return;
        }
        ConsentModel consent;
        try {
            consent = decodeJson<ConsentModel>(platform::toString(request->payload));
        } catch (const DecodingError&) {
            done(std::current_exception());
            return;
        }
        service()->resendCachedConsentSubmission(std::move(consent), std::move(done));
    } catch (...) {
        done(std::current_exception());
    }
}

void OfflineCacheManager::finished(const std::shared_ptr<Walk>& walk, const OfflineCache::Entry& entry,
                                   std::exception_ptr error) {
    {
        // The cache writes are submitted under the walk lock, so a stop that
        // bumped the generation and then drained the cache has seen them all.
        WalkLock lock(*this);
        --walk->inFlight;
        if (entry.type == Type::consentSubmission) walk->consentInFlight = false;
        if (walk->generation != generation_) {
            walk->stopped = true;
        } else {
            const char* type = requestTypeName(entry.type);
            if (!error) {
                walk->removals.push_back(entry.sequence);
                ++walk->delivered;
                walk->window = std::min(walk->window * 2, walkWindow);
                log().info([&] { return std::string(type) + " request sent and removed from cache."; });
            } else {
                if (detail::isRetryableFailure(error)) {
                    walk->serverFailed = true;
                    if (const auto asked = detail::retryAfterOf(error);
                        asked && (!walk->retryAfter || *asked > *walk->retryAfter))
                        walk->retryAfter = asked;
                }
                try {
                    std::rethrow_exception(error);
                } catch (const platform::UrlError& e) {
                    log().error([&] { return "Network error: " + std::string(e.what()) + ". Retrying request."; });
                    handleRetry(*walk, entry, maxRetries);
                } catch (const DecodingError& e) {
                    log().error(
                        [&] { return "Decoding error: " + std::string(e.what()) + ". Request will not be retried."; });
                    walk->removals.push_back(entry.sequence);
                } catch (...) {
                    log().error([&] { return "Unexpected error: " + describe(error) + ". Retrying request."; });
                    handleRetry(*walk, entry, maxRetries);
                }
            }
            if (walk->removals.size() >= walkWindow || walk->inFlight == 0) flushRemovals(*walk);
        }
    }
    // On a pool thread rather than here: this may be the HTTP client's thread,
    // and the next requests' payloads are read from the store.
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] { self->pump(walk); });
}

void OfflineCacheManager::flushRemovals(Walk& walk) {
    if (walk.removals.empty()) return;
    offlineCache_->removeEntries(std::exchange(walk.removals, {}));
}

void OfflineCacheManager::handleRetry(Walk& walk, const OfflineCache::Entry& entry, std::int64_t maxRetries) {
    const char* type = requestTypeName(entry.type);
    if (entry.retryCount >= maxRetries) {
        log().warning([&] {
            return std::string("Request of type ") + type + " exceeded maximum retries and will be discarded.";
        });
        walk.removals.push_back(entry.sequence);
        return;
    }
    offlineCache_->incrementRetryCount(entry.sequence);
    // The count from the snapshot, before the increment.
    log().info([&] {
        return std::string("Retrying request of type ") + type + ". Retry count: " + std::to_string(entry.retryCount) +
               ".";
    });
}

// Called once per walk, with or without walkMutex_ held; the completions run
// on a pool task, outside the lock.
void OfflineCacheManager::endWalk(const std::shared_ptr<Walk>& walk) {
    platform::TaskPool::shared().detach([self = shared_from_this(), walk] {
        if (walk->serverFailed) {
            self->retryLaterFrom(walk->retryEpoch, walk->retryAfter);
        } else if (walk->delivered > 0) {
            std::lock_guard lock(self->retryMutex_);
            if (walk->retryEpoch == self->retryEpoch_) self->backoffAttempt_ = 0;
        }
        std::vector<Completion> pending;
        std::uint64_t generation = 0;
        {
            std::lock_guard lock(self->walkMutex_);
            if (self->currentWalk_ == walk) self->currentWalk_ = nullptr;
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
    // Before the walks end: a walk ending now cannot arm a new timer.
    cancelRetryTimer();
    {
        const bool fromWalk = tWalking == this;
        std::unique_lock<std::recursive_mutex> lock(walkMutex_);
        ++generation_;
        walkPending_ = false;
        dropped.swap(pendingWalk_);
        // What was delivered is removed now: the walk's last write.
        if (currentWalk_) flushRemovals(*currentWalk_);
        // Without a monitor no first report comes: a waiting walk ends here.
        awaitingFirstPath_ = false;
        if (auto parked = std::exchange(parkedWalk_, nullptr)) {
            parked->ended = true;
            endWalk(parked);
        }
        // From inside the walk, waiting would wait for ourselves.
        idle = fromWalk ? !walkRunning_ : walkIdle_.wait_for(lock, timeout, [&] { return !walkRunning_; });
    }
    offlineCache_->drain();
    for (auto& completion : dropped)
        if (completion) completion(nullptr);
    return idle;
}

// ---- retries after server failures

void OfflineCacheManager::retryLater(std::optional<std::chrono::seconds> retryAfter) {
    std::uint64_t epoch;
    {
        std::lock_guard lock(retryMutex_);
        epoch = retryEpoch_;
    }
    retryLaterFrom(epoch, retryAfter);
}

void OfflineCacheManager::retryLaterFrom(std::uint64_t epoch, std::optional<std::chrono::seconds> retryAfter) {
    if (!isOfflineTrackingEnabled_ || shutDown_) return;
    std::lock_guard lock(retryMutex_);
    if (epoch != retryEpoch_) return;
    const double random01 = static_cast<double>(platform::SecureRandom::uniform(0, 999'999)) / 1e6;
    const auto delay = detail::RetryBackoff::delay(backoffAttempt_, retryAfter, random01);
    const auto due = std::chrono::steady_clock::now() + delay;
    if (retryTimer_) {
        // One timer at a time; only a server asking for a later retry moves it.
        if (!retryAfter || due <= retryDue_) return;
        monitorQueue_.cancel(*retryTimer_);
    } else {
        ++backoffAttempt_;
    }
    retryDue_ = due;
    const std::uint64_t serial = ++retrySerial_;
    retryTimer_ = monitorQueue_.asyncAfter(delay, [weak = weak_from_this(), serial] {
        if (auto self = weak.lock()) self->retryTimerFired(serial);
    });
    log().info([&] {
        return "Server failure: Cached requests are retried in " +
               detail::shortestDecimalText(static_cast<double>(delay.count()) / 1000) + " s.";
    });
}

void OfflineCacheManager::retryTimerFired(std::uint64_t serial) {
    {
        std::lock_guard lock(retryMutex_);
        if (serial != retrySerial_ || !retryTimer_ || shutDown_) return;
        retryTimer_.reset();
    }
    log().info("Retrying cached requests after a server failure.");
    resendCachedRequests(logResendOutcome);
}

void OfflineCacheManager::serverReachable() {
    if (shutDown_) return;
    {
        std::lock_guard lock(retryMutex_);
        backoffAttempt_ = 0;
        if (!retryTimer_) return;
        monitorQueue_.cancel(*retryTimer_);
        retryTimer_.reset();
        ++retrySerial_;
    }
    log().info("The server answers again: Retrying cached requests now.");
    resendCachedRequests(logResendOutcome);
}

void OfflineCacheManager::cancelRetryTimer() {
    std::lock_guard lock(retryMutex_);
    if (retryTimer_) monitorQueue_.cancel(*retryTimer_);
    retryTimer_.reset();
    ++retrySerial_;
    ++retryEpoch_;
    backoffAttempt_ = 0;
}

// ---- network monitoring

void OfflineCacheManager::startNetworkMonitoring() {
    std::lock_guard lock(monitorMutex_);
    if (isMonitoring_) {
        log().warning("Network monitoring is already active.");
        return;
    }
    std::uint64_t serial;
    {
        std::lock_guard walkLock(walkMutex_);
        awaitingFirstPath_ = true;
        serial = ++monitorSerial_;
    }
    auto monitor = platform::PathMonitor::make();
    monitor->setUpdateHandler([weak = weak_from_this()](platform::PathStatus status) {
        if (auto self = weak.lock()) self->handlePathUpdate(status != platform::PathStatus::satisfied);
    });
    monitor->start(monitorQueue_);
    monitor_ = std::move(monitor);
    isMonitoring_ = true;
    monitorQueue_.asyncAfter(firstPathWait_.load(), [weak = weak_from_this(), serial] {
        if (auto self = weak.lock()) self->firstPathOverdue(serial);
    });
}

void OfflineCacheManager::firstPathOverdue(std::uint64_t serial) {
    std::shared_ptr<Walk> parked;
    {
        std::lock_guard lock(walkMutex_);
        if (serial != monitorSerial_ || !awaitingFirstPath_) return;
        awaitingFirstPath_ = false;
        parked = std::move(parkedWalk_);
    }
    log().warning([&] {
        return "No network status reported within " +
               detail::shortestDecimalText(static_cast<double>(firstPathWait_.load().count()) / 1000) +
               " s: Cached requests are sent as if online.";
    });
    if (parked) platform::TaskPool::shared().detach([self = shared_from_this(), parked] { self->pump(parked); });
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
    if (parked) platform::TaskPool::shared().detach([self = shared_from_this(), parked] { self->pump(parked); });
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
    shutDown_ = true;
    {
        std::lock_guard lock(monitorMutex_);
        if (monitor_) monitor_->cancel();
        monitor_.reset();
        isMonitoring_ = false;
    }
    return endWalks(timeout);
}

}  // namespace tavrin
