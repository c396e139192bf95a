#pragma once
// Pieces of the server-storm scenario:
// - StormServer: one loopback port whose behaviour is switched while clients
//   use it: answer 200, answer 503, accept and never answer, or reset the
//   connection. It records which submission each request carried and what it
//   was answered, and closes every connection after its one request, so a
//   client never retries a request on a reused connection and one send is one
//   arrival here.
// - StormLogWatch: a log sink that keeps only what the scenario counts (which
//   submissions were cached, finished resend walks, discards), so the log
//   does not grow the memory being measured.
// - OperationWatch: watches the futures of the host's calls and times them.
// - memory probes.
//
// Submissions carry their id in their body: a data submission a custom
// property "stormD<number>", a consent report a vendor "stormC<number>" (a
// data submission may carry the stored vendors too, so its own id wins).

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tavrin/platform/system_log.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVRIN_STORM_SANITIZED 1
// From the sanitizer runtime (the compiler's header for it is not always installed).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace tavrin::testing {

using StormClock = std::chrono::steady_clock;

enum class StormMode { ok, unavailable, hang, reset };

inline const char* stormModeName(StormMode mode) {
    switch (mode) {
        case StormMode::ok: return "200";
        case StormMode::unavailable: return "503";
        case StormMode::hang: return "hang";
        case StormMode::reset: return "reset";
    }
    return "?";
}

// "stormD000012" or "stormC000003" found in a text; the data id when both occur.
inline std::string stormIdIn(std::string_view text) {
    for (const char* prefix : {"stormD", "stormC"}) {
        const auto at = text.find(prefix);
        if (at == std::string_view::npos) continue;
        std::size_t end = at + 6;
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
        return std::string(text.substr(at, end - at));
    }
    return {};
}

inline std::string stormId(char kind, int number) {
    char text[32];
    std::snprintf(text, sizeof text, "storm%c%06d", kind, number);
    return text;
}

struct Arrival {
    std::string id;
    bool resend = false;  // a cached data submission sent again (it carries the resend time)
    StormMode answer = StormMode::ok;
    StormClock::time_point at{};
};

class StormServer {
public:
    StormServer() {
        listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0 || listen(listenFd_, 256) != 0)
            throw std::runtime_error("storm server could not listen");
        port_ = ntohs(address.sin_port);
        wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        arrivals_.resize(kCapacity);  // touched now, so recording adds no resident memory later
        thread_ = std::thread([this] { run(); });
    }
    ~StormServer() {
        stopping_ = true;
        wake();
        thread_.join();
        for (auto& connection : connections_) close(connection.fd);
        close(listenFd_);
        close(wakeFd_);
    }
    StormServer(const StormServer&) = delete;
    StormServer& operator=(const StormServer&) = delete;

    int port() const { return port_; }
    void setMode(StormMode mode) { mode_ = mode; }
    StormMode mode() const { return mode_; }

    std::vector<Arrival> arrivals() const {
        std::lock_guard lock(mutex_);
        return {arrivals_.begin(), arrivals_.begin() + static_cast<std::ptrdiff_t>(count_)};
    }
    // Arrivals beyond the capacity recorded ahead are counted, not kept.
    std::size_t dropped() const {
        std::lock_guard lock(mutex_);
        return dropped_;
    }

