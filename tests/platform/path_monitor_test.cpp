#include "tavrin/platform/path_monitor.h"

#include <gtest/gtest.h>
#include <linux/if.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/path_delivery.h"
#include "tavrin/platform/internal/path_evaluation.h"
#include "tavrin/platform/linux/netlink_path_monitor.h"
#include "tests/support/network_namespace.h"
#include "tests/support/path_recorder.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::ip;
using Statuses = std::vector<PathStatus>;
constexpr auto S = PathStatus::satisfied;
constexpr auto U = PathStatus::unsatisfied;

using Recorder = testing::PathRecorder;

TEST(PathEvaluationTest, NeedsAnUpRunningNonLoopbackInterfaceCarryingADefaultRoute) {
    using Link = detail::LinkFact;
    using Route = detail::DefaultRouteFact;
    const unsigned upRunning = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;
    const Link lo{1, upRunning | IFF_LOOPBACK, IF_OPER_UNKNOWN}, v0{2, upRunning, IF_OPER_UP},
        down3{3, IFF_BROADCAST, IF_OPER_DOWN};
    const Route via2{{2}}, via3{{3}}, nexthop{{}, true};
    struct Case {
        const char* what;
        std::vector<Link> links;
        std::vector<Route> routes;
        PathStatus expected;
    };
    for (const auto& c : std::vector<Case>{
             {"only loopback, even with a default route through it", {lo}, {Route{{1}}}, U},
             {"no default route", {lo, v0}, {}, U},
             {"up interface carrying the default route", {lo, v0}, {via2}, S},
             {"route through another interface, which is down", {lo, v0, down3}, {via3}, U},
             {"up without carrier", {lo, {2, IFF_UP, IF_OPER_LOWERLAYERDOWN}}, {via2}, U},
             {"running without IFF_UP", {lo, {2, IFF_RUNNING, IF_OPER_UP}}, {via2}, U},
             {"operational state up stands in for IFF_RUNNING", {lo, {2, IFF_UP, IF_OPER_UP}}, {via2}, S},
             {"route naming a vanished interface", {lo, v0}, {Route{{42}}}, U},
             {"multipath with one usable hop", {v0, down3}, {Route{{3, 2}}}, S},
             {"second default route usable", {v0, down3}, {via3, via2}, S},
             {"multipath without a usable hop", {v0, down3}, {Route{{3, 3}}}, U},
             {"nexthop object, a usable interface", {v0}, {nexthop}, S},
             {"nexthop object, no usable interface", {down3}, {nexthop}, U},
         })
        EXPECT_EQ(detail::evaluatePath(c.links, c.routes), c.expected) << c.what;
}

// Repeats are reported too: the offline manager must tolerate "Online" twice.
TEST(PathDeliveryTest, ReportsOnTheQueueOnlyBetweenStartAndCancel) {
    SerialQueue queue("test.path.delivery");
    Recorder recorder;
    auto delivery = std::make_shared<detail::PathDelivery>();
    delivery->setHandler(recorder.handler());
    delivery->deliver(S);  // before start: dropped
    ASSERT_TRUE(delivery->start(queue));
    EXPECT_FALSE(delivery->start(queue));
    for (auto s : {U, S, S}) delivery->deliver(s);
    EXPECT_EQ(recorder.await(3), (Statuses{U, S, S}));

    // Cancel drops reports still waiting on the queue, and later ones.
    std::promise<void> gate;
    queue.async([gateFuture = gate.get_future().share()] { gateFuture.wait(); });
    delivery->deliver(U);
    delivery->cancel();
    gate.set_value();
    delivery->deliver(U);
    EXPECT_FALSE(delivery->start(queue));
    queue.sync([] {});
    EXPECT_EQ(recorder.await(0), (Statuses{U, S, S}));
    EXPECT_EQ(recorder.queues, std::set<std::string>{"test.path.delivery"});
}

