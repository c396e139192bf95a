#include "tavrin/platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tavrin::platform {
namespace {

TEST(NotificationCenter, LifecycleNamesAreTheSystemOnes) {
    EXPECT_STREQ(NotificationCenter::didEnterBackground, "UIApplicationDidEnterBackgroundNotification");
    EXPECT_STREQ(NotificationCenter::willEnterForeground, "UIApplicationWillEnterForegroundNotification");
    EXPECT_STREQ(NotificationCenter::willTerminate, "UIApplicationWillTerminateNotification");
}

TEST(NotificationCenter, DeliversByNameInRegistrationOrderUntilRemoved) {
    NotificationCenter center;
    std::vector<std::string> calls;
    const auto a = center.addObserver(NotificationCenter::didEnterBackground,
                                      [&](const std::string& n) { calls.push_back("a:" + n); });
    center.addObserver(NotificationCenter::willTerminate, [&](const std::string& n) { calls.push_back("t:" + n); });
    const auto b = center.addObserver(NotificationCenter::didEnterBackground,
                                      [&](const std::string& n) { calls.push_back("b:" + n); });
    const auto c = center.addObserver(NotificationCenter::didEnterBackground,
                                      [&](const std::string&) { calls.push_back("c"); });
    EXPECT_NE(a, b);

    center.post(NotificationCenter::didEnterBackground);
    EXPECT_EQ(calls, (std::vector<std::string>{"a:UIApplicationDidEnterBackgroundNotification",
                                               "b:UIApplicationDidEnterBackgroundNotification", "c"}));
    calls.clear();
    center.post(NotificationCenter::willTerminate);
    center.post("SomethingElse");  // nobody listens
    EXPECT_EQ(calls, std::vector<std::string>{"t:UIApplicationWillTerminateNotification"});

    calls.clear();
    center.removeObserver(b);
    center.removeObserver(b);       // twice: ignored
    center.removeObserver(999999);  // unknown: ignored
    center.post(NotificationCenter::didEnterBackground);
    EXPECT_EQ(calls, (std::vector<std::string>{"a:UIApplicationDidEnterBackgroundNotification", "c"}));

    calls.clear();
    center.removeAllObservers();
    center.post(NotificationCenter::didEnterBackground);
    center.post(NotificationCenter::willTerminate);
    EXPECT_TRUE(calls.empty());
    (void)c;
}

TEST(NotificationCenter, PostFromAnotherThreadDeliversOnThatThread) {
    NotificationCenter center;
    std::thread::id seen;
    center.addObserver(NotificationCenter::willEnterForeground, [&](const std::string&) { seen = std::this_thread::get_id(); });
    std::thread::id poster;
    std::thread t([&] {
        poster = std::this_thread::get_id();
        center.post(NotificationCenter::willEnterForeground);
    });
    t.join();
    EXPECT_EQ(seen, poster);
    EXPECT_NE(seen, std::this_thread::get_id());
}

TEST(NotificationCenter, ObserversChangingObserversDuringDelivery) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token self = 0, later = 0;
    // The first removes itself and the third; the third must not run in this post.
    self = center.addObserver("N", [&](const std::string&) {
        calls.push_back("self");
        center.removeObserver(self);
        center.removeObserver(later);
        // Added during delivery: first hears the next post.
        center.addObserver("N", [&](const std::string&) { calls.push_back("added"); });
    });
    center.addObserver("N", [&](const std::string&) { calls.push_back("second"); });
    later = center.addObserver("N", [&](const std::string&) { calls.push_back("later"); });

    center.post("N");
    EXPECT_EQ(calls, (std::vector<std::string>{"self", "second"}));
    calls.clear();
    center.post("N");
    EXPECT_EQ(calls, (std::vector<std::string>{"second", "added"}));

    // Posting from inside a handler delivers the nested post at once, on the same thread.
    NotificationCenter nested;
    std::vector<std::string> order;
    nested.addObserver("outer", [&](const std::string&) {
        order.push_back("outer-begin");
        nested.post("inner");
        order.push_back("outer-end");
    });
    nested.addObserver("inner", [&](const std::string&) { order.push_back("inner"); });
    nested.post("outer");
    EXPECT_EQ(order, (std::vector<std::string>{"outer-begin", "inner", "outer-end"}));
}

TEST(NotificationCenter, ExceptionReachesThePosterAndSkipsTheRest) {
    NotificationCenter center;
    int after = 0;
    center.addObserver("N", [](const std::string&) { throw std::runtime_error("boom"); });
    center.addObserver("N", [&](const std::string&) { ++after; });
    EXPECT_THROW(center.post("N"), std::runtime_error);
    EXPECT_EQ(after, 0);
}

TEST(NotificationCenter, ConcurrentPostsAndRegistrations) {
    NotificationCenter center;
    std::atomic<int> calls{0};
    center.addObserver("N", [&](const std::string&) { ++calls; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                if (t % 2 == 0) {
                    center.post("N");
                } else {
                    const auto token = center.addObserver("M", [](const std::string&) {});
                    center.removeObserver(token);
                }
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(calls.load(), 1000);
}

TEST(NotificationCenter, DefaultCenterIsOneInstance) {
    auto& center = NotificationCenter::defaultCenter();
    EXPECT_EQ(&center, &NotificationCenter::defaultCenter());
    int calls = 0;
    center.addObserver(NotificationCenter::willTerminate, [&](const std::string&) { ++calls; });
    NotificationCenter::defaultCenter().post(NotificationCenter::willTerminate);
    EXPECT_EQ(calls, 1);
    center.removeAllObservers();
    NotificationCenter::defaultCenter().post(NotificationCenter::willTerminate);
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tavrin::platform
