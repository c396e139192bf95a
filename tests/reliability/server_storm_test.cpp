// Server storms: a host submits while its collector answers 503, then never answers, then resets
// every connection, then recovers. The host is never held, every future ends within the request
// timeout, each cached request is delivered once or given up on at its fourth failed attempt,
// memory does not grow. Cached requests are resent by the walk the SDK starts when the (scripted)
// path comes back; a walk sends one request at a time and runs alone, except in the hang phase, where
// the host's calls beside it exceed the six connections the HTTP client keeps to one host: a request
// may then wait for a connection until its own timeout fails it unsent. Timing is not asserted.

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <fstream>
#include <set>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/fault_support.h"

namespace tavrin::testing {
namespace {

enum class M { ok, unavailable, hang, reset };  // the server's answer: 200, 503, none, a reset connection

// A data submission carries its id as a custom property "stormD<number>", a
// consent report as a vendor "stormC<number>" (a data submission may carry
// the stored vendors too, so its own id wins).
std::string stormId(char kind, int number) {
    char text[16];
    std::snprintf(text, sizeof text, "storm%c%06d", kind, number);
    return text;
}
std::string stormIdIn(std::string_view text) {
    for (const char* prefix : {"stormD", "stormC"})
        if (const auto at = text.find(prefix); at != std::string_view::npos) return std::string(text.substr(at, 12));
    return {};
}

struct Arrival {
    std::string id;
    bool resend = false;  // a cached data submission sent again (it carries the resend time)
    M answer = M::ok;
};

// One loopback port answering 200 or 503, accepting and never answering, or
// resetting the connection. It closes every connection after its one request,
// so a client never retries on a reused connection: one send, one arrival.
class StormServer {
public:
    StormServer() {
        sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        socklen_t length = sizeof address;
        listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || ::listen(listenFd_, 256) != 0)
            throw std::runtime_error("storm server could not listen");
        port_ = ntohs(address.sin_port);
        arrivals_.resize(20000);  // touched now, so recording adds no resident memory later
        arrivals_.clear();
        thread_ = std::thread([this] {
            for (std::vector<pollfd> polled; !stopping_;) {
                polled.assign({{listenFd_, POLLIN, 0}});
                for (const auto& connection : connections_) polled.push_back({connection.fd, POLLIN, 0});
                ::poll(polled.data(), polled.size(), 50);
                for (std::size_t i = connections_.size(); i-- > 0;) {
                    if (polled[i + 1].revents == 0 || serve(connections_[i])) continue;
                    ::close(connections_[i].fd);
                    connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
                }
                for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
                    connections_.push_back({fd, {}, false});
            }
        });
    }
    ~StormServer() {
        stopping_ = true;
        thread_.join();
        for (const auto& connection : connections_) ::close(connection.fd);
        ::close(listenFd_);
    }

    int port() const { return port_; }
    void setMode(M mode) { mode_ = mode; }
    std::vector<Arrival> arrivals() const {
        std::lock_guard lock(mutex_);
        return arrivals_;
    }

private:
    struct Connection {
        int fd;
        std::string received;
        bool answered;
    };

