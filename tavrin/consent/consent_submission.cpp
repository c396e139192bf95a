// Consent submission: the user's decision is stored, compared with the last
// one, recorded as a debug tag and reported to the tracking endpoint.

#include <algorithm>
#include <cctype>
#include <exception>
#include <memory>
#include <utility>

#include "tavrin/consent/internal/consent_id_utility.h"
#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/consent/internal/ordered_blocks.h"
#include "tavrin/consent/internal/user_defaults_utility.h"
#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/monitor/internal/timestamp_utility.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/uuid.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/sdk/internal/shared_instance.h"
#include "tavrin/transport/service_protocol.h"

namespace tavrin {

void detail::OrderedBlocks::add(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
        if (draining_) return;
        draining_ = true;
    }
    try {
        platform::TaskPool::shared().detach([self = shared_from_this()] { self->drain(); });
    } catch (...) {
        std::lock_guard lock(mutex_);
        blocks_.pop_back();
        draining_ = false;
        throw;
    }
}

void detail::OrderedBlocks::drain() {
    for (;;) {
        std::function<void()> block;
        {
            std::lock_guard lock(mutex_);
            if (blocks_.empty()) {
                draining_ = false;
                return;
            }
            block = std::move(blocks_.front());
            blocks_.pop_front();
        }
        block();  // each block reports its own failure
    }
}

std::future<bool> TrackingService::setConsents(std::map<std::string, ConsentStatus> consents) {
    if (isForeign()) return failedAfterFork<bool>();
    auto promise = std::make_shared<std::promise<bool>>();
    auto future = promise->get_future();
    auto& inFlight = detail::InFlightOperations::shared();
    inFlight.begin();
    auto done = [promise, &inFlight](std::exception_ptr error) {
        if (error) {
            promise->set_exception(error);
        } else {
            promise->set_value(true);
        }
        inFlight.end();
    };
    try {
        // One decision at a time, in call order: each one's read, diff, store
        // and hand-off to the transport end before the next one reads.
        consentOrder->add([self = shared_from_this(), consents = std::move(consents), done] {
            try {
                self->sendConsents(consents, done);
            } catch (...) {
                done(std::current_exception());
            }
        });
    } catch (...) {
        done(std::current_exception());
    }
    return future;
}

void TrackingService::sendConsents(const std::map<std::string, ConsentStatus>& consents,
                                   std::function<void(std::exception_ptr)> done) {
    auto& logger = LoggerUtility::shared();
    logger.info("Preparing to send consent model");

    auto [userId, userAction] = detail::currentUserID(*userIDUtility);

    std::string consentId;
    std::string consentAction;
    auto stored = consentUtility->retrieveConsentID();
    if (stored) {
        if (auto why = ConsentIDUtility::whyUnusable(*stored)) {
            LoggerUtility::shared().warning([&] {
                return "The Consent ID stored under key " + consentUtility->consentIDKey + " is not usable (" + *why +
                       "); a new one is generated.";
            });
            stored.reset();
        }
    }
    if (stored) {
        consentId = std::move(*stored);  // an upper-case id of an earlier version stays as it is
        consentAction = "update";
    } else {
        consentId = platform::Uuid::make();
        std::transform(consentId.begin(), consentId.end(), consentId.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        consentUtility->storeConsentID(consentId);
        consentAction = "new";
    }

    const VendorValues mapped = toVendorValues(consents);
    logger.debug([&] { return "Mapped vendorConsents: " + describe(mapped); });

    const VendorConsentsUtility vendorConsents(vendorConsentsKey);
    const VendorValues previous = vendorConsents.retrieveVendorConsents().value_or(VendorValues{});
    logger.debug([&] { return "Retrieved previousConsents: " + describe(previous); });

    // Vendors dropped from the decision are deliberately not reported.
    VendorValues changed;
    for (const auto& entry : mapped) {
        // Plain references, not a structured binding: the log lambdas capture
        // the name, which clang accepts only from version 16 on.
        const std::string& vendor = entry.first;
        const VendorValue& value = entry.second;
        const auto found = previous.find(vendor);
        if (found == previous.end()) {
            logger.debug([&] { return "Key '" + vendor + "' is new. Adding to vendorChangesMapped."; });
            changed.insert_or_assign(vendor, value);
        } else if (!(found->second == value)) {
            logger.debug([&] { return "Key '" + vendor + "' values differ. Adding to vendorChangesMapped."; });
            changed.insert_or_assign(vendor, value);
        } else {
            logger.debug([&] { return "Key '" + vendor + "' values are the same. Skipping."; });
        }
    }
    logger.debug([&] { return "Final vendorChangesMapped: " + describe(changed); });

    vendorConsents.storeVendorConsents(consents);
    const std::int64_t lastupdate = TimestampUtility::currentTimestampInMillis();
    UserDefaultsUtility::setInt(lastupdate, vendorConsentsLastUpdateKey);
    logger.info("Vendor consents and lastupdate successfully saved.");

    TagCache::shared().addOrReplace(Tag::makeInfo(
        "AC04",
        "T-SDK: [CONSENT] - [AC04] Consent information received based on new or updated decision of user: " +
            jsonString(consents),
        lastupdate, true));
    logger.info("AC04 consent tag added to TagCache with updated consent information.");

    const auto current = TrackingSettings::shared();
    const auto& config = current->config();
    ConsentModel model;
    model.version = "3";
    model.system = {.type = "sdk-ios", .timestamp = lastupdate, .navigatorUserAgent = userAgent,
                    .initiator = "tvr_push_submit"};
    model.configuration = {.container = current->container(),
                           .environment = rawValue(current->environment()),
                           .version = config ? config->version : std::nullopt,
                           .debugcode = config ? config->debugCode : std::nullopt};
    model.data.identifier = {.user = {.id = std::move(userId), .action = std::move(userAction)},
                             .consent = {.id = std::move(consentId), .action = std::move(consentAction)}};
    model.data.consent.lastupdate = lastupdate;
    model.data.consent.vendors = mapped;
    model.data.consent.vendorsChanged = std::move(changed);
    logger.debug([&] { return "Sending consent model: " + jsonString(model); });

    service->sendConsentSubmission(std::move(model), [done = std::move(done)](std::exception_ptr error) mutable {
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
