// The SDK as an application sees it: the library's private memory after
// configure while idle (beside the process's total resident memory),
// configure returning to the caller, and submit of 50 properties to a
// loopback server, end to end.
#include <benchmark/benchmark.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/path_monitor.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"

namespace {

using namespace tavrin;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

class DiscardSink final : public platform::LogSink {
public:
    bool isEnabled(platform::LogType) const override { return true; }
    void write(const platform::LogRecord&) override {}
};

// Minimal keep-alive HTTP/1.1 server answering every request with 200.
class OkServer {
public:
    OkServer() {
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
                workers_.emplace_back([c] { serve(c); });
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

private:
    static void serve(int c) {
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

    int fd_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
};

// Always online, without a netlink socket of its own.
class OnlinePath final : public platform::PathMonitor {
public:
    void setUpdateHandler(UpdateHandler handler) override { handler_ = std::move(handler); }
    void start(platform::SerialQueue& queue) override {
        queue.async([handler = handler_] {
            if (handler) handler(platform::PathStatus::satisfied);
        });
    }
    void cancel() override {}

private:
    UpdateHandler handler_;
};

// Kilobytes of a field of /proc/self/smaps_rollup ("Rss", "Anonymous").
long rollupKb(const std::string& field) {
    std::ifstream in("/proc/self/smaps_rollup");
    std::string key;
    long value = 0;
    std::string unit;
    while (in >> key) {
        if (key == field + ":") {
            in >> value;
            return value;
        }
        std::getline(in, unit);
    }
    return -1;
}

struct Environment {
    Environment() {
        platform::SystemLog::setSink(std::make_shared<DiscardSink>());
        root = fs::temp_directory_path() / ("tavrin-sdk-bench-" + std::to_string(getpid()));
        fs::create_directories(root);
        platform::KeyValueStore::setDataDirectory(root.string());
        platform::PathMonitor::setFactory([]() -> std::shared_ptr<platform::PathMonitor> {
            return std::make_shared<OnlinePath>();
        });
        TavrinService::setLogLevel(LogLevel::warning);
    }
    ~Environment() {
        TavrinService::shutdown(std::chrono::seconds(5));
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    TrackConfig config() const {
        return TrackConfig{.trackDomain = "127.0.0.1:" + std::to_string(server.port()),
                           .container = "shop-app",
                           .environment = TrackConfig::Environment::live,
                           .version = "3",
                           .debugCode = std::nullopt,
                           .sessionTimeoutInSeconds = std::nullopt,
                           .authorizationToken = "token",
                           .customProtocol = "http",
                           .enableOfflineTracking = true,
                           .offlineTrackingTimeout = 86400};
    }

    fs::path root;
    OkServer server;
};

Environment& environment() {
    static Environment e;
    return e;
}

void reportMedian(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

// Runs first, in a process that has configured nothing yet.
void BM_PrivateMemoryAfterConfigureIdle(benchmark::State& state) {
    auto& env = environment();
    const long anonymousBefore = rollupKb("Anonymous");
    for (auto _ : state) {
        TavrinService::configure(env.config());
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // start-up resend and threads settle
    }
    const long anonymousAfter = rollupKb("Anonymous");
    state.counters["library_anon_KiB"] = static_cast<double>(anonymousAfter - anonymousBefore);
    state.counters["process_anon_KiB"] = static_cast<double>(anonymousAfter);
    state.counters["process_rss_KiB"] = static_cast<double>(rollupKb("Rss"));
}
BENCHMARK(BM_PrivateMemoryAfterConfigureIdle)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_Configure(benchmark::State& state) {
    auto& env = environment();
    const auto config = env.config();
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = Clock::now();
        TavrinService::configure(config);
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    reportMedian(state, micros);
    TavrinService::flush(std::chrono::seconds(5));
}
BENCHMARK(BM_Configure)->Iterations(200)->Unit(benchmark::kMicrosecond);

void BM_Submit50Properties(benchmark::State& state) {
    auto& env = environment();
    TavrinService::configure(env.config());
    auto tracking = TrackingService::shared();
    AnyValue::Dictionary properties{{"track", "pageview"}};
    for (int i = 0; i < 50; ++i) properties.emplace("property_" + std::to_string(i), "value " + std::to_string(i));
    std::vector<double> micros;
    for (auto _ : state) {
        state.PauseTiming();
        tracking->push(properties);
        TavrinService::flush(std::chrono::seconds(5));
        state.ResumeTiming();
        const auto start = Clock::now();
        tracking->submit().get();
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    reportMedian(state, micros);
}
BENCHMARK(BM_Submit50Properties)->Iterations(500)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
