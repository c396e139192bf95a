#pragma once
// Knows whether the device is offline, caches request bodies while offline
// tracking is on, and delivers them again once the network path is usable,
// giving up on a request after its fourth failed attempt.
//
// A resend walk keeps a window of data submissions out (up to twelve, six of
// them on the wire, growing from one as answers succeed) instead of awaiting
// each; a consent report goes alone, once everything cached before it has
// completed and before anything cached after it starts, so consent decisions
// reach the server in the order they were made, and in their place among the
// data. No thread waits while a request is out: each answer lets the walk go
// on. Removals of delivered requests are written together, a window at a time.
//
// Only one walk runs at a time; walks asked for while one runs are run once
// after it, so the start-up walk and a network-regained walk never send the
// same request twice. Stopping monitoring (or shutdown) ends the running walk:
// once it returns, no walk writes to the cache any more.
//
// Requests cached because the server failed are retried on a backoff timer
// (5 s doubling to 5 min, jittered; a server's Retry-After stands instead), or
// at once when a live send gets through again. A walk that meets a server
// failure sends nothing more, so one outage costs one attempt per walk, not
// one per cached request.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tavrin/platform/bytes.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/transport/internal/offline_cache.h"

namespace tavrin {

class ServiceProtocol;
namespace platform {
class PathMonitor;
}

class OfflineCacheManaging {
public:
    using Completion = std::function<void(std::exception_ptr error)>;

    virtual ~OfflineCacheManaging() = default;

    virtual void configure(bool enableOfflineTracking, double timeout) = 0;
    // `done` runs once the request is durable (no error), with the error that
    // kept it out of the cache (a request over the size limit), or at once
    // without error when it is not cached (offline tracking off); on any
    // thread, and must not block.
    virtual void cacheRequest(OfflineCache::RequestType type, Bytes payload, Completion done) = 0;
    // The same when the caller need not know of a refusal.
    void cacheRequest(OfflineCache::RequestType type, Bytes payload, std::function<void()> cached);
    // Runs one walk over the cache; the completion runs when it has ended.
    virtual void resendCachedRequests(Completion completion) = 0;
    virtual void startNetworkMonitoring() = 0;
    virtual void stopNetworkMonitoring() = 0;
    virtual bool isCurrentlyOffline() const = 0;
    // A send failed on the server's side and its request was cached: walk the
    // cache again later (after `retryAfter` when the server asked for it).
    virtual void retryLater(std::optional<std::chrono::seconds> retryAfter) { (void)retryAfter; }
    // A live send reached the server: requests waiting for a retry may go now.
    virtual void serverReachable() {}

