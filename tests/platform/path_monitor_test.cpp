#include "tavrin/platform/path_monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
constexpr auto S = PathStatus::satisfied;
constexpr auto U = PathStatus::unsatisfied;

std::string describe(const std::vector<PathStatus>& statuses) {
    std::string text = "[";
    for (std::size_t i = 0; i < statuses.size(); ++i) text += (i ? ", " : "") + std::string(pathStatusName(statuses[i]));
    return text + "]";
}

// Collects reports; waits with a deadline instead of sleeping.
class Recorder {
public:
    PathMonitor::UpdateHandler handler() {
        return [this](PathStatus status) {
            {
                std::lock_guard lock(mutex_);
                updates_.push_back(status);
                labels_.push_back(currentQueueLabel());
            }
            cv_.notify_all();
        };
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return updates_.size() >= count; });
    }
    std::vector<PathStatus> updates() {
        std::lock_guard lock(mutex_);
        return updates_;
    }
    std::vector<std::string> labels() {
        std::lock_guard lock(mutex_);
        return labels_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<PathStatus> updates_;
    std::vector<std::string> labels_;
};

// ---- the decision, from kernel facts

detail::LinkFact link(int index, unsigned flags, std::optional<unsigned char> oper = std::nullopt) {
    return {index, flags, oper};
}
detail::DefaultRouteFact routeVia(std::vector<int> oifs) { return {std::move(oifs), false}; }

TEST(PathEvaluation, NeedsAnUpRunningNonLoopbackInterfaceCarryingADefaultRoute) {
    const unsigned upRunning = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;
    const auto lo = link(1, upRunning | IFF_LOOPBACK, IF_OPER_UNKNOWN);
    const auto v0 = link(2, upRunning, IF_OPER_UP);
    // Nothing but loopback, even with a default route through it.
    EXPECT_EQ(detail::evaluatePath({lo}, {routeVia({1})}), U);
    // An up interface but no default route.
    EXPECT_EQ(detail::evaluatePath({lo, v0}, {}), U);
    EXPECT_EQ(detail::evaluatePath({lo, v0}, {routeVia({2})}), S);
    // The default route leaves through another interface, which is down.
    const auto eth1Down = link(3, IFF_BROADCAST, IF_OPER_DOWN);
    EXPECT_EQ(detail::evaluatePath({lo, v0, eth1Down}, {routeVia({3})}), U);
    // Up but without carrier (a veth whose peer is down): not running.
    const auto noCarrier = link(2, IFF_UP, IF_OPER_LOWERLAYERDOWN);
    EXPECT_EQ(detail::evaluatePath({lo, noCarrier}, {routeVia({2})}), U);
    // Running without IFF_UP does not count.
    EXPECT_EQ(detail::evaluatePath({lo, link(2, IFF_RUNNING, IF_OPER_UP)}, {routeVia({2})}), U);
    // Operational state up stands in for a missing IFF_RUNNING.
    EXPECT_EQ(detail::evaluatePath({lo, link(2, IFF_UP, IF_OPER_UP)}, {routeVia({2})}), S);
    // A route naming a vanished interface.
    EXPECT_EQ(detail::evaluatePath({lo, v0}, {routeVia({42})}), U);
}

TEST(PathEvaluation, MultipathAndNexthopObjects) {
    const auto v0 = link(2, IFF_UP | IFF_RUNNING, IF_OPER_UP);
    const auto v1Down = link(3, 0, IF_OPER_DOWN);
    EXPECT_EQ(detail::evaluatePath({v0, v1Down}, {routeVia({3, 2})}), S);
    EXPECT_EQ(detail::evaluatePath({v0, v1Down}, {routeVia({3}), routeVia({2})}), S);
    EXPECT_EQ(detail::evaluatePath({v0, v1Down}, {routeVia({3, 3})}), U);
    // A nexthop object is not resolved: any usable interface carries it.
    EXPECT_EQ(detail::evaluatePath({v0}, {{{}, true}}), S);
    EXPECT_EQ(detail::evaluatePath({v1Down}, {{{}, true}}), U);
    EXPECT_TRUE(detail::isUsableLink(v0));
    EXPECT_FALSE(detail::isUsableLink(v1Down));
}

