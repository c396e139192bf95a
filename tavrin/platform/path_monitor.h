#pragma once
// Network path monitor: tells whether the device has a usable path to the
// network. The current status is reported once at start, then on every change,
// always on the queue given to start().

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "tavrin/platform/dispatch.h"

namespace tavrin::platform {

enum class PathStatus { satisfied, unsatisfied };

const char* pathStatusName(PathStatus status) noexcept;

class PathMonitor {
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

    // A new monitor from the installed factory (the rtnetlink monitor unless
    // the host or a test installed another).
    static std::shared_ptr<PathMonitor> make();
    // Replaces the factory; an empty function restores the default.
    static void setFactory(Factory factory);
};

namespace detail {
// Delivers reports on a queue and keeps the cancel promise; shared by the
// monitors so pending queue blocks never touch a destroyed monitor.
class PathDelivery;

// What the rtnetlink monitor reads from the kernel, reduced to what decides the path.
struct LinkFact {
    int index = 0;
    unsigned flags = 0;                   // IFF_* of the interface
    std::optional<unsigned char> operState;  // IF_OPER_* when the kernel reported it
};

struct DefaultRouteFact {
    // Interfaces the route leaves through (one, or the hops of a multipath
    // route whose hops are not dead or link-down). Empty when the route names
    // a nexthop object, which is not resolved to interfaces.
    std::vector<int> outputInterfaces;
    bool usesNexthopObject = false;
};

// A loopback interface never counts; an interface counts when it is up and
// its lower layer runs (IFF_RUNNING, or operational state up).
bool isUsableLink(const LinkFact& link) noexcept;
PathStatus evaluatePath(const std::vector<LinkFact>& links, const std::vector<DefaultRouteFact>& defaultRoutes);
}  // namespace detail

// Follows the kernel's links and routes through an rtnetlink socket read on a
// thread of its own. The path is satisfied when an interface other than
// loopback is up and running and a unicast default route of the main table
// (IPv4 or IPv6) leaves through such an interface. Only changes are reported.
class NetlinkPathMonitor final : public PathMonitor {
public:
    NetlinkPathMonitor();
    ~NetlinkPathMonitor() override;
    NetlinkPathMonitor(const NetlinkPathMonitor&) = delete;
    NetlinkPathMonitor& operator=(const NetlinkPathMonitor&) = delete;

    void setUpdateHandler(UpdateHandler handler) override;
    void start(SerialQueue& queue) override;
    void cancel() override;

    // One reading of the kernel's tables, without monitoring; absent when
    // rtnetlink cannot be queried.
    static std::optional<PathStatus> currentStatus();

private:
    struct Reader;
    std::shared_ptr<detail::PathDelivery> delivery_;
    std::mutex mutex_;  // start and cancel may come from different threads
    std::unique_ptr<Reader> reader_;
};

// Driven by hand, for tests of the code that reacts to the path: every
// setStatus() is reported (repeats included) once the monitor is started.
class ScriptedPathMonitor final : public PathMonitor {
public:
    explicit ScriptedPathMonitor(PathStatus initial = PathStatus::satisfied);
    ~ScriptedPathMonitor() override;
    ScriptedPathMonitor(const ScriptedPathMonitor&) = delete;
    ScriptedPathMonitor& operator=(const ScriptedPathMonitor&) = delete;

    void setUpdateHandler(UpdateHandler handler) override;
    void start(SerialQueue& queue) override;
    void cancel() override;

    // Makes this the current status; reported on the queue when started and
    // not cancelled.
    void setStatus(PathStatus status);
    PathStatus status() const;
    bool isStarted() const;
    bool isCancelled() const;

private:
    std::shared_ptr<detail::PathDelivery> delivery_;
    mutable std::mutex mutex_;
    PathStatus status_;
};

}  // namespace tavrin::platform
