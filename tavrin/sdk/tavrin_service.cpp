#include "tavrin/sdk/tavrin_service.h"

#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>

#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/http_fields.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/transport/internal/offline_cache_manager.h"
#include "tavrin/transport/internal/service.h"

namespace tavrin {

namespace {

using Clock = std::chrono::steady_clock;

// How long the exit handler lets work in flight finish before it stops the
// HTTP client (which fails whatever is still out).
constexpr std::chrono::milliseconds kExitGrace{1500};

// The fork generation of the last configure; -1 before it and after shutdown.
std::atomic<std::int64_t> configuredIn{-1};

bool configuredHere() { return configuredIn.load() == platform::forkGeneration(); }

// A forked child (that did not configure) has none of the threads and sends
// its parent's configuration started: it leaves them be.
void shutdownAtExit() {
    if (configuredHere()) TavrinService::shutdown(kExitGrace);
}

// Around fork(): what a child goes on using (the start-up lock, the store, the
// in-memory cache) is not halfway through a change of another thread's.
void holdForFork() {
    platform::processLock().lock();
    UserDefaultsUtility::holdForFork();
    MemoryCacheUtility::shared().holdForFork();
}

void releaseAfterFork() {
    MemoryCacheUtility::shared().releaseAfterFork();
    UserDefaultsUtility::releaseAfterFork();
    platform::processLock().unlock();
}

// A host may return from main with submissions in flight. The handler gives
// them a grace period, then stops the HTTP client. Work that outlasts it (a
// completion still caching its request on a busy machine) runs on while exit
// destroys statics, which is why every shared object it may reach lives on
// the heap and is never destroyed. Creating them here, before the handler is
// registered, also means nothing the handler uses is built during exit.
void registerExitHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        (void)platform::TaskPool::shared();
        (void)MemoryCacheUtility::shared();
        (void)TagCache::shared();
        (void)MonitorService::shared();
        (void)detail::InFlightOperations::shared();
        (void)SessionManager::getSessionTimeout();
        (void)SessionManager::getCurrentSessionID();
        (void)TimestampUtility::currentTimestampInMillis();
        std::atexit(shutdownAtExit);
        platform::os::registerForkHandlers(holdForFork, releaseAfterFork, releaseAfterFork);
    });
}

// Waits until the processing queue of the current service has run every push
// enqueued so far, without waiting past the deadline.
bool drainPushes(Clock::time_point deadline) {
    const auto tracking = detail::TrackingServiceInternals::current();
    if (!tracking) return true;  // nothing configured: no pushes
    auto drained = std::make_shared<std::promise<void>>();
    auto future = drained->get_future();
    // Only signals, so a timed-out wait leaves nothing blocked behind it.
    detail::TrackingServiceInternals::whenPushesProcessed(*tracking, [drained] { drained->set_value(); });
    return future.wait_until(deadline) == std::future_status::ready;
}

}  // namespace

void TavrinService::setLogLevel(LogLevel level) {
    auto& logger = LoggerUtility::shared();
    logger.setLogLevel(level);
    logger.info([&] { return std::string("Log level set to: ") + description(level); });
}

void TavrinService::setOfflineCacheLimits(std::size_t maxTotalBytes, std::size_t maxRequestBytes) {
    OfflineCache::setLimits(maxTotalBytes, maxRequestBytes);
    LoggerUtility::shared().info([&] {
        return "Offline cache limits set to " + std::to_string(OfflineCache::maxTotalBytes()) + " bytes in total, " +
               std::to_string(OfflineCache::maxRequestBytes()) + " bytes per request.";
    });
}

