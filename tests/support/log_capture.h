#pragma once
// Installs a capturing log sink for the lifetime of the object and resets the
// shared logger's level, so each test sees only its own lines.

#include <memory>

#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tests/support/capturing_sink.h"

namespace tavrin::testing {

class LogCapture {
public:
    explicit LogCapture(LogLevel level = LogLevel::debug) : sink(std::make_shared<CapturingSink>()) {
        platform::SystemLog::setSink(sink);
        LoggerUtility::resetShared();
        if (level != LogLevel::info) LoggerUtility::shared().setLogLevel(level);
        sink->clear();
    }
    ~LogCapture() {
        LoggerUtility::resetShared();
        platform::SystemLog::setSink(nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::shared_ptr<CapturingSink> sink;
};

}  // namespace tavrin::testing
