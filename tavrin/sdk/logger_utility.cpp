#include "tavrin/sdk/logger_utility.h"

#include "tavrin/platform/device_facts.h"

namespace tavrin {

namespace {
constexpr const char* kFallbackSubsystem = "com.tavrin.TavrinSDK";
constexpr const char* kCategory = "default";
}  // namespace

LoggerUtility::LoggerUtility(std::string subsystem) : logger_(std::move(subsystem), kCategory) {}

LoggerUtility& LoggerUtility::shared() {
    // Function-local static: created once, thread-safely, and kept for the process.
    static LoggerUtility instance(platform::DeviceFacts::bundleIdentifier().value_or(kFallbackSubsystem));
    return instance;
}

void LoggerUtility::resetShared() { shared().logLevel_.store(LogLevel::info, std::memory_order_relaxed); }

void LoggerUtility::setLogLevel(LogLevel level) {
    logLevel_.store(level, std::memory_order_relaxed);
    // Written regardless of the threshold; the level name is not marked public.
    if (logger_.isEnabled(platform::LogType::info)) {
        logger_.log(platform::LogType::info, std::string("Log level updated to: ") + description(level),
                    platform::LogPrivacy::privateText);
    }
}

void LoggerUtility::write(platform::LogType type, std::string_view text) {
    logger_.log(type, text, platform::LogPrivacy::publicText);
}

}  // namespace tavrin