namespace {

// What start-up found, for the monitor: the initialization tag, and the stored
// consent decision (added even when nothing is stored).
void addStartupTags(const std::string& trackDomain) {
    auto& logger = LoggerUtility::shared();
    auto& tags = TagCache::shared();
    tags.addOrReplace(Tag::makeInfo("AI01", "T-SDK: [INIT] - [AI01] Initialization finished: https://" + trackDomain,
                                    TimestampUtility::currentTimestampInMillis(), true));
    logger.info("Initialization tag added to TagCache.");

    const auto stored = VendorConsentsUtility("VendorConsents").retrieveVendorConsents();
    const auto consentJson = jsonString(stored.value_or(VendorValues{}));
    logger.debug(consentJson);
    tags.addOrReplace(Tag::makeInfo(
        "AC03", "T-SDK: [CONSENT] - [AC03] Consent information received - data from storage used: " + consentJson,
        TimestampUtility::currentTimestampInMillis(), true));
    if (stored) {
        logger.info("AC03 consent tag added to TagCache with stored consent information.");
    } else {
        logger.info("No stored consent information found.");
    }
}

void startResendWalk(const std::shared_ptr<OfflineCacheManager>& offlineCacheManager) {
    // Reading the cache and sending happen off the caller's thread; the walk
    // reports through its completion, so no thread waits for it.
    platform::TaskPool::shared().detach([offlineCacheManager] {
        offlineCacheManager->resendCachedRequests([](std::exception_ptr error) {
            if (!error) {
                LoggerUtility::shared().info("Cached requests successfully resent.");
                return;
            }
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& e) {
                LoggerUtility::shared().error(std::string("Failed to resend cached requests: ") + e.what());
            } catch (...) {
                LoggerUtility::shared().error("Failed to resend cached requests: unknown error");
            }
        });
    });
}

}  // namespace

void TavrinService::configure(const TrackConfig& config) {
    std::lock_guard startup(platform::processLock());
    auto& logger = LoggerUtility::shared();
    logger.info([&] { return "Configuring TavrinService with trackDomain: " + config.trackDomain; });
    if (const auto previous = configuredIn.load(); previous >= 0 && previous != platform::forkGeneration()) {
        // A child forked after configure: the parent's pushes, product data
        // and tags stay with the parent.
        MemoryCacheUtility::resetShared();
    }

    TrackingSettings::configure(config);
    if (!config.authorizationToken.empty() && config.customProtocol &&
        platform::detail::equalsIgnoringCase(*config.customProtocol, "http"))
        logger.warning(
            "The authorization token is sent in plain text: customProtocol is \"http\". Use https outside "
            "local testing.");

    const auto offlineCacheManager = OfflineCacheManager::shared();
    offlineCacheManager->configure(config.enableOfflineTracking, config.offlineTrackingTimeout);
    offlineCacheManager->startNetworkMonitoring();

    const auto service = Service::shared();
    const auto settings = TrackingSettings::shared();
    service->setSession(platform::HttpClient::shared());
    service->setTrackConfig(settings);
    service->setOfflineCacheManager(offlineCacheManager);

    detail::TrackingServiceInternals::initialize(service);

    if (config.debugCode) {
        MonitorService::shared()->setDebugCode(config.debugCode);
        logger.info([&] { return "MonitorService initialized with debugCode: " + *config.debugCode; });
    } else {
        logger.info("MonitorService not initialized due to missing debugCode.");
    }

    addStartupTags(config.trackDomain);
    startResendWalk(offlineCacheManager);

    configuredIn.store(platform::forkGeneration());
    registerExitHandler();
}

bool TavrinService::flush(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    const bool pushesDone = drainPushes(deadline);
    return detail::InFlightOperations::shared().waitIdle(deadline) && pushesDone;
}

bool TavrinService::shutdown(std::chrono::milliseconds timeout) {
    // A forked child that did not configure has nothing of its own to stop.
    if (configuredIn.load() >= 0 && !configuredHere()) return true;
    const auto deadline = Clock::now() + timeout;
    const bool finished = flush(timeout);

    std::lock_guard startup(platform::processLock());
    const bool wasConfigured = configuredIn.exchange(-1) >= 0;
    const auto remaining = std::max(std::chrono::milliseconds(0),
                                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
    // Requests the walk has not sent stay cached for the next launch.
    OfflineCacheManager::shared()->shutdown(remaining);
    OfflineCacheManager::resetShared();

    // Fails whatever is still out, so the completions waiting on it end now.
    const auto client = platform::HttpClient::shared();
    if (auto* system = dynamic_cast<platform::SystemHttpClient*>(client.get())) system->shutdown();
    platform::HttpClient::setShared(nullptr);
    // The failed requests' completions finish quickly once the client is down.
    detail::InFlightOperations::shared().waitIdle(Clock::now() + std::chrono::milliseconds(500));

    TrackingService::resetInstance();
    // The shared store is never closed (late work may still write to it), so
    // its log is folded into the database file here instead.
    if (wasConfigured) {
        platform::os::settleStore(*platform::KeyValueStore::standard());
    }
    LoggerUtility::shared().info(finished ? "TavrinService shut down."
                                          : "TavrinService shut down before all work finished.");
    return finished;
}

}  // namespace tavrin
