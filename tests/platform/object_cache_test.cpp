#include "tavrin/platform/internal/object_cache.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace tavrin::platform {
namespace {

struct Entry {
    std::string name;
    int hits = 0;
};

TEST(ObjectCache, TypedAccess) {
    ObjectCache cache;
    cache.setObject("n", 5);
    cache.setObject("s", std::string("text"));
    cache.setObject("e", Entry{"x", 2});
    EXPECT_EQ(cache.objectAs<int>("n"), 5);
    EXPECT_EQ(std::any_cast<int>(cache.object("n")), 5);
    EXPECT_EQ(cache.objectAs<std::string>("s"), "text");
    // Asking for another type, or a missing key, gives nothing rather than a conversion.
    EXPECT_FALSE(cache.objectAs<long>("n").has_value());
    EXPECT_FALSE(cache.objectAs<const char*>("s").has_value());
    EXPECT_FALSE(cache.objectAs<int>("missing").has_value());
    // Values are copies: changing what was read leaves the cache alone.
    auto copy = cache.objectAs<Entry>("e").value();
    copy.hits = 99;
    EXPECT_EQ(cache.objectAs<Entry>("e").value().hits, 2);

    cache.setObject("n", std::string("replaced"));
    EXPECT_FALSE(cache.objectAs<int>("n").has_value());
    EXPECT_EQ(cache.objectAs<std::string>("n"), "replaced");
    cache.removeObject("n");
    cache.removeObject("never there");
    EXPECT_FALSE(cache.object("n").has_value());
    EXPECT_TRUE(cache.object("s").has_value());
    cache.removeAllObjects();
    EXPECT_FALSE(cache.object("s").has_value());
    EXPECT_FALSE(cache.object("e").has_value());
}

TEST(ObjectCache, ConcurrentWritersAndReaders) {
    ObjectCache cache;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                const std::string key = "k" + std::to_string(i % 16);
                cache.setObject(key, std::vector<int>(static_cast<std::size_t>(t + 1), i));
                if (auto v = cache.objectAs<std::vector<int>>(key)) {
                    // Whatever writer won, the value read is one whole value.
                    ASSERT_FALSE(v->empty());
                    for (int x : *v) ASSERT_EQ(x, v->front());
                }
            }
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < 16; ++i) EXPECT_TRUE(cache.objectAs<std::vector<int>>("k" + std::to_string(i)).has_value());
}

}  // namespace
}  // namespace tavrin::platform
