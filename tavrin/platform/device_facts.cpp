#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/internal/device_facts_files.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "tavrin/platform/internal/log_hook.h"

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

std::string trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return std::string(s.substr(first, last - first + 1));
}

std::optional<std::string> nonEmpty(std::string s) {
    if (s.empty()) return std::nullopt;
    return s;
}

// The whole of a small system file; absent when it cannot be opened.
std::optional<std::string> readText(const std::filesystem::path& path) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    if (!in) return std::nullopt;
    std::string content;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, in)) > 0;) content.append(buffer, n);
    std::fclose(in);
    return content;
}

// The first line of a short text file: DMI files end in a newline, device-tree
// strings in a NUL.
std::optional<std::string> readFirstLine(const std::filesystem::path& path) {
    auto content = readText(path);
    if (!content) return std::nullopt;
    *content = content->substr(0, content->find_first_of(std::string_view("\0\n", 2)));
    return nonEmpty(trim(*content));
}

// Removes shell quoting as os-release allows it: double quotes with backslash
// escapes, single quotes, backslash outside quotes. Absent when a quote is
// not closed.
std::optional<std::string> unquoteShellValue(std::string_view v) {
    std::string out;
    std::size_t i = 0;
    while (i < v.size()) {
        const char c = v[i];
        if (c == '"') {
            ++i;
            while (i < v.size() && v[i] != '"') {
                if (v[i] == '\\' && i + 1 < v.size() && std::strchr("\"\\$`", v[i + 1])) ++i;
                out += v[i++];
            }
            if (i >= v.size()) return std::nullopt;
            ++i;
        } else if (c == '\'') {
            const auto end = v.find('\'', i + 1);
            if (end == std::string_view::npos) return std::nullopt;
            out.append(v.substr(i + 1, end - i - 1));
            i = end + 1;
        } else if (c == '\\') {
            if (i + 1 < v.size()) out += v[i + 1];
            i += 2;
        } else if (c == ' ' || c == '\t') {
            break;  // unquoted blank ends the assignment
        } else {
            out += c;
            ++i;
        }
    }
    return out;
}

bool isAsciiAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

namespace detail {

std::optional<std::string> readModel(const std::filesystem::path& root) {
    if (auto m = readFirstLine(root / "sys/class/dmi/id/product_name")) return m;
    return readFirstLine(root / "proc/device-tree/model");
}

std::optional<std::string> readOsReleaseValue(const std::filesystem::path& root, std::string_view key) {
    auto content = readText(root / "etc/os-release");
    if (!content) content = readText(root / "usr/lib/os-release");
    if (!content) return std::nullopt;
    std::optional<std::string> value;
    for (std::size_t start = 0, end; start < content->size(); start = end + 1) {
        end = std::min(content->find('\n', start), content->size());
        const std::string text = trim(std::string_view(*content).substr(start, end - start));
        if (text.empty() || text.front() == '#') continue;
        if (text.size() <= key.size() || text.compare(0, key.size(), key) != 0 || text[key.size()] != '=') continue;
        // As in the shell that may source the file, a later assignment wins.
        value = unquoteShellValue(std::string_view(text).substr(key.size() + 1));
    }
    if (!value || value->empty()) return std::nullopt;
    return value;
}

std::string readSystemName(const std::filesystem::path& root) {
    // "Linux" is the documented default of an os-release without NAME.
    return readOsReleaseValue(root, "NAME").value_or("Linux");
}

std::optional<std::string> readSystemVersion(const std::filesystem::path& root) {
    return readOsReleaseValue(root, "VERSION_ID");
}

}  // namespace detail

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

std::optional<std::string> DeviceFacts::model() { return detail::readModel("/"); }

std::string DeviceFacts::systemName() { return detail::readSystemName("/"); }

std::optional<std::string> DeviceFacts::systemVersion() { return detail::readSystemVersion("/"); }

std::optional<std::string> DeviceFacts::machine() {
    struct utsname u {};
    if (uname(&u) != 0 || u.machine[0] == '\0') return std::nullopt;
    return std::string(u.machine);
}

namespace {

std::optional<std::string> readExecutableName() {
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer);
    if (n > 0 && static_cast<std::size_t>(n) < sizeof buffer) {
        std::string path(buffer, static_cast<std::size_t>(n));
        // The link of a program replaced on disk while running.
        constexpr std::string_view deleted = " (deleted)";
        if (path.ends_with(deleted)) path.resize(path.size() - deleted.size());
        if (auto name = nonEmpty(std::filesystem::path(path).filename().string())) return name;
    }
    // No /proc: the name the program was started under.
    return nonEmpty(program_invocation_short_name ? program_invocation_short_name : "");
}

}  // namespace

std::optional<std::string> DeviceFacts::executableName() {
    // The running program's file does not change: read once.
    static const auto* name = new std::optional<std::string>(readExecutableName());
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
