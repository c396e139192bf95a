#pragma once
// Network path monitor: tells whether the device has a usable path to the
// network. The offline cache manager starts one to resend cached requests
// once the network is back; a host or test may install another factory.
//
//     using namespace tavrin::platform;
//     SerialQueue queue("com.example.network");  // must outlive the monitor's cancel()
//     std::shared_ptr<PathMonitor> monitor = PathMonitor::make();
//     monitor->setUpdateHandler([](PathStatus status) {
//         if (status == PathStatus::satisfied) { /* resend what was cached while offline */ }
//     });
//     monitor->start(queue);
//     monitor->cancel();  // once it returns, the handler is not called again
//
// The current status is reported once at start, then on every change,
// always on the queue given to start().

#include <functional>
#include <memory>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

class SerialQueue;  // tavrin/platform/dispatch.h

enum class PathStatus { satisfied, unsatisfied };

TAVRIN_API const char* pathStatusName(PathStatus status) noexcept;

class TAVRIN_API PathMonitor {
public:
    using UpdateHandler = std::function<void(PathStatus)>;
    using Factory = std::function<std::shared_ptr<PathMonitor>()>;

    virtual ~PathMonitor() = default;

    // Install before start(); a handler set later applies to the next report.
    virtual void setUpdateHandler(UpdateHandler handler) = 0;
    // Begins monitoring and reports on the queue, which must outlive the
    // monitor's cancel() (or its destruction). A second start, or a start after
    // cancel, does nothing.
    virtual void start(SerialQueue& queue) = 0;
    // Stops monitoring. Idempotent. Once it returns the handler is not called
    // again; a report already running on another thread is waited for (called
    // from inside the handler it returns at once).
    virtual void cancel() = 0;

    // A new monitor from the installed factory (one following the kernel's
    // links and routes through rtnetlink, unless the host or a test installed
    // another).
    static std::shared_ptr<PathMonitor> make();
    // Replaces the factory; an empty function restores the default.
    static void setFactory(Factory factory);
};

}  // namespace tavrin::platform
