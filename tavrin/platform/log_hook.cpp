#include "tavrin/platform/internal/log_hook.h"

#include <atomic>

#include "tavrin/platform/system_log.h"

namespace tavrin::platform {

namespace {

LogType typeOf(LogSeverity severity) {
    switch (severity) {
        case LogSeverity::debug: return LogType::debug;
        case LogSeverity::info: return LogType::info;
        default: return LogType::error;
    }
}

bool defaultWants(LogSeverity severity) {
    return severity >= LogSeverity::warning && SystemLog::sink()->isEnabled(typeOf(severity));
}

void defaultWrite(LogSeverity severity, std::string text) {
    SystemLog::sink()->write(
        LogRecord{typeOf(severity), "com.tavrin.TavrinSDK", "default", std::move(text), LogPrivacy::publicText});
}

constexpr LogHook kDefaultHook{defaultWants, defaultWrite};

// Constant-initialised, so a hook installed during static initialisation is never overwritten by it.
constinit std::atomic<const LogHook*> installed{&kDefaultHook};

}  // namespace

void installLogHook(const LogHook* hook) noexcept {
    installed.store(hook ? hook : &kDefaultHook, std::memory_order_release);
}

namespace detail {

bool logWanted(LogSeverity severity) { return installed.load(std::memory_order_acquire)->wants(severity); }

void logWrite(LogSeverity severity, std::string text) {
    installed.load(std::memory_order_acquire)->write(severity, std::move(text));
}

}  // namespace detail

}  // namespace tavrin::platform
