#include "tavrin/sdk/internal/logger_utility.h"

#include <map>
#include <mutex>

#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/internal/log_hook.h"

namespace tavrin {

namespace {

constexpr const char* kFallbackSubsystem = "com.tavrin.TavrinSDK";
constexpr const char* kCategory = "default";

// One handle per subsystem ever used; entries are never removed.
const platform::SystemLog* handleForCurrentSubsystem() {
    static std::mutex mutex;
    static auto* handles = new std::map<std::string, platform::SystemLog>();
    std::string subsystem = platform::DeviceFacts::bundleIdentifier().value_or(kFallbackSubsystem);
    if (subsystem.empty()) subsystem = kFallbackSubsystem;
    std::lock_guard lock(mutex);
    auto it = handles->find(subsystem);
    if (it == handles->end()) it = handles->try_emplace(subsystem, subsystem, kCategory).first;
    return &it->second;
}

LogLevel levelOf(platform::LogSeverity severity) {
    switch (severity) {
        case platform::LogSeverity::debug: return LogLevel::debug;
        case platform::LogSeverity::info: return LogLevel::info;
        case platform::LogSeverity::warning: return LogLevel::warning;
        case platform::LogSeverity::error: break;
    }
    return LogLevel::error;
}

// The platform layer's messages pass the same level filter and carry the same
// subsystem as everything else the SDK logs.
constexpr platform::LogHook kPlatformHook{[](platform::LogSeverity severity) {
                                              return rawValue(LoggerUtility::shared().logLevel()) <=
                                                     rawValue(levelOf(severity));
                                          },
                                          [](platform::LogSeverity severity, std::string text) {
                                              auto& logger = LoggerUtility::shared();
                                              switch (severity) {
                                                  case platform::LogSeverity::debug:
                                                      return logger.debug(std::move(text));
                                                  case platform::LogSeverity::info: return logger.info(std::move(text));
                                                  case platform::LogSeverity::warning:
                                                      return logger.warning(std::move(text));
                                                  case platform::LogSeverity::error:
                                                      return logger.error(std::move(text));
                                              }
                                          }};

// Before main, so that the platform layer's first message already goes through it.
const bool kPlatformHookInstalled = (platform::installLogHook(&kPlatformHook), true);

}  // namespace

LoggerUtility::LoggerUtility(const platform::SystemLog* logger) : logger_(logger) {}

LoggerUtility& LoggerUtility::shared() {
    static auto* instance = new LoggerUtility(handleForCurrentSubsystem());
    return *instance;
}

void LoggerUtility::resetShared() {
    auto& logger = shared();
    logger.logger_.store(handleForCurrentSubsystem(), std::memory_order_release);
    logger.logLevel_.store(LogLevel::info, std::memory_order_relaxed);
}

void LoggerUtility::setLogLevel(LogLevel level) {
    logLevel_.store(level, std::memory_order_relaxed);
    // Written regardless of the threshold; the level name is not marked public.
    const auto& log = logger();
    if (log.isEnabled(platform::LogType::info)) {
        log.log(platform::LogType::info, std::string("Log level updated to: ") + description(level),
                platform::LogPrivacy::privateText);
    }
}

void LoggerUtility::write(platform::LogSink& sink, platform::LogType type, std::string text) const {
    const auto& log = logger();
    sink.write(
        platform::LogRecord{type, log.subsystem(), log.category(), std::move(text), platform::LogPrivacy::publicText});
}

}  // namespace tavrin
