#pragma once
// Pieces of the server-storm scenario. Submissions carry their id in their body: a data submission a custom
// property "stormD<number>", a consent report a vendor "stormC<number>" (a
// data submission may carry the stored vendors too, so its own id wins).

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cctype>
#include <fstream>
#include <string_view>

#include "tavrin/platform/system_log.h"
#include "tests/reliability/fault_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVRIN_STORM_SANITIZED 1
// From the sanitizer runtime (the compiler's header for it is not always installed).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace tavrin::testing {

enum class StormMode { ok, unavailable, hang, reset };

inline std::string stormId(char kind, int number) {
    char text[16];
    std::snprintf(text, sizeof text, "storm%c%06d", kind, number);
    return text;
}

// The id found in a text; the data id when both kinds occur.
inline std::string stormIdIn(std::string_view text) {
    for (const char* prefix : {"stormD", "stormC"})
        if (const auto at = text.find(prefix); at != std::string_view::npos) return std::string(text.substr(at, 12));
    return {};
}

struct Arrival {
    std::string id;
    bool resend = false;  // a cached data submission sent again (it carries the resend time)
    StormMode answer = StormMode::ok;
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
        thread_ = std::thread([this] { run(); });
    }
    ~StormServer() {
        stopping_ = true;
        thread_.join();
        for (const auto& connection : connections_) ::close(connection.fd);
        ::close(listenFd_);
    }

    int port() const { return port_; }
    void setMode(StormMode mode) { mode_ = mode; }
    std::vector<Arrival> arrivals() const {
        std::lock_guard lock(mutex_);
        return arrivals_;
    }

private:
    struct Connection {
        int fd;
        std::string received;
        bool answered = false;  // hung: only read until the client gives up
    };

    void run() {
        std::vector<pollfd> polled;
        while (!stopping_) {
            polled.assign({{listenFd_, POLLIN, 0}});
            for (const auto& connection : connections_) polled.push_back({connection.fd, POLLIN, 0});
            if (::poll(polled.data(), polled.size(), 50) < 0) continue;
            std::vector<Connection> kept;
            for (std::size_t i = 0; i < connections_.size(); ++i) {
                if (polled[i + 1].revents && !serve(connections_[i]))
                    ::close(connections_[i].fd);
                else
                    kept.push_back(std::move(connections_[i]));
            }
            connections_.swap(kept);
            for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
                connections_.push_back({fd, {}});
        }
    }

    // Reads what arrived; false when the connection is finished with.
    bool serve(Connection& connection) {
        char buffer[16384];
        for (ssize_t n; (n = ::read(connection.fd, buffer, sizeof buffer)) != 0;) {
            if (n < 0) return errno == EAGAIN || errno == EINTR;
            if (connection.answered) continue;
            std::string& received = connection.received;
            received.append(buffer, static_cast<std::size_t>(n));
            std::string head = received.substr(0, received.find("\r\n\r\n"));
            if (head.size() == received.size()) continue;
            for (auto& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            const auto at = head.find("\r\ncontent-length:");
            if (received.size() - head.size() - 4 < (at == std::string::npos ? 0 : std::stoul(head.substr(at + 17)))) continue;
            connection.answered = true;
            return answer(connection.fd, received.substr(head.size() + 4));
        }
        return false;
    }

    bool answer(int fd, const std::string& body) {
        const StormMode mode = mode_;
        {
            std::lock_guard lock(mutex_);
            if (arrivals_.size() == arrivals_.capacity()) throw std::length_error("more arrivals than the server holds");
            arrivals_.push_back({stormIdIn(body), body.find("\"app_offline_resend_timestamp\"") != std::string::npos, mode});
        }
        if (mode == StormMode::hang) return true;
        if (mode == StormMode::reset) {
            const linger abort{1, 0};  // close with RST instead of FIN
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            return false;
        }
        const std::string_view reply = mode == StormMode::ok
            ? "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
            : "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nRetry-After: 1\r\nConnection: close\r\n\r\n";
        (void)!::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        ::shutdown(fd, SHUT_WR);
        return true;  // closed once the client has read the answer and closed its end
    }

    int listenFd_ = -1, port_ = 0;
    std::atomic<StormMode> mode_{StormMode::ok};
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
// blocks held back on purpose, so the heap in use is what can show growth.
inline std::size_t memoryInUse() {
#ifdef TAVRIN_STORM_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    std::ifstream statm("/proc/self/statm");
    std::size_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
#endif
}

}  // namespace tavrin::testing
