#pragma once
// What the benchmarks that reach a server share: a log sink that formats and
// drops every line, and a minimal keep-alive HTTP/1.1 server answering 200
// (at once, or after a delay per answer, one thread per connection).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "tavrin/platform/system_log.h"

namespace tavrin::bench {

// Formats every line (as the library would) and drops it.
class DiscardSink final : public tavrin::platform::LogSink {
public:
    bool isEnabled(tavrin::platform::LogType) const override { return true; }
    void write(const tavrin::platform::LogRecord&) override {}
};

// Minimal keep-alive HTTP/1.1 server answering every request with 200.
class OkServer {
public:
    explicit OkServer(std::chrono::milliseconds delay = std::chrono::milliseconds(0)) : delay_(delay) {
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
    long requests() const { return requests_; }

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
                    ++requests_;
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
};

}  // namespace tavrin::bench
