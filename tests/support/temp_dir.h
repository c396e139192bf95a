#pragma once
// A fresh directory under the system temporary directory, removed with its
// contents when the object goes away, and the file helpers tests use in it.

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

// A file's bytes (empty when it cannot be read).
std::string readFile(const std::filesystem::path& file);
// Replaces a file's bytes, creating its directory if need be.
void writeFile(const std::filesystem::path& file, const std::string& bytes);

}  // namespace tavrin::testing
