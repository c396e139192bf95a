// What configure adds to its host, printed without Google Benchmark, for
// targets that lack it (the arm64 cross build, run under qemu): threads, and
// anonymous memory of the process. footprint_bench measures the same natively.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "bench/bench_support.h"
#include "tavrin/tavrin.h"

int main() {
    using namespace tavrin;
    namespace fs = std::filesystem;
    platform::SystemLog::setSink(std::make_shared<bench::DiscardSink>());
    const fs::path root = fs::temp_directory_path() / ("tavrin-footprint-probe-" + std::to_string(getpid()));
    fs::create_directories(root);
    platform::KeyValueStore::setDataDirectory(root.string());
    TavrinService::setLogLevel(LogLevel::warning);

    const int threadsBefore = bench::threadCount();
    const long anonymousBefore = bench::rollupKb("Anonymous");
    TrackConfig config;
    config.trackDomain = "127.0.0.1:9";
    config.authorizationToken = "token";
    config.customProtocol = "http";
    config.enableOfflineTracking = true;
    TavrinService::configure(config);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // start-up work settles
    std::printf("sdk_threads %d\nconfigure_anon_KiB %ld\n", bench::threadCount() - threadsBefore,
                bench::rollupKb("Anonymous") - anonymousBefore);
    TavrinService::shutdown(std::chrono::seconds(5));
    std::error_code ignored;
    fs::remove_all(root, ignored);
}
