#include "temp_dir.h"

#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tavrin::testing {

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
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

}  // namespace tavrin::testing
