// Kill -9 with work in flight: a host without network caches submissions and
// consent decisions and is killed at a random moment; the next launch, with
// the network back, delivers what was cached. Whatever the host was told had
// completed must arrive, and nothing may arrive twice.
//
// Each round runs two children of this binary in the client namespace of a
// SplitNetwork (tests/reliability/netfault_support.h): first without the
// default route, so the real rtnetlink monitor reports the path unsatisfied
// and the server is unreachable; then with the route restored, so the
// start-up resend reaches the server. The data directory, and with it the
// SQLite store, is the same for every round.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <variant>

#include "tavrin/consent/consent_status.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"
#include "tests/reliability/netfault_support.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;

constexpr int kSubmissions = 300;
constexpr int kConsents = 20;
constexpr int kOperations = kSubmissions + kConsents;

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

// ---- the children

// Reports "ok <id>" or "err <id>" as soon as an operation's future is ready.
class CompletionReporter {
public:
    CompletionReporter() : thread_([this] { loop(); }) {}
    ~CompletionReporter() {
        stop_ = true;
        thread_.join();
    }
    template <class T>
    void watch(std::string id, std::future<T> future) {
        std::lock_guard lock(mutex_);
        pending_.push_back({std::move(id), std::move(future)});
    }
    bool idle() {
        std::lock_guard lock(mutex_);
        return pending_.empty();
    }

private:
    struct Pending {
        std::string id;
        std::variant<std::future<void>, std::future<bool>> future;
    };
    void loop() {
        while (!stop_) {
            {
                std::lock_guard lock(mutex_);
                std::erase_if(pending_, [](Pending& p) {
                    return std::visit(
                        [&](auto& future) {
                            if (future.wait_for(0s) != std::future_status::ready) return false;
                            try {
                                future.get();
                                report("ok " + p.id);
                            } catch (...) {
                                report("err " + p.id);
                            }
                            return true;
                        },
                        p.future);
                });
            }
            std::this_thread::sleep_for(1ms);
        }
    }
    std::mutex mutex_;
    std::vector<Pending> pending_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

void configureChild() {
    platform::KeyValueStore::setDataDirectory(env("TAVRIN_NETFAULT_DIR"));
    TavrinService::configure(trackConfig(env("TAVRIN_NETFAULT_DOMAIN")));
}

TEST(KillChild, SubmitsOfflineUntilKilled) {
    if (env("TAVRIN_NETFAULT_ROLE") != "offline") GTEST_SKIP() << "runs only as a child of the kill -9 test";
    LogCapture logs(LogLevel::warning);
    configureChild();
    auto manager = OfflineCacheManager::shared();
    // Sent before the monitor's first report, a request would go out live and fail.
    if (!waitUntil([&] { return manager->isCurrentlyOffline(); }, 20s)) {
        report("never-offline");
        FAIL() << "the path monitor did not report the missing route";
    }
    report("ready");
    const std::string round = env("TAVRIN_NETFAULT_ROUND");
    auto tracking = TrackingService::shared();
    CompletionReporter reporter;
    std::mt19937 random(std::random_device{}());
    const int operations = env("TAVRIN_NETFAULT_OPERATIONS").empty() ? kOperations : std::stoi(env("TAVRIN_NETFAULT_OPERATIONS"));
    for (int i = 0, consent = 0; i < operations; ++i) {
        // A consent decision after every 15 submissions, each with a vendor of its own.
        if (i % (kOperations / kConsents) == kOperations / kConsents - 1) {
            const std::string vendor = "consent-" + round + "-" + std::to_string(consent++);
            reporter.watch(vendor, tracking->setConsents({{vendor, ConsentStatus::allow}}));
        } else {
            const std::string id = "s-" + round + "-" + std::to_string(i);
            tracking->push({{"track", "pageview"}, {"uid", id}});
            reporter.watch(id, tracking->submit());
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 4000)(random)));
    }
    waitUntil([&] { return reporter.idle(); }, 120s);
    report("done");
    for (;;) pause();  // until the parent kills it
}

