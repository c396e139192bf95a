// A host in a client network namespace whose server can only be reached through the default
// route, so "no network" is what the real rtnetlink monitor sees and what a send meets:
//   client namespace                          server namespace
//     v0 10.200.0.1/24  <-- veth pair -->       v1 10.200.0.2/24
//     default via 10.200.0.2                     lo 10.201.0.1/32, the server
// Kill -9: launches without the route cache submissions and consent decisions and are killed at
// random; the next launch with the route delivers. What the host was told had completed arrives,
// nothing twice. Network flaps: a host submits while the route comes and goes; each submission
// arrives once or its future reports the failed live send.

#include <sched.h>
#include <sys/syscall.h>

#include <random>
#include <set>

#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/fault_support.h"
#include "tests/support/network_namespace.h"

namespace tavrin::testing {
namespace {

// Runs `scenario` on a thread in the client namespace (so are the processes it starts) with the
// server and its "host:port"; skips the test where namespaces cannot be made.
void inSplitNetwork(const std::function<void(LoopbackServer&, const std::string&)>& scenario) {
    runInOwnNetworkNamespace([&] {
        std::promise<pid_t> serverTid;
        std::promise<bool> linked;
        std::unique_ptr<LoopbackServer> server;
        // This thread leaves for the server namespace; the server's sockets and
        // threads, made there, keep the namespace alive after it has ended.
        std::thread serverSide([&] {
            serverTid.set_value(::unshare(CLONE_NEWNET) == 0 ? static_cast<pid_t>(::syscall(SYS_gettid)) : -1);
            if (linked.get_future().get() && ip("link set lo up") && ip("addr add 10.201.0.1/32 dev lo") &&
                ip("addr add 10.200.0.2/24 dev v1") && ip("link set v1 up"))
                server = std::make_unique<LoopbackServer>(std::nullopt, "10.201.0.1");
        });
        const pid_t tid = serverTid.get_future().get();
        linked.set_value(tid > 0 && ip("link set lo up") &&
                         ip("link add v0 type veth peer name v1 netns " + std::to_string(tid)) &&
                         ip("addr add 10.200.0.1/24 dev v0") && ip("link set v0 up"));
        serverSide.join();
        ASSERT_TRUE(server) << "could not set up the two namespaces";
        scenario(*server, "10.201.0.1:" + std::to_string(server->port()));
    });
}
bool routeUp() { return ip("route add default via 10.200.0.2"); }
bool routeDown() { return ip("route del default via 10.200.0.2"); }

// What reached the server, by the id each request carries: "uid" among a
// submission's variables, each vendor of a consent decision.
struct Deliveries {
    std::map<std::string, int> times;
    int total = 0, resent = 0;  // resent: deliveries that came from the offline cache

    explicit Deliveries(const LoopbackServer& server) {
        for (const auto& request : server.requests()) {
            const auto body = platform::parseJson(request.body);
            if (request.path == "/monitor") continue;
            const Json data = body && body->is_object() ? body->value("data", Json::object()) : Json::object();
            if (data.contains("consent"))
                for (const auto& item : data["consent"]["vendors"].items()) ++times[item.key()];
            else
                ++times[data.value("variables", Json::object()).value("uid", "<without id>")];
            ++total;
            resent += body && body->is_object() && body->value("app_offline_cached_data", "") == "true";
        }
    }
    int count(const std::string& id) const { return times.contains(id) ? times.at(id) : 0; }
    std::vector<std::string> duplicated() const {
        std::vector<std::string> out;
        for (const auto& [id, n] : times)
            if (n > 1) out.push_back(id + " x" + std::to_string(n));
        return out;
    }
};

// ---- kill -9

constexpr int kOperations = 320;  // every 16th a consent decision

// Offline: reports "ok <id>" or "err <id>" as soon as each operation's future is ready, until
// killed. Delivering: how many requests are left cached once the start-up walk has ended.
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
    FutureWatch watch(operations,
                      [](const FutureWatch::Call& call) { report((call.error ? "err " : "ok ") + call.id); });
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
        return {"TAVRIN_KILL_ROLE=" + role, "TAVRIN_KILL_DIR=" + dataDir.path().string(),
                "TAVRIN_KILL_DOMAIN=" + domain, "TAVRIN_KILL_LAUNCH=" + std::to_string(launch),
                "TAVRIN_KILL_OPERATIONS=" + std::to_string(operations)};
    }

    TempDir dataDir;
    LoopbackServer* server = nullptr;
    std::string domain;
    std::mt19937 random{std::random_device{}()};
    std::set<std::string> completed, failed;
    std::size_t leftInCache = 0;
};

