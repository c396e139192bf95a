#pragma once
// The error type of the tracking service: a case (code()) and its description
// as what(). TrackingService::shared() throws it before configure, and the
// future of setConsents when the consent report failed.
//
//     try {
//         auto tracking = tavrin::TrackingService::shared();
//         bool accepted = tracking->setConsents({{"ads", tavrin::ConsentStatus::deny}}).get();
//     } catch (const tavrin::TrackingServiceError& error) {
//         if (error.code() == tavrin::TrackingServiceError::Code::notInitialized) { /* configure first */ }
//         if (error.code() == tavrin::TrackingServiceError::Code::submissionFailed) { /* error.cause() */ }
//     }

#include <stdexcept>
#include <string>

#include "tavrin/platform/api.h"

namespace tavrin {

class TAVRIN_API TrackingServiceError : public std::runtime_error {
public:
    enum class Code { submissionFailed, notInitialized, configurationFailed };

    // "Data submission failed: " followed by the cause.
    static TrackingServiceError submissionFailed(std::string cause);
    // "TrackingService is not initialized. Call TavrinService.configure(with:) first."
    static TrackingServiceError notInitialized();
    // The same case in a process forked after configure, until it configures
    // itself: "TrackingService is not available in a process forked after
    // configure. Call TavrinService.configure(with:) in the child first."
    static TrackingServiceError notInitializedAfterFork();
    // "Failed to configure TrackingService. Check the provided configuration."
    static TrackingServiceError configurationFailed();

    Code code() const noexcept { return code_; }
    // The cause of a failed submission; empty for the other cases.
    const std::string& cause() const noexcept { return cause_; }

private:
    TrackingServiceError(Code code, std::string cause, const std::string& description);

    Code code_;
    std::string cause_;
};

}  // namespace tavrin
