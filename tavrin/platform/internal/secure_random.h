#pragma once
// Secure random numbers from getrandom(2).

#include <cstddef>
#include <cstdint>

namespace tavrin::platform {

// 128-bit product; __extension__ keeps -Wpedantic quiet about the GCC/Clang type.
__extension__ using Uint128 = unsigned __int128;

class SecureRandom {
public:
    // Fills the buffer from the kernel's random source; retries on interruption.
    static void fill(void* buffer, std::size_t size);
    static std::uint64_t next64();
    // Uniform integer in [low, high] (inclusive) by multiply-and-reject:
    // the high half of word * range, rejecting the biased low products.
    static std::int64_t uniform(std::int64_t low, std::int64_t high);
    // The same reduction over a caller-supplied word source; used by uniform
    // and exposed so the rejection path can be tested deterministically.
    template <class Next>
    static std::uint64_t boundedWith(std::uint64_t range, Next&& next) {
        // range is high - low + 1; 0 means the full 64-bit range.
        if (range == 0) return next();
        Uint128 m = static_cast<Uint128>(next()) * range;
        auto low = static_cast<std::uint64_t>(m);
        if (low < range) {
            const std::uint64_t threshold = (0 - range) % range;
            while (low < threshold) {
                m = static_cast<Uint128>(next()) * range;
                low = static_cast<std::uint64_t>(m);
            }
        }
        return static_cast<std::uint64_t>(m >> 64);
    }
};

}  // namespace tavrin::platform
