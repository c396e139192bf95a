#include "tavrin/monitor/internal/device_info_utility.h"

#include <mutex>

#include "tavrin/platform/internal/uuid.h"

namespace tavrin {

namespace {

constexpr const char* unknown = "Unknown";

struct State {
    std::mutex mutex;
    std::shared_ptr<const DeviceFactsSource> source = std::make_shared<const DeviceFactsSource>();
    std::shared_ptr<const FixedDeviceFacts> fixed;
};

State& state() {
    static auto* s = new State();
    return *s;
}

std::string orUnknown(std::optional<std::string> value) { return value ? std::move(*value) : std::string(unknown); }

std::shared_ptr<const FixedDeviceFacts> readFixedFacts(const DeviceFactsSource& source) {
    auto facts = std::make_shared<FixedDeviceFacts>();
    facts->model = orUnknown(source.model());
    facts->systemName = orUnknown(source.systemName());
    facts->systemVersion = orUnknown(source.systemVersion());
    facts->machine = source.machine();
    return facts;
}

// Truncated toward zero; 0 for a value without a signed 64-bit form.
std::int64_t truncatedPoints(double points) {
    constexpr double lowest = -9223372036854775808.0, limit = 9223372036854775808.0;
    return points >= lowest && points < limit ? static_cast<std::int64_t>(points) : 0;
}

// The source and the fixed facts together, reading the facts on first use.
std::pair<std::shared_ptr<const DeviceFactsSource>, std::shared_ptr<const FixedDeviceFacts>> snapshot() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.fixed) s.fixed = readFixedFacts(*s.source);
    return {s.source, s.fixed};
}

}  // namespace

std::shared_ptr<const FixedDeviceFacts> DeviceInfoUtility::fixedFacts() { return snapshot().second; }

AppDeviceInfo DeviceInfoUtility::collectDeviceInfo() {
    const auto [source, fixed] = snapshot();
    // The locale may change while the process runs (the environment is the
    // host's), and so may what the host tells about itself: read every time.
    const platform::LocaleCodes locale = source->currentLocale();
    const platform::ScreenBounds bounds = source->screenBounds().value_or(platform::ScreenBounds{});

    AppDeviceInfo info;
    info.appDeviceId = platform::Uuid::make();
    info.appDeviceBrand = "Apple";
    info.appDeviceModel = fixed->model;
    info.appDeviceOS = fixed->systemName;
    info.appDeviceOSVersion = fixed->systemVersion;
    info.appDeviceLanguage = locale.languageCode.value_or(unknown);
    info.appDeviceRegion = locale.regionCode.value_or(unknown);
    info.appDeviceWidth = truncatedPoints(bounds.width);
    info.appDeviceHeight = truncatedPoints(bounds.height);
    info.appDeviceCarrier = unknown;
    info.appDeviceNetworkType = unknown;
    auto name = source->infoDictionaryString("CFBundleDisplayName");
    if (!name) name = source->infoDictionaryString("CFBundleName");
    info.appApplicationName = orUnknown(std::move(name));
    info.appApplicationVersion = orUnknown(source->infoDictionaryString("CFBundleShortVersionString"));
    info.appApplicationBuildNumber = orUnknown(source->infoDictionaryString("CFBundleVersion"));
    return info;
}

void DeviceInfoUtility::setFactsSource(DeviceFactsSource source) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.source = std::make_shared<const DeviceFactsSource>(std::move(source));
    s.fixed.reset();
}

void DeviceInfoUtility::reset() { setFactsSource(DeviceFactsSource{}); }

}  // namespace tavrin
