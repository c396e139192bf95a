#pragma once
// How the platform layer reports what it cannot hand back to a caller (a
// failing completion handler, a corrupt store moved aside). The layers above
// own the logger, its level and its subsystem, so they install a hook here;
// until one is installed, warnings and errors go to the system log's sink
// under the SDK's default subsystem.
//
//     platform::logError("KeyValueStore: the database file is not a database");
//     platform::logError([&] { return "built only when wanted: " + describe(error); });

#include <string>
#include <type_traits>
#include <utility>

namespace tavrin::platform {

enum class LogSeverity { debug, info, warning, error };

struct LogHook {
    bool (*wants)(LogSeverity severity);  // cheap: decides whether a message is built at all
    void (*write)(LogSeverity severity, std::string text);
};

// `hook` must live for the rest of the process; nullptr puts the default back.
void installLogHook(const LogHook* hook) noexcept;

namespace detail {
bool logWanted(LogSeverity severity);
void logWrite(LogSeverity severity, std::string text);
}  // namespace detail

// Text, or a callable returning text that runs only when the message is wanted.
template <class M>
void log(LogSeverity severity, M&& message) {
    if (!detail::logWanted(severity)) return;
    if constexpr (std::is_invocable_v<M>) {
        detail::logWrite(severity, std::string(message()));
    } else {
        detail::logWrite(severity, std::string(std::forward<M>(message)));
    }
}

template <class M>
void logError(M&& message) {
    log(LogSeverity::error, std::forward<M>(message));
}

}  // namespace tavrin::platform
