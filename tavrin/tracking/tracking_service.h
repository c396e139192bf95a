#pragma once
// The tracking core: the one shared TrackingService through which the host
// application pushes commands into the data layer and registers enrichments
// for the next data submission.
//
//     auto tracking = tavrin::TrackingService::shared();   // throws TrackingServiceError
//     tracking->push({{"track", "pageview"}, {"price", 9.99}});
//     tracking->addEnrichment("geo", {{"city", "cityProperty"}}, {"region"});
//     tracking->submit().get();                           // throws the transport's error
//     bool accepted = tracking->setConsents({{"vendorA", tavrin::ConsentStatus::allow}}).get();

#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tavrin/consent/consent_status.h"
#include "tavrin/model/codable_value.h"
#include "tavrin/model/enrichment.h"
#include "tavrin/platform/api.h"
#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/tracking_service_error.h"

namespace tavrin {

class ConsentIDUtility;
class ServiceProtocol;
class TrackingSettings;
class UserIDUtility;

namespace detail {
struct TrackingServiceInternals;
class OrderedBlocks;
}  // namespace detail

// What pushes may keep in memory between submissions, for the whole process.
// Past `maxPushes` pushes or `maxBytes` bytes of their values (waiting to be
// processed, or processed and waiting for the next submit) the oldest are
// dropped, with one warning until the next submit; a text longer than
// `maxTextBytes` (keys too) is left out of its push or enrichment with a debug
// line. The defaults are far above what an app submitting now and then keeps.
struct TAVRIN_API PushLimits {
    std::size_t maxPushes = 10'000;
    std::size_t maxBytes = 16u << 20;
    std::size_t maxTextBytes = 64u << 10;
    friend bool operator==(const PushLimits&, const PushLimits&) = default;
};

class TAVRIN_API TrackingService : public std::enable_shared_from_this<TrackingService> {
public:
    // The current instance. Without one: an error line, then
    // TrackingServiceError notInitialized.
    static std::shared_ptr<TrackingService> shared();
    // Empties the shared slot. Pushes still waiting on the dropped instance's
    // queue are discarded; the push order counter is not reset.
    static void resetInstance();
    ~TrackingService();
    TrackingService(const TrackingService&) = delete;
    TrackingService& operator=(const TrackingService&) = delete;

    // The limits of every instance, from the next push on (zeros count as one).
    static void setPushLimits(PushLimits limits);
    static PushLimits pushLimits();
    // How many pushes this process dropped because of the limits.
    static std::uint64_t droppedPushCount();

    // Returns at once and never throws: the dictionary is handed to the
    // processing queue, where it becomes a stored push with the device's
    // facts, a process-wide order and an id, plus a debug tag.
    void push(AnyValue::Dictionary data);

    // Registers a plug-in for the next data submission, replacing any earlier
    // one under the same id. Text arguments name a property: the latest push
    // holding it wins, then the product data, else the text goes as it is.
    // Arrays of text, numbers (integers become decimals) and booleans are kept;
    // anything else (a date, a non-finite number, a dictionary, null) is
    // dropped. Pushes made before the call are part of the resolution.
    // Without a plug-in id nothing is stored (an error line says so).
    void addEnrichment(std::optional<std::string> pluginId, AnyValue::Dictionary arguments,
                       std::vector<std::string> variables);
    // Registers arguments as given, without resolution. The id defaults to
    // the configured container.
    void addCustomEnrichment(std::optional<std::string> pluginId, std::map<std::string, CodableValue> arguments,
                             std::vector<std::string> variables);

    // Sends everything pushed since the last submission as one data
    // submission. Waits on the caller's thread only for the pushes made so
    // far to be processed; the record is built and sent in the background.
    // The future fails with the transport's error, unchanged; the enrichments
    // are then kept for the next submission. `state` defaults to
    // "tvr_push_submit".
    std::future<void> submit(std::optional<std::string> state = std::nullopt);
    // Pushes the product (as "product" / "addtocart": the caller's "track"
    // and "type" do not override them) and an "addtocart" command, then
    // submits.
    std::future<void> addToCart(AnyValue::Dictionary properties);
    // Stores the user's decision, records what changed since the last one and
    // reports it. Calls are applied in call order, even when made without
    // waiting for one another: the stored decision is the last call's. True when the server accepted it; otherwise
    // get() throws TrackingServiceError submissionFailed with the cause. The decision is stored before sending and
    // stays stored when the send fails.
    std::future<bool> setConsents(std::map<std::string, ConsentStatus> consents);

private:
    friend struct detail::TrackingServiceInternals;

    // What the instance holds, out of sight of applications.
    struct State;

    TrackingService(std::shared_ptr<ServiceProtocol> service, std::shared_ptr<const TrackingSettings> settings);

    // True in a process forked from the one that built this instance: its
    // queue has no thread there, so every operation fails fast (logged) until
    // the child configures its own instance.
    bool isForeign() const noexcept;
    template <class T>
    static std::future<T> failedAfterFork() {
        std::promise<T> failed;
        failed.set_exception(std::make_exception_ptr(notInitializedAfterFork()));
        return failed.get_future();
    }
    // Logs the error line and gives the error to throw.
    static TrackingServiceError notInitializedAfterFork();

    // submit, with a line logged after "Data submission completed." (when not null).
    std::future<void> submitData(std::optional<std::string> state, const char* completedLine);
    // Background halves of submit and setConsents; `done` runs exactly once.
    void sendSubmission(std::vector<std::string> pushedCommands, std::map<std::string, CodableValue> customProperties,
                        std::string state, std::function<void(std::exception_ptr)> done);
    void sendConsents(const std::map<std::string, ConsentStatus>& consents,
                      std::function<void(std::exception_ptr)> done);

    // A submit took the kept pushes: a later drop warns again.
    static void endDropEpisode();
    // Runs on processingQueue: the oldest waiting push (there is none when
    // the limits dropped it).
    void processNextPush();
    // Runs on processingQueue.
    void processPush(AnyValue::Dictionary data);
    void addToProductData(const std::string& track, const std::string& type,
                          std::map<std::string, CodableValue> properties) const;
    // Blocks until every push enqueued so far has been processed.
    void waitForPendingPushes() const;
    // The table as a data submission carries it: nothing when it is empty.
    std::optional<std::map<std::string, Enrichment>> enrichmentsForSubmission() const;
    void resetEnrichments();
    void storeEnrichment(const std::string& pluginId, Enrichment enrichment);

    const std::unique_ptr<State> state_;
};

}  // namespace tavrin
