#include "tavrin/sdk/internal/logger_utility.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "tavrin/platform/device_facts.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using platform::LogType;
using testing::LogCapture;
using Line = std::pair<LogType, std::string>;

constexpr LogLevel kAllLevels[] = {LogLevel::debug,    LogLevel::info,        LogLevel::warning, LogLevel::error,
                                   LogLevel::critical, LogLevel::performance, LogLevel::none};

std::vector<Line> lines(const LogCapture& capture) {
    std::vector<Line> out;
    for (const auto& r : capture.sink->records()) out.emplace_back(r.type, r.message);
    return out;
}

TEST(LogLevel, RawValuesAndDescriptions) {
    const std::pair<int, const char*> expected[] = {{1, "DEBUG"},    {2, "INFO"},        {3, "WARNING"}, {4, "ERROR"},
                                                    {5, "CRITICAL"}, {6, "PERFORMANCE"}, {7, "NONE"}};
    for (std::size_t i = 0; i < std::size(kAllLevels); ++i) {
        EXPECT_EQ(rawValue(kAllLevels[i]), expected[i].first);
        EXPECT_STREQ(description(kAllLevels[i]), expected[i].second);
        EXPECT_EQ(logLevelFromRawValue(expected[i].first), kAllLevels[i]);
    }
    for (int raw : {0, 8, -1, std::numeric_limits<int>::min()}) EXPECT_FALSE(logLevelFromRawValue(raw)) << raw;
}

TEST(LoggerUtility, FiltersAtEveryLevelIncludingTheSilentOnesAndWritesWarningsAsErrors) {
    LogCapture capture(LogLevel::info);
    EXPECT_EQ(LoggerUtility::shared().logLevel(), LogLevel::info);  // a fresh logger
    const Line all[] = {{LogType::debug, "d"}, {LogType::info, "i"}, {LogType::error, "w"}, {LogType::error, "e"}};
    auto& log = LoggerUtility::shared();
    for (LogLevel level : kAllLevels) {
        log.setLogLevel(level);
        capture.sink->clear();
        log.debug("d");
        log.info("i");
        log.warning("w");
        log.error("e");
        std::vector<Line> expected;
        for (int i = 0; i < 4; ++i)
            if (rawValue(level) <= i + 1) expected.push_back(all[i]);
        EXPECT_EQ(lines(capture), expected) << description(level);
        for (const auto& r : capture.sink->records()) EXPECT_EQ(r.privacy, platform::LogPrivacy::publicText);
    }
}

TEST(LoggerUtility, SetLogLevelAnnouncesTheNewLevelUnlessInfoIsDisabled) {
    LogCapture capture(LogLevel::info);
    for (LogLevel level : kAllLevels) {
        capture.sink->clear();
        LoggerUtility::shared().setLogLevel(level);
        EXPECT_EQ(LoggerUtility::shared().logLevel(), level);
        EXPECT_EQ(lines(capture),
                  (std::vector<Line>{{LogType::info, std::string("Log level updated to: ") + description(level)}}));
        // The level name is deliberately not marked public.
        EXPECT_EQ(capture.sink->records().at(0).privacy, platform::LogPrivacy::privateText);
    }
    auto quietInfo = std::make_shared<testing::CapturingSink>(true, false, true);
    platform::SystemLog::setSink(quietInfo);
    LoggerUtility::shared().setLogLevel(LogLevel::warning);
    EXPECT_TRUE(quietInfo->records().empty());
    EXPECT_EQ(LoggerUtility::shared().logLevel(), LogLevel::warning);
}

TEST(LoggerUtility, MessagesAreBuiltOnlyWhenWritten) {
    LogCapture capture(LogLevel::warning);
    int calls = 0;
    auto build = [&] { return "built " + std::to_string(++calls); };
    auto& log = LoggerUtility::shared();
    log.debug(build);
    log.info(build);
    EXPECT_EQ(calls, 0);
    log.warning(build);
    EXPECT_EQ(calls, 1);
    // A type the platform reports disabled builds nothing either.
    auto noErrors = std::make_shared<testing::CapturingSink>(true, true, false);
    platform::SystemLog::setSink(noErrors);
    log.error(build);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(capture.sink->contains("built 1"));
    EXPECT_TRUE(noErrors->records().empty());

    log.setLogLevel(LogLevel::debug);
    noErrors->clear();
    log.debug([] { return "plain"; });
    log.info(std::string_view("view-of-longer-text").substr(0, 4));  // not NUL-terminated
    EXPECT_EQ(noErrors->messages(), (std::vector<std::string>{"plain", "view"}));
}

TEST(LoggerUtility, SubsystemFallsBackWhenTheHostHasNoBundleIdentifier) {
    platform::DeviceFacts::reset();
    LogCapture capture(LogLevel::info);
    LoggerUtility::shared().info("hello");
    ASSERT_EQ(capture.sink->records().size(), 1u);
    EXPECT_EQ(capture.sink->records()[0].subsystem, "com.tavrin.TavrinSDK");
    EXPECT_EQ(capture.sink->records()[0].category, "default");

    platform::DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = {}});
    LoggerUtility::resetShared();
    EXPECT_EQ(LoggerUtility::shared().logger().subsystem(), "com.example.shop");
    EXPECT_EQ(LoggerUtility::shared().logger().category(), "default");
    platform::DeviceFacts::reset();
}

}  // namespace
}  // namespace tavrin
