#pragma once
// Ground for the kill -9 and network-flap scenarios: a client network
// namespace joined to a server namespace by a veth pair, a server that can
// only be reached through the client's default route, child processes that
// report on a pipe, and the tally of what reached the server.
//
// Why two namespaces: a server on the client's own loopback stays reachable
// whatever happens to the default route, so "no network" would only be what
// the path monitor says. Here the server listens on 10.201.0.1, an address
// of the server namespace outside the veth subnet: without the default route
// the client cannot connect at all, and a send that the monitor has not yet
// seen as offline really fails.

#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/internal/json.h"
#include "tests/reliability/reliability_scale.h"
#include "tests/support/child_process.h"
#include "tests/support/loopback_server.h"
#include "tests/support/network_namespace.h"

extern char** environ;

namespace tavrin::testing {

// A thread that moved into a network namespace of its own and runs the tasks
// handed to it there. Threads and processes it starts stay in that namespace.
class NamespaceThread {
public:
    NamespaceThread() {
        thread_ = std::thread([this] {
            std::unique_lock lock(mutex_);
            if (unshare(CLONE_NEWNET) != 0)
                error_ = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno) + " (needs root or CAP_SYS_ADMIN)";
            tid_ = static_cast<pid_t>(syscall(SYS_gettid));
            started_ = true;
            cv_.notify_all();
            for (;;) {
                cv_.wait(lock, [&] { return stop_ || !tasks_.empty(); });
                if (tasks_.empty()) return;
                auto task = std::move(tasks_.front());
                tasks_.pop_front();
                lock.unlock();
                task();
                lock.lock();
            }
        });
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return started_; });
    }
    ~NamespaceThread() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    NamespaceThread(const NamespaceThread&) = delete;
    NamespaceThread& operator=(const NamespaceThread&) = delete;

    const std::string& error() const { return error_; }  // empty when the namespace exists
    pid_t tid() const { return tid_; }

    // Runs `task` on the namespace's thread and waits for it.
    void run(std::function<void()> task) {
        bool done = false;
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back([&] {
                task();
                std::lock_guard inner(mutex_);
                done = true;
                cv_.notify_all();
            });
        }
        cv_.notify_all();
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return done; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_;
    bool started_ = false, stop_ = false;
    std::string error_;
    pid_t tid_ = 0;
    std::thread thread_;
};

// client namespace                          server namespace
//   v0 10.200.0.1/24  <-- veth pair -->       v1 10.200.0.2/24
//   default via 10.200.0.2                     lo 10.201.0.1/32, the server
class SplitNetwork {
public:
    static constexpr const char* kGateway = "10.200.0.2";
    static constexpr const char* kServerAddress = "10.201.0.1";

    // Empty when both namespaces and the link are up; otherwise why not.
    std::string setUp() {
        if (!server_.error().empty()) return server_.error();
        if (!client_.error().empty()) return client_.error();
        bool ok = false;
        client_.run([&] {
            ok = ip("link set lo up") &&
                 ip("link add v0 type veth peer name v1 netns " + std::to_string(server_.tid())) &&
                 ip("addr add 10.200.0.1/24 dev v0") && ip("link set v0 up");
        });
        if (!ok) return "could not create the veth pair";
        server_.run([&] {
            ok = ip("link set lo up") && ip(std::string("addr add ") + kServerAddress + "/32 dev lo") &&
                 ip(std::string("addr add ") + kGateway + "/24 dev v1") && ip("link set v1 up");
            if (ok) server = std::make_unique<LoopbackServer>(std::nullopt, kServerAddress);
        });
        if (!ok) return "could not set up the server namespace";
        return "";
    }
    ~SplitNetwork() {
        // The server's sockets belong to its namespace: stop it there.
        server_.run([&] { server.reset(); });
    }

    // Runs `scenario` in the client namespace (the route commands below need it).
    void inClient(std::function<void()> scenario) { client_.run(std::move(scenario)); }
    static bool routeUp() { return ip(std::string("route add default via ") + kGateway); }
    static bool routeDown() { return ip(std::string("route del default via ") + kGateway); }

