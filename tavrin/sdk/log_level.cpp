#include "tavrin/sdk/log_level.h"

namespace tavrin {

const char* description(LogLevel level) noexcept {
    switch (level) {
        case LogLevel::debug: return "DEBUG";
        case LogLevel::info: return "INFO";
        case LogLevel::warning: return "WARNING";
        case LogLevel::error: return "ERROR";
        case LogLevel::critical: return "CRITICAL";
        case LogLevel::performance: return "PERFORMANCE";
        case LogLevel::none: return "NONE";
    }
    return "UNKNOWN";
}

}  // namespace tavrin
