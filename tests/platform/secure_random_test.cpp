#include "tavrin/platform/internal/secure_random.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <limits>
#include <vector>

#include "tests/support/child_process.h"

namespace tavrin::platform {
namespace {

TEST(SecureRandomTest, BoundedRejectsTheBiasedLowProducts) {
    const std::uint64_t half = std::uint64_t{1} << 63;
    const struct {
        std::uint64_t range;
        std::vector<std::uint64_t> words;  // all of them are used
        std::uint64_t expected;
    } cases[] = {
        // Products whose low half is below 2^63 - 1 are biased: words 2 and 4 (giving 1 and 2) are rejected.
        {half + 1, {2, 4, 1}, 0},
        {3, {0, std::numeric_limits<std::uint64_t>::max()}, 2},  // only word 0 is rejected
        {10, {half + 1}, 5},                                     // mapped by the high half of word * range
        {1, {0}, 0},                                             // never rejects
        {0, {0xDEADBEEFCAFEF00Dull}, 0xDEADBEEFCAFEF00Dull},     // 0 stands for the full 64 bits
    };
    for (const auto& c : cases) {
        std::size_t used = 0;
        const auto next = [&] { return used < c.words.size() ? c.words[used++] : throw std::out_of_range("no word"); };
        EXPECT_EQ(SecureRandom::boundedWith(c.range, next), c.expected) << c.range;
        EXPECT_EQ(used, c.words.size()) << c.range;
    }
}

TEST(SecureRandomTest, UniformCoversTheInclusiveBoundsEvenly) {
    std::array<int, 10> counts{};  // at() throws for a value out of bounds
    for (int i = 0; i < 20000; ++i) ++counts.at(static_cast<std::size_t>(SecureRandom::uniform(-3, 6) + 3));
    for (int c : counts) EXPECT_NEAR(c, 2000, 400);  // about ten standard deviations
    constexpr auto lo = std::numeric_limits<std::int64_t>::min(), hi = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(SecureRandom::uniform(hi, hi), hi);
    EXPECT_EQ(SecureRandom::uniform(lo, lo), lo);
    (void)SecureRandom::uniform(lo, hi);  // the full range must not overflow
    EXPECT_THROW(SecureRandom::uniform(2, 1), std::invalid_argument);
}

// Small requests come from a per-thread block; a forked child must draw its
// own bytes, or parent and child would make the same identifiers.
TEST(SecureRandomTest, ForkedChildNeverRepeatsTheParentsBytes) {
    SecureRandom::next64();  // the parent now holds a partly used block
    const std::string bytes = testing::inChild([] {
        std::uint64_t words[4];
        for (auto& w : words) w = SecureRandom::next64();
        return std::string(reinterpret_cast<const char*>(words), sizeof words);
    });
    std::uint64_t childWords[4] = {};
    ASSERT_EQ(bytes.size(), sizeof childWords) << bytes;
    std::memcpy(childWords, bytes.data(), sizeof childWords);
    for (const auto word : childWords) EXPECT_NE(word, SecureRandom::next64());
}

}  // namespace
}  // namespace tavrin::platform