// ---- scripted monitor

TEST(ScriptedPathMonitor, ReportsCurrentStatusAtStartThenEverySetStatusOnTheQueue) {
    SerialQueue queue("test.path.scripted");
    Recorder recorder;
    auto monitor = std::make_shared<ScriptedPathMonitor>(U);
    monitor->setUpdateHandler(recorder.handler());
    monitor->setStatus(S);  // before start: becomes the current status, not a report
    monitor->setStatus(U);
    queue.sync([] {});
    EXPECT_TRUE(recorder.updates().empty());
    EXPECT_FALSE(monitor->isStarted());

    monitor->start(queue);
    monitor->start(queue);  // a second start changes nothing
    EXPECT_TRUE(monitor->isStarted());
    // Repeats are reported: the offline manager must tolerate "Online" twice.
    for (auto s : {U, S, S, U, S}) monitor->setStatus(s);
    ASSERT_TRUE(recorder.waitForCount(6, 5s));
    queue.sync([] {});
    EXPECT_EQ(recorder.updates(), (std::vector<PathStatus>{U, U, S, S, U, S})) << describe(recorder.updates());
    for (const auto& label : recorder.labels()) EXPECT_EQ(label, "test.path.scripted");
    EXPECT_EQ(monitor->status(), S);
}

TEST(ScriptedPathMonitor, CancelDropsPendingReportsAndIsIdempotent) {
    SerialQueue queue("test.path.cancel");
    Recorder recorder;
    ScriptedPathMonitor monitor;
    monitor.setUpdateHandler(recorder.handler());
    // Hold the queue so reports pile up behind the gate.
    std::promise<void> gate;
    auto gateFuture = gate.get_future().share();
    queue.async([gateFuture] { gateFuture.wait(); });
    monitor.start(queue);
    monitor.setStatus(U);
    monitor.setStatus(S);
    monitor.cancel();
    monitor.cancel();
    EXPECT_TRUE(monitor.isCancelled());
    gate.set_value();
    monitor.setStatus(U);  // after cancel: not reported either
    queue.sync([] {});
    EXPECT_TRUE(recorder.updates().empty()) << describe(recorder.updates());

    // Start after cancel does nothing.
    monitor.start(queue);
    queue.sync([] {});
    EXPECT_TRUE(recorder.updates().empty());
}

TEST(ScriptedPathMonitor, CancelWaitsForAReportInProgressButNotFromInsideTheHandler) {
    SerialQueue queue("test.path.inflight");
    ScriptedPathMonitor monitor;
    std::promise<void> entered, release;
    auto releaseFuture = release.get_future();
    std::atomic<int> sequence{0};
    std::atomic<int> handlerEnded{-1};
    monitor.setUpdateHandler([&](PathStatus) {
        entered.set_value();
        releaseFuture.wait();
        handlerEnded = sequence++;
    });
    monitor.start(queue);
    entered.get_future().wait();

    std::mutex m;
    std::condition_variable cv;
    bool cancelReturned = false;
    int cancelEnded = -1;
    std::thread canceller([&] {
        monitor.cancel();
        std::lock_guard lock(m);
        cancelEnded = sequence++;
        cancelReturned = true;
        cv.notify_all();
    });
    {
        std::unique_lock lock(m);
        // The handler is still running, so cancel must not return yet.
        EXPECT_FALSE(cv.wait_for(lock, 200ms, [&] { return cancelReturned; })) << "cancel returned mid-report";
    }
    release.set_value();
    canceller.join();
    EXPECT_LT(handlerEnded.load(), cancelEnded);

    // From inside the handler cancel returns at once (no self-deadlock) and stops later reports.
    ScriptedPathMonitor selfCancelling;
    Recorder recorder;
    auto record = recorder.handler();
    selfCancelling.setUpdateHandler([&](PathStatus s) {
        selfCancelling.cancel();
        record(s);
    });
    selfCancelling.start(queue);
    ASSERT_TRUE(recorder.waitForCount(1, 5s));
    selfCancelling.setStatus(U);
    queue.sync([] {});
    EXPECT_EQ(recorder.updates(), std::vector<PathStatus>{S});
}

