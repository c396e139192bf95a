#pragma once
// A fresh directory under the system temporary directory, removed with its
// contents when the object goes away.

#include <filesystem>
#include <string>

namespace tavrin::testing {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const noexcept { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

}  // namespace tavrin::testing
