// Server storms: a host application submits data and consent decisions while
// its collector answers 503 to everything, then accepts connections and never
// answers, then resets every connection, and finally recovers. The host must
// never be blocked, every call must end within the request timeout, cached
// requests must be given up on exactly at their fourth failed attempt, memory
// must not grow, and once the server is back new submissions are delivered.
//
// Cached requests are only ever sent again by a resend walk, and the product
// starts one at launch and on every offline-to-online change of the network
// path. The scenario drives the walks the second way, through the path monitor
// the SDK was given (a scripted one, flipped offline and back online), which
// is exactly what the rtnetlink monitor reports when connectivity returns. The
// flips also produce the cached requests: what the host submits while the
// path is offline goes to the offline cache.
//
// Walks send one request at a time, so in the hang phase each cached request
// costs a whole 30-second request timeout. Only two cached requests are
// still pending when the hang phase starts; the host's own calls during it
// run concurrently beside the walk, in two waves of fourteen, more than the
// six connections the HTTP client keeps to one host, so many of them wait for
// a connection that frees up only when an earlier request times out (and must
// still end at their own timeout).

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/consent/consent_status.h"
#include "tavrin/consent/internal/user_defaults_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"
#include "tavrin/transport/internal/offline_cache_manager.h"
#include "tests/reliability/reliability_scale.h"
#include "tests/reliability/storm_support.h"
#include "tests/support/scripted_path_monitor.h"
#include "tests/support/temp_dir.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr auto kRequestTimeout = 30s;  // the transport's, not shortened here
constexpr auto kTimeoutMargin = 10s;

const OperationWatch::Operation* find(const std::vector<OperationWatch::Operation>& all, const std::string& id) {
    for (const auto& operation : all)
        if (operation.id == id) return &operation;
    return nullptr;
}

struct Cohort {
    std::string name;
    std::vector<std::string> ids;
    std::vector<StormMode> expected;  // the answers each of them gets, in order
    bool discarded = false;
};

class ServerStormTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::KeyValueStore::setDataDirectory(dir.path().string());
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        platform::SystemLog::setSink(logWatch);
        LoggerUtility::resetShared();
        LoggerUtility::shared().setLogLevel(LogLevel::info);
        platform::PathMonitor::setFactory([path = path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
    }

    void TearDown() override {
        stopSubmitter();
        TavrinService::shutdown(5s);
        platform::PathMonitor::setFactory({});
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
        LoggerUtility::resetShared();
        platform::SystemLog::setSink(nullptr);
    }

    // ---- the host's calls, timed on the caller's thread

    std::string submitData(const std::string& phase, bool live = false) {
        const std::string id = stormId('D', nextData++);
        const auto started = StormClock::now();
        tracking->push({{"storm_id", id}});
        auto future = tracking->submit();
        noteCall(started);
        operations.add(id, phase, live, started, std::move(future));
        return id;
    }

    std::string submitConsent(const std::string& phase, bool live = false) {
        const std::string id = stormId('C', nextConsent++);
        const auto started = StormClock::now();
        auto future = tracking->setConsents({{id, ConsentStatus::allow}});
        noteCall(started);
        operations.add(id, phase, live, started, std::move(future));
        return id;
    }

    void noteCall(StormClock::time_point started) {
        const auto took = StormClock::now() - started;
        std::lock_guard lock(callMutex);
        ++calls;
        longestCall = std::max(longestCall, duration_cast<std::chrono::microseconds>(took));
    }

    // ---- the host submitting on its own thread while the driver works the path

    struct SubmitterPlan {
        std::string phase;
        milliseconds interval{40};
        std::size_t maxOutstanding = 16;
        int maxCalls = 1 << 30;
    };

    void startSubmitter() {
        submitter = std::thread([this] {
            int n = 0;
            std::unique_lock lock(submitterMutex);
            while (!submitterStop) {
                submitterChanged.wait(lock, [&] { return submitterStop || submitterOn; });
                if (submitterStop) break;
                if (plannedCalls < plan.maxCalls && operations.outstanding() < plan.maxOutstanding) {
                    ++plannedCalls;
                    if (++n % 5 == 0)
                        submitConsent(plan.phase, true);
                    else
                        submitData(plan.phase, true);
                }
                submitterChanged.wait_for(lock, plan.interval, [&] { return submitterStop || !submitterOn; });
            }
        });
    }

    void resumeSubmitter(SubmitterPlan next) {
        std::lock_guard lock(submitterMutex);
        plan = std::move(next);
        plannedCalls = 0;
        submitterOn = true;
        submitterChanged.notify_all();
    }

    // Stops the host's calls and waits until every call made so far has
    // completed, so each one was sent (or not) before the path changes.
    void pauseSubmitter() {
        {
            std::lock_guard lock(submitterMutex);
            submitterOn = false;
            submitterChanged.notify_all();
        }
        ASSERT_TRUE(operations.waitAllDone(kRequestTimeout + kTimeoutMargin)) << "calls still running";
    }

    void stopSubmitter() {
        {
            std::lock_guard lock(submitterMutex);
            submitterStop = true;
            submitterChanged.notify_all();
        }
        if (submitter.joinable()) submitter.join();
    }

    // Runs the host's submitter for a while in the current server mode.
    void submitFor(SubmitterPlan next, milliseconds duration) {
        resumeSubmitter(std::move(next));
        std::this_thread::sleep_for(duration);
        pauseSubmitter();
    }

    // ---- the network path

    void goOffline() {
        path->setStatus(platform::PathStatus::unsatisfied);
        ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    }

    // Back online: the SDK starts a resend walk; waits until it has ended.
    void goOnlineAndWalk(milliseconds limit = 60s) {
        const int before = logWatch->walksDone();
        path->setStatus(platform::PathStatus::satisfied);
        ASSERT_TRUE(logWatch->waitForWalks(before + 1, limit)) << "resend walk did not end";
        ++walks;
    }

    // Submissions made while offline: each one is cached, its future done once durable.
    Cohort cacheCohort(std::string name, int data, int consents, std::vector<StormMode> expected, bool discarded) {
        Cohort cohort{std::move(name), {}, std::move(expected), discarded};
        goOffline();
        for (int i = 0; i < data + consents; ++i)
            cohort.ids.push_back(i < data ? submitData(cohort.name) : submitConsent(cohort.name));
        EXPECT_TRUE(operations.waitAllDone(30s));
        return cohort;
    }

    // Retry counts of what the offline cache holds, by submission id.
    static std::map<std::string, std::int64_t> cachedRetryCounts() {
        std::map<std::string, std::int64_t> counts;
        for (const auto& request : OfflineCacheManager::shared()->offlineCache().getCachedRequests())
            counts[stormIdIn(platform::toString(request.payload))] = request.retryCount;
        return counts;
    }

    TempDir dir;
    StormServer server;
    std::shared_ptr<StormLogWatch> logWatch = std::make_shared<StormLogWatch>();
    std::shared_ptr<ScriptedPathMonitor> path = std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
    OperationWatch operations;
    std::shared_ptr<TrackingService> tracking;
    int nextData = 0, nextConsent = 0, walks = 0;

    std::mutex callMutex;
    int calls = 0;
    std::chrono::microseconds longestCall{0};

    std::thread submitter;
    std::mutex submitterMutex;
    std::condition_variable submitterChanged;
    SubmitterPlan plan;
    int plannedCalls = 0;
    bool submitterOn = false, submitterStop = false;
};

