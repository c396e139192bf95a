#include "tavrin/platform/path_monitor.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/internal/netlink_path_monitor.h"
#include "tavrin/platform/internal/path_evaluation.h"
#include "tests/support/scripted_path_monitor.h"
#include "tests/support/network_namespace.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedPathMonitor;
using testing::ip;
using testing::runInOwnNetworkNamespace;
using Statuses = std::vector<PathStatus>;
constexpr auto S = PathStatus::satisfied;
constexpr auto U = PathStatus::unsatisfied;

std::string describe(const Statuses& statuses) {
    std::string text = "[";
    for (auto status : statuses) text += (text.size() > 1 ? ", " : "") + std::string(pathStatusName(status));
    return text + "]";
}

// Collects reports and the queues they ran on; waits with a deadline instead of sleeping.
struct Recorder {
    PathMonitor::UpdateHandler handler() {
        return [this](PathStatus status) {
            std::lock_guard lock(mutex);
            reports.push_back(status);
            queues.insert(currentQueueLabel());
            reported.notify_all();
        };
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex);
        return reported.wait_for(lock, timeout, [&] { return reports.size() >= count; });
    }
    Statuses updates() {
        std::lock_guard lock(mutex);
        return reports;
    }
    std::mutex mutex;
    std::condition_variable reported;
    Statuses reports;
    std::set<std::string> queues;
};

TEST(PathEvaluation, NeedsAnUpRunningNonLoopbackInterfaceCarryingADefaultRoute) {
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
    EXPECT_TRUE(detail::isUsableLink(v0));
    EXPECT_FALSE(detail::isUsableLink(lo));
}

TEST(ScriptedPathMonitor, ReportsOnTheQueueFromStartUntilCancel) {
    SerialQueue queue("test.path.scripted");
    Recorder first, second;
    ScriptedPathMonitor monitor(U);
    monitor.setUpdateHandler(first.handler());
    monitor.setStatus(S);  // before start: becomes the current status, not a report
    monitor.setStatus(U);
    queue.sync([] {});
    EXPECT_TRUE(first.updates().empty());
    EXPECT_FALSE(monitor.isStarted());

    monitor.start(queue);
    monitor.start(queue);  // a second start changes nothing
    EXPECT_TRUE(monitor.isStarted());
    // Repeats are reported: the offline manager must tolerate "Online" twice.
    for (auto s : {U, S, S, U, S}) monitor.setStatus(s);
    ASSERT_TRUE(first.waitForCount(6));
    EXPECT_EQ(monitor.status(), S);
    // A handler replaced after start takes the next report.
    monitor.setUpdateHandler(second.handler());
    monitor.setStatus(U);
    ASSERT_TRUE(second.waitForCount(1));
    EXPECT_EQ(first.updates(), (Statuses{U, U, S, S, U, S})) << describe(first.updates());
    EXPECT_EQ(second.updates(), Statuses{U});
    EXPECT_EQ(first.queues, std::set<std::string>{"test.path.scripted"});

    // Cancel drops reports still waiting on the queue, and later ones.
    std::promise<void> gate;
    queue.async([gateFuture = gate.get_future().share()] { gateFuture.wait(); });
    monitor.setStatus(S);
    monitor.cancel();
    monitor.cancel();
    EXPECT_TRUE(monitor.isCancelled());
    gate.set_value();
    monitor.setStatus(U);
    monitor.start(queue);  // start after cancel does nothing
    queue.sync([] {});
    EXPECT_EQ(second.updates(), Statuses{U}) << describe(second.updates());
}

TEST(ScriptedPathMonitor, CancelWaitsForAReportInProgressButNotFromInsideTheHandler) {
    SerialQueue queue("test.path.inflight");
    ScriptedPathMonitor monitor;
    std::promise<void> entered, release;
    std::atomic<int> sequence{0}, handlerEnded{-1}, cancelEnded{-1};
    monitor.setUpdateHandler([&, released = release.get_future().share()](PathStatus) {
        entered.set_value();
        released.wait();
        handlerEnded = sequence++;
    });
    monitor.start(queue);
    entered.get_future().wait();
    auto cancelled = std::async(std::launch::async, [&] {
        monitor.cancel();
        cancelEnded = sequence++;
    });
    EXPECT_EQ(cancelled.wait_for(200ms), std::future_status::timeout) << "cancel returned mid-report";
    release.set_value();
    cancelled.get();
    EXPECT_LT(handlerEnded.load(), cancelEnded.load());

    // From inside the handler cancel returns at once (no self-deadlock) and stops later reports.
    ScriptedPathMonitor selfCancelling;
    Recorder recorder;
    selfCancelling.setUpdateHandler([&, record = recorder.handler()](PathStatus s) {
        selfCancelling.cancel();
        record(s);
    });
    selfCancelling.start(queue);
    ASSERT_TRUE(recorder.waitForCount(1));
    selfCancelling.setStatus(U);
    queue.sync([] {});
    EXPECT_EQ(recorder.updates(), Statuses{S});
}