    std::future<void> resendCachedRequests();
};

class OfflineCacheManager final : public OfflineCacheManaging,
                                  public std::enable_shared_from_this<OfflineCacheManager> {
public:
    static constexpr std::int64_t maxRetries = 3;
    // Resends a walk keeps out at most: enough to keep the HTTP client's six
    // connections to a host busy, with six more waiting in the transport to
    // go the moment a connection frees (handing over one by one from the walk
    // left each connection idle for a moment after every answer).
    static constexpr std::size_t walkWindow = 12;

    // cache: null uses the one cache of the standard store.
    explicit OfflineCacheManager(std::shared_ptr<OfflineCache> cache = nullptr);
    ~OfflineCacheManager() override;

    static std::shared_ptr<OfflineCacheManager> shared();
    // Tests: shuts the shared instance down and drops it.
    static void resetShared();

    // The sender of resends; held weakly. Unset (or gone): Service::shared().
    void setService(std::weak_ptr<ServiceProtocol> service);

    // How long walks wait for the monitor's first report (10 s unless set
    // before startNetworkMonitoring); past it they go on as if online.
    void setFirstPathWait(std::chrono::milliseconds wait) { firstPathWait_ = wait; }

    void configure(bool enableOfflineTracking, double timeout) override;
    using OfflineCacheManaging::cacheRequest;
    void cacheRequest(OfflineCache::RequestType type, Bytes payload, Completion done) override;
    using OfflineCacheManaging::resendCachedRequests;
    void resendCachedRequests(Completion completion) override;
    void startNetworkMonitoring() override;
    void stopNetworkMonitoring() override;
    bool isCurrentlyOffline() const override { return isCurrentlyOffline_.load(); }
    void retryLater(std::optional<std::chrono::seconds> retryAfter) override;
    void serverReachable() override;

    bool isMonitoring() const { return isMonitoring_.load(); }
    bool isOfflineTrackingEnabled() const { return isOfflineTrackingEnabled_.load(); }
    double timeout() const { return timeout_.load(); }
    OfflineCache& offlineCache() { return *offlineCache_; }

    // Stops monitoring (quietly) and ends walks, waiting up to `timeout` for a
    // request still out (not at all when called from the walk itself). True
    // when nothing was left running; either way no walk writes to the cache
    // after it returns, and nothing is retried any more.
    bool shutdown(std::chrono::milliseconds timeout);

private:
    struct Walk;
    class WalkLock;

    void handlePathUpdate(bool offline);
    void startWalk(std::vector<Completion> completions, std::uint64_t generation);
    void pump(const std::shared_ptr<Walk>& walk);
    bool takeSendable(const std::shared_ptr<Walk>& walk, std::vector<OfflineCache::Entry>& toSend);
    void send(const std::shared_ptr<Walk>& walk, const OfflineCache::Entry& entry);
    void finished(const std::shared_ptr<Walk>& walk, const OfflineCache::Entry& entry, std::exception_ptr error);
    void flushRemovals(Walk& walk);
    void endWalk(const std::shared_ptr<Walk>& walk);
    void handleRetry(Walk& walk, const OfflineCache::Entry& entry, std::int64_t maxRetries);
    bool endWalks(std::chrono::milliseconds timeout);
    std::shared_ptr<ServiceProtocol> service() const;
    void firstPathOverdue(std::uint64_t serial);
    void retryTimerFired(std::uint64_t serial);
    void cancelRetryTimer();
    // retryLater for a walk that began in retry epoch `epoch`: ignored once a
    // stop has started a new one.
    void retryLaterFrom(std::uint64_t epoch, std::optional<std::chrono::seconds> retryAfter);

    const std::shared_ptr<OfflineCache> offlineCache_;
    std::atomic<bool> isOfflineTrackingEnabled_{false};
    std::atomic<double> timeout_{3600};
    std::atomic<bool> isMonitoring_{false};
    std::atomic<bool> isCurrentlyOffline_{false};

    mutable std::mutex serviceMutex_;
    std::weak_ptr<ServiceProtocol> service_;

    std::mutex monitorMutex_;
    std::shared_ptr<platform::PathMonitor> monitor_;

    // Walk state: one walk at a time; a stop bumps the generation, and a walk
    // of an older generation neither sends nor writes again. Cache writes
    // happen under the lock, so a stop sees every write a walk caused;
    // recursive, so a host's code run from inside (a log sink) may stop the SDK.
    std::recursive_mutex walkMutex_;
    std::condition_variable_any walkIdle_;
    bool walkRunning_ = false;
    std::shared_ptr<Walk> currentWalk_;
    std::vector<Completion> pendingWalk_;
    bool walkPending_ = false;
    std::uint64_t generation_ = 0;
    // Between starting the monitor and its first report the path is unknown:
    // a walk that would send then waits here for the report, for a bounded
    // time (a monitor that failed to start never reports).
    bool awaitingFirstPath_ = false;
    std::shared_ptr<Walk> parkedWalk_;
    std::uint64_t monitorSerial_ = 0;
    std::atomic<std::chrono::milliseconds> firstPathWait_{std::chrono::seconds(10)};

    // Retry after server failures: at most one timer pending (on monitorQueue_).
    std::mutex retryMutex_;
    std::optional<std::uint64_t> retryTimer_;
    std::chrono::steady_clock::time_point retryDue_;
    std::uint64_t retrySerial_ = 0;
    std::uint64_t retryEpoch_ = 0;
    int backoffAttempt_ = 0;
    // After shutdown() nothing is retried or walked again; requests may still
    // be cached (sends the shutdown cancelled).
    std::atomic<bool> shutDown_{false};

    // Declared last: destroyed first, after the monitor is cancelled.
    platform::SerialQueue monitorQueue_;
};

}  // namespace tavrin