private:
    struct Connection {
        int fd;
        std::string received;
        bool answered = false;  // a hung request: only reading until the client gives up
    };

    void wake() {
        const std::uint64_t one = 1;
        (void)!write(wakeFd_, &one, sizeof one);
    }

    void run() {
        std::vector<pollfd> polled;
        while (!stopping_) {
            polled.clear();
            polled.push_back({wakeFd_, POLLIN, 0});
            polled.push_back({listenFd_, POLLIN, 0});
            for (const auto& connection : connections_) polled.push_back({connection.fd, POLLIN, 0});
            if (poll(polled.data(), polled.size(), 200) < 0) continue;
            if (polled[0].revents) {
                std::uint64_t count;
                (void)!read(wakeFd_, &count, sizeof count);
            }
            if (polled[1].revents)
                for (int fd; (fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
                    connections_.push_back({fd, {}});
            // Connections accepted just now were not polled: they come after the polled ones.
            std::vector<Connection> kept;
            for (std::size_t i = 0; i < connections_.size(); ++i) {
                auto& connection = connections_[i];
                const bool ready = i + 2 < polled.size() && polled[i + 2].revents != 0;
                if (ready && !serve(connection)) {
                    close(connection.fd);
                    continue;
                }
                kept.push_back(std::move(connection));
            }
            connections_.swap(kept);
        }
    }

    // Reads what arrived; false when the connection is finished with.
    bool serve(Connection& connection) {
        char buffer[16384];
        for (;;) {
            const ssize_t n = read(connection.fd, buffer, sizeof buffer);
            if (n == 0) return false;
            if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
            if (connection.answered) continue;
            connection.received.append(buffer, static_cast<std::size_t>(n));
            const auto headEnd = connection.received.find("\r\n\r\n");
            if (headEnd == std::string::npos) continue;
            const std::size_t bodyStart = headEnd + 4;
            if (connection.received.size() - bodyStart < contentLength(connection.received.substr(0, headEnd)))
                continue;
            connection.answered = true;
            return answer(connection, connection.received.substr(bodyStart));
        }
    }

    static std::size_t contentLength(std::string head) {
        for (auto& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const auto at = head.find("\r\ncontent-length:");
        return at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 17, nullptr, 10);
    }

    bool answer(Connection& connection, const std::string& body) {
        const StormMode mode = mode_;
        {
            std::lock_guard lock(mutex_);
            if (count_ < arrivals_.size())
                arrivals_[count_++] = {stormIdIn(body), body.find("\"app_offline_resend_timestamp\"") != std::string::npos,
                                       mode, StormClock::now()};
            else
                ++dropped_;
        }
        connection.received = std::string();
        switch (mode) {
            case StormMode::ok:
            case StormMode::unavailable: {
                const std::string_view reply = mode == StormMode::ok
                    ? "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
                    : "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nRetry-After: 1\r\nConnection: close\r\n\r\n";
                (void)!send(connection.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
                shutdown(connection.fd, SHUT_WR);
                return true;  // closed when the client has read the answer and closes its end
            }
            case StormMode::hang:
                return true;
            case StormMode::reset: {
                const linger abort{1, 0};  // close with RST instead of FIN
                setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                return false;
            }
        }
        return false;
    }

    int listenFd_ = -1;
    int wakeFd_ = -1;
    int port_ = 0;
    std::atomic<StormMode> mode_{StormMode::ok};
    std::atomic<bool> stopping_{false};
    std::vector<Connection> connections_;  // the server thread's
    static constexpr std::size_t kCapacity = 20000;
    mutable std::mutex mutex_;
    std::vector<Arrival> arrivals_;
    std::size_t count_ = 0, dropped_ = 0;
    std::thread thread_;
};

// Counts the log lines the scenario follows; everything else is dropped.
class StormLogWatch final : public platform::LogSink {
public:
    StormLogWatch() { cachedIds_.resize(kCapacity); }

    bool isEnabled(platform::LogType type) const override { return type != platform::LogType::debug; }
    void write(const platform::LogRecord& record) override {
        const std::string_view message = record.message;
        std::lock_guard lock(mutex_);
        if (message.starts_with("Caching request payload: ")) {
            if (cachedCount_ < cachedIds_.size()) cachedIds_[cachedCount_] = stormIdIn(message);
            ++cachedCount_;
        } else if (message == "Cached requests successfully resent after regaining network connectivity." ||
                   message == "Cached requests successfully resent.") {
            ++walksDone_;
        } else if (message.find("exceeded maximum retries and will be discarded.") != std::string_view::npos) {
            ++discards_;
        }
        changed_.notify_all();
    }

    // Ids of the cached requests; an empty id for each one beyond the capacity.
    std::vector<std::string> cachedIds() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> ids(cachedIds_.begin(), cachedIds_.begin() + static_cast<std::ptrdiff_t>(std::min(cachedCount_, cachedIds_.size())));
        ids.resize(cachedCount_);
        return ids;
    }
    int walksDone() const {
        std::lock_guard lock(mutex_);
        return walksDone_;
    }
    int discards() const {
        std::lock_guard lock(mutex_);
        return discards_;
    }
    bool waitForWalks(int count, std::chrono::milliseconds timeout) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return walksDone_ >= count; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    static constexpr std::size_t kCapacity = 5000;
    std::vector<std::string> cachedIds_;  // recorded ahead, as the server's arrivals
    std::size_t cachedCount_ = 0;
    int walksDone_ = 0;
    int discards_ = 0;
};

// The futures of the host's calls, polled by one thread that notes when each
// completed and how. The records are laid out ahead (ids and phases are short
// enough to live inside their strings), so watching adds no memory later.
class OperationWatch {
public:
    struct Operation {
        std::string id;     // at most 15 characters
        std::string phase;  // at most 15 characters
        bool live = false;  // made by the host's own loop, not by the driver
        StormClock::time_point started{};
        std::chrono::milliseconds took{-1};  // until the future completed; -1 while it has not
        bool failed = false;
        char error[96] = {};  // the start of the error's description
    };

    OperationWatch() {
        operations_.resize(kCapacity);
        pending_.reserve(kCapacity);
        still_.reserve(kCapacity);
        thread_ = std::thread([this] { run(); });
    }
    ~OperationWatch() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

    template <class T>
    void add(std::string id, std::string phase, bool live, StormClock::time_point started, std::future<T> future) {
        auto shared = std::make_shared<std::future<T>>(std::move(future));
        std::lock_guard lock(mutex_);
        if (count_ == operations_.size()) throw std::length_error("more calls than the watch holds");
        auto& operation = operations_[count_];
        operation.id = std::move(id);
        operation.phase = std::move(phase);
        operation.live = live;
        operation.started = started;
        pending_.push_back({count_++, [shared] { return shared->wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
                            [shared] { shared->get(); }});
    }

    std::size_t outstanding() const {
        std::lock_guard lock(mutex_);
        return pending_.size();
    }
    bool waitAllDone(std::chrono::milliseconds timeout) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return pending_.empty(); });
    }
    std::vector<Operation> operations() const {
        std::lock_guard lock(mutex_);
        return {operations_.begin(), operations_.begin() + static_cast<std::ptrdiff_t>(count_)};
    }

