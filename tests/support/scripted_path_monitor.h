#pragma once
// A path monitor driven by hand, for tests of the code that reacts to the
// path: every setStatus() is reported (repeats included) once the monitor is
// started. Delivery and cancellation are the real monitor's.

#include <memory>
#include <mutex>

#include "tavrin/platform/internal/path_delivery.h"
#include "tavrin/platform/path_monitor.h"

namespace tavrin::testing {

class ScriptedPathMonitor final : public platform::PathMonitor {
public:
    explicit ScriptedPathMonitor(platform::PathStatus initial = platform::PathStatus::satisfied);
    ~ScriptedPathMonitor() override;
    ScriptedPathMonitor(const ScriptedPathMonitor&) = delete;
    ScriptedPathMonitor& operator=(const ScriptedPathMonitor&) = delete;

    void setUpdateHandler(UpdateHandler handler) override;
    void start(platform::SerialQueue& queue) override;
    void cancel() override;

    // Makes this the current status; reported on the queue when started and
    // not cancelled.
    void setStatus(platform::PathStatus status);
    platform::PathStatus status() const;
    bool isStarted() const;
    bool isCancelled() const;

private:
    std::shared_ptr<platform::detail::PathDelivery> delivery_;
    mutable std::mutex mutex_;
    platform::PathStatus status_;
};

}  // namespace tavrin::testing
