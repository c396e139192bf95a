#include "tavrin/platform/internal/fatal_error.h"

#include <cstdio>
#include <cstdlib>

namespace tavrin::detail {

void fatalError(std::string_view message) {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
}

}  // namespace tavrin::detail
