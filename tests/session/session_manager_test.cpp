#include "tavrin/session/session_manager.h"

#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/notification_center.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using platform::Clock;
using platform::LogType;
using platform::NotificationCenter;
using Lines = std::vector<std::string>;

class SessionManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        SessionManager::resetForTesting();
        Clock::setFixed(1'700'000'000.0);
    }
    void TearDown() override {
        SessionManager::resetForTesting();
        Clock::reset();
    }

    Lines lines(LogType type) const { return log.sink->messages(type); }

    testing::LogCapture log{LogLevel::debug};
};

const std::regex kUpperCaseUuid("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");

TEST(Action, RawValuesBothWays) {
    for (auto action : {Action::new_, Action::update}) EXPECT_EQ(actionFromRawValue(rawValue(action)), action);
    EXPECT_STREQ(rawValue(Action::new_), "new");
    EXPECT_STREQ(rawValue(Action::update), "update");
    EXPECT_FALSE(actionFromRawValue("New") || actionFromRawValue(""));
}

TEST_F(SessionManagerTest, TimeoutDefaultsTo1800AndIsLoggedWithAFraction) {
    EXPECT_DOUBLE_EQ(SessionManager::getSessionTimeout(), 1800.0);
    Lines expected;
    for (const auto& [seconds, text] : std::vector<std::pair<double, std::string>>{
             {1800, "1800.0"}, {10.5, "10.5"}, {0, "0.0"}, {-3, "-3.0"}, {100000, "100000.0"},
             {1e6, "1000000.0"}, {0.0001, "0.0001"}, {2e15, "2000000000000000.0"}, {123456.789, "123456.789"},
             {9007199254740991, "9007199254740991.0"},
             // Beyond exact integers and below a ten-thousandth, digits in exponent form.
             {9007199254740992, "9.007199254740992e+15"}, {1e300, "1e+300"}, {1e-7, "1e-07"},
             {0.1, "0.1"}}) {
        SessionManager::setSessionTimeout(seconds);
        expected.push_back("Session timeout set to " + text + " seconds");
    }
    EXPECT_EQ(lines(LogType::info), expected);
    EXPECT_DOUBLE_EQ(SessionManager::getSessionTimeout(), 0.1);
}

TEST_F(SessionManagerTest, SubmissionsUpdateUntilTheTimeoutIsStrictlyExceeded) {
    SessionManager::setSessionTimeout(10);
    log.sink->clear();
    const auto [id, action] = SessionManager::startOrResumeSession();
    EXPECT_EQ(action, Action::new_);
    EXPECT_TRUE(std::regex_match(id, kUpperCaseUuid)) << id;
    EXPECT_EQ(SessionManager::getCurrentSessionID(), id);

    // Each submission restarts the inactivity period: 10.0 twice is still the same session.
    for (int i = 0; i < 2; ++i) {
        Clock::advance(10.0);
        EXPECT_EQ(SessionManager::startOrResumeSession(), std::make_pair(id, Action::update));
    }
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'020.0);
    EXPECT_EQ(lines(LogType::info), Lines{"New session started with ID: " + id});
    EXPECT_EQ(lines(LogType::debug), (Lines{"New session action triggered: " + id, "Update session action triggered: " + id,
                                            "Update session action triggered: " + id}));

    Clock::advance(10.5);
    const auto [later, laterAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(laterAction, Action::new_);
    EXPECT_NE(later, id);
    EXPECT_TRUE(std::regex_match(later, kUpperCaseUuid)) << later;

    // Ending forces a new session on the next submission; the last active time stays.
    Clock::advance(1);
    log.sink->clear();
    SessionManager::endSession();
    SessionManager::endSession();
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_EQ(lines(LogType::info), (Lines{"Session ended with ID: " + later, "Session ended with ID: unknown"}));
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'030.5);
    const auto [next, nextAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(nextAction, Action::new_);
    EXPECT_NE(next, later);
}

TEST_F(SessionManagerTest, LifecycleNotificationsReachTheHandlersUntilReset) {
    SessionManager::setSessionTimeout(60);
    SessionManager::startObservingAppLifecycle();
    EXPECT_EQ(lines(LogType::info).back(), "Started observing app lifecycle events");
    auto& center = NotificationCenter::defaultCenter();

    // Within the timeout and without a session, coming to the foreground starts nothing.
    log.sink->clear();
    SessionManager::setLastActiveTimestamp(Clock::now() - 50);
    center.post(NotificationCenter::willEnterForeground);
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());
    EXPECT_EQ(lines(LogType::debug), Lines{"Resuming existing session with ID: unknown"});

    const auto id = SessionManager::startOrResumeSession().first;
    log.sink->clear();
    Clock::advance(20);
    center.post(NotificationCenter::didEnterBackground);
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());
    // Time in the background counts as inactivity: 50 s is within the timeout.
    Clock::advance(50);
    center.post(NotificationCenter::willEnterForeground);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), id);
    EXPECT_EQ(lines(LogType::debug), Lines{"Resuming existing session with ID: " + id});

    // 61 s in the background exceeds it: a new session, which the next submission continues.
    log.sink->clear();
    center.post(NotificationCenter::didEnterBackground);
    Clock::advance(61);
    center.post(NotificationCenter::willEnterForeground);
    const auto renewed = SessionManager::getCurrentSessionID();
    ASSERT_TRUE(renewed);
    EXPECT_NE(*renewed, id);
    EXPECT_EQ(lines(LogType::debug), Lines{"Session timeout detected. Starting a new session."});
    EXPECT_EQ(SessionManager::startOrResumeSession(), std::make_pair(*renewed, Action::update));

    center.post(NotificationCenter::willTerminate);
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_EQ(lines(LogType::info),
              (Lines{"App entered background", "App will enter foreground", "New session started with ID: " + *renewed,
                     "App will terminate", "Session ended with ID: " + *renewed}));

    SessionManager::resetForTesting();
    SessionManager::setCurrentSessionID("KEEP");
    log.sink->clear();
    center.post(NotificationCenter::willTerminate);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), "KEEP");
    EXPECT_TRUE(log.sink->messages().empty());
}

TEST_F(SessionManagerTest, LastActiveTimeIsReadOnceOnFirstUseEvenWhenRaced) {
    Clock::advance(42);  // after reset, before any access
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'042.0);
    Clock::advance(1);
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'042.0);

    // A clock that moves on every reading: racing first readers must still agree.
    SessionManager::resetForTesting();
    double ticks = 0;
    Clock::setSource([&ticks] { return ticks += 1; });
    std::vector<std::thread> threads;
    std::vector<double> seen(4);
    for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { seen[i] = SessionManager::getLastActiveTimestamp(); });
    for (auto& t : threads) t.join();
    Clock::reset();
    EXPECT_EQ(seen, std::vector<double>(4, 1.0));
}

TEST_F(SessionManagerTest, ConcurrentSubmissionsAgreeOnOneSession) {
    std::vector<std::thread> threads;
    std::vector<std::pair<std::string, Action>> results(8);
    for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { results[i] = SessionManager::startOrResumeSession(); });
    for (auto& t : threads) t.join();
    int started = 0;
    for (const auto& [id, action] : results) {
        EXPECT_EQ(id, results.front().first);
        started += action == Action::new_;
    }
    EXPECT_EQ(started, 1);
}

}  // namespace
}  // namespace tavrin
