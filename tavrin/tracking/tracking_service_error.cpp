#include "tavrin/tracking/tracking_service_error.h"

#include <utility>

namespace tavrin {

TrackingServiceError::TrackingServiceError(Code code, std::string cause, const std::string& description)
    : std::runtime_error(description), code_(code), cause_(std::move(cause)) {}

TrackingServiceError TrackingServiceError::submissionFailed(std::string cause) {
    const std::string description = "Data submission failed: " + cause;
    return TrackingServiceError(Code::submissionFailed, std::move(cause), description);
}

TrackingServiceError TrackingServiceError::notInitialized() {
    return TrackingServiceError(Code::notInitialized, {},
                                "TrackingService is not initialized. Call TavrinService.configure(with:) first.");
}

TrackingServiceError TrackingServiceError::notInitializedAfterFork() {
    return TrackingServiceError(Code::notInitialized, {},
                                "TrackingService is not available in a process forked after configure. Call "
                                "TavrinService.configure(with:) in the child first.");
}

TrackingServiceError TrackingServiceError::configurationFailed() {
    return TrackingServiceError(Code::configurationFailed, {},
                                "Failed to configure TrackingService. Check the provided configuration.");
}

}  // namespace tavrin
