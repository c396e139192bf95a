#include "tavrin/sdk/logger_utility.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tavrin/platform/device_facts.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using platform::LogType;
using testing::LogCapture;

constexpr LogLevel kAllLevels[] = {LogLevel::debug,    LogLevel::info,        LogLevel::warning, LogLevel::error,
                                   LogLevel::critical, LogLevel::performance, LogLevel::none};

TEST(LogLevel, RawValuesAndDescriptions) {
    const std::pair<int, const char*> expected[] = {{1, "DEBUG"},    {2, "INFO"},        {3, "WARNING"}, {4, "ERROR"},
                                                    {5, "CRITICAL"}, {6, "PERFORMANCE"}, {7, "NONE"}};
    for (std::size_t i = 0; i < std::size(kAllLevels); ++i) {
        EXPECT_EQ(rawValue(kAllLevels[i]), expected[i].first);
        EXPECT_STREQ(description(kAllLevels[i]), expected[i].second);
        EXPECT_EQ(logLevelFromRawValue(expected[i].first), kAllLevels[i]);
    }
    EXPECT_EQ(logLevelFromRawValue(6), LogLevel::performance);
    for (int raw : {0, 8, -1, 100, std::numeric_limits<int>::min()}) EXPECT_FALSE(logLevelFromRawValue(raw)) << raw;
    EXPECT_NE(std::hash<LogLevel>{}(LogLevel::debug), std::hash<LogLevel>{}(LogLevel::none));
}

// Calls each message operation once and returns which of them reached the sink.
struct Emitted {
    bool debug = false, info = false, warning = false, error = false;
};
Emitted emitAll(LogCapture& capture) {
    capture.sink->clear();
    auto& log = LoggerUtility::shared();
    log.debug("d-message");
    log.info("i-message");
    log.warning("w-message");
    log.error("e-message");
    return {capture.sink->contains("d-message"), capture.sink->contains("i-message"),
            capture.sink->contains("w-message"), capture.sink->contains("e-message")};
}

TEST(LoggerUtility, FreshLoggerWritesInfoAndAboveButNotDebug) {
    LogCapture capture(LogLevel::info);
    EXPECT_EQ(LoggerUtility::shared().logLevel(), LogLevel::info);
    const auto e = emitAll(capture);
    EXPECT_FALSE(e.debug);
    EXPECT_TRUE(e.info);
    EXPECT_TRUE(e.warning);
    EXPECT_TRUE(e.error);
}

TEST(LoggerUtility, FiltersAtEveryLevelIncludingTheSilentOnes) {
    LogCapture capture;
    for (LogLevel level : kAllLevels) {
        LoggerUtility::shared().setLogLevel(level);
        const auto e = emitAll(capture);
        const int raw = rawValue(level);
        SCOPED_TRACE(description(level));
        EXPECT_EQ(e.debug, raw <= 1);
        EXPECT_EQ(e.info, raw <= 2);
        EXPECT_EQ(e.warning, raw <= 3);
        EXPECT_EQ(e.error, raw <= 4);
    }
    // The silent levels suppress everything, errors included.
    for (LogLevel level : {LogLevel::critical, LogLevel::performance, LogLevel::none}) {
        LoggerUtility::shared().setLogLevel(level);
        capture.sink->clear();
        LoggerUtility::shared().error("still an error");
        EXPECT_TRUE(capture.sink->records().empty()) << description(level);
    }
}

TEST(LoggerUtility, MapsOperationsToPlatformTypes) {
    LogCapture capture(LogLevel::debug);
    auto& log = LoggerUtility::shared();
    log.debug("d");
    log.info("i");
    log.warning("w");
    log.error("e");
    const auto records = capture.sink->records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].type, LogType::debug);
    EXPECT_EQ(records[1].type, LogType::info);
    EXPECT_EQ(records[2].type, LogType::error);  // warnings go out as errors
    EXPECT_EQ(records[2].message, "w");
    EXPECT_EQ(records[3].type, LogType::error);
    for (const auto& r : records) EXPECT_EQ(r.privacy, platform::LogPrivacy::publicText) << r.message;
}

