#pragma once
// A snapshot of the device, system, locale, screen and host application that
// every push carries.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tavrin/platform/device_facts.h"

namespace tavrin {

struct AppDeviceInfo {
    std::string appDeviceId;     // new random UUID on every collection
    std::string appDeviceBrand;  // "Apple"
    std::string appDeviceModel;
    std::string appDeviceOS;
    std::string appDeviceOSVersion;
    std::string appDeviceLanguage;                // "Unknown" when the locale has none
    std::string appDeviceRegion;                  // "Unknown" when the locale has none
    std::int64_t appDeviceWidth = 0;              // points, truncated
    std::int64_t appDeviceHeight = 0;             // points, truncated
    std::optional<std::string> appDeviceCarrier;  // always "Unknown": no telephony query is made
    std::string appDeviceNetworkType;             // always "Unknown"
    std::string appApplicationName;
    std::string appApplicationVersion;
    std::string appApplicationBuildNumber;

    friend bool operator==(const AppDeviceInfo&, const AppDeviceInfo&) = default;
};

// Facts of the operating system that cannot change while the process runs,
// with their fallbacks applied. Read from the system once and kept.
struct FixedDeviceFacts {
    std::string model;                   // "Unknown" when absent
    std::string systemName;              // "Unknown" when absent
    std::string systemVersion;           // "Unknown" when absent
    std::optional<std::string> machine;  // raw uname machine, unchecked
};

// Where the raw facts come from; the defaults ask platform::DeviceFacts.
// Tests replace single members to reach the fallbacks.
struct DeviceFactsSource {
    std::function<std::optional<std::string>()> model = &platform::DeviceFacts::model;
    std::function<std::optional<std::string>()> systemName = &platform::DeviceFacts::systemName;
    std::function<std::optional<std::string>()> systemVersion = &platform::DeviceFacts::systemVersion;
    std::function<std::optional<std::string>()> machine = &platform::DeviceFacts::machine;
    std::function<std::optional<std::string>(std::string_view)> infoDictionaryString =
        &platform::DeviceFacts::infoDictionaryString;
    std::function<platform::LocaleCodes()> currentLocale = &platform::DeviceFacts::currentLocale;
    std::function<std::optional<platform::ScreenBounds>()> screenBounds = &platform::DeviceFacts::screenBounds;
};

class DeviceInfoUtility {
public:
    // A fresh UUID, the kept fixed facts, and what may change while the
    // process runs read anew: the locale, and the host's screen bounds and
    // bundle keys (which it may set at any time). Absent screen bounds give
    // 0 by 0, and so does a size without a 64-bit integer form (the platform
    // refuses those when the host sets them; a replaced source may not).
    static AppDeviceInfo collectDeviceInfo();

    // The fixed facts, read on first use.
    static std::shared_ptr<const FixedDeviceFacts> fixedFacts();

    // Tests: install a source (forgetting the kept facts), or go back to the
    // platform source with nothing kept.
    static void setFactsSource(DeviceFactsSource source);
    static void reset();
};

}  // namespace tavrin
