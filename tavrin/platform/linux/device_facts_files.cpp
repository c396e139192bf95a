#include "tavrin/platform/linux/device_facts_files.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tavrin::platform {

namespace {

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

}  // namespace tavrin::platform
