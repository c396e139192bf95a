#include "tavrin/platform/system_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>

namespace tavrin::platform {
namespace {

class SystemLogTest : public ::testing::Test {
protected:
    void TearDown() override { SystemLog::setSink(nullptr); }
};

TEST_F(SystemLogTest, WritesEnabledTypesToTheInstalledSink) {
    auto sink = std::make_shared<CapturingSink>(true, true, false);
    SystemLog::setSink(sink);
    const SystemLog log("com.example.app", "default");
    EXPECT_TRUE(log.isEnabled(LogType::info));
    EXPECT_FALSE(log.isEnabled(LogType::error));
    log.log(LogType::info, "first");
    log.log(LogType::debug, "second", LogPrivacy::privateText);
    log.log(LogType::error, "disabled");
    const auto records = sink->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].subsystem, "com.example.app");
    EXPECT_EQ(records[0].category, "default");
    EXPECT_EQ(records[0].type, LogType::info);
    EXPECT_EQ(records[0].privacy, LogPrivacy::publicText);
    EXPECT_EQ(records[1].privacy, LogPrivacy::privateText);
    EXPECT_EQ(sink->messages(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(sink->messages(LogType::debug), std::vector<std::string>{"second"});
    EXPECT_TRUE(sink->contains("second"));
    EXPECT_FALSE(sink->contains("secon"));  // whole messages only

    SystemLog::setSink(nullptr);  // restores syslog
    EXPECT_NE(dynamic_cast<SyslogSink*>(SystemLog::sink().get()), nullptr);
}

TEST_F(SystemLogTest, StderrSinkFormat) {
    SystemLog::setSink(std::make_shared<StderrSink>());
    ::testing::internal::CaptureStderr();
    SystemLog("com.example.app", "default").log(LogType::error, "it broke");
    SystemLog("com.example.app", "net").log(LogType::debug, "detail");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "com.example.app [default] ERROR: it broke\ncom.example.app [net] DEBUG: detail\n");
}

TEST_F(SystemLogTest, SyslogSinkFollowsTheLogMask) {
    SyslogSink sink;
    const int previous = setlogmask(LOG_UPTO(LOG_INFO));
    EXPECT_FALSE(sink.isEnabled(LogType::debug));
    EXPECT_TRUE(sink.isEnabled(LogType::info));
    EXPECT_TRUE(sink.isEnabled(LogType::error));
    setlogmask(LOG_MASK(LOG_ERR));
    EXPECT_FALSE(sink.isEnabled(LogType::info));
    EXPECT_TRUE(sink.isEnabled(LogType::error));
    // Switching identities keeps each identity text alive for syslog (checked under the sanitizers).
    setlogmask(LOG_MASK(LOG_EMERG));
    for (const std::string& subsystem :
         {std::string("com.tavrin.test.one"), std::string(200, 'x'), std::string("com.tavrin.test.one")})
        sink.write(LogRecord{LogType::error, subsystem, "default", "not emitted", LogPrivacy::publicText});
    setlogmask(previous);
    closelog();
}

}  // namespace
}  // namespace tavrin::platform
