#pragma once
// The Windows path monitor: reads the interface and routing tables of the IP
// Helper and follows their changes through its notifications. The path is
// satisfied when an interface other than loopback is operationally up and a
// default route (0.0.0.0/0 or ::/0) leaves through it; the decision is the
// one the other systems' monitors make (detail::evaluatePath). Only changes
// are reported.

#include <winsock2.h>
#include <ws2ipdef.h>
// After the socket headers, which they need.
#include <iphlpapi.h>
#include <netioapi.h>

#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "tavrin/platform/internal/path_delivery.h"
#include "tavrin/platform/internal/path_evaluation.h"
#include "tavrin/platform/path_monitor.h"

namespace tavrin::platform {

namespace detail {

// An interface row as the shared evaluation sees it: operationally up counts
// as up and running; the software loopback is loopback.
LinkFact linkFactFromRow(const MIB_IF_ROW2& row);
// A default route of either family as a fact; nothing for any other route.
std::optional<DefaultRouteFact> defaultRouteFromRow(const MIB_IPFORWARD_ROW2& row);
// The path the two tables describe.
PathStatus evaluateIpHelperRows(std::span<const MIB_IF_ROW2> interfaces, std::span<const MIB_IPFORWARD_ROW2> routes);

}  // namespace detail

class IpHelperPathMonitor final : public PathMonitor {
public:
    IpHelperPathMonitor();
    ~IpHelperPathMonitor() override;
    IpHelperPathMonitor(const IpHelperPathMonitor&) = delete;
    IpHelperPathMonitor& operator=(const IpHelperPathMonitor&) = delete;

    void setUpdateHandler(UpdateHandler handler) override;
    // Subscribes to changes, then reads the tables once on the calling thread
    // (a few milliseconds) and queues the first report.
    void start(SerialQueue& queue) override;
    void cancel() override;

    // One reading of the tables, without monitoring; absent when they cannot
    // be read (logged).
    static std::optional<PathStatus> currentStatus();

private:
    struct Watch;
    std::shared_ptr<detail::PathDelivery> delivery_;
    std::mutex mutex_;  // start and cancel may come from different threads
    std::unique_ptr<Watch> watch_;
};

}  // namespace tavrin::platform