TEST(LoggerUtility, SetLogLevelAnnouncesTheNewLevelRegardlessOfThreshold) {
    LogCapture capture(LogLevel::info);
    for (LogLevel level : kAllLevels) {
        capture.sink->clear();
        LoggerUtility::shared().setLogLevel(level);
        EXPECT_EQ(LoggerUtility::shared().logLevel(), level);
        const auto records = capture.sink->records();
        ASSERT_EQ(records.size(), 1u) << description(level);
        EXPECT_EQ(records[0].type, LogType::info);
        EXPECT_EQ(records[0].message, std::string("Log level updated to: ") + description(level));
        // The level name is deliberately not marked public.
        EXPECT_EQ(records[0].privacy, platform::LogPrivacy::privateText);
    }
}

TEST(LoggerUtility, SetLogLevelWritesNothingWhenInfoIsDisabledButStillChangesTheLevel) {
    LogCapture capture(LogLevel::info);
    auto quietInfo = std::make_shared<platform::CapturingSink>(true, false, true);
    platform::SystemLog::setSink(quietInfo);
    LoggerUtility::shared().setLogLevel(LogLevel::warning);
    EXPECT_TRUE(quietInfo->records().empty());
    EXPECT_EQ(LoggerUtility::shared().logLevel(), LogLevel::warning);
    LoggerUtility::shared().info("info line");
    LoggerUtility::shared().warning("warning line");
    EXPECT_EQ(quietInfo->messages(), std::vector<std::string>{"warning line"});
}

TEST(LoggerUtility, LazyMessagesAreBuiltOnlyWhenWritten) {
    LogCapture capture(LogLevel::warning);
    int calls = 0;
    auto build = [&] {
        ++calls;
        return std::string("built ") + std::to_string(calls);
    };
    auto& log = LoggerUtility::shared();
    log.debug(build);
    log.info(build);
    EXPECT_EQ(calls, 0);
    log.warning(build);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(capture.sink->contains("built 1"));

    // A type the platform reports disabled builds nothing either.
    auto noErrors = std::make_shared<platform::CapturingSink>(true, true, false);
    platform::SystemLog::setSink(noErrors);
    log.error(build);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(noErrors->records().empty());

    // Lambdas returning C strings work too.
    LoggerUtility::shared().setLogLevel(LogLevel::debug);
    log.debug([] { return "plain"; });
    EXPECT_TRUE(noErrors->contains("plain"));
}

TEST(LoggerUtility, AcceptsTextInEveryForm) {
    LogCapture capture(LogLevel::debug);
    auto& log = LoggerUtility::shared();
    const std::string owned = "owned";
    std::string_view view = "view-of-longer-text";
    view = view.substr(0, 4);
    log.info(owned);
    log.info(view);
    log.info("literal");
    log.info(std::string("temporary"));
    EXPECT_EQ(capture.sink->messages(), (std::vector<std::string>{"owned", "view", "literal", "temporary"}));
}

TEST(LoggerUtility, SubsystemFallsBackWhenTheHostHasNoBundleIdentifier) {
    platform::DeviceFacts::reset();
    LogCapture capture(LogLevel::info);
    EXPECT_EQ(LoggerUtility::shared().logger().subsystem(), "com.tavrin.TavrinSDK");
    EXPECT_EQ(LoggerUtility::shared().logger().category(), "default");
    LoggerUtility::shared().info("hello");
    auto records = capture.sink->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].subsystem, "com.tavrin.TavrinSDK");
    EXPECT_EQ(records[0].category, "default");

    platform::DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = {}});
    LoggerUtility::resetShared();
    capture.sink->clear();
    LoggerUtility::shared().info("hello");
    records = capture.sink->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].subsystem, "com.example.shop");
    EXPECT_EQ(records[0].category, "default");
    platform::DeviceFacts::reset();
    LoggerUtility::resetShared();
    EXPECT_EQ(LoggerUtility::shared().logger().subsystem(), "com.tavrin.TavrinSDK");
}

TEST(LoggerUtility, LevelChangesAndMessagesFromManyThreads) {
    LogCapture capture(LogLevel::debug);
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        for (int i = 0; !stop.load(); ++i)
            LoggerUtility::shared().setLogLevel(i % 2 ? LogLevel::debug : LogLevel::error);
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t)
        writers.emplace_back([t] {
            for (int i = 0; i < 300; ++i) LoggerUtility::shared().error([&] { return "w" + std::to_string(t); });
        });
    for (auto& w : writers) w.join();
    stop = true;
    changer.join();
    // Errors pass at both levels, so every one of them arrives.
    EXPECT_EQ(capture.sink->messages(LogType::error).size(), 900u);
}

}  // namespace
}  // namespace tavrin
