#include "tavrin/platform/device_facts.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

namespace tavrin::platform {

namespace {

struct HostFacts {
    std::mutex mutex;
    ApplicationInfo application;
    std::optional<ScreenBounds> screen;
};

HostFacts& host() {
    static HostFacts h;
    return h;
}

std::string trim(std::string s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return s.substr(first, last - first + 1);
}

std::optional<std::string> readFirstLine(const char* path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::string line;
    std::getline(in, line, '\0');  // device-tree strings end in NUL, DMI files in a newline
    line = trim(line.substr(0, line.find('\n')));
    if (line.empty()) return std::nullopt;
    return line;
}

// Value of KEY=value in os-release, quotes removed.
std::optional<std::string> osReleaseValue(std::string_view key) {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(path);
        if (!in) continue;
        std::string line;
        while (std::getline(in, line)) {
            if (line.size() <= key.size() || line.compare(0, key.size(), key) != 0 || line[key.size()] != '=')
                continue;
            std::string value = trim(line.substr(key.size() + 1));
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
                value = value.substr(1, value.size() - 2);
            if (value.empty()) return std::nullopt;
            return value;
        }
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> executableName() {
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return std::nullopt;
    std::string path(buffer, static_cast<std::size_t>(n));
    const auto slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty()) return std::nullopt;
    return name;
}

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
        const Json& dict = host().application.infoDictionary;
        if (dict.is_object()) {
            auto it = dict.find(std::string(key));
            if (it != dict.end() && it->is_string()) return it->get<std::string>();
        }
    }
    if (key == "CFBundleName") return executableName();
    return std::nullopt;
}

void DeviceFacts::setScreenBounds(std::optional<ScreenBounds> bounds) {
    std::lock_guard lock(host().mutex);
    host().screen = bounds;
}

std::optional<ScreenBounds> DeviceFacts::screenBounds() {
    std::lock_guard lock(host().mutex);
    return host().screen;
}

std::optional<std::string> DeviceFacts::model() {
    if (auto m = readFirstLine("/sys/class/dmi/id/product_name")) return m;
    return readFirstLine("/proc/device-tree/model");
}

std::optional<std::string> DeviceFacts::systemName() { return osReleaseValue("NAME"); }

std::optional<std::string> DeviceFacts::systemVersion() { return osReleaseValue("VERSION_ID"); }

std::optional<std::string> DeviceFacts::machine() {
    struct utsname u {};
    if (uname(&u) != 0 || u.machine[0] == '\0') return std::nullopt;
    return std::string(u.machine);
}

LocaleCodes DeviceFacts::parseLocale(std::string_view name) {
    LocaleCodes codes;
    // language[_territory][.codeset][@modifier]
    const auto cut = name.find_first_of(".@");
    std::string_view base = name.substr(0, cut);
    if (base.empty() || base == "C" || base == "POSIX") return codes;
    const auto underscore = base.find('_');
    std::string_view language = base.substr(0, underscore);
    if (!language.empty()) codes.languageCode = std::string(language);
    if (underscore != std::string_view::npos && underscore + 1 < base.size())
        codes.regionCode = std::string(base.substr(underscore + 1));
    return codes;
}

LocaleCodes DeviceFacts::currentLocale() {
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(var);
        if (value && *value) return parseLocale(value);
    }
    return {};
}

void DeviceFacts::reset() {
    std::lock_guard lock(host().mutex);
    host().application = ApplicationInfo{};
    host().screen.reset();
}

}  // namespace tavrin::platform
