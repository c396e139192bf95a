// Kill -9 with work in flight: a host without network caches submissions and
// consent decisions and is killed at a random moment; the next launch, with
// the network back, delivers what was cached. Whatever the host was told had
// completed must arrive, and nothing may arrive twice.
//
// Each launch is a child of this binary in the client namespace of a
// split network (fault_support.h): offline launches without the default route,
// so the real rtnetlink monitor reports the path unsatisfied and the server
// is unreachable; delivering launches with it. The data directory, and with
// it the SQLite store, is the same for every launch.

#include <random>
#include <set>

#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/fault_support.h"

namespace tavrin::testing {
namespace {

constexpr int kOperations = 320;  // every 16th a consent decision

// Offline: reports "ok <id>" or "err <id>" as soon as each operation's future
// is ready, until killed. Delivering: how many requests are left cached once
// the start-up walk has ended.
TEST(KillChild, Launch) {
    if (env("TAVRIN_KILL_ROLE").empty()) GTEST_SKIP() << "runs only as a child of the kill -9 tests";
    LogCapture logs(env("TAVRIN_KILL_ROLE") == "deliver" ? LogLevel::info : LogLevel::warning);
    platform::KeyValueStore::setDataDirectory(env("TAVRIN_KILL_DIR"));
    TavrinService::configure(trackConfig(env("TAVRIN_KILL_DOMAIN")));
    auto manager = OfflineCacheManager::shared();
    if (env("TAVRIN_KILL_ROLE") == "deliver") {
        ASSERT_TRUE(waitUntil([&] { return logs.sink->contains("Cached requests successfully resent."); }, 240s));
        report("left " + std::to_string(manager->offlineCache().getCachedRequests().size()));
        EXPECT_TRUE(TavrinService::shutdown(5s));
        return;
    }
    // Sent before the monitor's first report, a request would go out live and fail.
    report(waitUntil([&] { return manager->isCurrentlyOffline(); }, 20s) ? "ready" : "never offline");
    const int operations = std::stoi(env("TAVRIN_KILL_OPERATIONS"));
    FutureWatch watch(operations, [](const FutureWatch::Call& call) { report((call.error ? "err " : "ok ") + call.id); });
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < operations; ++i) {
        const std::string id = (i % 16 == 15 ? "c-" : "s-") + env("TAVRIN_KILL_LAUNCH") + "-" + std::to_string(i);
        if (i % 16 == 15) {
            watch.add({.id = id}, TrackingService::shared()->setConsents({{id, ConsentStatus::allow}}));
        } else {
            TrackingService::shared()->push({{"track", "pageview"}, {"uid", id}});
            watch.add({.id = id}, TrackingService::shared()->submit());
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 4000)(random)));
    }
    watch.waitAllDone(120s);
    report("done");
    for (;;) ::pause();
}

