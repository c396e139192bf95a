#include "tavrin/sdk/internal/logger_utility.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tavrin/platform/device_facts.h"
#include "tests/support/log_capture.h"

namespace tavrin {
namespace {

using platform::LogType;
using testing::CapturingSink;
using testing::LogCapture;

TEST(LoggerUtilityTest, WritesOnlyMessagesAtOrAboveTheLevel) {
    LogCapture capture;
    auto& log = LoggerUtility::shared();
    // Row i is written from level i + 1 down; "none" and the levels above error write nothing.
    const std::pair<LogType, std::string> all[] = {
        {LogType::debug, "d"}, {LogType::info, "i"}, {LogType::error, "w"}, {LogType::error, "e"}};
    for (int raw = 1; raw <= 7; ++raw) {
        const LogLevel level = *logLevelFromRawValue(raw);
        SCOPED_TRACE(description(level));
        log.setLogLevel(level);
        capture.sink->clear();
        log.debug("d");
        log.info("i");
        log.warning("w");
        log.error("e");
        std::vector<std::pair<LogType, std::string>> expected, written;
        for (int i = raw - 1; i < 4; ++i) expected.push_back(all[i]);
        for (const auto& r : capture.sink->records()) {
            written.emplace_back(r.type, r.message);
            EXPECT_EQ(r.privacy, platform::LogPrivacy::publicText);
        }
        EXPECT_EQ(written, expected);
    }
}

TEST(LoggerUtilityTest, FilteredMessagesAreNeverBuilt) {
    LogCapture capture(LogLevel::warning);
    int calls = 0;
    auto build = [&] { return "built " + std::to_string(++calls); };
    auto& log = LoggerUtility::shared();
    log.debug(build);
    log.info(build);
    log.warning(build);
    EXPECT_EQ(calls, 1);
    // A type the platform reports disabled builds nothing either.
    platform::SystemLog::setSink(std::make_shared<CapturingSink>(true, true, false));
    log.error(build);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(capture.sink->messages(), std::vector<std::string>{"built 1"});
}

TEST(LoggerUtilityTest, SubsystemIsTheHostBundleIdentifierOrTheSdkFallback) {
    platform::DeviceFacts::reset();
    LogCapture capture;
    LoggerUtility::shared().info("hello");
    ASSERT_EQ(capture.sink->records().size(), 1u);
    EXPECT_EQ(capture.sink->records()[0].subsystem, "com.tavrin.TavrinSDK");
    EXPECT_EQ(capture.sink->records()[0].category, "default");

    platform::DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = {}});
    LoggerUtility::resetShared();
    EXPECT_EQ(LoggerUtility::shared().logger().subsystem(), "com.example.shop");
    platform::DeviceFacts::reset();
}

}  // namespace
}  // namespace tavrin