TEST(ScriptedPathMonitor, HandlerReplacedAfterStartTakesTheNextReport) {
    SerialQueue queue("test.path.handler");
    Recorder first, second;
    ScriptedPathMonitor monitor;
    monitor.setUpdateHandler(first.handler());
    monitor.start(queue);
    ASSERT_TRUE(first.waitForCount(1, 5s));
    monitor.setUpdateHandler(second.handler());
    monitor.setStatus(U);
    ASSERT_TRUE(second.waitForCount(1, 5s));
    queue.sync([] {});
    EXPECT_EQ(first.updates(), std::vector<PathStatus>{S});
    EXPECT_EQ(second.updates(), std::vector<PathStatus>{U});
}

TEST(PathMonitorFactory, DefaultIsNetlinkAndCanBeReplacedAndRestored) {
    EXPECT_NE(std::dynamic_pointer_cast<NetlinkPathMonitor>(PathMonitor::make()), nullptr);
    auto scripted = std::make_shared<ScriptedPathMonitor>(U);
    int made = 0;
    PathMonitor::setFactory([&]() -> std::shared_ptr<PathMonitor> {
        ++made;
        return scripted;
    });
    EXPECT_EQ(PathMonitor::make(), scripted);
    EXPECT_EQ(made, 1);
    PathMonitor::setFactory({});
    EXPECT_NE(std::dynamic_pointer_cast<NetlinkPathMonitor>(PathMonitor::make()), nullptr);
    EXPECT_EQ(made, 1);
}

// ---- rtnetlink monitor in the test's own namespace (no privileges needed)

TEST(NetlinkPathMonitor, FirstReportIsTheCurrentStatusAndCancelEndsIt) {
    const auto now = NetlinkPathMonitor::currentStatus();
    ASSERT_TRUE(now.has_value()) << "rtnetlink route dump failed";
    SerialQueue queue("test.path.netlink");
    Recorder recorder;
    {
        NetlinkPathMonitor monitor;
        monitor.setUpdateHandler(recorder.handler());
        monitor.start(queue);
        ASSERT_TRUE(recorder.waitForCount(1, 5s)) << "no initial report";
        monitor.cancel();
        monitor.cancel();
    }
    queue.sync([] {});
    ASSERT_FALSE(recorder.updates().empty());
    EXPECT_EQ(recorder.updates().front(), *now);
    EXPECT_EQ(recorder.labels().front(), "test.path.netlink");
    // A monitor destroyed without cancel stops too (the destructor cancels).
    NetlinkPathMonitor unstarted;
    unstarted.cancel();
}

// ---- rtnetlink monitor inside a network namespace of its own

// Runs in the forked child; reports each failed check as a line on the pipe.
class ChildChecks {
public:
    explicit ChildChecks(int fd) : fd_(fd) {}
    bool check(bool ok, const std::string& what) {
        if (!ok) {
            ++failures_;
            line("FAIL " + what);
        }
        return ok;
    }
    void line(const std::string& text) {
        const std::string out = text + "\n";
        std::size_t done = 0;
        while (done < out.size()) {
            const ssize_t n = ::write(fd_, out.data() + done, out.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            done += static_cast<std::size_t>(n);
        }
    }
    int failures() const { return failures_; }

    // Runs "ip ..." (split on spaces) and checks it succeeded.
    bool ip(const std::string& arguments) {
        std::vector<std::string> words{"ip"};
        std::istringstream in(arguments);
        for (std::string w; in >> w;) words.push_back(w);
        std::vector<char*> argv;
        for (auto& w : words) argv.push_back(w.data());
        argv.push_back(nullptr);
        pid_t pid;
        const int rc = posix_spawnp(&pid, "ip", nullptr, nullptr, argv.data(), environ);
        if (rc != 0) return check(false, "spawn ip " + arguments + ": " + std::strerror(rc));
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "ip " + arguments + " failed");
    }

private:
    int fd_;
    int failures_ = 0;
};

