#pragma once
// What the benchmarks that reach a server share: a log sink that formats and
// drops every line, and a minimal keep-alive HTTP/1.1 server answering 200
// (at once, or after a delay per answer, one thread per connection), in this
// process or in a child of its own.

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/system_log.h"

namespace tavrin::bench {

// Threads of this process now.
inline int threadCount() {
    int count = 0;
    if (DIR* tasks = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(tasks))
            if (entry->d_name[0] != '.') ++count;
        closedir(tasks);
    }
    return count;
}

// Kilobytes of a field of /proc/self/smaps_rollup ("Rss", "Anonymous").
inline long rollupKb(const std::string& field) {
    std::ifstream in("/proc/self/smaps_rollup");
    std::string key, rest;
    long value = 0;
    while (in >> key) {
        if (key == field + ":") {
            in >> value;
            return value;
        }
        std::getline(in, rest);
    }
    return -1;
}

// Formats every line (as the library would) and drops it.
class DiscardSink final : public tavrin::platform::LogSink {
public:
    bool isEnabled(tavrin::platform::LogType) const override { return true; }
    void write(const tavrin::platform::LogRecord&) override {}
};

// Minimal keep-alive HTTP/1.1 server answering every request with 200.
class OkServer {
public:
    // count: where answered requests are counted (another process's memory, say).
    explicit OkServer(std::chrono::milliseconds delay = std::chrono::milliseconds(0),
                      std::atomic<long>* count = nullptr)
        : delay_(delay), count_(count ? count : &requests_) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        listen(fd_, 64);
        thread_ = std::thread([this] {
            for (int c; (c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
                std::lock_guard lock(mutex_);
                connections_.push_back(c);
                workers_.emplace_back([this, c] { serve(c); });
            }
        });
    }
    ~OkServer() {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        std::lock_guard lock(mutex_);
        for (int c : connections_) shutdown(c, SHUT_RDWR);
        for (auto& w : workers_) w.join();
        for (int c : connections_) close(c);
        close(fd_);
    }
    int port() const { return port_; }
    long requests() const { return count_->load(); }

private:
    void serve(int c) {
        std::string buffer;
        char chunk[65536];
        for (;;) {
            const auto end = buffer.find("\r\n\r\n");
            if (end != std::string::npos) {
                std::size_t length = 0;
                const auto at = buffer.find("Content-Length: ");
                if (at != std::string::npos && at < end) length = std::stoul(buffer.substr(at + 16));
                if (buffer.size() >= end + 4 + length) {
                    buffer.erase(0, end + 4 + length);
                    if (delay_.count() > 0) std::this_thread::sleep_for(delay_);
                    ++*count_;
                    static constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
                    if (::send(c, kOk, sizeof kOk - 1, MSG_NOSIGNAL) < 0) return;
                    continue;
                }
            }
            const ssize_t n = read(c, chunk, sizeof chunk);
            if (n <= 0) return;
            buffer.append(chunk, static_cast<std::size_t>(n));
        }
    }

    std::chrono::milliseconds delay_;
    int fd_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
    std::atomic<long> requests_{0};
    std::atomic<long>* count_;
};

// The same server in a child process, so that what the benchmark measures of
// its own process (peak resident memory, CPU time) is the host's alone: the
// server's threads would otherwise add their stacks, buffers and allocator
// arenas. The count of answered requests lives in memory both share.
class ChildOkServer {
public:
    ChildOkServer() {
        void* shared =
            mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        count_ = new (shared) std::atomic<long>(0);
        int ready[2];
        if (pipe(ready) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            OkServer server(std::chrono::milliseconds(0), count_);
            const int port = server.port();
            (void)!write(ready[1], &port, sizeof port);
            close(ready[1]);
            for (;;) pause();  // until the parent kills it
        }
        close(ready[1]);
        if (read(ready[0], &port_, sizeof port_) != static_cast<ssize_t>(sizeof port_)) port_ = 0;
        close(ready[0]);
    }
    ~ChildOkServer() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        munmap(count_, sizeof *count_);
    }
    ChildOkServer(const ChildOkServer&) = delete;
    ChildOkServer& operator=(const ChildOkServer&) = delete;
    int port() const { return port_; }
    long requests() const { return count_->load(); }

private:
    std::atomic<long>* count_ = nullptr;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace tavrin::bench
