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
    // Tests: puts the shared instance back to its starting state: level info
    // and the subsystem read again from the host's bundle identifier.
    static void resetShared();

    // Each message operation takes either text or a callable returning text;
    // a callable is only invoked when the message will be written, so a
    // filtered-out message costs one comparison and builds no string.
    template <class M>
    void debug(M&& message) {
        emit(LogLevel::debug, platform::LogType::debug, std::forward<M>(message));
    }
    template <class M>
    void info(M&& message) {
        emit(LogLevel::info, platform::LogType::info, std::forward<M>(message));
    }
    template <class M>
    void warning(M&& message) {
        emit(LogLevel::warning, platform::LogType::error, std::forward<M>(message));
    }
    template <class M>
    void error(M&& message) {
        emit(LogLevel::error, platform::LogType::error, std::forward<M>(message));
    }

    void setLogLevel(LogLevel level);
    LogLevel logLevel() const noexcept { return logLevel_.load(std::memory_order_relaxed); }

    // The platform logger handle (subsystem and category). The reference
    // stays valid for the life of the process.
    const platform::SystemLog& logger() const noexcept { return *logger_.load(std::memory_order_acquire); }

private:
    explicit LoggerUtility(const platform::SystemLog* logger);

    template <class M>
    void emit(LogLevel atLeast, platform::LogType type, M&& message) {
        // The threshold comes first: a filtered-out message asks the platform nothing.
        if (rawValue(logLevel_.load(std::memory_order_relaxed)) > rawValue(atLeast)) return;
        auto sink = platform::SystemLog::sink();
        if (!sink->isEnabled(type)) return;
        if constexpr (std::is_invocable_v<M>) {
            write(*sink, type, std::string(message()));
        } else {
            write(*sink, type, std::string(std::forward<M>(message)));
        }
    }
    void write(platform::LogSink& sink, platform::LogType type, std::string text) const;

    // Handles live in a registry that is never emptied, so a reset can switch
    // the subsystem while other threads still hold the old handle.
    std::atomic<const platform::SystemLog*> logger_;
    std::atomic<LogLevel> logLevel_{LogLevel::info};
};

}  // namespace tavrin