private:
    static constexpr std::size_t kCapacity = 20000;

    struct Pending {
        std::size_t index;
        std::function<bool()> ready;
        std::function<void()> get;
    };

    void run() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            const auto now = StormClock::now();
            still_.clear();
            for (auto& pending : pending_) {
                if (!pending.ready()) {
                    still_.push_back(std::move(pending));
                    continue;
                }
                auto& operation = operations_[pending.index];
                operation.took = std::chrono::duration_cast<std::chrono::milliseconds>(now - operation.started);
                try {
                    pending.get();
                } catch (const std::exception& e) {
                    operation.failed = true;
                    std::snprintf(operation.error, sizeof operation.error, "%s", e.what());
                } catch (...) {
                    operation.failed = true;
                    std::snprintf(operation.error, sizeof operation.error, "unknown");
                }
            }
            pending_.swap(still_);
            changed_.notify_all();
            changed_.wait_for(lock, std::chrono::milliseconds(5), [&] { return stopping_; });
        }
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Operation> operations_;
    std::size_t count_ = 0;
    std::vector<Pending> pending_, still_;
    bool stopping_ = false;
    std::thread thread_;
};

// Resident memory of the process, from /proc/self/statm.
inline std::size_t residentBytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t size = 0, resident = 0;
    statm >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Under a sanitizer the resident size is mostly shadow memory and freed blocks
// held back on purpose (quarantine), so the heap in use is what can show
// growth; without one it is the resident size.
inline bool measuresResidentMemory() {
#ifdef TAVRIN_STORM_SANITIZED
    return false;
#else
    return true;
#endif
}

inline std::size_t memoryInUse() {
#ifdef TAVRIN_STORM_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    return residentBytes();
#endif
}

}  // namespace tavrin::testing