struct ChildResult {
    bool skipped = false;
    std::string skipReason;
    std::vector<std::string> failures;
    std::string exitDescription;
    bool clean = false;
};

constexpr int kSkipExit = 77;

// Forks a child that moves into a new network namespace and runs the scenario there.
ChildResult runInOwnNetworkNamespace(const std::function<void(ChildChecks&)>& scenario) {
    ChildResult result;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.failures.push_back(std::string("pipe: ") + std::strerror(errno));
        return result;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        result.failures.push_back(std::string("fork: ") + std::strerror(errno));
        return result;
    }
    if (pid == 0) {
        ::close(fds[0]);
        ChildChecks checks(fds[1]);
        if (unshare(CLONE_NEWNET) != 0) {
            const int error = errno;
            checks.line(std::string("SKIP unshare(CLONE_NEWNET) failed: ") + std::strerror(error) +
                        (error == EPERM ? " (needs root or CAP_SYS_ADMIN)" : ""));
            _exit(kSkipExit);
        }
        try {
            scenario(checks);
        } catch (const std::exception& e) {
            checks.check(false, std::string("exception: ") + e.what());
        }
        _exit(checks.failures() == 0 ? 0 : 1);
    }
    ::close(fds[1]);
    std::string output;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left <= 0ms) {
            kill(pid, SIGKILL);
            result.failures.push_back("namespace scenario did not finish within 60 s");
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        const int ready = poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        output.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("SKIP ", 0) == 0) {
            result.skipped = true;
            result.skipReason = line.substr(5);
        } else if (line.rfind("FAIL ", 0) == 0) {
            result.failures.push_back(line.substr(5));
        }
    }
    if (WIFEXITED(status)) {
        result.exitDescription = "exit " + std::to_string(WEXITSTATUS(status));
        result.clean = WEXITSTATUS(status) == 0 || (result.skipped && WEXITSTATUS(status) == kSkipExit);
    } else if (WIFSIGNALED(status)) {
        result.exitDescription = std::string("killed by signal ") + strsignal(WTERMSIG(status));
    }
    return result;
}

#define RUN_IN_NAMESPACE(...)                                                             \
    do {                                                                                       \
        const ChildResult r = runInOwnNetworkNamespace(__VA_ARGS__);                              \
        if (r.skipped) GTEST_SKIP() << r.skipReason;                                           \
        for (const auto& f : r.failures) ADD_FAILURE() << "in the namespace: " << f;           \
        EXPECT_TRUE(r.clean) << "namespace child ended with " << r.exitDescription;            \
    } while (0)

// Waits for report number `count` and checks the whole sequence so far.
void expectSequence(ChildChecks& c, Recorder& recorder, const std::vector<PathStatus>& expected,
                    std::chrono::milliseconds timeout, const std::string& step) {
    const bool arrived = recorder.waitForCount(expected.size(), timeout);
    const auto got = recorder.updates();
    c.check(arrived && got == expected, step + ": expected reports " + describe(expected) + " within " +
                                             std::to_string(timeout.count()) + " ms, got " + describe(got));
}

