// What the SDK costs a small board: the threads and the anonymous memory that
// configure adds (with the real network monitor), the size of a stripped
// minimal host linked statically, and push processing as a host sees it:
// 50,000 ten-property pushes, then submit() until its future completes, by
// the wall clock.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "bench/bench_support.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"

namespace {

using namespace tavrin;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

long fileBytes(const char* path) {
    struct stat info {};
    return ::stat(path, &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

struct Environment {
    Environment() {
        platform::SystemLog::setSink(std::make_shared<bench::DiscardSink>());
        root = fs::temp_directory_path() / ("tavrin-footprint-bench-" + std::to_string(getpid()));
        fs::create_directories(root);
        platform::KeyValueStore::setDataDirectory(root.string());
        TavrinService::setLogLevel(LogLevel::warning);
    }
    ~Environment() {
        TavrinService::shutdown(std::chrono::seconds(5));
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    TrackConfig config(int port) const {
        TrackConfig config;
        config.trackDomain = "127.0.0.1:" + std::to_string(port);
        config.authorizationToken = "token";
        config.customProtocol = "http";
        config.enableOfflineTracking = true;
        return config;
    }
    fs::path root;
};

Environment& environment() {
    static Environment e;
    return e;
}

// Runs first, in a process that has configured nothing yet.
void BM_ConfigureFootprint(benchmark::State& state) {
    auto& env = environment();
    const int threadsBefore = bench::threadCount();
    const long anonymousBefore = bench::rollupKb("Anonymous");
    for (auto _ : state) {
        TavrinService::configure(env.config(9));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));  // start-up work settles
    }
    state.counters["sdk_threads"] = bench::threadCount() - threadsBefore;
    state.counters["configure_anon_KiB"] = static_cast<double>(bench::rollupKb("Anonymous") - anonymousBefore);
    state.counters["minimal_host_stripped_KB"] = static_cast<double>(fileBytes(TAVRIN_MINIMAL_HOST)) / 1000;
    state.counters["static_library_KB"] = static_cast<double>(fileBytes(TAVRIN_STATIC_LIBRARY)) / 1000;
}
BENCHMARK(BM_ConfigureFootprint)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_50000PushesThenSubmit(benchmark::State& state) {
    auto& env = environment();
    bench::OkServer server;
    TavrinService::configure(env.config(server.port()));
    TavrinService::flush(std::chrono::seconds(5));
    TrackingService::setPushLimits({.maxPushes = 50'000, .maxBytes = 256u << 20});
    auto tracking = TrackingService::shared();
    AnyValue::Dictionary properties{{"track", "pageview"}};
    for (int i = 0; i < 9; ++i) properties.emplace("property_" + std::to_string(i), "value " + std::to_string(i));
    constexpr int kPushes = 50'000;
    double seconds = 0, callSeconds = 0, processingSeconds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int i = 0; i < kPushes; ++i) tracking->push(properties);
        const auto pushed = Clock::now();
        // submit() waits for this itself: waiting first only splits the time.
        detail::TrackingServiceInternals::waitForPendingPushes(*tracking);
        const auto processed = Clock::now();
        tracking->submit().get();
        const auto end = Clock::now();
        seconds += std::chrono::duration<double>(end - start).count();
        callSeconds += std::chrono::duration<double>(pushed - start).count();
        processingSeconds += std::chrono::duration<double>(processed - pushed).count();
    }
    const double runs = static_cast<double>(state.iterations());
    state.counters["pushes_per_second"] = kPushes * runs / seconds;
    // Where the time went: the push calls, the processing still waiting
    // after them, and submit() once every push was processed.
    state.counters["calls_ms"] = 1000 * callSeconds / runs;
    state.counters["processing_after_calls_ms"] = 1000 * processingSeconds / runs;
    state.counters["submit_ms"] = 1000 * (seconds - callSeconds - processingSeconds) / runs;
    TrackingService::setPushLimits({});
}
BENCHMARK(BM_50000PushesThenSubmit)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
