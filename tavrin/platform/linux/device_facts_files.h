#pragma once
// The file readers behind the system facts of DeviceFacts.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tavrin::platform {

namespace detail {
// The file readers behind the system facts, against a root directory ("/"
// on a running system; tests hand in a directory tree of their own).
std::optional<std::string> readModel(const std::filesystem::path& root);
// A value of the os-release file (/etc/os-release, or /usr/lib/os-release
// when the former does not exist), shell quoting removed.
std::optional<std::string> readOsReleaseValue(const std::filesystem::path& root, std::string_view key);
std::string readSystemName(const std::filesystem::path& root);
std::optional<std::string> readSystemVersion(const std::filesystem::path& root);
}  // namespace detail

}  // namespace tavrin::platform
