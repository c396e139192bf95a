// The smallest useful host: configure, one push, one submission, shutdown.
// Linked statically against the library with section garbage collection and
// stripped, its size is what the SDK costs an application's binary.
#include <chrono>

#include "tavrin/tavrin.h"

int main() {
    tavrin::TrackConfig config;
    config.trackDomain = "127.0.0.1:9";
    config.authorizationToken = "token";
    tavrin::TavrinService::configure(config);
    auto tracking = tavrin::TrackingService::shared();
    tracking->push({{"track", "pageview"}});
    tracking->submit();
    tavrin::TavrinService::shutdown(std::chrono::seconds(1));
}
