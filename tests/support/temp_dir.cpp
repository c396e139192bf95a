#include "temp_dir.h"

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace tavrin::testing {

#if defined(_WIN32)
namespace {

// Removes `path` (in the \\?\ form) and everything under it, however deep:
// std::filesystem stops at the 260-character limit a plain path has here.
void removeTree(const std::wstring& path) {
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring child = path + L"\\" + name;
            // A link to a directory goes, not what it points at.
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                DeleteFileW(child.c_str());
            else if (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)
                RemoveDirectoryW(child.c_str());
            else
                removeTree(child);
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(path.c_str());
}

}  // namespace
#endif

TempDir::TempDir() {
    // A fresh random name until one is free: create_directory fails on an
    // existing one, so two tests never share a directory.
    std::random_device random;
    const auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const auto candidate = base / ("tavrin-test-" + std::to_string(random()) + std::to_string(random() % 1000));
        std::error_code ec;
        if (std::filesystem::create_directory(candidate, ec)) {
            // Private to this user, as a directory for secrets must be.
            std::filesystem::permissions(candidate, std::filesystem::perms::owner_all, ec);
            path_ = candidate;
            return;
        }
    }
    throw std::runtime_error("TempDir: no free directory name under " + base.string());
}

TempDir::~TempDir() {
#if defined(_WIN32)
    removeTree(L"\\\\?\\" + std::filesystem::path(path_).make_preferred().wstring());
#else
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
#endif
}

std::string readFile(const std::filesystem::path& file) {
    std::ostringstream out;
    out << std::ifstream(file, std::ios::binary).rdbuf();
    return out.str();
}

void writeFile(const std::filesystem::path& file, const std::string& bytes) {
    std::error_code ec;
    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path(), ec);
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace tavrin::testing
