// Submission: the pushes collected since the last submission become one data
// submission record, sent through the transport.

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <utility>

#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/monitor/internal/timestamp_utility.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/pattern.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/internal/data_submission_model.h"
#include "tavrin/platform/internal/json_stringify.h"
#include "tavrin/tracking/internal/product_data.h"
#include "tavrin/tracking/internal/push_payload.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/transport/service_protocol.h"

namespace tavrin {

namespace {

constexpr const char* kDefaultState = "tvr_push_submit";
constexpr const char* kDocumentLocation = "https://demo.tavrin.io/app/?";
constexpr const char* kBrowserId = "fb.1.1711009849625.5246926883";

}  // namespace

namespace detail {

std::pair<std::string, std::string> currentUserID(const UserIDUtility& utility) {
    // Leaked: submissions may still run on pool threads while statics are destroyed at exit.
    static const auto* pattern = new platform::Pattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    if (auto stored = utility.retrieveUserID()) {
        if (pattern->matches(*stored)) return {*stored, "update"};
        // Replacing the identifier splits the user's history, so say why.
        LoggerUtility::shared().warning([&] {
            return "The User ID stored under key " + utility.userIDKey + " is not well formed (" +
                   std::to_string(stored->size()) + " bytes); a new one is generated.";
        });
    }
    auto fresh = UserIDUtility::generateUserID();
    utility.storeUserID(fresh);
    return {std::move(fresh), "new"};
}

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

std::future<void> TrackingService::submitData(std::optional<std::string> state, const char* completedLine) {
    if (isForeign()) return failedAfterFork<void>();
    auto& logger = LoggerUtility::shared();
    logger.info("Submitting data with stored push data");

    // The snapshot is taken on the processing queue itself: that waits for
    // every push enqueued so far, and no push can add product data between
    // reading it and removing it.
    std::vector<PushPayload> payloads;
    ProductData productData;
    processingQueue.sync([&] {
        auto& cache = MemoryCacheUtility::shared();
        payloads = cache.takePushPayloads();
        endDropEpisode();
        productData = cache.get<ProductData>(kProductDataKey).value_or(ProductData{});
        cache.remove(kProductDataKey);
    });
    // Pushes are kept in the order they were processed, which is almost
    // always their push order already: sorting is then a check, not moves.
    const auto byOrder = [](const PushPayload& a, const PushPayload& b) { return a.order < b.order; };
    if (!std::is_sorted(payloads.begin(), payloads.end(), byOrder))
        std::stable_sort(payloads.begin(), payloads.end(), byOrder);

    // The first push that set a key wins within one submission.
    std::map<std::string, CodableValue> aggregate;
    for (auto& payload : payloads) {
        for (auto& entry : payload.customProperties) {
            // Not a structured binding: the log lambdas capture the key (clang < 16 cannot).
            const std::string& key = entry.first;
            auto& value = entry.second;
            // One lookup per key; the value moves only when the key is new.
            if (aggregate.try_emplace(key, std::move(value)).second) {
                logger.debug([&] { return "Adding key during push aggregation: " + key; });
            } else {
                logger.debug([&] { return "Skipping duplicate key during push aggregation: " + key; });
            }
        }
    }
    for (auto& [key, values] : productData) aggregate.insert_or_assign(key, CodableValue::array(std::move(values)));

    std::vector<std::string> commands;
    commands.reserve(payloads.size() + 1);
    for (auto& payload : payloads) commands.push_back(std::move(payload.track));
    commands.emplace_back("submit");

    std::string stateText = state.value_or(kDefaultState);
    TagCache::shared().addOrReplace(Tag::makeInfo("AS01", "T-SDK: [STATE] - [AS01] State executed: " + stateText,
                                                  TimestampUtility::currentTimestampInMillis(), true));
    logger.info("AS01 state tag added to TagCache.");

    auto promise = std::make_shared<std::promise<void>>();
    auto future = promise->get_future();
    auto& inFlight = detail::InFlightOperations::shared();
    inFlight.begin();
    auto done = [promise, &inFlight, completedLine](std::exception_ptr error) {
        if (error) {
            promise->set_exception(error);
        } else {
            LoggerUtility::shared().info("Data submission completed.");
            if (completedLine) LoggerUtility::shared().info(completedLine);
            promise->set_value();
        }
        inFlight.end();
    };
    try {
        platform::TaskPool::shared().detach(
            [self = shared_from_this(), commands = std::move(commands), aggregate = std::move(aggregate),
             stateText = std::move(stateText), done]() mutable {
                try {
                    self->sendSubmission(std::move(commands), std::move(aggregate), std::move(stateText), done);
                } catch (...) {
                    done(std::current_exception());
                }
            });
    } catch (...) {
        done(std::current_exception());
    }
    return future;
}

void TrackingService::sendSubmission(std::vector<std::string> pushedCommands,
                                     std::map<std::string, CodableValue> customProperties, std::string state,
                                     std::function<void(std::exception_ptr)> done) {
    auto& logger = LoggerUtility::shared();
    auto [userId, userAction] = detail::currentUserID(*userIDUtility);
    const auto [sessionId, sessionAction] = SessionManager::startOrResumeSession();

    std::map<std::string, DataSubmissionModel::VendorConsentStatus> consent;
    for (const auto& [vendor, value] : VendorConsentsUtility(vendorConsentsKey).retrieveVendorConsents().value_or(
             VendorValues{})) {
        consent.emplace(vendor, DataSubmissionModel::VendorConsentStatus{
                                    value.kind() == VendorValue::Kind::boolean ? CodableValue::boolean(value.asBool())
                                                                               : CodableValue::string(value.asString())});
    }
    if (consent.empty()) {
        logger.warning("No vendor consents retrieved from VendorConsentsUtility.");
    } else {
        logger.info("Vendor consents retrieved successfully using VendorConsentsUtility.");
    }

    const auto current = TrackingSettings::shared();
    DataSubmissionModel model;
    model.version = "3";
    model.system = {.type = "sdk-ios",
                    .timestamp = TimestampUtility::currentTimestampInMillis(),
                    .navigatorUserAgent = userAgent,
                    .initiator = std::move(state)};
    model.consent = std::move(consent);
    model.configuration = {.container = current->container(),
                           .environment = rawValue(current->environment()),
                           .version = current->version(),
                           .debugcode = current->debugCode()};
    model.data.identifier = {.user = {.id = std::move(userId), .action = std::move(userAction)},
                             .session = {.id = sessionId, .action = rawValue(sessionAction)}};
    model.data.variables.documentLocationHref = kDocumentLocation;
    model.data.variables.fbBrowserId = kBrowserId;
    model.data.variables.tvrpushedcommands = std::move(pushedCommands);
    model.data.variables.customProperties = std::move(customProperties);
    model.data.enrichment = enrichmentsForSubmission();
    logger.debug([&] { return "Sending data submission model: " + jsonString(model); });

    service->sendDataSubmission(
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
