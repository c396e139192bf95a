#include "tavrin/platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tavrin::platform {
namespace {

using Calls = std::vector<std::string>;

TEST(NotificationCenter, DeliversByNameInRegistrationOrderUntilRemoved) {
    NotificationCenter center;
    Calls calls;
    auto observe = [&](const char* name, const std::string& tag) {
        return center.addObserver(name, [&calls, tag](const std::string& n) { calls.push_back(tag + ":" + n); });
    };
    observe(NotificationCenter::didEnterBackground, "a");
    observe(NotificationCenter::willTerminate, "t");
    const auto b = observe(NotificationCenter::didEnterBackground, "b");
    observe(NotificationCenter::willEnterForeground, "f");
    observe(NotificationCenter::didEnterBackground, "c");

    center.post(NotificationCenter::didEnterBackground);
    center.post(NotificationCenter::willTerminate);
    center.post(NotificationCenter::willEnterForeground);
    center.post("SomethingElse");  // nobody listens
    EXPECT_EQ(calls, (Calls{"a:UIApplicationDidEnterBackgroundNotification",
                            "b:UIApplicationDidEnterBackgroundNotification",
                            "c:UIApplicationDidEnterBackgroundNotification", "t:UIApplicationWillTerminateNotification",
                            "f:UIApplicationWillEnterForegroundNotification"}));
    calls.clear();
    center.removeObserver(b);
    center.removeObserver(b);       // twice: ignored
    center.removeObserver(999999);  // unknown: ignored
    center.post(NotificationCenter::didEnterBackground);
    EXPECT_EQ(calls, (Calls{"a:UIApplicationDidEnterBackgroundNotification",
                            "c:UIApplicationDidEnterBackgroundNotification"}));
    calls.clear();
    center.removeAllObservers();
    center.post(NotificationCenter::didEnterBackground);
    center.post(NotificationCenter::willTerminate);
    EXPECT_TRUE(calls.empty());
}

TEST(NotificationCenter, ObserversChangingObserversDuringDelivery) {
    NotificationCenter center;
    Calls calls;
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
    EXPECT_EQ(calls, (Calls{"self", "second"}));
    calls.clear();
    center.post("N");
    EXPECT_EQ(calls, (Calls{"second", "added"}));

    // Posting from inside a handler delivers the nested post at once.
    calls.clear();
    center.addObserver("outer", [&](const std::string&) {
        calls.push_back("outer-begin");
        center.post("inner");
        calls.push_back("outer-end");
    });
    center.addObserver("inner", [&](const std::string&) { calls.push_back("inner"); });
    center.post("outer");
    EXPECT_EQ(calls, (Calls{"outer-begin", "inner", "outer-end"}));
}

TEST(NotificationCenter, ExceptionReachesThePosterAndSkipsTheRest) {
    NotificationCenter center;
    int after = 0;
    center.addObserver("N", [](const std::string&) { throw std::runtime_error("boom"); });
    center.addObserver("N", [&](const std::string&) { ++after; });
    EXPECT_THROW(center.post("N"), std::runtime_error);
    EXPECT_EQ(after, 0);
}

TEST(NotificationCenter, ConcurrentPostsDeliverOnThePostingThread) {
    NotificationCenter center;
    std::atomic<int> calls{0}, elsewhere{0};
    thread_local bool posting = false;
    center.addObserver("N", [&](const std::string&) {
        ++calls;
        if (!posting) ++elsewhere;
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                if (t % 2 == 0) {
                    posting = true;
                    center.post("N");
                    posting = false;
                } else {
                    center.removeObserver(center.addObserver("M", [](const std::string&) {}));
                }
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(calls.load(), 1000);
    EXPECT_EQ(elsewhere.load(), 0) << "delivered on a thread that did not post";
}

}  // namespace
}  // namespace tavrin::platform
