// Server storms: a host submits, with offline tracking on, while its collector answers 503, then
// never answers, then resets every connection, then recovers; requests cached while the path is
// down meet the storm when it comes back. A send that meets the storm is cached and retried on a
// backoff, so the host's calls end without error. What can be known is checked: the host is never
// held, every future ends within the request timeout and without error, no submission is delivered
// twice, each one not delivered was discarded at its fourth failed attempt (and logged), the offline
// cache is empty once the server is well, and memory does not grow. How many were delivered, and
// how, depends on timing (the backoff's jitter, which walk meets which phase): it is reported only.

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
            ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            ::listen(listenFd_, 256) != 0)
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
                arrivals_.push_back(
                    {stormIdIn(body), body.find("\"app_offline_resend_timestamp\"") != std::string::npos, mode});
            }
            if (mode == M::reset) {
                const linger abort{1, 0};  // close with RST instead of FIN
                ::setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                return false;
            }
            const std::string_view reply =
                mode == M::ok
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

class TavrinServiceServerStormTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        platform::PathMonitor::setFactory([path = path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
        platform::SystemLog::setSink(logWatch);
        LoggerUtility::shared().setLogLevel(LogLevel::info);
    }

    // A host call (every fifth a consent decision), timed on the caller's thread.
    void call(const std::string& phase, bool live) {
        const bool consent = ++made % 5 == 0;
        const std::string id = consent ? stormId('C', nextConsent++) : stormId('D', nextData++);
        const FutureWatch::Call record{.id = id, .phase = phase, .live = live, .started = FaultClock::now()};
        if (consent) {
            watch.add(record, tracking->setConsents({{id, ConsentStatus::allow}}));
        } else {
            tracking->push({{"storm_id", id}});
            watch.add(record, tracking->submit());
        }
        longestCall = std::max(longestCall, FaultClock::now() - record.started);
    }

    // The host calling until `stop`, at most `maxOutstanding` at once; then every call ends.
    void hostCalls(const std::string& phase, milliseconds interval, std::size_t maxOutstanding,
                   const std::function<bool(int)>& stop) {
        for (int calls = 0; !stop(calls); std::this_thread::sleep_for(interval))
            if (watch.outstanding() < maxOutstanding) call(phase, true), ++calls;
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
    // Back online: the SDK starts a resend walk; waits until a walk has ended.
    void goOnlineAndWalk(milliseconds limit = 2 * kRequestTimeout + kTimeoutMargin) {
        const int before = logWatch->walksDone();
        path->setStatus(platform::PathStatus::satisfied);
        ASSERT_TRUE(waitUntil([&] { return logWatch->walksDone() > before; }, limit)) << "resend walk did not end";
    }
    // Submissions made offline: each cached, its future done once durable.
    void cacheOffline(const std::string& phase, int count) {
        goOffline();
        for (int i = 0; i < count * scale; ++i) call(phase, false);
        EXPECT_TRUE(watch.waitAllDone(30s));
    }
    static std::size_t cachedCount() { return OfflineCacheManager::shared()->offlineCache().entries().size(); }
    // A well server takes what is cached: a live success or a regained path starts a walk.
    void waitUntilDrained() {
        ASSERT_TRUE(waitUntil([] { return cachedCount() == 0; }, 2 * kRequestTimeout + kTimeoutMargin))
            << cachedCount() << " requests still cached with the server well";
    }

    const int scale = reliabilityScale();
    StormServer server;
    std::shared_ptr<StormLogWatch> logWatch = std::make_shared<StormLogWatch>();
    std::shared_ptr<ScriptedPathMonitor> path = std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
    FutureWatch watch{20000};
    std::shared_ptr<TrackingService> tracking;
    int made = 0, nextData = 0, nextConsent = 0;
    FaultClock::duration longestCall{};
};

TEST_F(TavrinServiceServerStormTest, NothingIsLostOrDeliveredTwiceAndEveryCallEndsInTime) {
    const auto phaseTime = milliseconds(2500 * scale);
    tracking = start(trackConfig(hostPort(server.port())));
    ASSERT_TRUE(waitUntil([&] { return logWatch->walksDone() == 1; })) << "launch walk";

    // Warm-up: a short storm with the server failing and recovering, and the tag cache filled
    // (debug tags are kept without a debug code, up to 1.5 MiB): bounded growth is no leak.
    const auto tagsFull = [](int) { return TagCache::shared().tags().size() >= TagCache::capacity; };
    hostCalls("warm-up", 1ms, 16, tagsFull);
    cacheOffline("warm-up", 36);  // as many at once as in the storm: the store's page cache grows with them
    server.setMode(M::unavailable);
    goOnlineAndWalk();
    hostCallsFor("warm-up", 500ms);
    server.setMode(M::ok);
    hostCallsFor("warm-up", 500ms);
    waitUntilDrained();
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryBefore = memoryInUse();
    const std::size_t arrivalsBefore = server.arrivals().size();
    const int discardsBefore = logWatch->discards();

    // 503 (with Retry-After: 1): requests cached offline meet it, the host's calls too.
    cacheOffline("503", 36);
    server.setMode(M::unavailable);
    goOnlineAndWalk();
    hostCallsFor("503", phaseTime);
    // Hang: each send ends at its timeout, live calls and resends alike.
    server.setMode(M::hang);
    hostCalls("hang", 100ms, 14, [](int calls) { return calls == 28; });
    // Reset, with requests cached offline meeting it when the path comes back.
    server.setMode(M::reset);
    hostCallsFor("reset", phaseTime / 2);
    cacheOffline("reset", 12);
    goOnlineAndWalk();
    hostCallsFor("reset", phaseTime / 2);
    // Recovery: the first success retries what is cached at once.
    server.setMode(M::ok);
    hostCallsFor("recovery", phaseTime);
    cacheOffline("recovery", 6);
    goOnlineAndWalk();
    waitUntilDrained();
    ASSERT_TRUE(TavrinService::flush(10s));
    std::this_thread::sleep_for(200ms);
    const std::size_t memoryAfter = memoryInUse();

    // ---- what the server saw and the host was told
    const auto arrivals = server.arrivals();
    std::map<std::string, int> attempts, delivered;
    for (std::size_t i = arrivalsBefore; i < arrivals.size(); ++i) {
        attempts[arrivals[i].id] += 1;
        delivered[arrivals[i].id] += arrivals[i].answer == M::ok;
    }
    int calls = 0, firstTry = 0, afterCaching = 0, lost = 0;
    milliseconds longestFuture{0};
    for (const auto& c : watch.calls()) {
        ASSERT_GE(c.took.count(), 0) << c.id << " never completed";
        if (c.phase == "warm-up") continue;
        ++calls;
        longestFuture = std::max(longestFuture, c.took);
        EXPECT_LE(c.took, kRequestTimeout + kTimeoutMargin) << c.id << " in " << c.phase;
        EXPECT_FALSE(c.error) << c.id << " in " << c.phase << ": a failed send is cached, not reported";
        EXPECT_LE(delivered[c.id], 1) << c.id << " delivered twice";
        if (delivered[c.id] == 0)
            ++lost;
        else
            (attempts[c.id] == 1 && c.live ? firstTry : afterCaching) += 1;
    }
    EXPECT_EQ(lost, logWatch->discards() - discardsBefore)
        << "a submission neither delivered nor discarded after its last attempt";
    EXPECT_EQ(cachedCount(), 0u);
    EXPECT_LT(longestCall, kRequestTimeout / 3) << "a call that waits for the server takes a request timeout";
    EXPECT_GT(firstTry, 0) << "the recovery's live calls";
    const double growth =
        (static_cast<double>(memoryAfter) - static_cast<double>(memoryBefore)) / static_cast<double>(memoryBefore);
    EXPECT_LE(growth, 0.10) << memoryBefore << " -> " << memoryAfter << " bytes";

    const auto seconds = [](auto d) { return std::to_string(std::chrono::duration<double>(d).count()).substr(0, 5); };
    printFigure("server storm: " + std::to_string(calls) + " calls, " + std::to_string(firstTry) +
                " delivered at once, " + std::to_string(afterCaching) + " cached and delivered later, " +
                std::to_string(lost) + " discarded after 4 attempts; " +
                std::to_string(arrivals.size() - arrivalsBefore) + " sends; longest call " +
                seconds(longestCall * 1000) + " ms, longest future " + seconds(longestFuture) + " s; memory " +
                std::to_string(growth * 100).substr(0, 4) + "% (" + std::to_string(memoryBefore >> 10) +
                " KiB before); scale " + std::to_string(scale));
}

}  // namespace
}  // namespace tavrin::testing