    std::string domain() const { return std::string(kServerAddress) + ":" + std::to_string(server->port()); }

    std::unique_ptr<LoopbackServer> server;

private:
    NamespaceThread server_, client_;
};

// What reached the server, counted by the unique id each request carries:
// "uid" among a submission's variables, the one vendor of a consent decision.
struct Deliveries {
    std::map<std::string, int> times;
    int resent = 0;  // deliveries that came from the offline cache

    static Deliveries of(const LoopbackServer& server) {
        Deliveries out;
        for (const auto& request : server.requests()) {
            if (request.path == "/monitor") continue;
            const auto body = platform::parseJson(request.body);
            if (!body || !body->is_object() || !body->contains("data")) {
                ++out.times["<unreadable>"];
                continue;
            }
            const Json& data = (*body)["data"];
            if (data.contains("consent")) {
                for (const auto& item : data["consent"]["vendors"].items()) ++out.times[item.key()];
            } else if (data.contains("variables") && data["variables"].contains("uid")) {
                ++out.times[data["variables"]["uid"].get<std::string>()];
            } else {
                ++out.times["<without id>"];
            }
            if (body->value("app_offline_cached_data", "") == "true") ++out.resent;
        }
        return out;
    }
    int total() const {
        int n = 0;
        for (const auto& entry : times) n += entry.second;
        return n;
    }
    int count(const std::string& id) const {
        const auto found = times.find(id);
        return found == times.end() ? 0 : found->second;
    }
    std::vector<std::string> duplicated() const {
        std::vector<std::string> out;
        for (const auto& [id, n] : times)
            if (n > 1) out.push_back(id + " x" + std::to_string(n));
        return out;
    }
};

// A copy of this test binary running the tests of `filter`, with extra
// environment and a pipe it reports on (its write end is TAVRIN_REPORT_FD).
class ChildProcess {
public:
    ChildProcess(const std::string& filter, std::vector<std::string> variables) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        // The child's end must survive exec: a duplicate without CLOEXEC.
        const int childEnd = dup(fds[1]);
        close(fds[1]);
        readFd_ = fds[0];
        variables.push_back("TAVRIN_REPORT_FD=" + std::to_string(childEnd));
        SelfInvocation self(filter, std::move(variables));
        if (posix_spawn(&pid_, self.program.c_str(), nullptr, nullptr, self.argv, self.envp.data()) != 0) pid_ = -1;
        close(childEnd);
    }
    ~ChildProcess() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            wait(std::chrono::seconds(10));
        }
        if (readFd_ >= 0) close(readFd_);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }

    // The next whole line the child wrote; nothing when it closed the pipe
    // (exited or killed) or `timeout` passed.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            if (const auto end = buffer_.find('\n'); end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || readFd_ < 0) return std::nullopt;
            pollfd ready{readFd_, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            const ssize_t n = read(readFd_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    void killNow() {
        if (pid_ > 0 && !reaped_) kill(pid_, SIGKILL);
    }

    // The exit code, 128 + signal when a signal ended it, -1 on timeout.
    int wait(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!reaped_) {
            const pid_t done = waitpid(pid_, &status_, WNOHANG);
            if (done == pid_) {
                reaped_ = true;
                break;
            }
            if (done < 0 || std::chrono::steady_clock::now() > deadline) return -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
    }

private:
    pid_t pid_ = -1;
    int readFd_ = -1;
    int status_ = 0;
    bool reaped_ = false;
    std::string buffer_;
};

// The child's side of the pipe: one line per write, so lines never interleave.
inline void report(const std::string& line) {
    static const int fd = [] {
        const char* text = std::getenv("TAVRIN_REPORT_FD");
        return text ? std::atoi(text) : -1;
    }();
    if (fd < 0) return;
    const std::string text = line + "\n";
    (void)!write(fd, text.data(), text.size());
}

inline void printFigure(const std::string& text) {
    std::printf("FIGURE %s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace tavrin::testing
