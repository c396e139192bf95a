#include "tavrin/platform/internal/secure_random.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <limits>
#include <regex>
#include <set>
#include <stdexcept>
#include <vector>

#include "tavrin/platform/internal/uuid.h"
#include "tests/support/child_process.h"

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
        ScriptedWords script{c.words};
        EXPECT_EQ(SecureRandom::boundedWith(c.range, std::ref(script)), c.expected) << c.range;
        EXPECT_EQ(script.used, c.words.size()) << c.range;
    }
}

TEST(SecureRandom, UniformCoversTheInclusiveBoundsEvenly) {
    std::array<int, 10> counts{};
    for (int i = 0; i < 20000; ++i) {
        const auto v = SecureRandom::uniform(-3, 6);
        ASSERT_GE(v, -3);
        ASSERT_LE(v, 6);
        ++counts[static_cast<std::size_t>(v + 3)];
    }
    // Expected 2000 each, both ends included; 20 % is about ten standard deviations.
    for (int c : counts) {
        EXPECT_GT(c, 1600);
        EXPECT_LT(c, 2400);
    }
    const auto lo = std::numeric_limits<std::int64_t>::min();
    const auto hi = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(SecureRandom::uniform(5, 5), 5);
    EXPECT_EQ(SecureRandom::uniform(hi, hi), hi);
    EXPECT_EQ(SecureRandom::uniform(lo, lo), lo);
    (void)SecureRandom::uniform(lo, hi);  // the full range must not overflow
    EXPECT_THROW(SecureRandom::uniform(2, 1), std::invalid_argument);
}

TEST(SecureRandom, FillWritesEveryByte) {
    std::array<std::uint8_t, 4096> buffer{};
    SecureRandom::fill(buffer.data(), buffer.size());
    EXPECT_GT(std::set<std::uint8_t>(buffer.begin(), buffer.end()).size(), 200u);
    EXPECT_NE(SecureRandom::next64(), SecureRandom::next64());
}

// Small requests come from a per-thread block; a forked child must draw its
// own bytes, or parent and child would make the same identifiers.
TEST(SecureRandom, ForkedChildNeverRepeatsTheParentsBytes) {
    SecureRandom::next64();  // the parent now holds a partly used block
    std::uint64_t childWords[4] = {};
    const std::string bytes = testing::inChild([] {
        std::uint64_t words[4];
        for (auto& w : words) w = SecureRandom::next64();
        return std::string(reinterpret_cast<const char*>(words), sizeof words);
    });
    ASSERT_EQ(bytes.size(), sizeof childWords) << bytes;
    std::memcpy(childWords, bytes.data(), sizeof childWords);
    for (const auto word : childWords) EXPECT_NE(word, SecureRandom::next64());
}

// From now on getrandom(2) fails in the calling process, as on a kernel
// without it. Only for the child of a death test.
void loseTheRandomSource() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::fprintf(stderr, "cannot install a seccomp filter\n");
        _exit(3);
    }
}

TEST(SecureRandomDeathTest, StopsWhenTheRandomSourceFails) {
    EXPECT_DEATH(
        {
            loseTheRandomSource();
            (void)SecureRandom::next64();
        },
        "SecureRandom: getrandom failed: Function not implemented");
}

TEST(Uuid, CanonicalUpperCaseVersion4) {
    const std::regex shape("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::string id = Uuid::make();
        ASSERT_TRUE(std::regex_match(id, shape)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 2000u);
    const Uuid u;
    EXPECT_EQ(u.uuidString(), u.uuidString());
    const Uuid given({0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF});
    EXPECT_EQ(given.uuidString(), "00112233-4455-6677-8899-AABBCCDDEEFF");
}

}  // namespace
}  // namespace tavrin::platform
