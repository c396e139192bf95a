// Cost of the device snapshot that every push carries.
#include <benchmark/benchmark.h>

#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/monitor/internal/user_agent_utility.h"
#include "tavrin/platform/internal/uuid.h"

namespace {

void BM_CollectDeviceInfo(benchmark::State& state) {
    tavrin::platform::DeviceFacts::setScreenBounds(tavrin::platform::ScreenBounds{390, 844});
    tavrin::DeviceInfoUtility::reset();
    benchmark::DoNotOptimize(tavrin::DeviceInfoUtility::collectDeviceInfo());  // reads the fixed facts once
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::DeviceInfoUtility::collectDeviceInfo());
}
BENCHMARK(BM_CollectDeviceInfo);

// The host's bundle keys are read at every collection, so a set bundle is part of the cost.
void BM_CollectDeviceInfoWithHostBundle(benchmark::State& state) {
    tavrin::platform::DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop",
                                                       .infoDictionary = {{"CFBundleDisplayName", "Shop"},
                                                                          {"CFBundleName", "Shop"},
                                                                          {"CFBundleShortVersionString", "2.3.1"},
                                                                          {"CFBundleVersion", "1042"}}});
    tavrin::platform::DeviceFacts::setScreenBounds(tavrin::platform::ScreenBounds{390, 844});
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::DeviceInfoUtility::collectDeviceInfo());
    tavrin::platform::DeviceFacts::reset();
}
BENCHMARK(BM_CollectDeviceInfoWithHostBundle);

// The floor under a collection: one random UUID.
void BM_UuidMake(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::platform::Uuid::make());
}
BENCHMARK(BM_UuidMake);

// First collection of a process: system files, uname and bundle keys read.
void BM_CollectDeviceInfoCold(benchmark::State& state) {
    for (auto _ : state) {
        tavrin::DeviceInfoUtility::reset();
        benchmark::DoNotOptimize(tavrin::DeviceInfoUtility::collectDeviceInfo());
    }
}
BENCHMARK(BM_CollectDeviceInfoCold);

void BM_UserAgent(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(tavrin::UserAgentUtility::userAgent("TavrinSDK", "1.0", "18"));
}
BENCHMARK(BM_UserAgent);

}  // namespace
