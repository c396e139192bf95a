// Cost of turning one pushed dictionary into typed properties.
#include <benchmark/benchmark.h>

#include "tavrin/tracking/internal/custom_properties.h"

namespace {

using tavrin::AnyValue;

// A typical ten-entry push: track and type plus eight properties of every kind.
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

void BM_ValidatedCustomPropertiesTenProperties(benchmark::State& state) {
    const auto push = tenPropertyPush();
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::validatedCustomProperties(push));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ValidatedCustomPropertiesTenProperties);

// What an application pays to build the literal it hands to push.
void BM_BuildTenPropertyPush(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(tenPropertyPush());
}
BENCHMARK(BM_BuildTenPropertyPush);

// The sorted JSON text of the push kept for the debug tag.
void BM_SortedJsonTextTenProperties(benchmark::State& state) {
    const auto push = tenPropertyPush();
    for (auto _ : state) benchmark::DoNotOptimize(AnyValue::sortedJsonText(push));
}
BENCHMARK(BM_SortedJsonTextTenProperties);

}  // namespace
