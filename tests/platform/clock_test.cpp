#include "tavrin/platform/clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace tavrin::platform {
namespace {

double systemSeconds() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

class ClockTest : public ::testing::Test {
protected:
    void TearDown() override { Clock::reset(); }
};

TEST_F(ClockTest, FixedTimeOrCustomSourceUntilReset) {
    Clock::setFixed(1'700'000'000.25);
    EXPECT_EQ(Clock::now(), 1'700'000'000.25);
    Clock::advance(1.5);
    EXPECT_EQ(Clock::now(), 1'700'000'001.75);
    Clock::advance(-0.75);
    EXPECT_EQ(Clock::now(), 1'700'000'001.0);
    Clock::reset();
    EXPECT_NEAR(Clock::now(), systemSeconds(), 5.0);

    double t = 500;
    Clock::setSource([&] { return t; });
    EXPECT_EQ(Clock::now(), 500.0);
    t = 600;
    EXPECT_EQ(Clock::now(), 600.0);
    // advance freezes at the current reading and moves from there.
    Clock::advance(5);
    t = 700;
    EXPECT_EQ(Clock::now(), 605.0);
    Clock::setSource({});
    EXPECT_NEAR(Clock::now(), systemSeconds(), 5.0);
    // advance on the running system clock starts from now.
    Clock::advance(3600);
    EXPECT_NEAR(Clock::now(), systemSeconds() + 3600, 5.0);
}

TEST_F(ClockTest, ReadersWhileTheTimeIsMoved) {
    Clock::setFixed(0);
    std::atomic<bool> stop{false}, wentBack{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r)
        readers.emplace_back([&] {
            for (double last = 0; !stop;) {
                const double now = Clock::now();
                if (now < last) wentBack = true;
                last = now;
            }
        });
    for (int i = 0; i < 2000; ++i) Clock::advance(1);
    stop = true;
    for (auto& r : readers) r.join();
    EXPECT_FALSE(wentBack);
    EXPECT_EQ(Clock::now(), 2000.0);
}

}  // namespace
}  // namespace tavrin::platform
