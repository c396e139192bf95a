#include "tavrin/session/session_manager.h"

#include <gtest/gtest.h>

#include <cctype>
#include <thread>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/notification_center.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using platform::Clock;
using platform::LogType;
using platform::NotificationCenter;

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

    std::vector<std::string> lines(LogType type) const { return log.sink->messages(type); }

    testing::LogCapture log{LogLevel::debug};
};

bool isUpperCaseUuid(const std::string& s) {
    if (s.size() != 36) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (s[i] != '-') return false;
        } else if (!std::isxdigit(static_cast<unsigned char>(s[i])) || std::islower(static_cast<unsigned char>(s[i]))) {
            return false;
        }
    }
    return true;
}

TEST(Action, RawValuesBothWays) {
    EXPECT_STREQ(rawValue(Action::new_), "new");
    EXPECT_STREQ(rawValue(Action::update), "update");
    EXPECT_EQ(actionFromRawValue("new"), Action::new_);
    EXPECT_EQ(actionFromRawValue("update"), Action::update);
    EXPECT_FALSE(actionFromRawValue("New"));
    EXPECT_FALSE(actionFromRawValue(""));
}

TEST(ShortestDecimalText, AlwaysShowsAFractionWhenPlain) {
    EXPECT_EQ(detail::shortestDecimalText(1800), "1800.0");
    EXPECT_EQ(detail::shortestDecimalText(10.5), "10.5");
    EXPECT_EQ(detail::shortestDecimalText(0.1), "0.1");
    EXPECT_EQ(detail::shortestDecimalText(0), "0.0");
    EXPECT_EQ(detail::shortestDecimalText(-3), "-3.0");
    EXPECT_EQ(detail::shortestDecimalText(1e300), "1e+300");
}

