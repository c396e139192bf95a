#pragma once
// The one shared logger of the SDK: filters by LogLevel, then writes to the
// system log. Warnings go out with the error type on purpose.

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tavrin/platform/system_log.h"
#include "tavrin/sdk/log_level.h"

namespace tavrin {

class LoggerUtility {
public:
    static LoggerUtility& shared();
    // Tests: drops the shared instance so the next shared() starts fresh
    // (level info, subsystem read again).
    static void resetShared();

    // Each message operation takes either text or a callable returning text;
    // a callable is only invoked when the message will be written, so a
    // filtered-out message costs one comparison and builds no string.
    template <class M>
    void debug(M&& message) { emit(LogLevel::debug, platform::LogType::debug, std::forward<M>(message)); }
    template <class M>
    void info(M&& message) { emit(LogLevel::info, platform::LogType::info, std::forward<M>(message)); }
    template <class M>
    void warning(M&& message) { emit(LogLevel::warning, platform::LogType::error, std::forward<M>(message)); }
    template <class M>
    void error(M&& message) { emit(LogLevel::error, platform::LogType::error, std::forward<M>(message)); }

    void setLogLevel(LogLevel level);
    LogLevel logLevel() const noexcept { return logLevel_.load(std::memory_order_relaxed); }

    const platform::SystemLog& logger() const noexcept { return logger_; }

private:
    explicit LoggerUtility(std::string subsystem);

    template <class M>
    void emit(LogLevel atLeast, platform::LogType type, M&& message) {
        if (rawValue(logLevel_.load(std::memory_order_relaxed)) > rawValue(atLeast)) return;
        if (!logger_.isEnabled(type)) return;
        if constexpr (std::is_invocable_v<M>) {
            write(type, std::string_view(message()));
        } else {
            write(type, std::string_view(message));
        }
    }
    void write(platform::LogType type, std::string_view text);

    platform::SystemLog logger_;
    std::atomic<LogLevel> logLevel_{LogLevel::info};
};

}  // namespace tavrin