TEST_F(ServerStormTest, HostIsNeverBlockedAndCachedRequestsGiveUpAtTheFourthFailure) {
    const int scale = reliabilityScale();
    const auto phaseTime = milliseconds(2500 * scale);
    const auto started = StormClock::now();
    using M = StormMode;

    TavrinService::configure(trackConfig(hostPort(server.port())));
    tracking = TrackingService::shared();
    ASSERT_TRUE(logWatch->waitForWalks(1, 10s)) << "launch walk";
    startSubmitter();

    // Warm-up: everything the storm does once, with the server well, so the
    // allocator's growth for the first requests is not counted. Without a
    // debug code the SDK keeps its debug tags up to the tag cache's capacity
    // (about 1.5 MiB): the warm-up fills it, so that bounded growth is not
    // taken for a leak.
    std::vector<Cohort> cohorts;
    resumeSubmitter({.phase = "warm-up", .interval = 1ms});
    ASSERT_TRUE(waitUntil([] { return TagCache::shared().tags().size() >= TagCache::capacity; }, 60s));
    pauseSubmitter();
    // As many cached at once as in the storm: the store's page cache grows
    // with the largest offline cache it has held (up to its own bound).
    cohorts.push_back(cacheCohort("warm-up cached", 30 * scale, 6 * scale, {M::ok}, false));
    goOnlineAndWalk();
    server.setMode(M::unavailable);
    submitFor({"warm-up 503"}, 500ms);
    cohorts.push_back(cacheCohort("warm-up retried", 3, 1, {M::unavailable, M::ok}, false));
    goOnlineAndWalk();
    server.setMode(M::ok);
    goOffline();
    goOnlineAndWalk();
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryBefore = memoryInUse();

    // Phase 503: cohort A is cached before it and fails four walks in it.
    Cohort a = cacheCohort("A", 30 * scale, 6 * scale, {M::unavailable, M::unavailable, M::unavailable, M::unavailable}, true);
    server.setMode(M::unavailable);
    const auto stormStarted = StormClock::now();
    Cohort b;
    for (int walk = 1; walk <= 4; ++walk) {
        if (walk > 1) goOffline();
        if (walk == 3)  // B: fails twice here, once hanging, once reset
            b = cacheCohort("B", 1, 1, {M::unavailable, M::unavailable, M::hang, M::reset}, true);
        goOnlineAndWalk();
        const auto counts = cachedRetryCounts();
        for (const auto& id : a.ids) {
            if (walk < 4) {
                ASSERT_TRUE(counts.contains(id)) << id << " gone after walk " << walk;
                EXPECT_EQ(counts.at(id), walk) << id;
            } else {
                EXPECT_FALSE(counts.contains(id)) << id << " still cached after its fourth failure";
            }
        }
        submitFor({"503"}, phaseTime / 4);
    }
    cohorts.push_back(std::move(a));
    cohorts.push_back(b);

    // Hang: the server accepts and never answers. Only B is cached, so the
    // walk takes two request timeouts; the host's calls time out beside it.
    {
        const auto pending = cachedRetryCounts();
        std::set<std::string> ids;
        for (const auto& [id, count] : pending) ids.insert(id);
        ASSERT_EQ(ids, std::set<std::string>(b.ids.begin(), b.ids.end()))
            << "each request cached now costs a request timeout below";
    }
    server.setMode(M::hang);
    goOffline();
    const int walksBeforeHang = logWatch->walksDone();
    const std::size_t arrivalsBeforeHang = server.arrivals().size();
    const auto hangStarted = StormClock::now();
    path->setStatus(platform::PathStatus::satisfied);
    // The walk's first request holds a connection before the host's burst.
    ASSERT_TRUE(waitUntil([&] { return server.arrivals().size() > arrivalsBeforeHang; }, 10s));
    resumeSubmitter({.phase = "hang", .interval = 100ms, .maxOutstanding = 14, .maxCalls = 28});
    if (!logWatch->waitForWalks(walksBeforeHang + 1, 2 * kRequestTimeout + kTimeoutMargin)) {
        for (const auto& arrival : server.arrivals())
            if (arrival.at >= hangStarted)
                std::printf("arrival %s %s after %lld ms\n", arrival.id.c_str(), stormModeName(arrival.answer),
                            static_cast<long long>(duration_cast<milliseconds>(arrival.at - hangStarted).count()));
        for (const auto& operation : operations.operations())
            if (operation.phase == "hang")
                std::printf("call %s took %lld ms\n", operation.id.c_str(), static_cast<long long>(operation.took.count()));
        FAIL() << "hang walk did not end";
    }
    pauseSubmitter();

    // Reset: C is cached and fails three walks; B's fourth attempt fails here.
    server.setMode(M::reset);
    submitFor({"reset"}, phaseTime / 4);
    cohorts.push_back(cacheCohort("C", 10 * scale, 2 * scale, {M::reset, M::reset, M::reset, M::ok}, false));
    for (int walk = 1; walk <= 3; ++walk) {
        if (walk > 1) goOffline();
        goOnlineAndWalk();
        submitFor({"reset"}, phaseTime / 4);
    }
    const auto stormTook = StormClock::now() - stormStarted;

    // Recovery: C goes through on its fourth attempt, D on its first, and
    // what the host submits now is delivered.
    server.setMode(M::ok);
    submitFor({"recovery"}, phaseTime / 2);
    cohorts.push_back(cacheCohort("D", 5 * scale, 1 * scale, {M::ok}, false));
    goOnlineAndWalk();
    submitFor({"recovery"}, phaseTime / 2);
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryAfter = memoryInUse();

    // ---- what the server saw, by submission
    std::map<std::string, std::vector<Arrival>> arrivals;
    for (auto& arrival : server.arrivals()) arrivals[arrival.id].push_back(arrival);
    ASSERT_EQ(server.dropped(), 0u);
    const auto ops = operations.operations();

    // Every cached submission was cached exactly once, and only those.
    std::multiset<std::string> cachedExpected, cachedLogged;
    for (const auto& cohort : cohorts) cachedExpected.insert(cohort.ids.begin(), cohort.ids.end());
    for (const auto& id : logWatch->cachedIds()) cachedLogged.insert(id);
    EXPECT_EQ(cachedLogged, cachedExpected);

    int discarded = 0, delivered = 0, attemptsOfDiscarded = 0;
    std::map<M, int> failuresByAnswer;
    for (const auto& cohort : cohorts) {
        for (const auto& id : cohort.ids) {
            std::vector<M> answers;
            for (const auto& arrival : arrivals[id]) {
                answers.push_back(arrival.answer);
                if (id[5] == 'D') {
                    EXPECT_TRUE(arrival.resend) << id << " cached, yet sent live";
                }
            }
            EXPECT_EQ(answers, cohort.expected) << cohort.name << " " << id;
            const auto* operation = find(ops, id);
            ASSERT_NE(operation, nullptr);
            EXPECT_FALSE(operation->failed) << id << ": " << operation->error;
            if (cohort.discarded) {
                ++discarded;
                attemptsOfDiscarded += static_cast<int>(answers.size());
                for (M answer : answers) ++failuresByAnswer[answer];
            } else {
                ++delivered;
            }
        }
    }
    EXPECT_EQ(logWatch->discards(), discarded);
    EXPECT_TRUE(cachedRetryCounts().empty()) << "offline cache not empty at the end";

    // The host's live calls: in the storm each failed after at most one
    // arrival (the hang ones by timing out); after it, each was delivered once.
    int liveStorm = 0, liveDelivered = 0;
    milliseconds longestHang{0};
    for (const auto& call : ops) {
        if (!call.live) continue;
        const auto* operation = &call;
        const std::string& id = call.id;
        const std::string& phase = call.phase;
        const auto& seen = arrivals[id];
        EXPECT_LE(seen.size(), 1u) << id;
        for (const auto& arrival : seen) {
            EXPECT_FALSE(arrival.resend) << id;
        }
        const bool stormy = phase == "503" || phase == "hang" || phase == "reset" || phase == "warm-up 503";
        if (stormy) {
            ++liveStorm;
            EXPECT_TRUE(operation->failed) << id << " in " << phase;
        } else {
            EXPECT_FALSE(operation->failed) << id << " in " << phase << ": " << operation->error;
            EXPECT_EQ(seen.size(), 1u) << id << " in " << phase;
            if (phase == "recovery") ++liveDelivered;
        }
        if (phase == "hang") {
            EXPECT_GE(operation->took, kRequestTimeout - 1s) << id << " did not wait for the server";
            longestHang = std::max(longestHang, operation->took);
        }
    }

    // Nobody waited: no call held its caller, no future outlived the timeout.
    milliseconds longestFuture{0};
    for (const auto& operation : ops) {
        EXPECT_GE(operation.took.count(), 0) << operation.id << " never completed";
        longestFuture = std::max(longestFuture, operation.took);
    }
    EXPECT_LE(longestFuture, kRequestTimeout + kTimeoutMargin);
    EXPECT_LT(longestCall, 1s);
    EXPECT_GT(liveDelivered, 0);

    const double growth = (static_cast<double>(memoryAfter) - static_cast<double>(memoryBefore)) / static_cast<double>(memoryBefore);
    EXPECT_LE(growth, 0.10) << memoryBefore << " -> " << memoryAfter << " bytes";

    const auto seconds = [](auto d) { return duration_cast<std::chrono::duration<double>>(d).count(); };
    std::printf("FIGURE server storm: %d host calls (%d live during the storm); longest call %.3f ms; "
                "longest future %.1f s (limit %.0f s; hang-phase calls ended after at most %.1f s)\n",
                calls, liveStorm, longestCall.count() / 1000.0, seconds(longestFuture),
                seconds(kRequestTimeout + kTimeoutMargin), seconds(longestHang));
    std::printf("FIGURE server storm: %d cached requests discarded, each after exactly 4 failed attempts "
                "(%d attempts: %d answered 503, %d hung, %d reset); %d cached requests delivered "
                "(after 0 to 3 failures), %d recovery submissions delivered, offline cache empty; %d resend walks\n",
                discarded, attemptsOfDiscarded, failuresByAnswer[M::unavailable], failuresByAnswer[M::hang],
                failuresByAnswer[M::reset], delivered, liveDelivered, walks);
    std::printf("FIGURE server storm: %s %.2f MiB before the storm, %.2f MiB after storm and recovery (%+.1f%%); "
                "storm %.0f s, test %.0f s, scale %d\n",
                measuresResidentMemory() ? "resident memory" : "heap in use (sanitizer build)",
                memoryBefore / 1048576.0, memoryAfter / 1048576.0, growth * 100, seconds(stormTook),
                seconds(StormClock::now() - started), scale);
}

}  // namespace
}  // namespace tavrin::testing
