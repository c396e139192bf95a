#include "temp_dir.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tavrin::testing {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavrin-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

}  // namespace tavrin::testing
