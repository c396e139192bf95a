#include "tavrin/platform/windows/ip_helper_path_monitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tavrin/platform/dispatch.h"

#include "tests/support/path_recorder.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using Statuses = std::vector<PathStatus>;
constexpr auto S = PathStatus::satisfied;
constexpr auto U = PathStatus::unsatisfied;

MIB_IF_ROW2 interfaceRow(NET_IFINDEX index, IFTYPE type, IF_OPER_STATUS state) {
    MIB_IF_ROW2 row{};
    row.InterfaceIndex = index;
    row.Type = type;
    row.OperStatus = state;
    row.AdminStatus = NET_IF_ADMIN_STATUS_UP;
    row.MediaConnectState = state == IfOperStatusUp ? MediaConnectStateConnected : MediaConnectStateDisconnected;
    return row;
}

MIB_IPFORWARD_ROW2 routeRow(NET_IFINDEX index, ADDRESS_FAMILY family, UINT8 prefixLength) {
    MIB_IPFORWARD_ROW2 row{};
    row.InterfaceIndex = index;
    row.DestinationPrefix.Prefix.si_family = family;
    row.DestinationPrefix.PrefixLength = prefixLength;
    return row;
}

TEST(IpHelperRowsTest, TranslateIntoTheSharedPathDecision) {
    const auto loopback = interfaceRow(1, IF_TYPE_SOFTWARE_LOOPBACK, IfOperStatusUp);
    const auto ethernet = interfaceRow(4, IF_TYPE_ETHERNET_CSMACD, IfOperStatusUp);
    const auto wifiDown = interfaceRow(7, IF_TYPE_IEEE80211, IfOperStatusDown);
    const auto wifiDormant = interfaceRow(7, IF_TYPE_IEEE80211, IfOperStatusDormant);
    struct Case {
        const char* what;
        std::vector<MIB_IF_ROW2> interfaces;
        std::vector<MIB_IPFORWARD_ROW2> routes;
        PathStatus expected;
    };
    for (const auto& c : std::vector<Case>{
             {"loopback only, even with a default route through it", {loopback}, {routeRow(1, AF_INET, 0)}, U},
             {"up ethernet carrying the IPv4 default route", {loopback, ethernet}, {routeRow(4, AF_INET, 0)}, S},
             {"up ethernet, only a subnet route", {loopback, ethernet}, {routeRow(4, AF_INET, 24)}, U},
             {"default route through a down interface", {ethernet, wifiDown}, {routeRow(7, AF_INET, 0)}, U},
             {"default route through a dormant interface", {ethernet, wifiDormant}, {routeRow(7, AF_INET, 0)}, U},
             {"IPv6 default route only",
              {loopback, ethernet},
              {routeRow(4, AF_INET6, 0), routeRow(4, AF_INET6, 64)},
              S},
             {"second default route usable",
              {ethernet, wifiDown},
              {routeRow(7, AF_INET, 0), routeRow(4, AF_INET6, 0)},
              S},
             {"default route naming a vanished interface", {ethernet}, {routeRow(9, AF_INET, 0)}, U},
             {"a row of another family is no route", {ethernet}, {routeRow(4, AF_UNSPEC, 0)}, U},
             {"no interfaces", {}, {routeRow(4, AF_INET, 0)}, U},
         })
        EXPECT_EQ(detail::evaluateIpHelperRows(c.interfaces, c.routes), c.expected) << c.what;
}

TEST(IpHelperRowsTest, InterfaceRowsGiveTheSharedFlags) {
    const auto up = detail::linkFactFromRow(interfaceRow(4, IF_TYPE_ETHERNET_CSMACD, IfOperStatusUp));
    EXPECT_EQ(up.index, 4);
    EXPECT_EQ(up.flags, detail::kLinkUp | detail::kLinkRunning);
    EXPECT_EQ(up.operState, detail::kOperationalUp);
    EXPECT_TRUE(detail::isUsableLink(up));
    const auto loop = detail::linkFactFromRow(interfaceRow(1, IF_TYPE_SOFTWARE_LOOPBACK, IfOperStatusUp));
    EXPECT_TRUE(loop.flags & detail::kLinkLoopback);
    const auto down = detail::linkFactFromRow(interfaceRow(3, IF_TYPE_ETHERNET_CSMACD, IfOperStatusLowerLayerDown));
    EXPECT_EQ(down.flags, 0u);
    EXPECT_NE(down.operState, detail::kOperationalUp);

    const auto route = detail::defaultRouteFromRow(routeRow(12, AF_INET6, 0));
    ASSERT_TRUE(route.has_value());
    EXPECT_EQ(route->outputInterfaces, std::vector<int>{12});
    EXPECT_FALSE(route->usesNexthopObject);
    EXPECT_FALSE(detail::defaultRouteFromRow(routeRow(12, AF_INET, 1)).has_value());
}

using Recorder = testing::PathRecorder;

TEST(IpHelperPathMonitorTest, ReportsTheCurrentPathOnceOnTheQueueAndNothingAfterCancel) {
    const auto now = IpHelperPathMonitor::currentStatus();
    ASSERT_TRUE(now.has_value()) << "the interface or route table could not be read";
    SerialQueue queue("test.path.iphelper");
    Recorder recorder;
    IpHelperPathMonitor monitor;
    monitor.setUpdateHandler(recorder.handler());
    monitor.start(queue);
    monitor.start(queue);  // a second start does nothing
    const Statuses first = recorder.await(1);
    ASSERT_FALSE(first.empty()) << "no report at start";
    EXPECT_EQ(first.front(), *now);
    monitor.cancel();
    monitor.cancel();
    queue.sync([] {});
    const Statuses all = recorder.await(0);
    // Only changes follow the first report (the network may really change meanwhile).
    for (std::size_t i = 1; i < all.size(); ++i) EXPECT_NE(all[i], all[i - 1]) << "the same path reported twice";
    EXPECT_EQ(recorder.queues, std::set<std::string>{"test.path.iphelper"});

    // Started after cancel: no report.
    monitor.start(queue);
    queue.sync([] {});
    EXPECT_EQ(recorder.await(0), all);
}

TEST(IpHelperPathMonitorTest, CancelFromTheHandlerReturnsAndStopsReports) {
    SerialQueue queue("test.path.iphelper.inside");
    auto monitor = std::make_shared<IpHelperPathMonitor>();
    std::mutex mutex;
    std::condition_variable done;
    int reports = 0;
    monitor->setUpdateHandler([&](PathStatus) {
        monitor->cancel();  // would wait for itself if it waited for the report in progress
        std::lock_guard lock(mutex);
        ++reports;
        done.notify_all();
    });
    monitor->start(queue);
    std::unique_lock lock(mutex);
    ASSERT_TRUE(done.wait_for(lock, 5s, [&] { return reports > 0; })) << "no report at start";
    lock.unlock();
    queue.sync([] {});
    lock.lock();
    EXPECT_EQ(reports, 1);
}

TEST(IpHelperPathMonitorTest, DefaultMonitorOfThisSystem) {
    PathMonitor::setFactory(nullptr);
    EXPECT_NE(dynamic_cast<IpHelperPathMonitor*>(PathMonitor::make().get()), nullptr);
}

}  // namespace
}  // namespace tavrin::platform