TEST(PathDeliveryTest, CancelWaitsForAReportInProgress) {
    SerialQueue queue("test.path.inflight");
    auto delivery = std::make_shared<detail::PathDelivery>();
    std::promise<void> entered, release;
    std::atomic<bool> handlerEnded{false};
    delivery->setHandler([&, released = release.get_future().share()](PathStatus) {
        entered.set_value();
        released.wait();
        handlerEnded = true;
    });
    delivery->start(queue);
    delivery->deliver(S);
    entered.get_future().wait();
    auto cancelled = std::async(std::launch::async, [&] {
        delivery->cancel();
        return handlerEnded.load();
    });
    EXPECT_EQ(cancelled.wait_for(200ms), std::future_status::timeout) << "cancel returned mid-report";
    release.set_value();
    EXPECT_TRUE(cancelled.get()) << "cancel returned before the report in progress ended";
}

TEST(NetlinkPathMonitorTest, FirstReportIsTheCurrentStatusOnTheQueue) {
    const auto now = NetlinkPathMonitor::currentStatus();
    ASSERT_TRUE(now.has_value()) << "rtnetlink route dump failed";
    SerialQueue queue("test.path.netlink");
    Recorder recorder;
    {
        NetlinkPathMonitor monitor;  // destroyed without cancel: the destructor cancels
        monitor.setUpdateHandler(recorder.handler());
        monitor.start(queue);
        ASSERT_EQ(recorder.await(1), Statuses{*now});
    }
    EXPECT_EQ(recorder.queues, std::set<std::string>{"test.path.netlink"});
}

// Inside a network namespace of its own (needs root or CAP_SYS_ADMIN).
TEST(NetlinkPathMonitorTest, FollowsTheDefaultRouteAndLinkStateInANamespace) {
    testing::runInOwnNetworkNamespace([] {
        ip("link set lo up");
        SerialQueue queue("test.path.netns");
        Recorder recorder;
        NetlinkPathMonitor monitor;
        monitor.setUpdateHandler(recorder.handler());
        monitor.start(queue);
        Statuses expected{U};
        EXPECT_EQ(recorder.await(1), expected) << "loopback only";
        auto step = [&](PathStatus next, const std::string& what) {
            expected.push_back(next);
            EXPECT_EQ(recorder.await(expected.size()), expected) << what;
        };

        // Links and an address but no default route: still unsatisfied, and not reported again.
        if (!ip("link add v0 type veth peer name v1")) return;
        ip("link set v0 up");
        ip("link set v1 up");
        ip("addr add 10.200.0.1/24 dev v0");
        ip("route add default via 10.200.0.2 table 100");
        EXPECT_EQ(NetlinkPathMonitor::currentStatus(), U) << "default route of table 100 counted as a path";
        ip("route add default via 10.200.0.2");
        step(S, "default route added");
        EXPECT_EQ(NetlinkPathMonitor::currentStatus(), S) << "currentStatus disagrees with the monitor";
        ip("route del default via 10.200.0.2");
        step(U, "default route deleted");
        ip("route add default via 10.200.0.2");
        step(S, "default route restored");
        // Peer down: v0 stays administratively up but loses its carrier; the route stays.
        ip("link set v1 down");
        step(U, "veth peer down");
        ip("link set v1 up");
        step(S, "veth peer up again");
        ip("link set v0 down");
        step(U, "link down");
        // IPv6 alone makes a path too.
        ip("link set v0 up");
        ip("-6 addr add 2001:db8::1/64 dev v0 nodad");
        ip("-6 route add default via 2001:db8::2 dev v0");
        step(S, "IPv6 default route");

        monitor.cancel();
        ip("-6 route del default via 2001:db8::2 dev v0");
        std::this_thread::sleep_for(200ms);
        queue.sync([] {});
        EXPECT_EQ(recorder.await(0), expected) << "reported after cancel";
    });
}

}  // namespace
}  // namespace tavrin::platform
