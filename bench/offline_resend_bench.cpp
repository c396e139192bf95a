// The offline cache on disk: the resend walk of 1,000 cached 3 KB data
// submissions to a loopback server answering at once or after 50 ms (time,
// and bytes the process wrote to storage during it), the bytes written to
// storage per cached request from caching to removal, and adding one request
// to a full cache.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "tavrin/model/internal/data_submission_model.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/linux/sqlite_key_value_store.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/transport/internal/offline_cache_manager.h"
#include "tavrin/transport/internal/service.h"

namespace {

using namespace tavrin;
namespace fs = std::filesystem;

constexpr int kCached = 1000;

using bench::DiscardSink;
using bench::OkServer;

// Bytes this process has caused to be written to storage.
long long storageBytesWritten() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long long value = 0;
    while (io >> key >> value)
        if (key == "write_bytes:") return value;
    return -1;
}

Bytes submissionBody(int index) {
    DataSubmissionModel model;
    model.version = "3";
    model.system = {.type = "sdk-ios",
                    .timestamp = 1731667200123,
                    .navigatorUserAgent = "Agent/1.0",
                    .initiator = "tvr_push_submit"};
    model.configuration = {.container = "shop-app", .environment = "live", .version = "7", .debugcode = std::nullopt};
    model.data.identifier = {.user = {.id = "4821", .action = "update"}, .session = {.id = "77", .action = "new"}};
    model.data.variables.customProperties = {{"index", CodableValue::integer(index)},
                                             {"pad", CodableValue::string(std::string(2700, 'x'))}};
    return platform::toBytes(encodeJsonText(model));  // about 3 KB
}

struct Environment {
    Environment() {
        platform::SystemLog::setSink(std::make_shared<DiscardSink>());
        root = fs::temp_directory_path() / ("tavrin-bench-" + std::to_string(getpid()));
        fs::create_directories(root / "template");
        platform::KeyValueStore::setDataDirectory((root / "settings").string());
        // The template database: 1,000 cached submissions, written once.
        auto store = std::make_shared<platform::SqliteKeyValueStore>(root / "template" / "db.sqlite");
        OfflineCache cache(store);
        for (int i = 0; i < kCached; ++i)
            cache.add(OfflineCache::Request{OfflineCache::RequestType::dataSubmission, submissionBody(i),
                                            platform::Clock::now(), 0});
        cache.drain();
    }
    ~Environment() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    // A fresh copy of the template, as a launch with a full cache finds it.
    fs::path copy(const std::string& name) {
        const auto directory = root / name;
        fs::remove_all(directory);
        fs::create_directories(directory);
        fs::copy_file(root / "template" / "db.sqlite", directory / "db.sqlite");
        return directory / "db.sqlite";
    }
    fs::path root;
};

Environment& environment() {
    static Environment env;
    return env;
}

TrackConfig benchConfig(int port) {
    return TrackConfig{.trackDomain = "127.0.0.1:" + std::to_string(port),
                       .container = "shop-app",
                       .environment = TrackConfig::Environment::live,
                       .version = std::nullopt,
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = std::nullopt,
                       .authorizationToken = "token",
                       .customProtocol = "http",
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = 86400};
}

// Argument: milliseconds the server takes per answer.
void BM_ResendWalkOf1000Cached3KBSubmissions(benchmark::State& state) {
    auto& env = environment();
    OkServer server{std::chrono::milliseconds(state.range(0))};
    auto client = std::make_shared<platform::CurlHttpClient>();
    TrackingSettings::configure(benchConfig(server.port()));
    double writtenMB = 0, walDbMB = 0;
    int runs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const auto file = env.copy("walk");
        auto store = std::make_shared<platform::SqliteKeyValueStore>(file);
        auto manager = std::make_shared<OfflineCacheManager>(std::make_shared<OfflineCache>(store));
        auto service = std::make_shared<Service>(client, TrackingSettings::shared(), manager);
        manager->setService(service);
        manager->configure(true, 86400);
        if (manager->offlineCache().entries().size() != kCached) state.SkipWithError("template not loaded");
        const long long before = storageBytesWritten();
        state.ResumeTiming();
        manager->resendCachedRequests().get();
        manager->offlineCache().drain();
        state.PauseTiming();
        writtenMB += static_cast<double>(storageBytesWritten() - before) / 1e6;
        if (!manager->offlineCache().entries().empty()) state.SkipWithError("requests left in the cache");
        std::error_code ec;
        walDbMB +=
            static_cast<double>(fs::file_size(file, ec) + fs::file_size(fs::path(file.string() + "-wal"), ec)) / 1e6;
        ++runs;
        manager->shutdown(std::chrono::seconds(1));
        state.ResumeTiming();
    }
    state.counters["written_MB"] = writtenMB / runs;
    state.counters["db_and_wal_MB"] = walDbMB / runs;
    state.counters["delivered"] = static_cast<double>(server.requests()) / runs;
    client->shutdown();
}
BENCHMARK(BM_ResendWalkOf1000Cached3KBSubmissions)
    ->Arg(0)
    ->Arg(50)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Storage written per cached 3 KB request, from caching it to removing it
