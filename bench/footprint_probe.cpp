// What configure adds to its host, printed without Google Benchmark, for
// targets that lack it (the arm64 cross build, run under qemu): threads,
// anonymous memory of the process, and the C library's heap in use. Under
// user-mode emulation the process is the emulator, whose translated code
// counts as anonymous memory too: there the heap figure is the one to read.
// footprint_bench measures the same natively.
#include <malloc.h>
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

    const auto heapKiB = [] {
        const auto info = mallinfo2();
        return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
    };
    const int threadsBefore = bench::threadCount();
    const long anonymousBefore = bench::rollupKb("Anonymous");
    const long heapBefore = heapKiB();
    TrackConfig config;
    config.trackDomain = "127.0.0.1:9";
    config.authorizationToken = "token";
    config.customProtocol = "http";
    config.enableOfflineTracking = true;
    TavrinService::configure(config);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // start-up work settles
    std::printf("sdk_threads %d\nconfigure_anon_KiB %ld\nconfigure_heap_KiB %ld\n",
                bench::threadCount() - threadsBefore, bench::rollupKb("Anonymous") - anonymousBefore,
                heapKiB() - heapBefore);
    TavrinService::shutdown(std::chrono::seconds(5));
    std::error_code ignored;
    fs::remove_all(root, ignored);
}
