#pragma once
// The entry of the SDK for the host application: configure it once at
// start-up, and flush or shut it down before leaving.
//
//     tavrin::TavrinService::setLogLevel(tavrin::LogLevel::warning);
//     tavrin::TavrinService::configure(tavrin::TrackConfig{.trackDomain = "collect.example.com",
//                                                          .container = "shop-app",
//                                                          .authorizationToken = "shop-token",
//                                                          .enableOfflineTracking = true});
//     tavrin::TrackingService::shared()->push({{"track", "pageview"}});
//     bool sent = tavrin::TavrinService::flush(std::chrono::seconds(5));  // false: something still in flight
//     tavrin::TavrinService::shutdown(std::chrono::seconds(2));

#include <chrono>
#include <cstddef>

#include "tavrin/platform/api.h"
#include "tavrin/sdk/log_level.h"
#include "tavrin/sdk/track_config.h"

namespace tavrin {

class TAVRIN_API TavrinService {
public:
    TavrinService() = delete;

    // Sets the threshold of the SDK's logger, then confirms the new level at
    // info (so the confirmation shows only at debug and info).
    static void setLogLevel(LogLevel level);

    // Limits of the offline cache besides its 1000 requests: the bytes of all
    // cached request bodies together (the oldest are dropped, with a warning,
    // to make room; default 10 MiB) and of one body (a larger one is refused
    // with an error line, and its submission fails; default 1 MiB, never more
    // than the total). Applied from the next request cached, and at start-up.
    static void setOfflineCacheLimits(std::size_t maxTotalBytes, std::size_t maxRequestBytes);

    // Starts or restarts the SDK with `config`: installs the settings, wires
    // the transport, offline cache and monitor, replaces the shared
    // TrackingService and records the start-up tags. Returns at once: cached
    // requests are resent in the background. Calls run one after another.
    static void configure(const TrackConfig& config);

    // Waits until every push is processed and every submission and consent
    // report in flight (with its offline cache write) has finished. True when
    // all of it finished within `timeout`.
    static bool flush(std::chrono::milliseconds timeout);

    // Flushes, then stops network monitoring, the resend of cached requests
    // and the HTTP client, and drops the shared TrackingService. A later
    // configure starts everything afresh. True when the flush finished in time.
    // A host that returns from main without calling it gets the same on exit.
    static bool shutdown(std::chrono::milliseconds timeout);

    // fork(): a child of a configured process has none of the SDK's threads.
    // It leaves without the exit-time shutdown, its SDK calls fail fast
    // (TrackingServiceError notInitialized, naming the fork; push logs it;
    // flush and shutdown return at once) until it calls configure itself,
    // which gives it threads, an HTTP client and a store connection of its
    // own. The parent's waiting pushes and debug tags stay the parent's.
};

}  // namespace tavrin
