#include "tavrin/platform/secure_random.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <regex>
#include <set>
#include <stdexcept>
#include <vector>

#include "tavrin/platform/uuid.h"

namespace tavrin::platform {
namespace {

// Hands out scripted words and counts how many were asked for.
struct ScriptedWords {
    std::vector<std::uint64_t> words;
    std::size_t used = 0;
    std::uint64_t operator()() {
        if (used >= words.size()) throw std::out_of_range("script exhausted");
        return words[used++];
    }
};

TEST(SecureRandom, BoundedRejectsTheBiasedLowProducts) {
    // range 2^63 + 1: products whose low half is below 2^63 - 1 are biased.
    // Words 2 and 4 land there (and would give 1 and 2); word 1 is accepted.
    const std::uint64_t range = (std::uint64_t{1} << 63) + 1;
    ScriptedWords script{{2, 4, 1}};
    EXPECT_EQ(SecureRandom::boundedWith(range, std::ref(script)), 0u);
    EXPECT_EQ(script.used, 3u);

    // range 3: only word 0 is rejected.
    ScriptedWords three{{0, std::numeric_limits<std::uint64_t>::max()}};
    EXPECT_EQ(SecureRandom::boundedWith(3, std::ref(three)), 2u);
    EXPECT_EQ(three.used, 2u);

    // Accepted words are used once, mapped by the high half of word * range.
    ScriptedWords once{{(std::uint64_t{1} << 63) + 1}};
    EXPECT_EQ(SecureRandom::boundedWith(10, std::ref(once)), 5u);
    EXPECT_EQ(once.used, 1u);

    // range 1 never rejects; range 0 stands for the full 64 bits.
    ScriptedWords single{{0}};
    EXPECT_EQ(SecureRandom::boundedWith(1, std::ref(single)), 0u);
    ScriptedWords full{{0xDEADBEEFCAFEF00Dull}};
    EXPECT_EQ(SecureRandom::boundedWith(0, std::ref(full)), 0xDEADBEEFCAFEF00Dull);
}

TEST(SecureRandom, UniformStaysWithinInclusiveBounds) {
    std::set<std::int64_t> seen;
    for (int i = 0; i < 3000; ++i) {
        const auto v = SecureRandom::uniform(-3, 3);
        ASSERT_GE(v, -3);
        ASSERT_LE(v, 3);
        seen.insert(v);
    }
    EXPECT_EQ(seen.size(), 7u);  // both ends included
    for (int i = 0; i < 1000; ++i) {
        const auto v = SecureRandom::uniform(0, 100000);
        ASSERT_GE(v, 0);
        ASSERT_LE(v, 100000);
    }
    EXPECT_EQ(SecureRandom::uniform(5, 5), 5);
    const auto lo = std::numeric_limits<std::int64_t>::min();
    const auto hi = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(SecureRandom::uniform(hi, hi), hi);
    EXPECT_EQ(SecureRandom::uniform(lo, lo), lo);
    (void)SecureRandom::uniform(lo, hi);  // the full range must not overflow
    EXPECT_THROW(SecureRandom::uniform(2, 1), std::invalid_argument);
}

TEST(SecureRandom, UniformSpreadsEvenly) {
    std::array<int, 10> counts{};
    for (int i = 0; i < 20000; ++i) ++counts[static_cast<std::size_t>(SecureRandom::uniform(0, 9))];
    // Expected 2000 each; 20 % is about ten standard deviations.
    for (int c : counts) {
        EXPECT_GT(c, 1600);
        EXPECT_LT(c, 2400);
    }
}

TEST(SecureRandom, FillWritesEveryByte) {
    std::array<std::uint8_t, 4096> buffer{};
    SecureRandom::fill(buffer.data(), buffer.size());
    std::set<std::uint8_t> distinct(buffer.begin(), buffer.end());
    EXPECT_GT(distinct.size(), 200u);
    EXPECT_NE(SecureRandom::next64(), SecureRandom::next64());
}

TEST(Uuid, CanonicalUpperCaseVersion4) {
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::string id = Uuid::make();
        ASSERT_EQ(id.size(), 36u);
        ASSERT_TRUE(std::regex_match(id, shape)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 2000u);

    const Uuid u;
    EXPECT_EQ(u.bytes()[6] >> 4, 4);
    EXPECT_EQ(u.bytes()[8] & 0xC0, 0x80);
    EXPECT_EQ(u.uuidString(), u.uuidString());
}

TEST(Uuid, TextOfGivenBytes) {
    const Uuid u({0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF});
    EXPECT_EQ(u.uuidString(), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

}  // namespace
}  // namespace tavrin::platform
