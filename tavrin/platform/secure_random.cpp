#include "tavrin/platform/internal/secure_random.h"

#include <pthread.h>
#include <sys/random.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tavrin/platform/internal/fatal_error.h"

namespace tavrin::platform {

namespace {

void fillFromKernel(unsigned char* out, std::size_t size) {
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

// Small requests (two identifiers per push) are served from a per-thread
// block of kernel randomness, one system call per 256 bytes instead of one
// per request. A forked child must never hand out its parent's bytes, so a
// fork makes every block stale.
std::atomic<unsigned> gForkGeneration{0};

struct RandomBlock {
    unsigned char bytes[256];
    std::size_t left = 0;
    unsigned generation = 0;

    RandomBlock() {
        static const bool registered = [] {
            pthread_atfork(nullptr, nullptr, [] { gForkGeneration.fetch_add(1, std::memory_order_relaxed); });
            return true;
        }();
        (void)registered;
    }
    ~RandomBlock() { explicit_bzero(bytes, sizeof bytes); }
};

constexpr std::size_t kBlockedRequest = 64;

}  // namespace

void SecureRandom::fill(void* buffer, std::size_t size) {
    auto* out = static_cast<unsigned char*>(buffer);
    if (size > kBlockedRequest) {
        fillFromKernel(out, size);
        return;
    }
    thread_local RandomBlock block;
    const unsigned generation = gForkGeneration.load(std::memory_order_relaxed);
    if (block.generation != generation || block.left < size) {
        fillFromKernel(block.bytes, sizeof block.bytes);
        block.left = sizeof block.bytes;
        block.generation = generation;
    }
    unsigned char* taken = block.bytes + sizeof block.bytes - block.left;
    std::memcpy(out, taken, size);
    // Bytes handed out are not kept around.
    explicit_bzero(taken, size);
    block.left -= size;
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
