#include "tavrin/platform/windows/ip_helper_path_monitor.h"

#include <string>
#include <utility>
#include <vector>

#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/windows/wide_text.h"

namespace tavrin::platform {

namespace detail {

LinkFact linkFactFromRow(const MIB_IF_ROW2& row) {
    LinkFact link;
    link.index = static_cast<int>(row.InterfaceIndex);
    if (row.Type == IF_TYPE_SOFTWARE_LOOPBACK) link.flags |= kLinkLoopback;
    // Windows has no separate "up" and "running": an interface that is
    // administratively down or has lost its medium is not operationally up.
    if (row.OperStatus == IfOperStatusUp) {
        link.flags |= kLinkUp | kLinkRunning;
        link.operState = kOperationalUp;
    }
    return link;
}

std::optional<DefaultRouteFact> defaultRouteFromRow(const MIB_IPFORWARD_ROW2& row) {
    const auto family = row.DestinationPrefix.Prefix.si_family;
    if (family != AF_INET && family != AF_INET6) return std::nullopt;
    if (row.DestinationPrefix.PrefixLength != 0) return std::nullopt;
    DefaultRouteFact route;
    route.outputInterfaces.push_back(static_cast<int>(row.InterfaceIndex));
    return route;
}

PathStatus evaluateIpHelperRows(std::span<const MIB_IF_ROW2> interfaces, std::span<const MIB_IPFORWARD_ROW2> routes) {
    std::vector<LinkFact> links;
    links.reserve(interfaces.size());
    for (const auto& row : interfaces) links.push_back(linkFactFromRow(row));
    std::vector<DefaultRouteFact> defaultRoutes;
    for (const auto& row : routes)
        if (auto route = defaultRouteFromRow(row)) defaultRoutes.push_back(std::move(*route));
    return evaluatePath(links, defaultRoutes);
}

}  // namespace detail

namespace {

// Owns a table the IP Helper allocated.
template <class Table>
struct MibTable {
    Table* table = nullptr;
    ~MibTable() {
        if (table) FreeMibTable(table);
    }
};

}  // namespace

std::optional<PathStatus> IpHelperPathMonitor::currentStatus() {
    MibTable<MIB_IF_TABLE2> interfaces;
    if (const DWORD error = GetIfTable2(&interfaces.table); error != NO_ERROR) {
        logError([&] { return "Network path monitor: reading the interfaces failed: " + win::errorText(error); });
        return std::nullopt;
    }
    MibTable<MIB_IPFORWARD_TABLE2> routes;
    const DWORD error = GetIpForwardTable2(AF_UNSPEC, &routes.table);
    if (error == ERROR_NOT_FOUND) return PathStatus::unsatisfied;  // no routes at all
    if (error != NO_ERROR) {
        logError([&] { return "Network path monitor: reading the routes failed: " + win::errorText(error); });
        return std::nullopt;
    }
    return detail::evaluateIpHelperRows({interfaces.table->Table, interfaces.table->NumEntries},
                                        {routes.table->Table, routes.table->NumEntries});
}

// The subscriptions, and what their callbacks share. The callbacks run on the
// system's thread pool with this object as their context; it lives until both
// subscriptions are cancelled, and CancelMibChangeNotify2 waits for callbacks
// already running.
//
// Wine (8.0) accepts both subscriptions without ever calling back (it hands
// out no handle): there the start-up report is the only one.
struct IpHelperPathMonitor::Watch {
    std::shared_ptr<detail::PathDelivery> delivery;
    std::mutex mutex;  // one reading at a time, so reports follow the tables' order
    std::optional<PathStatus> last;
    HANDLE interfaceChanges = nullptr;
    HANDLE routeChanges = nullptr;

    // Reads the tables and reports the path when it changed.
    void refresh() {
        std::lock_guard lock(mutex);
        const auto status = currentStatus();
        if (!status || status == last) return;
        last = status;
        delivery->deliver(*status);
    }

    static void CALLBACK onInterfaceChange(PVOID context, PMIB_IPINTERFACE_ROW, MIB_NOTIFICATION_TYPE) {
        static_cast<Watch*>(context)->refresh();
    }
    static void CALLBACK onRouteChange(PVOID context, PMIB_IPFORWARD_ROW2, MIB_NOTIFICATION_TYPE) {
        static_cast<Watch*>(context)->refresh();
    }

    void subscribe() {
        auto failed = [](const char* what, DWORD error) {
            logError([&] {
                return std::string("Network path monitor: ") + what +
                       " changes will not be followed: " + win::errorText(error);
            });
        };
        // Interface changes cover a medium connected or lost and an adapter enabled or disabled.
        if (const DWORD error = NotifyIpInterfaceChange(AF_UNSPEC, onInterfaceChange, this, FALSE, &interfaceChanges);
            error != NO_ERROR) {
            interfaceChanges = nullptr;
            failed("interface", error);
        }
        if (const DWORD error = NotifyRouteChange2(AF_UNSPEC, onRouteChange, this, FALSE, &routeChanges);
            error != NO_ERROR) {
            routeChanges = nullptr;
            failed("route", error);
        }
    }

    // Never called from a callback (it would wait for itself).
    void unsubscribe() {
        for (HANDLE* handle : {&interfaceChanges, &routeChanges}) {
            if (*handle) CancelMibChangeNotify2(*handle);
            *handle = nullptr;
        }
    }
};

IpHelperPathMonitor::IpHelperPathMonitor() : delivery_(std::make_shared<detail::PathDelivery>()) {}

IpHelperPathMonitor::~IpHelperPathMonitor() { cancel(); }

void IpHelperPathMonitor::setUpdateHandler(UpdateHandler handler) { delivery_->setHandler(std::move(handler)); }

void IpHelperPathMonitor::start(SerialQueue& queue) {
    std::lock_guard lock(mutex_);
    if (!delivery_->start(queue)) return;
    auto watch = std::make_unique<Watch>();
    watch->delivery = delivery_;
    // Subscribed before the first reading, so no change between the two is missed.
    // Even without subscriptions the current path is reported once.
    watch->subscribe();
    watch->refresh();
    watch_ = std::move(watch);
}

void IpHelperPathMonitor::cancel() {
    {
        // No callback runs once the subscriptions are cancelled, so none
        // queues a report after the delivery stops.
        std::lock_guard lock(mutex_);
        if (watch_) {
            watch_->unsubscribe();
            watch_.reset();
        }
    }
    delivery_->cancel();
}

}  // namespace tavrin::platform