TEST(NetlinkPathMonitorNamespace, FollowsDefaultRouteAndLinkState) {
    RUN_IN_NAMESPACE([](ChildChecks& c) {
        c.ip("link set lo up");
        SerialQueue queue("test.path.netns");
        Recorder recorder;
        NetlinkPathMonitor monitor;
        monitor.setUpdateHandler(recorder.handler());
        monitor.start(queue);
        expectSequence(c, recorder, {U}, 5s, "loopback only");

        // Links and an address but no default route: still unsatisfied, and not reported again.
        if (!c.ip("link add v0 type veth peer name v1")) return;
        c.ip("link set v0 up");
        c.ip("link set v1 up");
        c.ip("addr add 10.200.0.1/24 dev v0");
        // A default route in another table is not the main table's.
        c.ip("route add default via 10.200.0.2 table 100");
        c.check(NetlinkPathMonitor::currentStatus() == U, "default route of table 100 counted as a path");

        c.ip("route add default via 10.200.0.2");
        expectSequence(c, recorder, {U, S}, 5s, "default route added");
        c.check(NetlinkPathMonitor::currentStatus() == S, "currentStatus disagrees with the monitor");

        c.ip("route del default via 10.200.0.2");
        expectSequence(c, recorder, {U, S, U}, 1s, "default route deleted");

        c.ip("route add default via 10.200.0.2");
        expectSequence(c, recorder, {U, S, U, S}, 5s, "default route restored");

        // Peer down: v0 stays administratively up but loses its carrier; the route stays (link-down).
        c.ip("link set v1 down");
        expectSequence(c, recorder, {U, S, U, S, U}, 5s, "veth peer down");
        c.ip("link set v1 up");
        expectSequence(c, recorder, {U, S, U, S, U, S}, 5s, "veth peer up again");

        c.ip("link set v0 down");
        expectSequence(c, recorder, {U, S, U, S, U, S, U}, 5s, "link down");

        // IPv6 alone makes a path too.
        c.ip("link set v0 up");
        c.ip("-6 addr add 2001:db8::1/64 dev v0 nodad");
        c.ip("-6 route add default via 2001:db8::2 dev v0");
        expectSequence(c, recorder, {U, S, U, S, U, S, U, S}, 5s, "IPv6 default route");
        c.ip("-6 route del default via 2001:db8::2 dev v0");
        expectSequence(c, recorder, {U, S, U, S, U, S, U, S, U}, 5s, "IPv6 default route deleted");

        monitor.cancel();
        queue.sync([] {});
        c.check(recorder.updates().size() == 9, "reports after cancel: " + describe(recorder.updates()));
    });
}

TEST(NetlinkPathMonitorNamespace, StartReportsOnceAndCancelStopsDelivery) {
    RUN_IN_NAMESPACE([](ChildChecks& c) {
        if (!c.ip("link add v0 type veth peer name v1")) return;
        c.ip("link set v0 up");
        c.ip("link set v1 up");
        c.ip("addr add 10.200.0.1/24 dev v0");
        c.ip("route add default via 10.200.0.2");

        SerialQueue queue("test.path.netns2");
        Recorder cancelled, control, selfCancelled;
        NetlinkPathMonitor first, second, third;
        first.setUpdateHandler(cancelled.handler());
        second.setUpdateHandler(control.handler());
        auto recordSelf = selfCancelled.handler();
        third.setUpdateHandler([&](PathStatus s) {
            third.cancel();  // from inside the handler: must not deadlock
            recordSelf(s);
        });
        first.start(queue);
        second.start(queue);
        third.start(queue);
        expectSequence(c, cancelled, {S}, 5s, "first monitor, initial");
        expectSequence(c, control, {S}, 5s, "second monitor, initial");
        expectSequence(c, selfCancelled, {S}, 5s, "self-cancelling monitor, initial");

        first.cancel();
        first.cancel();
        c.ip("route del default via 10.200.0.2");
        expectSequence(c, control, {S, U}, 5s, "control monitor sees the change");
        c.ip("route add default via 10.200.0.2");
        expectSequence(c, control, {S, U, S}, 5s, "control monitor sees the restore");
        queue.sync([] {});
        c.check(cancelled.updates() == std::vector<PathStatus>{S},
                "cancelled monitor still reported: " + describe(cancelled.updates()));
        c.check(selfCancelled.updates() == std::vector<PathStatus>{S},
                "monitor cancelled in its handler still reported: " + describe(selfCancelled.updates()));
    });
}

}  // namespace
}  // namespace tavrin::platform