// after delivery: 1,000 requests cached one at a time (argument 0: each
// waits until the previous one is durable) or arriving together (1: a burst
// of submissions during an outage), then resent to a loopback server.
void BM_StorageWrittenPerCachedRequest(benchmark::State& state) {
    auto& env = environment();
    OkServer server;
    auto client = std::make_shared<platform::CurlHttpClient>();
    TrackingSettings::configure(benchConfig(server.port()));
    std::vector<Bytes> bodies;
    for (int i = 0; i < kCached; ++i) bodies.push_back(submissionBody(i));
    const bool together = state.range(0) == 1;
    double cachingKB = 0, removingKB = 0;
    int runs = 0;
    for (auto _ : state) {
        const auto directory = env.root / ("storage-" + std::to_string(runs));
        fs::remove_all(directory);
        auto store = std::make_shared<platform::SqliteKeyValueStore>(directory / "db.sqlite");
        auto manager = std::make_shared<OfflineCacheManager>(std::make_shared<OfflineCache>(store));
        auto service = std::make_shared<Service>(client, TrackingSettings::shared(), manager);
        manager->setService(service);
        manager->configure(true, 86400);
        manager->offlineCache().drain();
        const long long start = storageBytesWritten();
        if (together) {
            std::atomic<int> left{kCached};
            std::promise<void> all;
            for (const auto& body : bodies)
                manager->cacheRequest(OfflineCache::RequestType::dataSubmission, body, [&] {
                    if (--left == 0) all.set_value();
                });
            all.get_future().wait();
        } else {
            for (const auto& body : bodies) {
                std::promise<void> durable;
                manager->cacheRequest(OfflineCache::RequestType::dataSubmission, body, [&] { durable.set_value(); });
                durable.get_future().wait();
            }
        }
        const long long cachedAt = storageBytesWritten();
        manager->resendCachedRequests().get();
        manager->offlineCache().drain();
        if (!manager->offlineCache().entries().empty()) state.SkipWithError("requests left in the cache");
        cachingKB += static_cast<double>(cachedAt - start) / 1e3 / kCached;
        removingKB += static_cast<double>(storageBytesWritten() - cachedAt) / 1e3 / kCached;
        ++runs;
        manager->shutdown(std::chrono::seconds(1));
    }
    state.counters["caching_KB_per_request"] = cachingKB / runs;
    state.counters["removing_KB_per_request"] = removingKB / runs;
    state.counters["total_KB_per_request"] = (cachingKB + removingKB) / runs;
    client->shutdown();
}
BENCHMARK(BM_StorageWrittenPerCachedRequest)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// One durable addition to a full cache (the oldest request is dropped).
void BM_AddOneRequestWith1000Cached(benchmark::State& state) {
    auto& env = environment();
    auto store = std::make_shared<platform::SqliteKeyValueStore>(env.copy("add"));
    OfflineCache cache(store);
    if (cache.entries().size() != kCached) state.SkipWithError("template not loaded");
    const Bytes body = submissionBody(0);
    for (auto _ : state) {
        std::promise<void> durable;
        cache.add(OfflineCache::Request{OfflineCache::RequestType::dataSubmission, body, platform::Clock::now(), 0},
                  [&] { durable.set_value(); });
        durable.get_future().wait();
    }
}
BENCHMARK(BM_AddOneRequestWith1000Cached)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
