// Cost of push: what the caller pays, and the work on the processing queue.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"

namespace {

using tavrin::AnyValue;
using tavrin::TrackingService;
using Internals = tavrin::detail::TrackingServiceInternals;
using Clock = std::chrono::steady_clock;

// Lines are built as at the default level (info) but go nowhere, so the
// figures are the SDK's and not the system logger's.
class DiscardingSink final : public tavrin::platform::LogSink {
public:
    bool isEnabled(tavrin::platform::LogType) const override { return true; }
    void write(const tavrin::platform::LogRecord&) override {}
};

// A configured SDK on a scratch store directory, built once per process.
std::shared_ptr<TrackingService> service() {
    static const auto instance = [] {
        char pattern[] = "/tmp/tavrin-bench-XXXXXX";
        const char* dir = mkdtemp(pattern);
        tavrin::platform::KeyValueStore::setDataDirectory(std::filesystem::path(dir));
        tavrin::platform::SystemLog::setSink(std::make_shared<DiscardingSink>());
        tavrin::platform::DeviceFacts::setScreenBounds(tavrin::platform::ScreenBounds{390, 844});
        tavrin::TrackingSettings::configure(tavrin::TrackConfig{.trackDomain = "collect.example.com",
                                                                .container = "shop-app",
                                                                .environment = tavrin::TrackConfig::Environment::live,
                                                                .version = "3",
                                                                .debugCode = "dbg",
                                                                .sessionTimeoutInSeconds = std::nullopt,
                                                                .authorizationToken = "",
                                                                .customProtocol = std::nullopt,
                                                                .enableOfflineTracking = false,
                                                                .offlineTrackingTimeout = 3600});
        return tavrin::detail::TrackingServiceInternals::initialize(nullptr);
    }();
    return instance;
}

AnyValue::Dictionary tenPropertyPush() {
    return {{"track", "pageview"},
            {"type", "view"},
            {"page_title", "Running shoes | Shop"},
            {"page_category", "shoes"},
            {"price", 89.95},
            {"quantity", 2},
            {"in_stock", true},
            {"discount", 0.15},
            {"sku_list", AnyValue::Array{"RS-1001", "RS-1002", "RS-1003"}},
            {"user_segment", "returning"}};
}

// Empties the stores as a submission and a monitor report would.
void drainStores(const TrackingService& s) {
    Internals::waitForPendingPushes(s);
    tavrin::MemoryCacheUtility::resetShared();
}

void reportPercentiles(benchmark::State& state, std::vector<double>& samples) {
    if (samples.empty()) return;
    std::sort(samples.begin(), samples.end());
    state.counters["p50_ns"] = samples[samples.size() / 2];
    state.counters["p99_ns"] = samples[samples.size() * 99 / 100];
}

// push() as the caller sees it, in bursts of 100 back to back while the queue
// works through the earlier ones. Each push is timed on its own.
void BM_PushCallerBurst(benchmark::State& state) {
    const auto s = service();
    constexpr int kBurst = 100;
    std::vector<double> samples;
    std::vector<AnyValue::Dictionary> pushes;
    // Our own count: State::iterations() reads 0 inside the loop.
    std::int64_t bursts = 0;
    for (auto _ : state) {
        state.PauseTiming();
        pushes.assign(kBurst, tenPropertyPush());
        state.ResumeTiming();
        Clock::duration total{};
        for (auto& push : pushes) {
            const auto start = Clock::now();
            s->push(std::move(push));
            const auto took = Clock::now() - start;
            total += took;
            samples.push_back(std::chrono::duration<double, std::nano>(took).count());
        }
        state.SetIterationTime(std::chrono::duration<double>(total).count());
        state.PauseTiming();
        if (++bursts % 10 == 0) drainStores(*s);
        state.ResumeTiming();
    }
    drainStores(*s);
    state.SetItemsProcessed(state.iterations() * kBurst);
    reportPercentiles(state, samples);
}
BENCHMARK(BM_PushCallerBurst)->UseManualTime()->Unit(benchmark::kMicrosecond);

// One push on an idle queue: the caller also pays for waking its thread.
void BM_PushCallerIsolated(benchmark::State& state) {
    const auto s = service();
    std::vector<double> samples;
    std::int64_t pushes = 0;
    for (auto _ : state) {
        auto push = tenPropertyPush();
        Internals::waitForPendingPushes(*s);
        const auto start = Clock::now();
        s->push(std::move(push));
        const auto took = Clock::now() - start;
        state.SetIterationTime(std::chrono::duration<double>(took).count());
        samples.push_back(std::chrono::duration<double, std::nano>(took).count());
        if (++pushes % 1000 == 0) drainStores(*s);
    }
    drainStores(*s);
    reportPercentiles(state, samples);
}
BENCHMARK(BM_PushCallerIsolated)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The queue's work for one push (conversion, device facts, order, id, store,
// tag), run on this thread. The tag list is emptied every `range(0)` pushes, as the
// monitor does after each submission.
void BM_PushProcessing(benchmark::State& state) {
    const auto s = service();
    const auto pushesPerReport = state.range(0);
    const auto push = tenPropertyPush();
    auto& cache = tavrin::MemoryCacheUtility::shared();
    std::int64_t pushes = 0;
    for (auto _ : state) {
        Internals::processPush(*s, push);
        ++pushes;
        if (pushes % pushesPerReport == 0) cache.remove(tavrin::TagCache::shared().userDefaultsKey);
        if (pushes % 10000 == 0) {
            state.PauseTiming();
            drainStores(*s);
            state.ResumeTiming();
        }
    }
    drainStores(*s);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PushProcessing)->Arg(10)->Arg(100);

// Pushes through the queue, end to end and by the wall clock: 1,000 pushes
// and the wait until the queue has stored them and the cache applied them.
void BM_PushThroughQueue(benchmark::State& state) {
    const auto s = service();
    constexpr int kBatch = 1000;
    std::vector<AnyValue::Dictionary> pushes;
    auto& cache = tavrin::MemoryCacheUtility::shared();
    for (auto _ : state) {
        state.PauseTiming();
        pushes.assign(kBatch, tenPropertyPush());
        state.ResumeTiming();
        for (int i = 0; i < kBatch; ++i) {
            s->push(std::move(pushes[i]));
            if (i % 10 == 9) cache.remove(tavrin::TagCache::shared().userDefaultsKey);
        }
        Internals::waitForPendingPushes(*s);
        cache.drain();
        state.PauseTiming();
        drainStores(*s);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_PushThroughQueue)->UseRealTime()->Unit(benchmark::kMillisecond);

// Kilobytes of /proc/self/status's `field` ("VmRSS", "VmHWM").
long statusKb(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::atol(line.c_str() + std::strlen(field) + 1);
    return -1;
}

// A host that pushes 200,000 times 1 KB and never submits: the push limits
// bound what waits and what is kept. rss_growth_MB is the peak resident size
// during the run over the size before it (budget: under 64 MB).
void BM_PushWithoutSubmitMemory(benchmark::State& state) {
    const auto s = service();
    drainStores(*s);
    const std::string kilobyte(1000, 'k');
    for (auto _ : state) {
        std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts from here
        const long before = statusKb("VmRSS");
        for (int i = 0; i < 200'000; ++i) s->push({{"track", "pageview"}, {"i", i}, {"blob", kilobyte}});
        Internals::waitForPendingPushes(*s);
        state.counters["rss_growth_MB"] = static_cast<double>(statusKb("VmHWM") - before) / 1024;
        state.counters["kept"] = static_cast<double>(tavrin::MemoryCacheUtility::shared().getPushPayloads().size());
        state.counters["dropped"] = static_cast<double>(TrackingService::droppedPushCount());
        drainStores(*s);
    }
}
BENCHMARK(BM_PushWithoutSubmitMemory)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
