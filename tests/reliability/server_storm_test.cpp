// Server storms: a host application submits data and consent decisions while
// its collector answers 503 to everything, then accepts connections and never
// answers, then resets every connection, and finally recovers. The host is
// never blocked, every future ends within the request timeout, each cached
// request is given up on at its fourth failed attempt or delivered once,
// memory does not grow, and once the server is back submissions are delivered.
//
// Cached requests are sent again by resend walks, which the SDK starts when
// the network path comes back: the scenario flips the scripted path monitor
// the SDK was given offline and online (as the rtnetlink monitor reports a
// returning link), and what the host submits while offline is what it caches.
// Walks send one request at a time and run alone, except in the hang phase:
// there the host's calls run beside the walk, in two waves of fourteen, more
// than the six connections the HTTP client keeps to one host, so a request
// may wait for a connection until its own timeout fails it unsent.
//
// What timing decides is not asserted: which host calls a phase holds, how
// many of them, and whether a queued attempt in the hang phase reached the
// server.

#include <set>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/storm_support.h"

namespace tavrin::testing {
namespace {

using M = StormMode;
using std::chrono::milliseconds;

constexpr auto kRequestTimeout = 30s;  // the transport's, not shortened here
constexpr auto kTimeoutMargin = 10s;

// ---- what each call must end as, stated once

// The host's own calls in each phase: delivered once, or failed with the
// error in the future (none of them is cached: the path is online).
enum class Live { delivered, fails };
const std::map<std::string, Live> kLiveOutcome{{"warm-up", Live::delivered}, {"warm-up 503", Live::fails},
                                               {"503", Live::fails},         {"hang", Live::fails},
                                               {"reset", Live::fails},       {"recovery", Live::delivered}};

// Requests cached while offline: the server's mode in each walk they meet
// (one attempt per walk), and how they end.
enum class End { delivered, discarded };
struct Cohort {
    std::string name;
    int data, consents;  // times the scale
    std::vector<M> walks;
    End end;
    std::vector<std::string> ids{};
};

// The answers a cached request got, against the walks it met: each attempt
// arrived, except that one in the hang phase may have timed out queued.
bool answersFit(const std::vector<M>& answers, const std::vector<M>& walks) {
    std::size_t next = 0;
    for (M walk : walks) {
        if (next < answers.size() && answers[next] == walk)
            ++next;
        else if (walk != M::hang)
            return false;
    }
    return next == answers.size();
}

std::string text(const std::vector<M>& modes) {
    std::string out;
    for (M mode : modes) out += std::to_string(static_cast<int>(mode)) + " ";
    return out + "(0 = 200, 1 = 503, 2 = hang, 3 = reset)";
}

class TavrinServiceServerStormTest : public ::testing::Test {
protected:
    void SetUp() override {
        useDirectoryWithPath();
        platform::SystemLog::setSink(logWatch);
        LoggerUtility::resetShared();
        LoggerUtility::shared().setLogLevel(LogLevel::info);
    }
    void TearDown() override {
        TavrinService::shutdown(5s);
        platform::PathMonitor::setFactory({});
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
        LoggerUtility::resetShared();
        platform::SystemLog::setSink(nullptr);
    }
    void useDirectoryWithPath() {
        platform::KeyValueStore::setDataDirectory(dir.path().string());
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        platform::PathMonitor::setFactory([path = path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
    }

    // ---- the host's calls, timed on the caller's thread

    std::string call(bool consent, const std::string& phase, bool live) {
        const std::string id = consent ? stormId('C', nextConsent++) : stormId('D', nextData++);
        const auto started = FaultClock::now();
        if (consent) {
            auto future = tracking->setConsents({{id, ConsentStatus::allow}});
            longestCall = std::max(longestCall, FaultClock::now() - started);
            watch.add({.id = id, .phase = phase, .live = live, .started = started}, std::move(future));
        } else {
            tracking->push({{"storm_id", id}});
            auto future = tracking->submit();
            longestCall = std::max(longestCall, FaultClock::now() - started);
            watch.add({.id = id, .phase = phase, .live = live, .started = started}, std::move(future));
        }
        ++calls;
        return id;
    }

    // The host submitting (every fifth call a consent decision) until `stop`,
    // never more than `maxOutstanding` calls at once; then waits until every
    // call has ended, so each was sent (or not) before the path changes.
    void hostCalls(const std::string& phase, milliseconds interval, std::size_t maxOutstanding,
                   const std::function<bool(int)>& stop) {
        for (int made = 0; !stop(made); std::this_thread::sleep_for(interval))
            if (watch.outstanding() < maxOutstanding) call(++made % 5 == 0, phase, true);
        ASSERT_TRUE(watch.waitAllDone(kRequestTimeout + kTimeoutMargin)) << "calls of " << phase << " still running";
    }
    void hostCallsFor(const std::string& phase, milliseconds duration) {
        const auto until = FaultClock::now() + duration;
        hostCalls(phase, 40ms, 16, [&](int) { return FaultClock::now() >= until; });
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
    // Submissions made while offline: each is cached, its future done once durable.
    Cohort& cache(const std::string& name) {
        Cohort& cohort = *std::find_if(cohorts.begin(), cohorts.end(), [&](const Cohort& c) { return c.name == name; });
        goOffline();
        for (int i = 0; i < (cohort.data + cohort.consents) * scale; ++i)
            cohort.ids.push_back(call(i >= cohort.data * scale, name, false));
        EXPECT_TRUE(watch.waitAllDone(30s));
        return cohort;
    }
    // Retry counts of what the offline cache holds, by submission id.
    static std::map<std::string, std::int64_t> cachedRetryCounts() {
        std::map<std::string, std::int64_t> counts;
        for (const auto& request : OfflineCacheManager::shared()->offlineCache().getCachedRequests())
            counts[stormIdIn(platform::toString(request.payload))] = request.retryCount;
        return counts;
    }

    const int scale = reliabilityScale();
    std::vector<Cohort> cohorts{
        {"warm-up cached", 30, 6, {M::ok}, End::delivered},
        {"warm-up retried", 3, 1, {M::unavailable, M::ok}, End::delivered},
        {"A", 30, 6, {M::unavailable, M::unavailable, M::unavailable, M::unavailable}, End::discarded},
        {"B", 1, 1, {M::unavailable, M::unavailable, M::hang, M::reset}, End::discarded},
        {"C", 10, 2, {M::reset, M::reset, M::reset, M::ok}, End::delivered},
        {"D", 5, 1, {M::ok}, End::delivered},
    };
    TempDir dir;
    StormServer server;
    std::shared_ptr<StormLogWatch> logWatch = std::make_shared<StormLogWatch>();
    std::shared_ptr<ScriptedPathMonitor> path = std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
    FutureWatch watch{20000};
    std::shared_ptr<TrackingService> tracking;
    int nextData = 0, nextConsent = 0, walks = 0, calls = 0;
    FaultClock::duration longestCall{};
};

TEST_F(TavrinServiceServerStormTest, HostCallsAndCachedRequestsEndWithinTheirLimits) {
    const auto phaseTime = milliseconds(2500 * scale);
    const auto started = FaultClock::now();
    TavrinService::configure(trackConfig(hostPort(server.port())));
    tracking = TrackingService::shared();
    ASSERT_TRUE(logWatch->waitForWalks(1, 10s)) << "launch walk";

    // Warm-up: everything the storm does once, with the server well, so the
    // allocator's growth for the first requests is not counted. Without a
    // debug code the SDK keeps debug tags up to the tag cache's capacity
    // (about 1.5 MiB): filled now, that bounded growth is not taken for a leak.
    const auto tagsFull = [](int) { return TagCache::shared().tags().size() >= TagCache::capacity; };
    hostCalls("warm-up", 1ms, 16, tagsFull);
    ASSERT_TRUE(tagsFull(0));
    // As many cached at once as in the storm: the store's page cache grows
    // with the largest offline cache it has held.
    cache("warm-up cached");
    goOnlineAndWalk();
    server.setMode(M::unavailable);
    hostCallsFor("warm-up 503", 500ms);
    cache("warm-up retried");
    goOnlineAndWalk();
    server.setMode(M::ok);
    goOffline();
    goOnlineAndWalk();
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryBefore = memoryInUse();

    // 503: A is cached before it and fails four walks in it; B joins at the third.
    const auto stormStarted = FaultClock::now();
    const Cohort& a = cache("A");
    server.setMode(M::unavailable);
    for (int walk = 1; walk <= 4; ++walk) {
        if (walk > 1) goOffline();
        if (walk == 3) cache("B");
        goOnlineAndWalk();
        const auto counts = cachedRetryCounts();
        for (const auto& id : a.ids) {
            const auto found = counts.find(id);
            if (walk < 4)
                EXPECT_TRUE(found != counts.end() && found->second == walk) << id << " after walk " << walk;
            else
                EXPECT_TRUE(found == counts.end()) << id << " still cached after its fourth failure";
        }
        hostCallsFor("503", phaseTime / 4);
    }

    // Hang: the server accepts and never answers. Only B is cached (each
    // request cached now costs a request timeout); the host's calls run beside
    // the walk, whose first request holds a connection before they start.
    std::set<std::string> pending;
    for (const auto& [id, count] : cachedRetryCounts()) pending.insert(id);
    const auto& b = cohorts[3].ids;
    ASSERT_EQ(pending, std::set<std::string>(b.begin(), b.end()));
    server.setMode(M::hang);
    goOffline();
    const int walksBeforeHang = logWatch->walksDone();
    const auto arrivalsBeforeHang = server.arrivals().size();
    path->setStatus(platform::PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.arrivals().size() > arrivalsBeforeHang; }, 10s));
    hostCalls("hang", 100ms, 14, [](int made) { return made == 28; });
    ASSERT_TRUE(logWatch->waitForWalks(walksBeforeHang + 1, 2 * kRequestTimeout + kTimeoutMargin)) << "hang walk";
    ++walks;

    // Reset: B's fourth attempt fails here; C is cached and fails three walks.
    server.setMode(M::reset);
    hostCallsFor("reset", phaseTime / 4);
    cache("C");
    for (int walk = 1; walk <= 3; ++walk) {
        if (walk > 1) goOffline();
        goOnlineAndWalk();
        hostCallsFor("reset", phaseTime / 4);
    }
    const auto stormTook = FaultClock::now() - stormStarted;

    // Recovery: C goes through at its fourth attempt, D at its first, and what
    // the host submits now is delivered.
    server.setMode(M::ok);
    hostCallsFor("recovery", phaseTime / 2);
    cache("D");
    goOnlineAndWalk();
    hostCallsFor("recovery", phaseTime / 2);
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryAfter = memoryInUse();

    // ---- what the server saw and the host was told
    std::map<std::string, std::vector<Arrival>> arrivals;
    for (auto& arrival : server.arrivals()) arrivals[arrival.id].push_back(arrival);
    const auto all = watch.calls();
    std::map<std::string, const FutureWatch::Call*> byId;
    for (const auto& c : all) byId[c.id] = &c;

    // Cached requests: cached once each (and nothing else was), each attempt
    // seen as its walk's answer, discarded after the fourth or delivered once.
    std::multiset<std::string> cachedExpected, cachedLogged;
    int discarded = 0, delivered = 0;
    std::map<M, int> failedAttempts;
    for (const auto& cohort : cohorts) {
        for (const auto& id : cohort.ids) {
            cachedExpected.insert(id);
            std::vector<M> answers;
            for (const auto& arrival : arrivals[id]) {
                answers.push_back(arrival.answer);
                EXPECT_TRUE(arrival.resend || id[5] == 'C') << id << " cached, yet sent live";
            }
            EXPECT_TRUE(answersFit(answers, cohort.walks)) << cohort.name << " " << id << ": " << text(answers);
            EXPECT_FALSE(byId.at(id)->error) << id << ": " << describe(byId.at(id)->error);
            if (cohort.end == End::discarded) {
                ++discarded;
                for (M answer : answers) ++failedAttempts[answer];
            } else {
                ++delivered;
            }
        }
    }
    for (const auto& id : logWatch->cachedIds()) cachedLogged.insert(id);
    EXPECT_EQ(cachedLogged, cachedExpected);
    EXPECT_EQ(logWatch->discards(), discarded);
    EXPECT_TRUE(cachedRetryCounts().empty()) << "offline cache not empty at the end";

    // The host's calls: never held, each future ended within the request
    // timeout; a live call reached the server at most once, as it must end.
    int liveDelivered = 0, liveFailed = 0;
    FaultClock::duration longestFuture{}, longestHang{};
    for (const auto& c : all) {
        ASSERT_GE(c.took.count(), 0) << c.id << " never completed";
        longestFuture = std::max<FaultClock::duration>(longestFuture, c.took);
        if (!c.live) continue;
        const auto& seen = arrivals[c.id];
        EXPECT_LE(seen.size(), 1u) << c.id;
        for (const auto& arrival : seen) EXPECT_FALSE(arrival.resend) << c.id;
        if (kLiveOutcome.at(c.phase) == Live::delivered) {
            EXPECT_FALSE(c.error) << c.id << " in " << c.phase << ": " << describe(c.error);
            EXPECT_TRUE(seen.size() == 1 && seen[0].answer == M::ok) << c.id << " in " << c.phase;
            liveDelivered += c.phase == "recovery";
        } else {
            EXPECT_TRUE(c.error) << c.id << " in " << c.phase;
            ++liveFailed;
        }
        // Without an answer a call can only end by its own timeout.
        if (c.phase == "hang") {
            EXPECT_GE(c.took, kRequestTimeout - 1s) << c.id << " did not wait for the server";
            longestHang = std::max<FaultClock::duration>(longestHang, c.took);
        }
    }
    EXPECT_LE(longestFuture, kRequestTimeout + kTimeoutMargin);
    // A call that waited for the server would take a whole request timeout.
    EXPECT_LT(longestCall, kRequestTimeout / 3);
    EXPECT_GT(liveDelivered, 0);
    const double growth = (static_cast<double>(memoryAfter) - static_cast<double>(memoryBefore)) / static_cast<double>(memoryBefore);
    EXPECT_LE(growth, 0.10) << memoryBefore << " -> " << memoryAfter << " bytes";

    const auto seconds = [](auto d) { return std::chrono::duration<double>(d).count(); };
    char figure[768];
    std::snprintf(figure, sizeof figure,
                  "server storm: %d host calls (%d live failed in the storm); longest call %.3f ms; longest future %.1f s "
                  "(limit %.0f s; hang-phase calls ended after at most %.1f s); %d cached requests discarded after 4 "
                  "failed attempts (%d answered 503, %d hung, %d reset; an attempt queued in the hang phase may end "
                  "unsent), %d delivered, %d recovery submissions delivered, cache empty; %d resend walks; %s %.2f -> "
                  "%.2f MiB (%+.1f%%); storm %.0f s, test %.0f s, scale %d",
                  calls, liveFailed, seconds(longestCall) * 1000, seconds(longestFuture),
                  seconds(kRequestTimeout + kTimeoutMargin), seconds(longestHang), discarded,
                  failedAttempts[M::unavailable], failedAttempts[M::hang], failedAttempts[M::reset], delivered,
                  liveDelivered, walks, measuresResidentMemory() ? "resident memory" : "heap in use (sanitizer build)",
                  memoryBefore / 1048576.0, memoryAfter / 1048576.0, growth * 100, seconds(stormTook),
                  seconds(FaultClock::now() - started), scale);
    printFigure(figure);
}

}  // namespace
}  // namespace tavrin::testing