TEST(KillChild, DeliversWithTheNetworkBack) {
    if (env("TAVRIN_NETFAULT_ROLE") != "deliver") GTEST_SKIP() << "runs only as a child of the kill -9 test";
    LogCapture logs(LogLevel::info);
    configureChild();
    const auto walked = [&] {
        const auto lines = logs.sink->messages();
        return std::find(lines.begin(), lines.end(), "Cached requests successfully resent.") != lines.end();
    };
    ASSERT_TRUE(waitUntil(walked, 240s)) << "the start-up resend did not finish";
    EXPECT_FALSE(OfflineCacheManager::shared()->isCurrentlyOffline());
    const auto left = OfflineCacheManager::shared()->offlineCache().getCachedRequests().size();
    EXPECT_TRUE(TavrinService::shutdown(5s));
    report("left " + std::to_string(left));
}

// ---- the scenario

struct RoundResult {
    std::set<std::string> completed, failed;
    bool killed = false;
    std::size_t left = 0;
};

TEST(KillNine, WhatCompletedBeforeTheKillIsDeliveredOnceAtTheNextLaunch) {
    SplitNetwork network;
    if (const auto reason = network.setUp(); !reason.empty()) GTEST_SKIP() << reason;
    TempDir dataDir;
    const int rounds = scaled(20);
    std::mt19937 random(std::random_device{}());
    std::set<std::string> completed, failed;
    std::size_t leftInCache = 0;
    int killedAfter0 = 0, killedAfterAll = 0;
    network.inClient([&] {
        for (int round = 0; round < rounds; ++round) {
            const std::vector<std::string> common{"TAVRIN_NETFAULT_DIR=" + dataDir.path().string(),
                                                  "TAVRIN_NETFAULT_DOMAIN=" + network.domain(),
                                                  "TAVRIN_NETFAULT_ROUND=" + std::to_string(round)};
            const auto reachedBefore = network.server->requests().size();
            {
                auto variables = common;
                variables.push_back("TAVRIN_NETFAULT_ROLE=offline");
                ChildProcess child("KillChild.SubmitsOfflineUntilKilled", variables);
                ASSERT_TRUE(child.started());
                ASSERT_EQ(child.readLine(60s), "ready") << "round " << round;
                // Killed after a random number of completions (0 to all) and a
                // random fraction of the next submission's interval.
                const int killAfter = std::uniform_int_distribution<int>(0, kOperations)(random);
                killedAfter0 += killAfter == 0;
                killedAfterAll += killAfter == kOperations;
                int seen = 0;
                while (seen < killAfter) {
                    const auto line = child.readLine(120s);
                    ASSERT_TRUE(line) << "round " << round << ": the child stopped reporting after " << seen;
                    if (*line == "done") break;
                    const bool ok = line->rfind("ok ", 0) == 0;
                    (ok ? completed : failed).insert(line->substr(line->find(' ') + 1));
                    ++seen;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
                child.killNow();
                // What it wrote before dying still counts as completed before the kill.
                while (const auto line = child.readLine(10s)) {
                    if (line->rfind("ok ", 0) == 0) completed.insert(line->substr(3));
                    if (line->rfind("err ", 0) == 0) failed.insert(line->substr(4));
                }
                EXPECT_EQ(child.wait(10s), 128 + SIGKILL) << "round " << round;
            }
            EXPECT_EQ(network.server->requests().size(), reachedBefore) << "sent without a route in round " << round;

            ASSERT_TRUE(SplitNetwork::routeUp());
            {
                auto variables = common;
                variables.push_back("TAVRIN_NETFAULT_ROLE=deliver");
                ChildProcess child("KillChild.DeliversWithTheNetworkBack", variables);
                ASSERT_TRUE(child.started());
                const auto line = child.readLine(300s);
                ASSERT_TRUE(line && line->rfind("left ", 0) == 0) << "round " << round << ": no delivery report";
                leftInCache += std::stoul(line->substr(5));
                EXPECT_EQ(child.wait(30s), 0) << "round " << round;
            }
            ASSERT_TRUE(SplitNetwork::routeDown());
        }
    });

    const auto delivered = Deliveries::of(*network.server);
    std::vector<std::string> lost;
    for (const auto& id : completed)
        if (delivered.count(id) == 0) lost.push_back(id);
    const auto twice = delivered.duplicated();
    EXPECT_TRUE(lost.empty()) << lost.size() << " lost, first " << lost.front();
    EXPECT_TRUE(twice.empty()) << twice.size() << " delivered more than once, first " << twice.front();
    EXPECT_TRUE(failed.empty()) << failed.size() << " futures failed while offline, first " << *failed.begin();
    EXPECT_EQ(leftInCache, 0u);
    EXPECT_EQ(delivered.count("<unreadable>") + delivered.count("<without id>"), 0);
    EXPECT_GT(completed.size(), 0u);
    printFigure("kill -9: " + std::to_string(rounds) + " rounds of " + std::to_string(kSubmissions) + " submissions + " +
                std::to_string(kConsents) + " consent decisions offline, killed at random; " +
                std::to_string(completed.size()) + " operations completed before the kill, " + std::to_string(lost.size()) +
                " lost; " + std::to_string(delivered.total()) + " delivered at the next launch (in-flight ones included), " +
                std::to_string(twice.size()) + " delivered twice; " + std::to_string(failed.size()) + " failed futures");
    std::printf("kills after 0 completions: %d, after all: %d\n", killedAfter0, killedAfterAll);
}

// An application killed without network is often launched again without
// network, several times. Those launches must not use up the requests that
// are waiting for it.
TEST(KillNine, RequestsCachedOfflineOutliveLaunchesWithoutNetwork) {
    SplitNetwork network;
    if (const auto reason = network.setUp(); !reason.empty()) GTEST_SKIP() << reason;
    TempDir dataDir;
    constexpr int kLaunches = 6;  // more than a request's four attempts
    std::set<std::string> completed;
    std::size_t left = 0;
    network.inClient([&] {
        for (int launch = 0; launch <= kLaunches; ++launch) {
            const bool offline = launch < kLaunches;
            if (!offline) {
                ASSERT_TRUE(SplitNetwork::routeUp());
            }
            ChildProcess child(offline ? "KillChild.SubmitsOfflineUntilKilled" : "KillChild.DeliversWithTheNetworkBack",
                               {"TAVRIN_NETFAULT_DIR=" + dataDir.path().string(),
                                "TAVRIN_NETFAULT_DOMAIN=" + network.domain(),
                                "TAVRIN_NETFAULT_ROUND=" + std::to_string(launch), "TAVRIN_NETFAULT_OPERATIONS=16",
                                std::string("TAVRIN_NETFAULT_ROLE=") + (offline ? "offline" : "deliver")});
            ASSERT_TRUE(child.started());
            while (const auto line = child.readLine(120s)) {
                if (line->rfind("ok ", 0) == 0) completed.insert(line->substr(3));
                if (line->rfind("left ", 0) == 0) left = std::stoul(line->substr(5));
                if (*line == "done" || *line == "never-offline") break;
            }
            child.killNow();
            child.wait(10s);
        }
    });
    const auto delivered = Deliveries::of(*network.server);
    std::vector<std::string> lost;
    for (const auto& id : completed)
        if (delivered.count(id) == 0) lost.push_back(id);
    EXPECT_EQ(completed.size(), 16u * kLaunches);
    EXPECT_TRUE(lost.empty()) << lost.size() << " lost, first " << lost.front();
    EXPECT_TRUE(delivered.duplicated().empty());
    EXPECT_EQ(left, 0u);
    printFigure("launches without network: " + std::to_string(completed.size()) + " operations cached over " +
                std::to_string(kLaunches) + " launches without network, " + std::to_string(lost.size()) +
                " lost at the first launch with network");
}

}  // namespace
}  // namespace tavrin::testing
