#pragma once
// Sessions: which visit a data submission belongs to. An application sets the
// timeout and lets the lifecycle notifications it posts start and end visits.
//
//     using tavrin::SessionManager;
//     SessionManager::setSessionTimeout(600);        // over ten idle minutes start a new visit
//     SessionManager::startObservingAppLifecycle();  // background, foreground and terminate from now on
//     auto [sessionID, action] = SessionManager::startOrResumeSession();
//     if (action == tavrin::Action::new_) { /* the first submission of a visit */ }
//     SessionManager::endSession();                  // the user logged out: the next submission starts a new one
//
// One process-wide session identifier and last-activity time, a timeout after
// which a new session starts, and handlers for the application's lifecycle
// events. Nothing is persisted: a new process always starts a new session.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tavrin/platform/api.h"

namespace tavrin {

// Whether an identifier was just created or continued. The first case is
// spelled new_ because `new` is a C++ keyword; its wire text is still "new".
enum class Action { new_, update };

// "new" or "update".
constexpr const char* rawValue(Action action) noexcept { return action == Action::new_ ? "new" : "update"; }
// "new" and "update" give an action; any other text gives nothing.
constexpr std::optional<Action> actionFromRawValue(std::string_view raw) noexcept {
    if (raw == "new") return Action::new_;
    if (raw == "update") return Action::update;
    return std::nullopt;
}

// Never instantiated; all state is process-wide and safe to use from any
// thread (concurrent calls resolve as last writer wins).
class TAVRIN_API SessionManager {
public:
    SessionManager() = delete;

    static constexpr double defaultSessionTimeout = 1800.0;  // 30 minutes

    // Seconds of inactivity after which a session is still continued.
    static void setSessionTimeout(double seconds);
    static double getSessionTimeout();

    // Registers the lifecycle handlers with the default notification center
    // (did enter background, will enter foreground, will terminate).
    static void startObservingAppLifecycle();

    // The current session and whether it was just started. A session whose
    // inactivity exceeds the timeout (strictly) is replaced by a new one.
    // Refreshes the last active time either way.
    static std::pair<std::string, Action> startOrResumeSession();
    static void endSession();

    // Seconds since 1970; read from the clock on first access.
    static double getLastActiveTimestamp();
    static void setLastActiveTimestamp(double secondsSince1970);
    static std::optional<std::string> getCurrentSessionID();
    static void setCurrentSessionID(std::optional<std::string> sessionID);

    // Lifecycle handlers (also callable directly).
    static void appDidEnterBackground();
    static void appWillEnterForeground();
    static void appWillTerminate();

    // Tests: unregisters the observers and restores the initial state
    // (timeout 1800 s, no session, last active time unread).
    static void resetForTesting();
};

}  // namespace tavrin
