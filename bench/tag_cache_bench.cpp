// Cost of adding debug tags: every push and submission adds one, on the push
// queue. Each figure includes applying the adds on the cache's queue.
#include <benchmark/benchmark.h>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace {

using tavrin::MemoryCacheUtility;
using tavrin::Tag;
using tavrin::TagCache;

Tag pushTag(const char* id = "AD01") {
    return Tag::makeInfo(id,
                         "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command: pageview | Data: "
                         R"({"page":"home","price":9.99,"track":"pageview"})",
                         1700000000000, true);
}

// Each add logs one info line; written to the system log, that line costs
// more than the add itself and is the logger's to measure. The benchmarks run
// at warning level unless they say otherwise.
void quietLog() { tavrin::LoggerUtility::shared().setLogLevel(tavrin::LogLevel::warning); }

void fill(std::int64_t count) {
    MemoryCacheUtility::resetShared();
    const Tag tag = pushTag();
    for (std::int64_t i = 0; i < count; ++i) TagCache::shared().addOrReplace(tag);
    MemoryCacheUtility::shared().drain();
}

void perAdd(benchmark::State& state, std::int64_t addsPerIteration) {
    state.counters["per_add"] = benchmark::Counter(static_cast<double>(state.iterations() * addsPerIteration),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// N adds into an empty cache: a flat cost per add makes the time linear in N.
void BM_AddsFromEmpty(benchmark::State& state) {
    quietLog();
    const Tag tag = pushTag();
    for (auto _ : state) {
        state.PauseTiming();
        MemoryCacheUtility::resetShared();
        state.ResumeTiming();
        for (std::int64_t i = 0; i < state.range(0); ++i) TagCache::shared().addOrReplace(tag);
        MemoryCacheUtility::shared().drain();
    }
    perAdd(state, state.range(0));
}
BENCHMARK(BM_AddsFromEmpty)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// 100 adds after N earlier ones (the list holds at most 1,000, so 10,000 means
// full and dropping). The refill before each batch is paused, but the heap it
// leaves behind is not: after 10,000 adds the first ones pay for it, so read
// the steady state from BM_AddsAtCapacity.
void addsWithCached(benchmark::State& state) {
    const Tag tag = pushTag();
    for (auto _ : state) {
        state.PauseTiming();
        fill(state.range(0));
        state.ResumeTiming();
        for (int i = 0; i < 100; ++i) TagCache::shared().addOrReplace(tag);
        MemoryCacheUtility::shared().drain();
    }
    perAdd(state, 100);
}
void BM_AddsWithCached(benchmark::State& state) {
    quietLog();
    addsWithCached(state);
}
BENCHMARK(BM_AddsWithCached)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Steady state of a process that never sends: the list full, every add
// dropping the oldest push tag. No pauses, so nothing but adds is timed.
void BM_AddsAtCapacity(benchmark::State& state) {
    quietLog();
    fill(TagCache::capacity);
    const Tag tag = pushTag();
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) TagCache::shared().addOrReplace(tag);
        MemoryCacheUtility::shared().drain();
    }
    perAdd(state, 100);
}
BENCHMARK(BM_AddsAtCapacity)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The start-up tag replaces its predecessor at the end of a list of N.
void BM_ReplaceStartUpTagWithCached(benchmark::State& state) {
    quietLog();
    const Tag init = pushTag("AI01");
    for (auto _ : state) {
        state.PauseTiming();
        fill(state.range(0));
        TagCache::shared().addOrReplace(init);
        MemoryCacheUtility::shared().drain();
        state.ResumeTiming();
        for (int i = 0; i < 100; ++i) TagCache::shared().addOrReplace(init);
        MemoryCacheUtility::shared().drain();
    }
    perAdd(state, 100);
}
BENCHMARK(BM_ReplaceStartUpTagWithCached)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same adds with the info line written to the default system log.
void BM_AddsWithCachedLoggingInfo(benchmark::State& state) {
    tavrin::LoggerUtility::shared().setLogLevel(tavrin::LogLevel::info);
    addsWithCached(state);
}
BENCHMARK(BM_AddsWithCachedLoggingInfo)->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
