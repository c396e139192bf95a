#pragma once
// Knows whether the device is offline, caches request bodies while offline
// tracking is on, and delivers them again once the network path is usable,
// giving up on a request after its fourth failed attempt.
//
// Resend walks never hold a thread while a request is out: each request's
// completion starts the next one. Only one walk runs at a time; walks asked
// for while one runs are run once after it, so the start-up walk and a
// network-regained walk never send the same request twice. Stopping
// monitoring (or shutdown) ends the running walk: once it returns, no walk
// writes to the cache any more.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
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
    // `cached` runs once the request is durable, or at once when it is not
    // cached (offline tracking off); on any thread, and must not block.
    virtual void cacheRequest(OfflineCache::RequestType type, Bytes payload, std::function<void()> cached) = 0;
    // Runs one walk over the cache; the completion runs when it has ended.
    virtual void resendCachedRequests(Completion completion) = 0;
    virtual void startNetworkMonitoring() = 0;
    virtual void stopNetworkMonitoring() = 0;
    virtual bool isCurrentlyOffline() const = 0;

    std::future<void> resendCachedRequests();
};

class OfflineCacheManager final : public OfflineCacheManaging,
                                  public std::enable_shared_from_this<OfflineCacheManager> {
public:
    static constexpr std::int64_t maxRetries = 3;

    // cache: null uses a cache over the standard store.
    explicit OfflineCacheManager(std::shared_ptr<OfflineCache> cache = nullptr);
    ~OfflineCacheManager() override;

    static std::shared_ptr<OfflineCacheManager> shared();
    // Tests: shuts the shared instance down and drops it.
    static void resetShared();

    // The sender of resends; held weakly. Unset (or gone): Service::shared().
    void setService(std::weak_ptr<ServiceProtocol> service);

    void configure(bool enableOfflineTracking, double timeout) override;
    void cacheRequest(OfflineCache::RequestType type, Bytes payload, std::function<void()> cached) override;
    using OfflineCacheManaging::resendCachedRequests;
    void resendCachedRequests(Completion completion) override;
    void startNetworkMonitoring() override;
    void stopNetworkMonitoring() override;
    bool isCurrentlyOffline() const override { return isCurrentlyOffline_.load(); }

    bool isMonitoring() const { return isMonitoring_.load(); }
    bool isOfflineTrackingEnabled() const { return isOfflineTrackingEnabled_.load(); }
    double timeout() const { return timeout_.load(); }
    OfflineCache& offlineCache() { return *offlineCache_; }

    // Stops monitoring (quietly) and ends walks, waiting up to `timeout` for a
    // request still out. True when nothing was left running; either way no
    // walk writes to the cache after it returns.
    bool shutdown(std::chrono::milliseconds timeout);

private:
    struct Walk;

    void handlePathUpdate(bool offline);
    void startWalk(std::vector<Completion> completions, std::uint64_t generation);
    void step(std::shared_ptr<Walk> walk);
    void finished(std::shared_ptr<Walk> walk, std::size_t index, std::exception_ptr error);
    void endWalk(const std::shared_ptr<Walk>& walk);
    void handleRetry(const OfflineCache::Request& request, std::int64_t maxRetries);
    bool endWalks(std::chrono::milliseconds timeout);
    std::shared_ptr<ServiceProtocol> service() const;

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
    // of an older generation neither sends nor writes again. Sends and cache
    // writes happen under the lock (a sender may complete on the same stack,
    // hence recursive), so a stop sees every write a walk caused.
    std::recursive_mutex walkMutex_;
    std::condition_variable_any walkIdle_;
    bool walkRunning_ = false;
    std::vector<Completion> pendingWalk_;
    bool walkPending_ = false;
    std::uint64_t generation_ = 0;
    // Between starting the monitor and its first report the path is unknown:
    // a walk that would send then waits here for the report.
    bool awaitingFirstPath_ = false;
    std::shared_ptr<Walk> parkedWalk_;

    // Declared last: destroyed first, after the monitor is cancelled.
    platform::SerialQueue monitorQueue_;
};

}  // namespace tavrin