// Rounds of 320 operations killed at random. Before them, launches without network, more than a
// request has attempts, which must not use up the attempts of requests waiting for the network.
TEST_F(TavrinServiceKillTest, WhatCompletedBeforeAKillIsDeliveredOnceByTheNextLaunchWithNetwork) {
    inSplitNetwork([&](LoopbackServer& split, const std::string& address) {
        server = &split;
        domain = address;  // the data directory, and with it the store, is the same for every launch
        for (int launch = 0; launch < 6; ++launch) launchOffline(-1 - launch, 16, 16);
        EXPECT_EQ(completed.size(), 6u * 16);
        for (int round = 0; round < scaled(20) && !HasFatalFailure(); ++round) {
            launchOffline(round, kOperations, std::uniform_int_distribution<int>(0, kOperations)(random));
            launchWithNetwork(round);
        }
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
        printFigure("kill -9: " + std::to_string(completed.size()) + " operations completed before the kill, " +
                    std::to_string(delivered.total) + " delivered (in-flight ones included), " +
                    std::to_string(lost.size()) + " lost, " + std::to_string(twice.size()) + " twice, " +
                    std::to_string(failed.size()) + " failed futures");
    });
}

// ---- network flaps

TEST(TavrinServiceNetworkFlapTest, EachSubmissionArrivesOnceOrItsFutureFails) {
    TempDir dataDir;
    const int flaps = scaled(100), submissions = scaled(500);
    inSplitNetwork([&](LoopbackServer& server, const std::string& domain) {
        // A collector that takes a moment to answer: route changes also catch requests in flight.
        server.setHandler([](const RecordedRequest&) {
            thread_local std::mt19937 random(std::random_device{}());
            std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(0, 200)(random)));
            return ScriptedResponse{};
        });
        ASSERT_TRUE(routeUp());
        LogCapture logs(LogLevel::info);
        platform::KeyValueStore::setDataDirectory(dataDir.path().string());
        TavrinService::configure(trackConfig(domain));
        ASSERT_TRUE(waitUntil([&] { return logs.sink->contains("Network status changed: Online"); }));
        std::thread flapper([&] {
            std::mt19937 random(std::random_device{}());
            for (int i = 0; i < 2 * flaps; ++i) {  // down, up; each after 20-500 ms
                std::this_thread::sleep_for(
                    std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 500)(random)));
                i % 2 ? routeUp() : routeDown();
            }
        });
        // Submissions spread over the time the flaps take, 520 ms each on average.
        std::mt19937 random(std::random_device{}());
        FutureWatch watch(submissions);
        for (int i = 0; i < submissions; ++i) {
            TrackingService::shared()->push({{"track", "pageview"}, {"uid", "f-" + std::to_string(i)}});
            watch.add({.id = "f-" + std::to_string(i), .started = FaultClock::now()},
                      TrackingService::shared()->submit());
            std::this_thread::sleep_for(
                std::chrono::milliseconds(std::uniform_int_distribution<int>(0, flaps * 1040 / submissions)(random)));
        }
        watch.waitAllDone(40s);
        flapper.join();
        // The last restoration started a walk; with the cache empty, every request it sent is recorded.
        auto manager = OfflineCacheManager::shared();
        waitUntil([&] { return manager->offlineCache().getCachedRequests().empty(); }, 300s);
        const auto left = manager->offlineCache().getCachedRequests().size();
        const auto offlineReports = logs.sink->count("Network status changed: Offline");
        std::size_t discarded = 0;
        for (const auto& line : logs.sink->messages(platform::LogType::error))
            discarded += line.find("exceeded maximum retries and will be discarded.") != std::string::npos;
        EXPECT_TRUE(TavrinService::shutdown(5s));
        platform::KeyValueStore::setDataDirectory(std::nullopt);

        // A cached request that failed all its attempts is discarded with a warning (timing decides if any is).
        const Deliveries delivered(server);
        std::vector<std::string> notDelivered;
        int failed = 0;
        for (const auto& call : watch.calls()) {
            // A live send ends within the 30-second request timeout.
            EXPECT_TRUE(call.took >= 0ms && call.took <= 40s)
                << call.id << " ended after " << call.took.count() << " ms";
            failed += call.error != nullptr;
            if (!call.error && delivered.count(call.id) == 0) notDelivered.push_back(call.id);
        }
        const auto twice = delivered.duplicated();
        EXPECT_LE(notDelivered.size(), discarded)
            << "reported success but never arrived, first " << notDelivered.front();
        EXPECT_TRUE(twice.empty()) << twice.size() << " arrived more than once, first " << twice.front();
        EXPECT_EQ(left, 0u) << "requests still cached after the network came back";
        EXPECT_EQ(delivered.count("<without id>"), 0);
        // The scenario means something only if flaps were seen and used.
        EXPECT_GT(offlineReports, 0u);
        EXPECT_GT(delivered.resent, 0);
        printFigure("network flaps: " + std::to_string(offlineReports) + " seen offline; " +
                    std::to_string(delivered.total - delivered.resent) + " delivered live, " +
                    std::to_string(delivered.resent) + " cached and resent, " + std::to_string(failed) +
                    " failed in their future, " + std::to_string(discarded) + " discarded after their last attempt; " +
                    std::to_string(twice.size()) + " twice, " + std::to_string(left) + " left");
    });
}

}  // namespace
}  // namespace tavrin::testing
