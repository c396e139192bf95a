// The SDK as an application sees it: the library's private memory after
// configure while idle (beside the process's total resident memory),
// configure returning to the caller, submit of 50 properties to a loopback
// server, end to end, and 10,000 submissions made back to back (peak resident
// memory, CPU per submission).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"

namespace {

using namespace tavrin;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

using bench::DiscardSink;
using bench::OkServer;

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

struct Environment {
    Environment() {
        platform::SystemLog::setSink(std::make_shared<DiscardSink>());
        root = fs::temp_directory_path() / ("tavrin-sdk-bench-" + std::to_string(getpid()));
        fs::create_directories(root);
        platform::KeyValueStore::setDataDirectory(root.string());
        platform::PathMonitor::setFactory(
            []() -> std::shared_ptr<platform::PathMonitor> { return std::make_shared<OnlinePath>(); });
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
    const long anonymousBefore = bench::rollupKb("Anonymous");
    for (auto _ : state) {
        TavrinService::configure(env.config());
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // start-up resend and threads settle
    }
    const long anonymousAfter = bench::rollupKb("Anonymous");
    state.counters["library_anon_KiB"] = static_cast<double>(anonymousAfter - anonymousBefore);
    state.counters["process_anon_KiB"] = static_cast<double>(anonymousAfter);
    state.counters["process_rss_KiB"] = static_cast<double>(bench::rollupKb("Rss"));
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

long statusKb(const std::string& field) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    return -1;
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// 10,000 submissions made as fast as the host can call submit, each with a
// push of ten properties, delivered to a loopback server in a child process
// (its memory and CPU are not the host's). Peak resident memory is measured from the start of
// the burst (the kernel's high-water mark is reset first).
void BM_10000SubmissionsBackToBack(benchmark::State& state) {
    auto& env = environment();
    bench::ChildOkServer server;
    if (server.port() == 0) state.SkipWithError("the server did not start");
    auto config = env.config();
    config.trackDomain = "127.0.0.1:" + std::to_string(server.port());
    TavrinService::configure(config);
    TavrinService::flush(std::chrono::seconds(5));
    auto tracking = TrackingService::shared();
    AnyValue::Dictionary properties{{"track", "pageview"}};
    for (int i = 0; i < 9; ++i) properties.emplace("property_" + std::to_string(i), "value " + std::to_string(i));
    constexpr int kSubmissions = 10000;
    double peakMB = 0, startMB = 0, cpuUs = 0;
    long delivered = 0;
    for (auto _ : state) {
        const long before = server.requests();
        std::ofstream("/proc/self/clear_refs") << "5";
        startMB = static_cast<double>(statusKb("VmRSS")) / 1024;
        const double cpuBefore = processCpuSeconds();
        std::vector<std::future<void>> sent;
        sent.reserve(kSubmissions);
        for (int i = 0; i < kSubmissions; ++i) {
            tracking->push(properties);
            sent.push_back(tracking->submit());
        }
        for (auto& future : sent) future.get();
        cpuUs = (processCpuSeconds() - cpuBefore) * 1e6 / kSubmissions;
        peakMB = static_cast<double>(statusKb("VmHWM")) / 1024;
        // A submission whose send failed completes once cached: count what arrived.
        delivered = server.requests() - before;
    }
    if (delivered != kSubmissions) state.SkipWithError("not every submission reached the server");
    state.counters["delivered"] = static_cast<double>(delivered);
    state.counters["peak_rss_MB"] = peakMB;
    state.counters["rss_at_start_MB"] = startMB;
    state.counters["cpu_us_per_submission"] = cpuUs;
}
BENCHMARK(BM_10000SubmissionsBackToBack)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
