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
    static void post(const char* notification) { NotificationCenter::defaultCenter().post(notification); }
    // Lifecycle events judged against a 60 s timeout; returns the running session.
    static std::string observeWithSession() {
        SessionManager::setSessionTimeout(60);
        SessionManager::startObservingAppLifecycle();
        return SessionManager::startOrResumeSession().first;
    }

    testing::LogCapture log{LogLevel::debug};
};

TEST_F(SessionManagerTest, TimeoutIsHalfAnHourUntilSet) {
    EXPECT_EQ(SessionManager::getSessionTimeout(), 1800.0);
    SessionManager::setSessionTimeout(0.1);
    EXPECT_EQ(SessionManager::getSessionTimeout(), 0.1);
}

// The shortest exact decimal, always with a fractional part.
TEST_F(SessionManagerTest, NewTimeoutIsLoggedAsItsShortestDecimal) {
    Lines expected;
    for (const auto& [seconds, text] :
         std::vector<std::pair<double, std::string>>{{1800, "1800.0"},
                                                     {-3, "-3.0"},
                                                     {0.0001, "0.0001"},
                                                     {123456.789, "123456.789"},
                                                     {9007199254740991, "9007199254740991.0"},
                                                     {9007199254740992, "9.007199254740992e+15"},
                                                     {1e300, "1e+300"},
                                                     {1e-7, "1e-07"}}) {
        SessionManager::setSessionTimeout(seconds);
        expected.push_back("Session timeout set to " + text + " seconds");
    }
    EXPECT_EQ(log.sink->messages(LogType::info), expected);
}

// An elapsed time equal to the timeout still continues the session.
TEST_F(SessionManagerTest, SubmissionsContinueTheSessionUntilTheTimeoutIsExceeded) {
    SessionManager::setSessionTimeout(10);
    const auto [id, action] = SessionManager::startOrResumeSession();
    EXPECT_EQ(action, Action::new_);
    EXPECT_TRUE(std::regex_match(id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}"))) << id;
    for (int i = 0; i < 2; ++i) {  // each submission restarts the inactivity period
        Clock::advance(10.0);
        EXPECT_EQ(SessionManager::startOrResumeSession(), std::make_pair(id, Action::update));
    }
    Clock::advance(10.5);
    const auto [later, laterAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(laterAction, Action::new_);
    EXPECT_NE(later, id);
}

TEST_F(SessionManagerTest, SubmissionAfterEndSessionStartsANewSession) {
    const auto id = SessionManager::startOrResumeSession().first;
    Clock::advance(1);
    SessionManager::endSession();
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'000.0);
    const auto [next, action] = SessionManager::startOrResumeSession();
    EXPECT_EQ(action, Action::new_);
    EXPECT_NE(next, id);
}

// Time in the background counts as inactivity.
TEST_F(SessionManagerTest, ForegroundWithinTheTimeoutResumesTheSession) {
    const auto id = observeWithSession();
    Clock::advance(20);
    post(NotificationCenter::didEnterBackground);
    Clock::advance(50);
    post(NotificationCenter::willEnterForeground);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), id);
    EXPECT_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());
    EXPECT_EQ(log.sink->messages(LogType::debug).back(), "Resuming existing session with ID: " + id);
}

// The next submission continues the session the foreground event started.
TEST_F(SessionManagerTest, ForegroundAfterTheTimeoutStartsANewSession) {
    const auto id = observeWithSession();
    post(NotificationCenter::didEnterBackground);
    Clock::advance(61);
    post(NotificationCenter::willEnterForeground);
    const auto renewed = SessionManager::getCurrentSessionID();
    ASSERT_TRUE(renewed);
    EXPECT_NE(*renewed, id);
    EXPECT_EQ(SessionManager::startOrResumeSession(), std::make_pair(*renewed, Action::update));
}

// Deliberately: the next submission starts it.
TEST_F(SessionManagerTest, ForegroundWithoutASessionStartsNone) {
    observeWithSession();
    SessionManager::endSession();
    SessionManager::setLastActiveTimestamp(Clock::now() - 50);
    post(NotificationCenter::willEnterForeground);
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());
    EXPECT_EQ(log.sink->messages(LogType::debug).back(), "Resuming existing session with ID: unknown");
}

TEST_F(SessionManagerTest, TerminationEndsTheSessionOnlyWhileObserving) {
    SessionManager::setCurrentSessionID("KEEP");
    post(NotificationCenter::willTerminate);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), "KEEP");
    SessionManager::startObservingAppLifecycle();
    post(NotificationCenter::willTerminate);
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_EQ(log.sink->messages(LogType::info).back(), "Session ended with ID: KEEP");
}

// A clock that moves on every reading: racing first readers must still agree.
TEST_F(SessionManagerTest, LastActiveTimeIsReadOnceOnFirstUseEvenWhenRaced) {
    double ticks = 0;
    Clock::setSource([&ticks] { return ticks += 1; });
    std::vector<std::thread> threads;
    std::vector<double> seen(4);
    for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { seen[i] = SessionManager::getLastActiveTimestamp(); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(seen, std::vector<double>(4, 1.0));
    EXPECT_EQ(SessionManager::getLastActiveTimestamp(), 1.0);
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
