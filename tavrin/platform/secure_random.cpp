#include "tavrin/platform/internal/secure_random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tavrin/sdk/internal/fatal_error.h"

namespace tavrin::platform {

void SecureRandom::fill(void* buffer, std::size_t size) {
    auto* out = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        ssize_t n = getrandom(out, size, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            // Without a random source no identifier can be trusted; the kernel
            // only fails here on systems too old for getrandom(2).
            tavrin::detail::fatalError(std::string("SecureRandom: getrandom failed: ") + std::strerror(errno));
        }
        out += n;
        size -= static_cast<std::size_t>(n);
    }
}

std::uint64_t SecureRandom::next64() {
    std::uint64_t v;
    fill(&v, sizeof v);
    return v;
}

std::int64_t SecureRandom::uniform(std::int64_t low, std::int64_t high) {
    if (low > high) throw std::invalid_argument("SecureRandom::uniform: low > high");
    const std::uint64_t range = static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low) + 1;
    const std::uint64_t offset = boundedWith(range, [] { return next64(); });
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(low) + offset);
}

}  // namespace tavrin::platform
