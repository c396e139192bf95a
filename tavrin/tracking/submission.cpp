// Submission: the pushes collected since the last submission become one data
// submission record, sent through the transport.

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <utility>

#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/model/internal/data_submission_model.h"
#include "tavrin/model/internal/push_payload.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tavrin/platform/internal/pattern.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/record_parts.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/internal/product_data.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/transport/internal/service_protocol.h"

namespace tavrin {

namespace {

constexpr const char* kDefaultState = "tvr_push_submit";
constexpr const char* kDocumentLocation = "https://demo.tavrin.io/app/?";
constexpr const char* kBrowserId = "fb.1.1711009849625.5246926883";

}  // namespace

namespace detail {

InFlightOperations& InFlightOperations::shared() {
    // Never destroyed: completions may still run while the process exits. A
    // forked child counts its own operations: the parent's never end there.
    struct Current {
        std::atomic<InFlightOperations*> operations{new InFlightOperations()};
        std::atomic<std::uint32_t> generation{platform::forkGeneration()};
    };
    static auto* current = new Current();
    if (current->generation.load(std::memory_order_acquire) != platform::forkGeneration()) [[unlikely]] {
        platform::keepForever(std::shared_ptr<const InFlightOperations>(current->operations.load()));
        current->operations.store(new InFlightOperations());
        current->generation.store(platform::forkGeneration(), std::memory_order_release);
    }
    return *current->operations.load();
}

}  // namespace detail

std::future<void> TrackingService::submit(std::optional<std::string> state) {
    return submitData(std::move(state), nullptr);
}

namespace {

// The pushes of one submission in push order, with the first value each key
// received and the product data collected beside them.
std::map<std::string, CodableValue> aggregateProperties(MemoryCacheUtility::PushPayloads& payloads,
                                                        ProductData productData) {
    // Pushes are kept in the order they were processed, which is almost
    // always their push order already: sorting is then a check, not moves.
    const auto byOrder = [](const PushPayload& a, const PushPayload& b) { return a.order < b.order; };
    if (!std::is_sorted(payloads.begin(), payloads.end(), byOrder))
        std::stable_sort(payloads.begin(), payloads.end(), byOrder);

    auto& logger = LoggerUtility::shared();
    std::map<std::string, CodableValue> aggregate;
    const auto skipped = [&](const std::string& key) {
        logger.debug([&] { return "Skipping duplicate key during push aggregation: " + key; });
    };
    const auto add = [&](const std::string& key, auto&& value) {
        // One lookup per key; the value is taken only when the key is new.
        if (aggregate.try_emplace(key, std::forward<decltype(value)>(value)).second) {
            logger.debug([&] { return "Adding key during push aggregation: " + key; });
        } else {
            skipped(key);
        }
    };
    // Shared properties already added: every key of theirs is in the
    // aggregate, so a later push sharing them adds nothing from them.
    std::vector<const PushPayload::Properties*> added;
    for (auto& payload : payloads) {
        // The push's own keys and its shared ones never overlap.
        for (auto& [key, value] : payload.customProperties) add(key, std::move(value));
        const PushPayload::Properties* shared = payload.sharedProperties.get();
        if (!shared) continue;
        if (std::find(added.begin(), added.end(), shared) != added.end()) {
            for (const auto& entry : *shared) skipped(entry.first);
            continue;
        }
        for (const auto& [key, value] : *shared) add(key, value);
        added.push_back(shared);
    }
    for (auto& [key, values] : productData) aggregate.insert_or_assign(key, CodableValue::array(std::move(values)));
    return aggregate;
}

}  // namespace

std::future<void> TrackingService::submitData(std::optional<std::string> state, const char* completedLine) {
    if (isForeign()) return failedAfterFork<void>();
    LoggerUtility::shared().info("Submitting data with stored push data");

    // The snapshot is taken on the processing queue itself: that waits for
    // every push enqueued so far, and no push can add product data between
    // reading it and removing it.
    MemoryCacheUtility::PushPayloads payloads;
    ProductData productData;
    state_->processingQueue.sync([&] {
        auto& cache = MemoryCacheUtility::shared();
        payloads = cache.takePushPayloads();
        endDropEpisode();
        productData = cache.get<ProductData>(kProductDataKey).value_or(ProductData{});
        cache.remove(kProductDataKey);
    });
    auto aggregate = aggregateProperties(payloads, std::move(productData));
    std::vector<std::string> commands;
    commands.reserve(payloads.size() + 1);
    for (auto& payload : payloads) commands.push_back(std::move(payload.track));
    commands.emplace_back("submit");
    // What is left of many pushes takes long to free: not on the caller's time.
    if (payloads.size() > 64) platform::TaskPool::shared().detach([spent = std::move(payloads)] {});

    std::string stateText = state.value_or(kDefaultState);
    TagCache::shared().addOrReplace(Tag::makeInfo("AS01", "T-SDK: [STATE] - [AS01] State executed: " + stateText,
                                                  TimestampUtility::currentTimestampInMillis(), true));
    LoggerUtility::shared().info("AS01 state tag added to TagCache.");

    const auto start = [&](const detail::Completion& done) {
        platform::TaskPool::shared().detach([self = shared_from_this(), commands = std::move(commands),
                                             aggregate = std::move(aggregate), stateText = std::move(stateText),
                                             done]() mutable {
            detail::runGuarded(done, [&] {
                self->sendSubmission(std::move(commands), std::move(aggregate), std::move(stateText), done);
            });
        });
    };
    return detail::trackedOperation<void>(start, [completedLine] {
        LoggerUtility::shared().info("Data submission completed.");
        if (completedLine) LoggerUtility::shared().info(completedLine);
    });
}

void TrackingService::sendSubmission(std::vector<std::string> pushedCommands,
                                     std::map<std::string, CodableValue> customProperties, std::string state,
                                     detail::Completion done) {
    auto& logger = LoggerUtility::shared();
    auto [userId, userAction] = detail::currentUserID(*state_->userIDUtility);
    const auto [sessionId, sessionAction] = SessionManager::startOrResumeSession();

    std::map<std::string, DataSubmissionModel::VendorConsentStatus> consent;
    for (const auto& [vendor, value] :
         VendorConsentsUtility(state_->vendorConsentsKey).retrieveVendorConsents().value_or(VendorValues{})) {
        consent.emplace(vendor, DataSubmissionModel::VendorConsentStatus{value.kind() == VendorValue::Kind::boolean
                                                                             ? CodableValue::boolean(value.asBool())
                                                                             : CodableValue::string(value.asString())});
    }
    if (consent.empty()) {
        logger.warning("No vendor consents retrieved from VendorConsentsUtility.");
    } else {
        logger.info("Vendor consents retrieved successfully using VendorConsentsUtility.");
    }

    DataSubmissionModel model;
    RecordHeader::current(state_->userAgent, TimestampUtility::currentTimestampInMillis(), std::move(state))
        .applyTo(model);
    model.consent = std::move(consent);
    model.data.identifier = {.user = {.id = std::move(userId), .action = std::move(userAction)},
                             .session = {.id = sessionId, .action = rawValue(sessionAction)}};
    model.data.variables.documentLocationHref = kDocumentLocation;
    model.data.variables.fbBrowserId = kBrowserId;
    model.data.variables.tvrpushedcommands = std::move(pushedCommands);
    model.data.variables.customProperties = std::move(customProperties);
    model.data.enrichment = enrichmentsForSubmission();
    logger.debug([&] { return "Sending data submission model: " + jsonString(model); });

    state_->service->sendDataSubmission(
        std::move(model), [weak = weak_from_this(), done = std::move(done)](std::exception_ptr error) mutable {
            if (error) return done(error);
            LoggerUtility::shared().info("Data submission model sent successfully");
            MonitorService::shared()->sendMonitorRequest([weak, done = std::move(done)] {
                if (const auto self = weak.lock()) self->resetEnrichments();
                done(nullptr);
            });
        });
}

std::future<void> TrackingService::addToCart(AnyValue::Dictionary properties) {
    if (isForeign()) return failedAfterFork<void>();
    AnyValue::Dictionary product = std::move(properties);
    product.insert_or_assign("track", AnyValue("product"));
    product.insert_or_assign("type", AnyValue("addtocart"));
    const auto printed = describe(product);
    push(std::move(product));
    push({{"track", "addtocart"}});
    LoggerUtility::shared().info([&] { return "Add-To-Cart action sent with custom properties: " + printed; });

    return submitData(std::nullopt, "Add-To-Cart data submitted successfully.");
}

}  // namespace tavrin