    // Reads what arrived and answers a whole request; false once the connection is done with.
    bool serve(Connection& c) {
        char buffer[16384];
        for (ssize_t n; (n = ::read(c.fd, buffer, sizeof buffer)) != 0;) {
            if (n < 0) return errno == EAGAIN || errno == EINTR;
            if (c.answered) continue;  // hung: read until the client gives up
            c.received.append(buffer, static_cast<std::size_t>(n));
            const auto headEnd = c.received.find("\r\n\r\n");
            std::string head = c.received.substr(0, headEnd);
            for (auto& ch : head) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
            const auto at = head.find("\r\ncontent-length:");
            const std::size_t length = at == std::string::npos ? 0 : std::stoul(head.substr(at + 17));
            if (headEnd == std::string::npos || c.received.size() - headEnd - 4 < length) continue;
            c.answered = true;
            const std::string body = c.received.substr(headEnd + 4);
            const M mode = mode_;
            {
                std::lock_guard lock(mutex_);
                arrivals_.push_back({stormIdIn(body), body.find("\"app_offline_resend_timestamp\"") != std::string::npos, mode});
            }
            if (mode == M::reset) {
                const linger abort{1, 0};  // close with RST instead of FIN
                ::setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                return false;
            }
            const std::string_view reply = mode == M::ok
                ? "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
                : "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nRetry-After: 1\r\nConnection: close\r\n\r\n";
            if (mode == M::hang) continue;
            (void)!::send(c.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
            ::shutdown(c.fd, SHUT_WR);  // closed once the client has closed its end
        }
        return false;
    }

    int listenFd_ = -1, port_ = 0;
    std::atomic<M> mode_{M::ok};
    std::atomic<bool> stopping_{false};
    std::vector<Connection> connections_;  // the server thread's
    mutable std::mutex mutex_;
    std::vector<Arrival> arrivals_;
    std::thread thread_;
};

// Counts finished resend walks and discards; drops everything else, so the
// log does not grow the memory being measured.
class StormLogWatch final : public platform::LogSink {
public:
    bool isEnabled(platform::LogType type) const override { return type != platform::LogType::debug; }
    void write(const platform::LogRecord& record) override {
        const std::string_view message = record.message;
        walksDone_ += message == "Cached requests successfully resent after regaining network connectivity." ||
                      message == "Cached requests successfully resent.";
        discards_ += message.find("exceeded maximum retries and will be discarded.") != std::string_view::npos;
    }
    int walksDone() const { return walksDone_; }
    int discards() const { return discards_; }

private:
    std::atomic<int> walksDone_{0}, discards_{0};
};

// Under a sanitizer the resident size is mostly shadow memory and freed
// blocks held back on purpose: there the heap in use shows growth.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();  // the runtime's header is not always installed
std::size_t memoryInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
std::size_t memoryInUse() {
    std::ifstream statm("/proc/self/statm");
    std::size_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}
#endif

using std::chrono::milliseconds;

constexpr auto kRequestTimeout = 30s;  // the transport's, not shortened here
constexpr auto kTimeoutMargin = 10s;

// ---- what each call must end as, stated once: the host's own calls fail in
// these phases (online, none is cached), elsewhere each is delivered once;
const std::set<std::string> kLiveCallsFail{"warm-up 503", "503", "hang", "reset"};

// requests cached offline meet one attempt per walk (the server's mode in each) and end discarded or delivered.
struct Cohort {
    std::string name;
    int data, consents;  // times the scale
    std::vector<M> walks;
    bool discarded;
    std::vector<std::string> ids{};
};

// The answers a cached request got fit the walks it met: each attempt
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

class TavrinServiceServerStormTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        platform::PathMonitor::setFactory([path = path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
        platform::SystemLog::setSink(logWatch);
        LoggerUtility::shared().setLogLevel(LogLevel::info);
    }

    // A host call, timed on the caller's thread.
    std::string call(bool consent, const std::string& phase, bool live) {
        const std::string id = consent ? stormId('C', nextConsent++) : stormId('D', nextData++);
        const FutureWatch::Call record{.id = id, .phase = phase, .live = live, .started = FaultClock::now()};
        if (consent) {
            watch.add(record, tracking->setConsents({{id, ConsentStatus::allow}}));
        } else {
            tracking->push({{"storm_id", id}});
            watch.add(record, tracking->submit());
        }
        longestCall = std::max(longestCall, FaultClock::now() - record.started);
        return id;
    }

    // The host calling (every fifth a consent decision) until `stop`, at most `maxOutstanding`
    // at once; then every call ends, so each was sent (or not) before the path changes.
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

    void goOffline() {
        path->setStatus(platform::PathStatus::unsatisfied);
        ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    }
    // Back online: the SDK starts a resend walk; waits until it has ended.
    void goOnlineAndWalk(milliseconds limit = 60s) {
        const int before = logWatch->walksDone();
        path->setStatus(platform::PathStatus::satisfied);
        ASSERT_TRUE(waitUntil([&] { return logWatch->walksDone() > before; }, limit)) << "resend walk did not end";
    }
    // A cohort submitted offline: each cached, its future done once durable.
    const Cohort& cache(const std::string& name) {
        auto& cohort = *std::find_if(cohorts.begin(), cohorts.end(), [&](const Cohort& c) { return c.name == name; });
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
        {"warm-up cached", 30, 6, {M::ok}, false},
        {"warm-up retried", 3, 1, {M::unavailable, M::ok}, false},
        {"A", 30, 6, {M::unavailable, M::unavailable, M::unavailable, M::unavailable}, true},
        {"B", 1, 1, {M::unavailable, M::unavailable, M::hang, M::reset}, true},
        {"C", 10, 2, {M::reset, M::reset, M::reset, M::ok}, false},
        {"D", 5, 1, {M::ok}, false},
    };
    StormServer server;
    std::shared_ptr<StormLogWatch> logWatch = std::make_shared<StormLogWatch>();
    std::shared_ptr<ScriptedPathMonitor> path = std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
    FutureWatch watch{20000};
    std::shared_ptr<TrackingService> tracking;
    int nextData = 0, nextConsent = 0;
    FaultClock::duration longestCall{};
};

TEST_F(TavrinServiceServerStormTest, HostCallsAndCachedRequestsEndWithinTheirLimits) {
    const auto phaseTime = milliseconds(2500 * scale);
    tracking = start(trackConfig(hostPort(server.port())));
    ASSERT_TRUE(waitUntil([&] { return logWatch->walksDone() == 1; })) << "launch walk";

    // Warm-up: everything the storm does, once, with the server well, and the tag cache filled
    // (debug tags are kept without a debug code, up to 1.5 MiB): bounded growth is no leak.
    const auto tagsFull = [](int) { return TagCache::shared().tags().size() >= TagCache::capacity; };
    hostCalls("warm-up", 1ms, 16, tagsFull);
    cache("warm-up cached");  // as many at once as in the storm: the store's page cache grows with them
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
    const Cohort& a = cache("A");
    server.setMode(M::unavailable);
    for (int walk = 1; walk <= 4; ++walk) {
        if (walk > 1) goOffline();
        if (walk == 3) cache("B");
        goOnlineAndWalk();
        const auto counts = cachedRetryCounts();
        for (const auto& id : a.ids) {
            const auto found = counts.find(id);
            EXPECT_TRUE(walk < 4 ? found != counts.end() && found->second == walk : found == counts.end())
                << id << " after walk " << walk << ": discarded only after its fourth failure";
        }
        hostCallsFor("503", phaseTime / 4);
    }

    // Hang: only B is cached (each request cached costs a request timeout now); the walk's
    // first request holds a connection before the host's calls start.
    std::set<std::string> pending;
    for (const auto& [id, count] : cachedRetryCounts()) pending.insert(id);
    ASSERT_EQ(pending, std::set<std::string>(cohorts[3].ids.begin(), cohorts[3].ids.end()));
    server.setMode(M::hang);
    goOffline();
    const int walksBeforeHang = logWatch->walksDone();
    const auto arrivalsBeforeHang = server.arrivals().size();
    path->setStatus(platform::PathStatus::satisfied);
    ASSERT_TRUE(waitUntil([&] { return server.arrivals().size() > arrivalsBeforeHang; }, 10s));
    hostCalls("hang", 100ms, 14, [](int made) { return made == 28; });
    ASSERT_TRUE(waitUntil([&] { return logWatch->walksDone() > walksBeforeHang; }, 2 * kRequestTimeout + kTimeoutMargin));

    // Reset: B's fourth attempt fails here; C is cached and fails three walks.
    server.setMode(M::reset);
    hostCallsFor("reset", phaseTime / 4);
    cache("C");
    for (int walk = 1; walk <= 3; ++walk) {
        if (walk > 1) goOffline();
        goOnlineAndWalk();
        hostCallsFor("reset", phaseTime / 4);
    }

    // Recovery: C goes through at its fourth attempt, D at its first, the host's calls too.
    server.setMode(M::ok);
    hostCallsFor("recovery", phaseTime / 2);
    cache("D");
    goOnlineAndWalk();
    hostCallsFor("recovery", phaseTime / 2);
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryAfter = memoryInUse();

    // ---- what the server saw and the host was told
    std::map<std::string, std::vector<M>> answers;
    std::map<std::string, int> resends;
    for (const auto& arrival : server.arrivals()) {
        answers[arrival.id].push_back(arrival.answer);
        resends[arrival.id] += arrival.resend;
    }
    const auto all = watch.calls();

    // Cached requests: each attempt answered as its walk was (a live call cached by mistake
    // would arrive again as a resend, below).
    int discarded = 0, delivered = 0;
    for (const auto& cohort : cohorts) {
        for (const auto& id : cohort.ids) {
            EXPECT_TRUE(answersFit(answers[id], cohort.walks)) << cohort.name << " " << id << " answered "
                << ::testing::PrintToString(answers[id]) << " (0 = 200, 1 = 503, 2 = hang, 3 = reset)";
            EXPECT_TRUE(id[5] != 'D' || resends[id] == int(answers[id].size())) << id << " cached, yet sent live";
            (cohort.discarded ? discarded : delivered) += 1;
        }
    }
    EXPECT_EQ(logWatch->discards(), discarded);
    EXPECT_TRUE(cachedRetryCounts().empty()) << "offline cache not empty at the end";

    // Every future ended within the request timeout; a live call arrived at most once.
    int liveDelivered = 0;
    milliseconds longestFuture{0};
    for (const auto& c : all) {
        ASSERT_GE(c.took.count(), 0) << c.id << " never completed";
        longestFuture = std::max(longestFuture, c.took);
        EXPECT_EQ(bool(c.error), c.live && kLiveCallsFail.contains(c.phase)) << c.id << " in " << c.phase;
        if (!c.live) continue;
        EXPECT_LE(answers[c.id].size(), 1u) << c.id;
        EXPECT_EQ(resends[c.id], 0) << c.id;
        EXPECT_TRUE(kLiveCallsFail.contains(c.phase) || answers[c.id] == std::vector<M>{M::ok}) << c.id << " not delivered";
        liveDelivered += c.phase == "recovery";
        // Without an answer a call can end only by its own timeout.
        EXPECT_TRUE(c.phase != "hang" || c.took >= kRequestTimeout - 1s) << c.id << " did not wait for the server";
    }
    EXPECT_LE(longestFuture, kRequestTimeout + kTimeoutMargin);
    EXPECT_LT(longestCall, kRequestTimeout / 3) << "a call that waits for the server takes a request timeout";
    EXPECT_GT(liveDelivered, 0);
    const double growth = (static_cast<double>(memoryAfter) - static_cast<double>(memoryBefore)) / static_cast<double>(memoryBefore);
    EXPECT_LE(growth, 0.10) << memoryBefore << " -> " << memoryAfter << " bytes";

    const auto seconds = [](auto d) { return std::to_string(std::chrono::duration<double>(d).count()).substr(0, 5); };
    printFigure("server storm: " + std::to_string(all.size()) + " calls, longest " + seconds(longestCall * 1000) + " ms, longest future " +
                seconds(longestFuture) + " s; " + std::to_string(discarded) + " cached requests discarded after 4 attempts, " +
                std::to_string(delivered) + " delivered; memory " + std::to_string(growth * 100).substr(0, 4) + "% (" +
                std::to_string(memoryBefore >> 10) + " KiB before); scale " + std::to_string(scale));
}

}  // namespace
}  // namespace tavrin::testing
