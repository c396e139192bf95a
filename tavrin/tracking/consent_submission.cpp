// Consent submission: the user's decision is stored, compared with the last
// one, recorded as a debug tag and reported to the tracking endpoint.

#include <exception>
#include <memory>
#include <utility>

#include "tavrin/consent/internal/consent_id_utility.h"
#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/record_parts.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"
#include "tavrin/tracking/internal/ordered_blocks.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/transport/internal/service_protocol.h"

namespace tavrin {

std::future<bool> TrackingService::setConsents(std::map<std::string, ConsentStatus> consents) {
    if (isForeign()) return failedAfterFork<bool>();
    const auto start = [&](const detail::Completion& done) {
        // One decision at a time, in call order: each one's read, diff, store
        // and hand-off to the transport end before the next one reads.
        state_->consentOrder->add([self = shared_from_this(), consents = std::move(consents), done] {
            detail::runGuarded(done, [&] { self->sendConsents(consents, done); });
        });
    };
    return detail::trackedOperation<bool>(start, [] { return true; });
}

void TrackingService::sendConsents(const std::map<std::string, ConsentStatus>& consents, detail::Completion done) {
    auto& logger = LoggerUtility::shared();
    logger.info("Preparing to send consent model");
    auto [userId, userAction] = detail::currentUserID(*state_->userIDUtility);
    auto [consentId, consentAction] = detail::currentConsentID(*state_->consentUtility);

    VendorValues mapped = toVendorValues(consents);
    logger.debug([&] { return "Mapped vendorConsents: " + describe(mapped); });
    const VendorConsentsUtility vendorConsents(state_->vendorConsentsKey);
    const VendorValues previous = vendorConsents.retrieveVendorConsents().value_or(VendorValues{});
    logger.debug([&] { return "Retrieved previousConsents: " + describe(previous); });
    VendorValues changed = changedVendors(mapped, previous);

    vendorConsents.storeVendorConsents(consents);
    const std::int64_t lastupdate = TimestampUtility::currentTimestampInMillis();
    UserDefaultsUtility::setInt(lastupdate, state_->vendorConsentsLastUpdateKey);
    logger.info("Vendor consents and lastupdate successfully saved.");

    TagCache::shared().addOrReplace(Tag::makeInfo(
        "AC04",
        "T-SDK: [CONSENT] - [AC04] Consent information received based on new or updated decision of user: " +
            jsonString(consents),
        lastupdate, true));
    logger.info("AC04 consent tag added to TagCache with updated consent information.");

    auto model = ConsentModel::make(RecordHeader::current(state_->userAgent, lastupdate, "tvr_push_submit"),
                                    {.id = std::move(userId), .action = std::move(userAction)},
                                    {.id = std::move(consentId), .action = std::move(consentAction)}, lastupdate,
                                    std::move(mapped), std::move(changed));
    logger.debug([&] { return "Sending consent model: " + jsonString(model); });

    state_->service->sendConsentSubmission(
        std::move(model), [done = std::move(done)](std::exception_ptr error) mutable {
            auto& log = LoggerUtility::shared();
            if (error) {
                const auto cause = detail::describe(error);
                log.error([&] { return "Failed to send consent model: " + cause; });
                return done(std::make_exception_ptr(TrackingServiceError::submissionFailed(cause)));
            }
            log.info("Consent model sent successfully");
            MonitorService::shared()->sendMonitorRequest([done = std::move(done)] { done(nullptr); });
        });
}

}  // namespace tavrin