TEST(PathMonitorFactory, DefaultIsNetlinkAndCanBeReplacedAndRestored) {
    EXPECT_NE(std::dynamic_pointer_cast<NetlinkPathMonitor>(PathMonitor::make()), nullptr);
    auto scripted = std::make_shared<ScriptedPathMonitor>(U);
    PathMonitor::setFactory([&]() -> std::shared_ptr<PathMonitor> { return scripted; });
    EXPECT_EQ(PathMonitor::make(), scripted);
    PathMonitor::setFactory({});
    EXPECT_NE(std::dynamic_pointer_cast<NetlinkPathMonitor>(PathMonitor::make()), nullptr);
}

TEST(NetlinkPathMonitor, FirstReportIsTheCurrentStatusOnTheQueue) {
    const auto now = NetlinkPathMonitor::currentStatus();
    ASSERT_TRUE(now.has_value()) << "rtnetlink route dump failed";
    SerialQueue queue("test.path.netlink");
    Recorder recorder;
    {
        NetlinkPathMonitor monitor;  // destroyed without cancel: the destructor cancels
        monitor.setUpdateHandler(recorder.handler());
        monitor.start(queue);
        ASSERT_TRUE(recorder.waitForCount(1)) << "no initial report";
    }
    queue.sync([] {});
    EXPECT_EQ(recorder.updates().front(), *now);
    EXPECT_EQ(recorder.queues, std::set<std::string>{"test.path.netlink"});
}

// ---- rtnetlink monitor inside a network namespace of its own (needs root or CAP_SYS_ADMIN)

// Waits for the report that completes `expected` and checks the whole sequence.
void expectReports(Recorder& recorder, const Statuses& expected, std::chrono::milliseconds timeout,
                   const std::string& step) {
    EXPECT_TRUE(recorder.waitForCount(expected.size(), timeout))
        << step << ": no report within " << timeout.count() << " ms";
    EXPECT_EQ(recorder.updates(), expected) << step << ": " << describe(recorder.updates());
}

TEST(NetlinkPathMonitorNamespace, FollowsDefaultRouteAndLinkStateUntilCancelled) {
    runInOwnNetworkNamespace([] {
        ip("link set lo up");
        SerialQueue queue("test.path.netns");
        Recorder recorder, cancelled, selfCancelled;
        NetlinkPathMonitor monitor, early, self;
        monitor.setUpdateHandler(recorder.handler());
        early.setUpdateHandler(cancelled.handler());
        self.setUpdateHandler([&, record = selfCancelled.handler()](PathStatus s) {
            self.cancel();  // from inside the handler: must not deadlock
            record(s);
        });
        for (auto* m : {&monitor, &early, &self}) m->start(queue);
        Statuses expected{U};
        expectReports(recorder, expected, 5s, "loopback only");
        expectReports(cancelled, expected, 5s, "monitor to cancel, initial");
        expectReports(selfCancelled, expected, 5s, "self-cancelling monitor, initial");
        early.cancel();
        early.cancel();
        auto step = [&](PathStatus next, const std::string& what, std::chrono::milliseconds timeout = 5s) {
            expected.push_back(next);
            expectReports(recorder, expected, timeout, what);
        };

        // Links and an address but no default route: still unsatisfied, and not reported again.
        if (!ip("link add v0 type veth peer name v1")) return;
        ip("link set v0 up");
        ip("link set v1 up");
        ip("addr add 10.200.0.1/24 dev v0");
        // A default route in another table is not the main table's.
        ip("route add default via 10.200.0.2 table 100");
        EXPECT_EQ(NetlinkPathMonitor::currentStatus(), U) << "default route of table 100 counted as a path";
        ip("route add default via 10.200.0.2");
        step(S, "default route added");
        EXPECT_EQ(NetlinkPathMonitor::currentStatus(), S) << "currentStatus disagrees with the monitor";
        ip("route del default via 10.200.0.2");
        step(U, "default route deleted", 1s);
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
        ip("-6 route del default via 2001:db8::2 dev v0");
        step(U, "IPv6 default route deleted");

        monitor.cancel();
        ip("-6 route add default via 2001:db8::2 dev v0");
        std::this_thread::sleep_for(200ms);
        queue.sync([] {});
        EXPECT_EQ(recorder.updates(), expected) << "reported after cancel";
        EXPECT_EQ(cancelled.updates(), Statuses{U}) << "cancelled monitor still reported";
        EXPECT_EQ(selfCancelled.updates(), Statuses{U}) << "monitor cancelled in its handler still reported";
    });
}

}  // namespace
}  // namespace tavrin::platform
