#pragma once
// What the library's own components (and tests) reach inside the tracking
// service beyond its public operations.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tavrin/tracking/tracking_service.h"

namespace tavrin::detail {

struct TrackingServiceInternals {
    // Runs the queue side of a push on the calling thread (benchmarks).
    static void processPush(TrackingService& service, AnyValue::Dictionary data) {
        service.processPush(std::move(data));
    }
    static void waitForPendingPushes(const TrackingService& service) { service.waitForPendingPushes(); }
    static std::optional<std::map<std::string, Enrichment>> enrichmentsForSubmission(const TrackingService& service) {
        return service.enrichmentsForSubmission();
    }
    static void resetEnrichments(TrackingService& service) { service.resetEnrichments(); }
    static const std::string& userAgent(const TrackingService& service) { return service.userAgent; }
    static const std::shared_ptr<ServiceProtocol>& service(const TrackingService& service) { return service.service; }

    // The order the last push received (0 before the first push of the process).
    static std::int64_t lastPushOrder();
    // Tests: lets the counter start elsewhere (its overflow is a fatal stop).
    static void setLastPushOrderForTesting(std::int64_t order);
};

}  // namespace tavrin::detail
