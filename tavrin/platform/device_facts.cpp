#include "tavrin/platform/device_facts.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/system.h"

namespace tavrin::platform {

namespace {

struct HostFacts {
    std::mutex mutex;
    ApplicationInfo application;
    std::optional<ScreenBounds> screen;
};

HostFacts& host() {
    static auto* h = new HostFacts();
    return *h;
}

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void DeviceFacts::setApplicationInfo(ApplicationInfo info) {
    std::lock_guard lock(host().mutex);
    host().application = std::move(info);
}

ApplicationInfo DeviceFacts::applicationInfo() {
    std::lock_guard lock(host().mutex);
    return host().application;
}

std::optional<std::string> DeviceFacts::bundleIdentifier() {
    std::lock_guard lock(host().mutex);
    return host().application.bundleIdentifier;
}

std::optional<std::string> DeviceFacts::infoDictionaryString(std::string_view key) {
    {
        std::lock_guard lock(host().mutex);
        const auto& dict = host().application.infoDictionary;
        if (auto it = dict.find(key); it != dict.end()) return it->second;
    }
    if (key == "CFBundleName") return executableName();
    return std::nullopt;
}

namespace {

// A size in points that truncates to a signed 64-bit integer and can be a
// screen's: finite, not negative, below 2^63.
bool isScreenSize(double points) { return points >= 0 && points < 9223372036854775808.0; }

std::string shortestText(double value) {
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

}  // namespace

void DeviceFacts::setScreenBounds(std::optional<ScreenBounds> bounds) {
    // Refused here, on the host's own call, rather than failing the
    // conversion later on a background queue.
    if (bounds && !(isScreenSize(bounds->width) && isScreenSize(bounds->height))) {
        logError("Screen bounds " + shortestText(bounds->width) + " by " + shortestText(bounds->height) +
                 " refused: width and height are points from 0 up to 2^63.");
        return;
    }
    std::lock_guard lock(host().mutex);
    host().screen = bounds;
}

std::optional<ScreenBounds> DeviceFacts::screenBounds() {
    std::lock_guard lock(host().mutex);
    return host().screen;
}

std::optional<std::string> DeviceFacts::model() { return os::model(); }

std::string DeviceFacts::systemName() { return os::systemName(); }

std::optional<std::string> DeviceFacts::systemVersion() { return os::systemVersion(); }

std::optional<std::string> DeviceFacts::machine() { return os::machine(); }

std::optional<std::string> DeviceFacts::executableName() {
    // The running program's file does not change: read once.
    static const auto* name = new std::optional<std::string>(os::executableName());
    return *name;
}

LocaleCodes DeviceFacts::parseLocale(std::string_view name) {
    LocaleCodes codes;
    const std::string_view base = name.substr(0, name.find_first_of(".@"));
    if (base == "C" || base == "POSIX") return codes;
    const auto separator = base.find('_');
    const std::string_view language = base.substr(0, separator);
    if (language.size() < 2 || language.size() > 3) return codes;
    std::string lang;
    for (char c : language) {
        if (!isAsciiAlpha(c)) return codes;
        lang += static_cast<char>(c | 0x20);
    }
    codes.languageCode = std::move(lang);
    if (separator == std::string_view::npos) return codes;
    const std::string_view region = base.substr(separator + 1);
    if (region.size() == 2 && isAsciiAlpha(region[0]) && isAsciiAlpha(region[1])) {
        std::string r;
        for (char c : region) r += static_cast<char>(c & ~0x20);
        codes.regionCode = std::move(r);
    } else if (region.size() == 3 && isAsciiDigit(region[0]) && isAsciiDigit(region[1]) && isAsciiDigit(region[2])) {
        codes.regionCode = std::string(region);
    }
    return codes;
}

LocaleCodes DeviceFacts::currentLocale() { return os::currentLocale(); }

void DeviceFacts::reset() {
    std::lock_guard lock(host().mutex);
    host().application = ApplicationInfo{};
    host().screen.reset();
}

}  // namespace tavrin::platform