TEST_F(SessionManagerTest, FirstSubmissionStartsThenUpdatesTheSameSession) {
    const auto [first, firstAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(firstAction, Action::new_);
    EXPECT_TRUE(isUpperCaseUuid(first)) << first;
    EXPECT_EQ(SessionManager::getCurrentSessionID(), first);

    Clock::advance(5);
    const auto [second, secondAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(secondAction, Action::update);
    EXPECT_EQ(second, first);
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'005.0);

    EXPECT_EQ(lines(LogType::info), std::vector<std::string>{"New session started with ID: " + first});
    EXPECT_EQ(lines(LogType::debug), (std::vector<std::string>{"New session action triggered: " + first,
                                                               "Update session action triggered: " + first}));
}

TEST_F(SessionManagerTest, TimeoutIsExceededOnlyWhenStrictlyGreater) {
    SessionManager::setSessionTimeout(10);
    EXPECT_EQ(lines(LogType::info), std::vector<std::string>{"Session timeout set to 10.0 seconds"});
    const auto [id, action] = SessionManager::startOrResumeSession();
    ASSERT_EQ(action, Action::new_);

    Clock::advance(10.0);
    const auto exact = SessionManager::startOrResumeSession();
    EXPECT_EQ(exact, std::make_pair(id, Action::update));

    // Each submission restarts the inactivity period.
    Clock::advance(10.5);
    const auto [later, laterAction] = SessionManager::startOrResumeSession();
    EXPECT_EQ(laterAction, Action::new_);
    EXPECT_NE(later, id);
    EXPECT_TRUE(isUpperCaseUuid(later));
}

TEST_F(SessionManagerTest, TimeoutTextAndDefault) {
    EXPECT_DOUBLE_EQ(SessionManager::getSessionTimeout(), 1800.0);
    SessionManager::setSessionTimeout(1800);
    SessionManager::setSessionTimeout(10.5);
    SessionManager::setSessionTimeout(0.1);
    EXPECT_EQ(lines(LogType::info),
              (std::vector<std::string>{"Session timeout set to 1800.0 seconds", "Session timeout set to 10.5 seconds",
                                        "Session timeout set to 0.1 seconds"}));
    EXPECT_DOUBLE_EQ(SessionManager::getSessionTimeout(), 0.1);
}

TEST_F(SessionManagerTest, EndSessionForcesANewOneAndKeepsTheLastActiveTime) {
    const auto first = SessionManager::startOrResumeSession().first;
    Clock::advance(1);
    SessionManager::endSession();
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'000.0);

    const auto [next, action] = SessionManager::startOrResumeSession();
    EXPECT_EQ(action, Action::new_);
    EXPECT_NE(next, first);

    SessionManager::endSession();
    SessionManager::endSession();
    const auto info = lines(LogType::info);
    ASSERT_GE(info.size(), 2u);
    EXPECT_EQ(info[info.size() - 2], "Session ended with ID: " + next);
    EXPECT_EQ(info.back(), "Session ended with ID: unknown");
}

TEST_F(SessionManagerTest, ForegroundWithoutSessionWithinTimeoutStartsNothing) {
    SessionManager::setLastActiveTimestamp(Clock::now() - 100);
    SessionManager::appWillEnterForeground();
    EXPECT_FALSE(SessionManager::getCurrentSessionID());
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());
    EXPECT_EQ(lines(LogType::info), std::vector<std::string>{"App will enter foreground"});
    EXPECT_EQ(lines(LogType::debug), std::vector<std::string>{"Resuming existing session with ID: unknown"});
}

TEST_F(SessionManagerTest, ForegroundAfterTimeoutStartsASessionTheNextSubmissionContinues) {
    SessionManager::setSessionTimeout(10);
    const auto old = SessionManager::startOrResumeSession().first;
    log.sink->clear();

    Clock::advance(30);
    SessionManager::appWillEnterForeground();
    const auto started = SessionManager::getCurrentSessionID();
    ASSERT_TRUE(started);
    EXPECT_NE(*started, old);
    EXPECT_EQ(lines(LogType::info),
              (std::vector<std::string>{"App will enter foreground", "New session started with ID: " + *started}));
    EXPECT_EQ(lines(LogType::debug), std::vector<std::string>{"Session timeout detected. Starting a new session."});

    Clock::advance(1);
    EXPECT_EQ(SessionManager::startOrResumeSession(), std::make_pair(*started, Action::update));
}

TEST_F(SessionManagerTest, LifecycleNotificationsReachTheHandlers) {
    SessionManager::setSessionTimeout(60);
    SessionManager::startObservingAppLifecycle();
    const auto id = SessionManager::startOrResumeSession().first;
    log.sink->clear();

    auto& center = NotificationCenter::defaultCenter();
    Clock::advance(20);
    center.post(NotificationCenter::didEnterBackground);
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), Clock::now());

    // Time in the background counts as inactivity: 50 s is within the timeout.
    Clock::advance(50);
    center.post(NotificationCenter::willEnterForeground);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), id);
    EXPECT_EQ(lines(LogType::debug), std::vector<std::string>{"Resuming existing session with ID: " + id});

    // 61 s in the background exceeds it.
    center.post(NotificationCenter::didEnterBackground);
    Clock::advance(61);
    center.post(NotificationCenter::willEnterForeground);
    const auto renewed = SessionManager::getCurrentSessionID();
    ASSERT_TRUE(renewed);
    EXPECT_NE(*renewed, id);

    center.post(NotificationCenter::willTerminate);
    EXPECT_FALSE(SessionManager::getCurrentSessionID());

    EXPECT_EQ(lines(LogType::info),
              (std::vector<std::string>{"App entered background", "App will enter foreground", "App entered background",
                                        "App will enter foreground", "New session started with ID: " + *renewed,
                                        "App will terminate", "Session ended with ID: " + *renewed}));
}

TEST_F(SessionManagerTest, ObservingLogsAndResetUnregisters) {
    SessionManager::startObservingAppLifecycle();
    EXPECT_EQ(lines(LogType::info), std::vector<std::string>{"Started observing app lifecycle events"});

    SessionManager::resetForTesting();
    SessionManager::setCurrentSessionID("KEEP");
    log.sink->clear();
    NotificationCenter::defaultCenter().post(NotificationCenter::willTerminate);
    EXPECT_EQ(SessionManager::getCurrentSessionID(), "KEEP");
    EXPECT_TRUE(log.sink->messages().empty());
}

TEST_F(SessionManagerTest, LastActiveTimeIsReadLazilyOnFirstUse) {
    Clock::advance(42);  // after reset, before any access
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'042.0);
    Clock::advance(1);
    EXPECT_DOUBLE_EQ(SessionManager::getLastActiveTimestamp(), 1'700'000'042.0);

    // A clock that moves on every reading: racing first readers must still
    // agree, because the clock is read exactly once.
    SessionManager::resetForTesting();
    double ticks = 0;
    Clock::setSource([&ticks] { return ticks += 1; });
    std::vector<std::thread> threads;
    std::vector<double> seen(4);
    for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { seen[i] = SessionManager::getLastActiveTimestamp(); });
    for (auto& t : threads) t.join();
    Clock::reset();
    for (double v : seen) EXPECT_DOUBLE_EQ(v, 1.0);
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
