#include "tavrin/tracking/tracking_service.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <iterator>
#include <limits>
#include <utility>

#include "tavrin/consent/internal/consent_id_utility.h"
#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/model/internal/push_payload.h"
#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/monitor/internal/user_agent_utility.h"
#include "tavrin/platform/internal/fatal_error.h"
#include "tavrin/platform/internal/timestamp_utility.h"
#include "tavrin/platform/internal/uuid.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/tracking/internal/custom_properties.h"
#include "tavrin/tracking/internal/enrichment_resolution.h"
#include "tavrin/tracking/internal/ordered_blocks.h"
#include "tavrin/tracking/internal/product_data.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/transport/internal/service_protocol.h"

namespace tavrin {

namespace {

constexpr const char* kNotInitialized =
    "TrackingService is not initialized. Call TavrinService.configure(with:) first.";

// The instance, unless it belongs to the process this one was forked from.
bool ownedHere(const std::shared_ptr<TrackingService>& instance) {
    return instance && detail::TrackingServiceInternals::isOwn(*instance);
}

// Drops an instance; a forked child's copy of the parent's is kept, never
// destroyed (its queue's thread and its transport are the parent's).
void release(std::shared_ptr<TrackingService> instance) {
    if (instance && !ownedHere(instance)) platform::keepForever(std::move(instance));
}

struct Slot {
    ~Slot() { release(std::move(instance)); }
    std::mutex mutex;
    std::shared_ptr<TrackingService> instance;
};

Slot& slot() {
    static auto* s = new Slot();
    return *s;
}

// Numbers the pushes of the whole process. Atomic although pushes are
// serialised: after a reset, the dropped instance's queue may still be
// finishing a push while the new instance's queue starts the next one.
std::atomic<std::int64_t> lastPushOrder{0};

std::int64_t nextPushOrder() {
    std::int64_t current = lastPushOrder.load(std::memory_order_relaxed);
    do {
        if (current == std::numeric_limits<std::int64_t>::max())
            detail::fatalError("Push order overflow: no more pushes can be numbered.");
    } while (!lastPushOrder.compare_exchange_weak(current, current + 1, std::memory_order_relaxed));
    return current + 1;
}

// The push limits, read by every push; each member on its own is enough.
struct Limits {
    std::atomic<std::size_t> maxPushes{PushLimits{}.maxPushes};
    std::atomic<std::size_t> maxBytes{PushLimits{}.maxBytes};
    std::atomic<std::size_t> maxTextBytes{PushLimits{}.maxTextBytes};
} limits;
std::atomic<std::uint64_t> droppedPushes{0};
// Set by the first drop after a submit: one warning per episode.
std::atomic<bool> droppingPushes{false};

void noteDroppedPushes(std::size_t count) {
    if (count == 0) return;
    droppedPushes.fetch_add(count, std::memory_order_relaxed);
    if (droppingPushes.exchange(true, std::memory_order_relaxed)) return;
    LoggerUtility::shared().warning([] {
        return "Warning: More pushes are kept than the push limits allow (" +
               std::to_string(limits.maxPushes.load(std::memory_order_relaxed)) + " pushes, " +
               std::to_string(limits.maxBytes.load(std::memory_order_relaxed)) +
               " bytes): the oldest are dropped until the next submit. Submit more often or raise the limits.";
    });
}

const std::string* textMember(const AnyValue::Dictionary& data, const char* key) {
    const auto found = data.find(key);
    return found == data.end() ? nullptr : found->second.textIf();
}

// The device's facts but its id, as push properties; sent as text on
// purpose, like every other device fact.
std::shared_ptr<const PushPayload::Properties> devicePropertiesOf(AppDeviceInfo info) {
    // Built once: the keys would otherwise be made anew for every change.
    static const std::string keys[] = {"app_device_brand",
                                       "app_device_model",
                                       "app_device_os",
                                       "app_device_os_version",
                                       "app_device_language",
                                       "app_device_region",
                                       "app_device_width",
                                       "app_device_height",
                                       "app_device_carrier",
                                       "app_device_network_type",
                                       "app_application_name",
                                       "app_application_version",
                                       "app_application_build_number"};
    std::string values[] = {std::move(info.appDeviceBrand),
                            std::move(info.appDeviceModel),
                            std::move(info.appDeviceOS),
                            std::move(info.appDeviceOSVersion),
                            std::move(info.appDeviceLanguage),
                            std::move(info.appDeviceRegion),
                            std::to_string(info.appDeviceWidth),
                            std::to_string(info.appDeviceHeight),
                            std::move(info.appDeviceCarrier).value_or("Unknown"),
                            std::move(info.appDeviceNetworkType),
                            std::move(info.appApplicationName),
                            std::move(info.appApplicationVersion),
                            std::move(info.appApplicationBuildNumber)};
    static_assert(std::size(keys) == std::size(values));
    auto properties = std::make_shared<PushPayload::Properties>();
    for (std::size_t i = 0; i < std::size(keys); ++i)
        properties->emplace_hint(properties->end(), keys[i], CodableValue::string(std::move(values[i])));
    return properties;
}

// Removes the pushed properties named like shared ones (the device's facts
// win). Both are sorted: one walk over the two.
void dropShadowed(PushPayload::Properties& own, const PushPayload::Properties& shared) {
    if (shared.empty()) return;
    auto mine = own.lower_bound(shared.begin()->first);
    auto theirs = shared.begin();
    while (mine != own.end() && theirs != shared.end()) {
        const int order = mine->first.compare(theirs->first);
        if (order < 0) {
            ++mine;
        } else if (order > 0) {
            ++theirs;
        } else {
            mine = own.erase(mine);
            ++theirs;
        }
    }
}

}  // namespace

// ---- life cycle

std::shared_ptr<TrackingService> TrackingService::shared() {
    std::shared_ptr<TrackingService> instance;
    {
        std::lock_guard lock(slot().mutex);
        instance = slot().instance;
    }
    if (!instance) {
        LoggerUtility::shared().error(kNotInitialized);
        throw TrackingServiceError::notInitialized();
    }
    if (!ownedHere(instance)) throw notInitializedAfterFork();
    return instance;
}

TrackingServiceError TrackingService::notInitializedAfterFork() {
    auto error = TrackingServiceError::notInitializedAfterFork();
    LoggerUtility::shared().error(error.what());
    return error;
}

void TrackingService::resetInstance() {
    std::shared_ptr<TrackingService> dropped;
    {
        std::lock_guard lock(slot().mutex);
        dropped = std::exchange(slot().instance, nullptr);
    }
    // Released outside the lock: the last owner waits for the instance's
    // queue to finish, and nothing on that queue should wait for the slot.
    release(std::move(dropped));
    LoggerUtility::shared().info("TrackingService instance has been reset.");
}

std::shared_ptr<TrackingService> detail::TrackingServiceInternals::initialize(
    std::shared_ptr<ServiceProtocol> service) {
    auto settings = TrackingSettings::shared();
    std::shared_ptr<TrackingService> instance(new TrackingService(std::move(service), settings));
    std::shared_ptr<TrackingService> previous;
    {
        std::lock_guard lock(slot().mutex);
        previous = std::exchange(slot().instance, instance);
    }
    release(std::move(previous));
    LoggerUtility::shared().info(
        [&] { return "TrackingService initialized successfully with container: " + settings->container(); });
    return instance;
}

TrackingService::State::State(std::shared_ptr<ServiceProtocol> service,
                              std::shared_ptr<const TrackingSettings> settings)
    : settings(std::move(settings)),
      service(std::move(service)),
      userAgent(UserAgentUtility::userAgent("TavrinSDK", "1.0", "18")),
      consentUtility(std::make_unique<const ConsentIDUtility>(this->settings->container())),
      userIDUtility(std::make_unique<const UserIDUtility>()),
      consentOrder(std::make_shared<detail::OrderedBlocks>()) {}

TrackingService::TrackingService(std::shared_ptr<ServiceProtocol> service,
                                 std::shared_ptr<const TrackingSettings> settings)
    : state_(std::make_unique<State>(std::move(service), std::move(settings))) {}

bool TrackingService::isForeign() const noexcept { return state_->generation != platform::forkGeneration(); }

TrackingService::~TrackingService() = default;

// ---- push

void TrackingService::setPushLimits(PushLimits given) {
    limits.maxPushes.store(std::max<std::size_t>(given.maxPushes, 1), std::memory_order_relaxed);
    limits.maxBytes.store(std::max<std::size_t>(given.maxBytes, 1), std::memory_order_relaxed);
    limits.maxTextBytes.store(std::max<std::size_t>(given.maxTextBytes, 1), std::memory_order_relaxed);
}

PushLimits TrackingService::pushLimits() {
    return {limits.maxPushes.load(std::memory_order_relaxed), limits.maxBytes.load(std::memory_order_relaxed),
            limits.maxTextBytes.load(std::memory_order_relaxed)};
}

std::uint64_t TrackingService::droppedPushCount() { return droppedPushes.load(std::memory_order_relaxed); }

void TrackingService::endDropEpisode() { droppingPushes.store(false, std::memory_order_relaxed); }

void TrackingService::push(AnyValue::Dictionary data) {
    if (isForeign()) {  // never fails its caller: the error is only logged
        notInitializedAfterFork();
        return;
    }
    try {
        // A host pushing faster than the queue works keeps only the newest
        // within the limits: the queue's backlog is bounded too.
        const std::size_t bytes = approximateBytes(data);
        std::size_t dropped = 0;
        {
            std::lock_guard lock(state_->waitingMutex);
            state_->waitingPushes.push_back({std::move(data), bytes});
            state_->waitingBytes += bytes;
            const std::size_t maxPushes = limits.maxPushes.load(std::memory_order_relaxed);
            const std::size_t maxBytes = limits.maxBytes.load(std::memory_order_relaxed);
            while (state_->waitingPushes.size() > 1 &&
                   (state_->waitingPushes.size() > maxPushes || state_->waitingBytes > maxBytes)) {
                state_->waitingBytes -= state_->waitingPushes.front().bytes;
                state_->waitingPushes.pop_front();
                ++dropped;
            }
        }
        noteDroppedPushes(dropped);
        // One task per push, in push order: once a push's task has run, that
        // push is processed (or was dropped).
        state_->processingQueue.async([weak = weak_from_this()] {
            const auto self = weak.lock();
            if (!self) return;  // reset since: the push is dropped with its service
            self->processNextPush();
        });
    } catch (const std::exception& error) {
        LoggerUtility::shared().error([&] { return std::string("Failed to enqueue push: ") + error.what(); });
    }
}

void TrackingService::processNextPush() {
    AnyValue::Dictionary data;
    {
        std::lock_guard lock(state_->waitingMutex);
        if (state_->waitingPushes.empty()) return;
        data = std::move(state_->waitingPushes.front().data);
        state_->waitingBytes -= state_->waitingPushes.front().bytes;
        state_->waitingPushes.pop_front();
    }
    try {
        processPush(std::move(data));
    } catch (const std::exception& error) {
        LoggerUtility::shared().error([&] { return std::string("Failed to process push: ") + error.what(); });
    }
}

void TrackingService::processPush(AnyValue::Dictionary data) {
    auto& logger = LoggerUtility::shared();
    // Values nested past what JSON carries and over-long texts are dropped
    // here, before any walk over them (conversion, the tag's JSON text, log lines).
    const std::size_t maxText = limits.maxTextBytes.load(std::memory_order_relaxed);
    if (auto within = withinHostValueLimits(data, maxText, "custom property")) data = std::move(*within);
    const std::string* pushedTrack = textMember(data, "track");
    const std::string* pushedType = textMember(data, "type");
    const std::string track = pushedTrack ? *pushedTrack : state_->trackCommand;
    const std::string type = pushedType ? *pushedType : state_->typeValue;

    // Leaves out "track" and "type": they travel as the payload's own members.
    auto converted = validatedCustomProperties(data);
    std::map<std::string, CodableValue> properties;
    if (track == "product") {
        addToProductData(track, type, std::move(converted));
    } else {
        properties = std::move(converted);
    }
    // Every push carries the device's facts; while they stay the same, the
    // pushes share one copy of them. Each push has a device id of its own.
    AppDeviceInfo device = DeviceInfoUtility::collectDeviceInfo();
    std::string deviceId = std::exchange(device.appDeviceId, std::string());
    auto& last = state_->lastDevice;
    if (!last.properties || last.facts != device) {
        last.facts = device;
        last.properties = devicePropertiesOf(std::move(device));
    }
    dropShadowed(properties, *last.properties);
    properties.insert_or_assign("app_device_id", CodableValue::string(std::move(deviceId)));

    PushPayload payload(track, type, std::move(properties), nextPushOrder(), platform::Uuid::make());
    payload.sharedProperties = last.properties;
    const std::size_t bytes = approximateBytes(payload);
    noteDroppedPushes(MemoryCacheUtility::shared().appendPushPayload(std::move(payload), bytes,
                                                                     limits.maxPushes.load(std::memory_order_relaxed),
                                                                     limits.maxBytes.load(std::memory_order_relaxed)));
    logger.info([&] { return "Pushing data with track: " + track; });

    // The debug tag shows the dictionary as pushed, before any conversion.
    // Its text is made when the tag is read: most tags are dropped unread.
    if (!hasJsonForm(data)) {
        logger.error("Failed to stringify push data");
        return;
    }
    const auto pushed = std::make_shared<const AnyValue::Dictionary>(std::move(data));
    TagCache::shared().addOrReplace("AD01", [pushed, timestamp = TimestampUtility::currentTimestampInMillis()] {
        const std::string* command = textMember(*pushed, "track");
        std::string message = "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command: ";
        if (command) message += *command;
        message += " | Data: ";
        message += AnyValue::sortedJsonText(*pushed).value_or(std::string());
        return Tag::makeInfo("AD01", std::move(message), timestamp, true);
    });
    logger.info("AD01 push tag added to TagCache.");
    logger.debug([&] { return AnyValue::sortedJsonText(*pushed).value_or(std::string()); });
}

void TrackingService::addToProductData(const std::string& track, const std::string& type,
                                       std::map<std::string, CodableValue> properties) const {
    // Only the processing queue writes the product data, so this read and the
    // write-back below cannot interleave with another product push.
    auto& cache = MemoryCacheUtility::shared();
    ProductData productData = cache.get<ProductData>(kProductDataKey).value_or(ProductData{});
    std::map<std::string, CodableValue> record{{"product_track", CodableValue::string(track)},
                                               {"product_type", CodableValue::string(type)}};
    for (auto& [key, value] : properties) record.insert_or_assign(key, std::move(value));
    // Parallel arrays, one element per product; a key a product lacks gets no
    // element, so the arrays may differ in length.
    for (auto& [key, value] : record) productData[key].push_back(std::move(value));
    cache.set(kProductDataKey, std::move(productData));
}

void TrackingService::waitForPendingPushes() const {
    state_->processingQueue.sync([] {});
}

// ---- enrichments

void TrackingService::addEnrichment(std::optional<std::string> pluginId, AnyValue::Dictionary arguments,
                                    std::vector<std::string> variables) {
    if (isForeign()) throw notInitializedAfterFork();
    if (auto within = withinHostValueLimits(arguments, limits.maxTextBytes.load(std::memory_order_relaxed),
                                            "enrichment argument"))
        arguments = std::move(*within);
    waitForPendingPushes();
    auto& cache = MemoryCacheUtility::shared();
    const auto pushes = cache.getPushPayloads();
    const auto productData = cache.get<ProductData>(kProductDataKey).value_or(ProductData{});
    auto resolved = resolveArguments(arguments, pushes, productData);

    auto& logger = LoggerUtility::shared();
    if (!pluginId) {
        logger.error("Plugin ID is missing. Cannot add enrichment.");
        return;
    }
    storeEnrichment(*pluginId, Enrichment{resolved, std::move(variables)});
    logger.info([&] {
        return "Successfully added enrichment for pluginId: " + *pluginId +
               " with resolved arguments: " + describe(resolved);
    });
}

void TrackingService::addCustomEnrichment(std::optional<std::string> pluginId,
                                          std::map<std::string, CodableValue> arguments,
                                          std::vector<std::string> variables) {
    if (isForeign()) throw notInitializedAfterFork();
    if (!pluginId) {
        if (!state_->settings->config()) detail::fatalError("TrackConfig is not available.");
        pluginId = state_->settings->container();
    }
    if (auto within = withinHostValueLimits(arguments, limits.maxTextBytes.load(std::memory_order_relaxed),
                                            "enrichment argument"))
        arguments = std::move(*within);
    storeEnrichment(*pluginId, Enrichment{std::move(arguments), std::move(variables)});
    LoggerUtility::shared().info([&] { return "Added custom enrichment with pluginId: " + *pluginId; });
}

void TrackingService::storeEnrichment(const std::string& pluginId, Enrichment enrichment) {
    std::lock_guard lock(state_->enrichmentsMutex);
    state_->enrichments.insert_or_assign(pluginId, std::move(enrichment));
}

std::optional<std::map<std::string, Enrichment>> TrackingService::enrichmentsForSubmission() const {
    std::lock_guard lock(state_->enrichmentsMutex);
    if (state_->enrichments.empty()) return std::nullopt;
    return state_->enrichments;
}

void TrackingService::resetEnrichments() {
    {
        std::lock_guard lock(state_->enrichmentsMutex);
        state_->enrichments.clear();
    }
    LoggerUtility::shared().info("Enrichments have been reset");
}

// ---- internals

std::shared_ptr<TrackingService> detail::TrackingServiceInternals::current() {
    std::lock_guard lock(slot().mutex);
    return ownedHere(slot().instance) ? slot().instance : nullptr;
}

std::int64_t detail::TrackingServiceInternals::lastPushOrder() {
    return tavrin::lastPushOrder.load(std::memory_order_relaxed);
}

void detail::TrackingServiceInternals::setLastPushOrderForTesting(std::int64_t order) {
    tavrin::lastPushOrder.store(order, std::memory_order_relaxed);
}

}  // namespace tavrin