class TavrinServiceKillTest : public ::testing::Test {
protected:
    // A launch without the route, killed after `killAfter` completions (all:
    // once it reported done) and a random fraction of the next interval.
    void launchOffline(int launch, int operations, int killAfter) {
        const auto reachedBefore = server->requests().size();
        ChildProcess child("KillChild.Launch", environment("offline", launch, operations));
        ASSERT_EQ(child.readLine(60s), "ready") << "launch " << launch;
        const auto note = [&](const std::string& line) {
            if (line.starts_with("ok ") || line.starts_with("err "))
                (line[0] == 'o' ? completed : failed).insert(line.substr(line.find(' ') + 1));
        };
        for (int seen = 0; seen < killAfter; ++seen) {
            const auto line = child.readLine(120s);
            ASSERT_TRUE(line) << "launch " << launch << ": the child stopped reporting after " << seen;
            if (*line == "done") break;
            note(*line);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
        child.killNow();
        // What it wrote before dying still counts as completed before the kill.
        while (const auto line = child.readLine(10s)) note(*line);
        EXPECT_EQ(child.wait(10s), 128 + SIGKILL) << "launch " << launch;
        EXPECT_EQ(server->requests().size(), reachedBefore) << "sent without a route in launch " << launch;
    }

    void launchWithNetwork(int launch) {
        ASSERT_TRUE(routeUp());
        ChildProcess child("KillChild.Launch", environment("deliver", launch, 0));
        const auto line = child.readLine(300s);
        ASSERT_TRUE(line && line->starts_with("left ")) << "launch " << launch << ": no delivery report";
        leftInCache += std::stoul(line->substr(5));
        EXPECT_EQ(child.wait(30s), 0) << "launch " << launch;
        ASSERT_TRUE(routeDown());
    }

    std::vector<std::string> environment(const std::string& role, int launch, int operations) const {
        return {"TAVRIN_KILL_ROLE=" + role, "TAVRIN_KILL_DIR=" + dataDir.path().string(), "TAVRIN_KILL_DOMAIN=" + domain,
                "TAVRIN_KILL_LAUNCH=" + std::to_string(launch), "TAVRIN_KILL_OPERATIONS=" + std::to_string(operations)};
    }

    // Every completed operation arrived once; what did not is printed with `figure`.
    void expectEachCompletedDeliveredOnce(const std::string& figure) {
        const Deliveries delivered(*server);
        std::vector<std::string> lost;
        for (const auto& id : completed)
            if (delivered.count(id) == 0) lost.push_back(id);
        const auto twice = delivered.duplicated();
        EXPECT_TRUE(lost.empty()) << lost.size() << " lost, first " << lost.front();
        EXPECT_TRUE(twice.empty()) << twice.size() << " delivered more than once, first " << twice.front();
        EXPECT_TRUE(failed.empty()) << failed.size() << " futures failed while offline, first " << *failed.begin();
        EXPECT_EQ(leftInCache, 0u);
        EXPECT_EQ(delivered.count("<without id>"), 0);
        printFigure(figure + std::to_string(completed.size()) + " operations completed before the kill, " +
                    std::to_string(delivered.total) + " delivered at the next launch (in-flight ones included), " +
                    std::to_string(lost.size()) + " lost, " + std::to_string(twice.size()) + " delivered twice, " +
                    std::to_string(failed.size()) + " failed futures");
    }

    TempDir dataDir;
    LoopbackServer* server = nullptr;
    std::string domain;
    std::mt19937 random{std::random_device{}()};
    std::set<std::string> completed, failed;
    std::size_t leftInCache = 0;
};

TEST_F(TavrinServiceKillTest, WhatCompletedBeforeAKillIsDeliveredOnceAtTheNextLaunch) {
    const int rounds = scaled(20);
    inSplitNetwork([&](LoopbackServer& split, const std::string& address) {
        server = &split;
        domain = address;
        for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
            launchOffline(round, kOperations, std::uniform_int_distribution<int>(0, kOperations)(random));
            launchWithNetwork(round);
        }
        EXPECT_GT(completed.size(), 0u);
        expectEachCompletedDeliveredOnce("kill -9: " + std::to_string(rounds) + " rounds of " + std::to_string(kOperations) +
                                         " operations offline (every 16th a consent decision), killed at random; ");
    });
}

// An application killed without network is often launched again without
// network, several times: those launches must not use up the attempts of the
// requests waiting for it.
TEST_F(TavrinServiceKillTest, LaunchesWithoutNetworkKeepTheCachedRequests) {
    constexpr int kLaunches = 6;  // more than a request's four attempts
    inSplitNetwork([&](LoopbackServer& split, const std::string& address) {
        server = &split;
        domain = address;
        for (int launch = 0; launch < kLaunches && !HasFatalFailure(); ++launch) launchOffline(launch, 16, 16);
        launchWithNetwork(kLaunches);
        EXPECT_EQ(completed.size(), 16u * kLaunches);
        expectEachCompletedDeliveredOnce("launches without network: 6 launches of 16 operations, then one with it; ");
    });
}

}  // namespace
}  // namespace tavrin::testing
