#include "tavrin/platform/internal/secure_random.h"

#include <cstring>
#include <stdexcept>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/system.h"

namespace tavrin::platform {

namespace {

// Small requests (two identifiers per push) are served from a per-thread
// block of the system's randomness, one system call per KiB instead of
// one per request. A forked child must never hand out its parent's bytes, so
// a fork makes every block stale.
struct RandomBlock {
    unsigned char bytes[1024];
    std::size_t left = 0;
    std::uint32_t generation = 0;

    ~RandomBlock() { os::secureZero(bytes, sizeof bytes); }
};

constexpr std::size_t kBlockedRequest = 64;

}  // namespace

void SecureRandom::fill(void* buffer, std::size_t size) {
    auto* out = static_cast<unsigned char*>(buffer);
    if (size > kBlockedRequest) {
        os::fillRandom(out, size);
        return;
    }
    thread_local RandomBlock block;
    const std::uint32_t generation = forkGeneration();
    if (block.generation != generation || block.left < size) {
        os::fillRandom(block.bytes, sizeof block.bytes);
        block.left = sizeof block.bytes;
        block.generation = generation;
    }
    unsigned char* taken = block.bytes + sizeof block.bytes - block.left;
    std::memcpy(out, taken, size);
    // Bytes handed out are not kept around.
    os::secureZero(taken, size);
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
