#pragma once
// Ground shared by the fault scenarios:
// - FutureWatch: watches the futures of host calls from one thread and notes
//   when and how each one ended;
// - inSplitNetwork: a client network namespace joined to a server namespace
//   by a veth pair, the server reachable only through the client's default
//   route (kill -9 and network flaps);
// - Deliveries: what reached such a server, by the id each request carries.

#include <sched.h>
#include <sys/syscall.h>

#include <atomic>
#include <future>
#include <map>
#include <variant>

#include "tavrin/platform/internal/json.h"
#include "tests/support/loopback_server.h"
#include "tests/support/network_namespace.h"
#include "tests/support/wait_until.h"

namespace tavrin::testing {

using FaultClock = std::chrono::steady_clock;

// Rounds and counts of the fault scenarios are multiplied by
// TAVRIN_RELIABILITY_SCALE (a positive whole number, default 1) for longer runs.
inline int reliabilityScale() {
    const char* text = std::getenv("TAVRIN_RELIABILITY_SCALE");
    return std::max(1, text ? std::atoi(text) : 1);
}
inline int scaled(int base) { return base * reliabilityScale(); }

// A call's failure is kept as its exception_ptr for as long as the watch
// lives. The exception object of a failed send is shared with the HTTP
// client's thread and counted in the uninstrumented C++ runtime: were the
// record to let go of it, that thread could free it after a read here, in an
// order ThreadSanitizer cannot see. Held here, it is freed only by the
// watch's owner, after the watching thread has been joined.
class FutureWatch {
public:
    struct Call {
        std::string id{}, phase{};  // up to 15 characters: kept inside the strings
        bool live = false;          // made by the host's own loop, not by the driver
        FaultClock::time_point started{};
        std::chrono::milliseconds took{-1};  // until the future was ready; -1 while it is not
        std::exception_ptr error{};
    };

    explicit FutureWatch(std::size_t capacity, std::function<void(const Call&)> done = {}) : done_(std::move(done)) {
        calls_.resize(capacity);  // touched now, so watching adds no memory later
        calls_.clear();
        thread_ = std::thread([this] {
            for (; !stopping_; std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
                std::lock_guard lock(mutex_);
                std::erase_if(pending_, [&](auto& p) { return std::visit([&](auto& f) { return ended(p.first, f); }, p.second); });
            }
        });
    }
    ~FutureWatch() {
        stopping_ = true;
        thread_.join();
    }

    template <class T>
    void add(Call call, std::future<T> future) {
        std::lock_guard lock(mutex_);
        if (calls_.size() == calls_.capacity()) throw std::length_error("more calls than the watch holds");
        calls_.push_back(std::move(call));
        pending_.emplace_back(calls_.size() - 1, std::move(future));
    }
    std::size_t outstanding() const {
        std::lock_guard lock(mutex_);
        return pending_.size();
    }
    bool waitAllDone(std::chrono::milliseconds timeout) const {
        return waitUntil([&] { return outstanding() == 0; }, timeout);
    }
    std::vector<Call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    template <class T>
    bool ended(std::size_t index, std::future<T>& future) {
        if (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return false;
        Call& call = calls_[index];
        call.took = std::chrono::duration_cast<std::chrono::milliseconds>(FaultClock::now() - call.started);
        try {
            future.get();
        } catch (...) {
            call.error = std::current_exception();
        }
        if (done_) done_(call);
        return true;
    }

    std::function<void(const Call&)> done_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    std::vector<std::pair<std::size_t, std::variant<std::future<void>, std::future<bool>>>> pending_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// The text of a failure, for messages.
inline std::string describe(const std::exception_ptr& error) try {
    if (error) std::rethrow_exception(error);
    return "no error";
} catch (const std::exception& e) {
    return e.what();
} catch (...) {
    return "unknown error";
}

// client namespace                          server namespace
//   v0 10.200.0.1/24  <-- veth pair -->       v1 10.200.0.2/24
//   default via 10.200.0.2                     lo 10.201.0.1/32, the server
// A server on the client's own loopback would stay reachable whatever
// happens to the route; this one cannot be reached at all without it.
// Runs `scenario` on a thread in the client namespace (processes it starts
// are there too) with the server and its "host:port"; skips the test where
// namespaces cannot be made.
inline void inSplitNetwork(const std::function<void(LoopbackServer&, const std::string&)>& scenario) {
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
inline bool routeUp() { return ip("route add default via 10.200.0.2"); }
inline bool routeDown() { return ip("route del default via 10.200.0.2"); }

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

inline void printFigure(const std::string& text) {
    std::printf("FIGURE %s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace tavrin::testing
