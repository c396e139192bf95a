#pragma once
// How much the SDK logs: the threshold an application passes to
// TavrinService::setLogLevel, from debug (everything) to none.
//
//     // A level from the application's own setting (1 to 7), warnings and worse when it is not one:
//     int configured = 1;
//     tavrin::LogLevel level = tavrin::logLevelFromRawValue(configured).value_or(tavrin::LogLevel::warning);
//     const char* name = tavrin::description(level);  // "DEBUG"
//     tavrin::TavrinService::setLogLevel(level);

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tavrin/platform/api.h"

namespace tavrin {

// Threshold of the shared logger; ordered from most to least verbose.
enum class LogLevel : int {
    debug = 1,
    info = 2,
    warning = 3,
    error = 4,
    critical = 5,
    performance = 6,
    none = 7,
};

// "DEBUG", "INFO", ... "NONE".
TAVRIN_API const char* description(LogLevel level) noexcept;
constexpr int rawValue(LogLevel level) noexcept { return static_cast<int>(level); }
// 1 to 7 give a level; anything else gives nothing.
constexpr std::optional<LogLevel> logLevelFromRawValue(int raw) noexcept {
    if (raw < 1 || raw > 7) return std::nullopt;
    return static_cast<LogLevel>(raw);
}

}  // namespace tavrin
