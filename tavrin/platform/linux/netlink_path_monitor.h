#pragma once
// The default path monitor: follows the kernel's links and routes through an
// rtnetlink socket read on a thread of its own. The path is satisfied when an
// interface other than loopback is up and running and a unicast default route
// of the main table (IPv4 or IPv6) leaves through such an interface. Only
// changes are reported.

#include <memory>
#include <mutex>
#include <optional>

#include "tavrin/platform/internal/path_delivery.h"
#include "tavrin/platform/path_monitor.h"

namespace tavrin::platform {

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

}  // namespace tavrin::platform
