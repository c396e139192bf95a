#pragma once
// What the library's own components (and tests) reach inside the tracking
// service beyond its public operations.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tavrin/model/internal/push_payload.h"
#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/tracking/tracking_service.h"

namespace tavrin {

struct TrackingService::State {
    State(std::shared_ptr<ServiceProtocol> service, std::shared_ptr<const TrackingSettings> settings);

    const std::uint32_t generation = platform::forkGeneration();
    const std::string trackCommand = "defaultTrackCommand";
    const std::string typeValue = "defaultDependencyType";
    const std::shared_ptr<const TrackingSettings> settings;
    std::shared_ptr<ServiceProtocol> service;
    const std::string userAgent;
    const std::unique_ptr<const ConsentIDUtility> consentUtility;
    const std::unique_ptr<const UserIDUtility> userIDUtility;
    const std::string vendorConsentsKey = "VendorConsents";
    const std::string vendorConsentsLastUpdateKey = "VendorConsents_lastupdate";
    // Serialises push work: pushes are processed and numbered in call order.
    mutable platform::SerialQueue processingQueue{"com.tavrin.processing"};
    // Pushes handed over and not yet processed, oldest first, with their
    // approximate size; each has its task on processingQueue.
    struct WaitingPush {
        AnyValue::Dictionary data;
        std::size_t bytes;
    };
    std::deque<WaitingPush> waitingPushes;
    // The device's facts the last push saw, and the properties made of them
    // that the pushes share; only processingQueue touches them.
    struct DeviceProperties {
        AppDeviceInfo facts;
        std::shared_ptr<const PushPayload::Properties> properties;
    } lastDevice;
    std::size_t waitingBytes = 0;
    std::mutex waitingMutex;
    // setConsents calls, one at a time in call order.
    const std::shared_ptr<detail::OrderedBlocks> consentOrder;
    // Guarded by enrichmentsMutex alone: callers on any thread add, the
    // submission reads and resets; nothing else runs under this lock.
    std::map<std::string, Enrichment> enrichments;
    mutable std::mutex enrichmentsMutex;
};

}  // namespace tavrin

namespace tavrin::detail {

// Submissions and consent reports between their start and their end, so
// flush and shutdown can wait for them. Never destroyed: their completions may
// still run on the HTTP client's thread while the process exits.
class InFlightOperations {
public:
    static InFlightOperations& shared();

    void begin() {
        std::lock_guard lock(mutex_);
        ++count_;
    }
    void end() {
        std::lock_guard lock(mutex_);
        if (--count_ == 0) idle_.notify_all();
    }
    // True when nothing is in flight before the deadline.
    bool waitIdle(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return idle_.wait_until(lock, deadline, [&] { return count_ == 0; });
    }
    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return count_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable idle_;
    std::size_t count_ = 0;
};

using Completion = std::function<void(std::exception_ptr)>;

// Runs `work`; a throw from it completes `done` with that failure instead.
template <class Work>
void runGuarded(const Completion& done, Work&& work) {
    try {
        work();
    } catch (...) {
        done(std::current_exception());
    }
}

// Starts an operation that flush and shutdown wait for, and gives its future.
// `start` receives the completion to call exactly once, with the failure or
// null; on success `result` gives the value (and may log first). A throw from
// `start` completes the operation with that failure.
template <class T, class Start, class Result>
std::future<T> trackedOperation(Start&& start, Result result) {
    auto promise = std::make_shared<std::promise<T>>();
    auto future = promise->get_future();
    auto& inFlight = InFlightOperations::shared();
    inFlight.begin();
    Completion done = [promise, &inFlight, result = std::move(result)](std::exception_ptr error) {
        if (error) {
            promise->set_exception(error);
        } else if constexpr (std::is_void_v<T>) {
            result();
            promise->set_value();
        } else {
            promise->set_value(result());
        }
        inFlight.end();
    };
    runGuarded(done, [&] { start(done); });
    return future;
}

struct TrackingServiceInternals {
    // Called by TavrinService::configure: builds a service on the shared
    // settings (which must be configured) that sends through `service`,
    // installs it as the shared instance and returns it.
    static std::shared_ptr<TrackingService> initialize(std::shared_ptr<ServiceProtocol> service);

    // Runs the queue side of a push on the calling thread (benchmarks).
    static void processPush(TrackingService& service, AnyValue::Dictionary data) {
        service.processPush(std::move(data));
    }
    static void waitForPendingPushes(const TrackingService& service) { service.waitForPendingPushes(); }
    // Runs `block` on the processing queue once the pushes enqueued so far are processed.
    static void whenPushesProcessed(const TrackingService& service, std::function<void()> block) {
        service.state_->processingQueue.async(std::move(block));
    }
    static std::optional<std::map<std::string, Enrichment>> enrichmentsForSubmission(const TrackingService& service) {
        return service.enrichmentsForSubmission();
    }
    static void resetEnrichments(TrackingService& service) { service.resetEnrichments(); }
    static const std::string& userAgent(const TrackingService& service) { return service.state_->userAgent; }
    static const std::shared_ptr<ServiceProtocol>& service(const TrackingService& service) {
        return service.state_->service;
    }

    // The shared instance, or null before configure and in a forked child
    // before it configures (without the error line).
    static std::shared_ptr<TrackingService> current();
    // False in a process forked from the one that built `service`.
    static bool isOwn(const TrackingService& service) { return !service.isForeign(); }

    // The order the last push received (0 before the first push of the process).
    static std::int64_t lastPushOrder();
    // Tests: lets the counter start elsewhere (its overflow is a fatal stop).
    static void setLastPushOrderForTesting(std::int64_t order);
};

}  // namespace tavrin::detail
