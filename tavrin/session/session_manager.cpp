#include "tavrin/session/session_manager.h"

#include <charconv>
#include <cmath>
#include <mutex>
#include <vector>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/internal/text.h"
#include "tavrin/platform/internal/uuid.h"
#include "tavrin/platform/notification_center.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {

struct SessionState {
    std::mutex mutex;
    double timeout = SessionManager::defaultSessionTimeout;
    std::optional<double> lastActive;  // unread until first needed
    std::optional<std::string> sessionID;
    std::vector<platform::NotificationCenter::Token> observers;
};

SessionState& state() {
    static auto* s = new SessionState();
    return *s;
}

// Caller holds the mutex.
double lastActiveLocked(SessionState& s) {
    if (!s.lastActive) s.lastActive = platform::Clock::now();
    return *s.lastActive;
}

// Caller holds the mutex. Returns the new identifier.
std::string startNewSessionLocked(SessionState& s, double now) {
    s.sessionID = platform::Uuid::make();
    s.lastActive = now;
    return *s.sessionID;
}

void logNewSession(const std::string& id) {
    LoggerUtility::shared().info([&] { return "New session started with ID: " + id; });
}

}  // namespace

void SessionManager::setSessionTimeout(double seconds) {
    {
        std::lock_guard lock(state().mutex);
        state().timeout = seconds;
    }
    LoggerUtility::shared().info(
        [&] { return "Session timeout set to " + detail::shortestDecimalText(seconds) + " seconds"; });
}

double SessionManager::getSessionTimeout() {
    std::lock_guard lock(state().mutex);
    return state().timeout;
}

void SessionManager::startObservingAppLifecycle() {
    LoggerUtility::shared().info("Started observing app lifecycle events");
    using Center = platform::NotificationCenter;
    auto& center = Center::defaultCenter();
    const auto background =
        center.addObserver(Center::didEnterBackground, [](const std::string&) { appDidEnterBackground(); });
    const auto foreground =
        center.addObserver(Center::willEnterForeground, [](const std::string&) { appWillEnterForeground(); });
    const auto terminate = center.addObserver(Center::willTerminate, [](const std::string&) { appWillTerminate(); });
    std::lock_guard lock(state().mutex);
    state().observers.insert(state().observers.end(), {background, foreground, terminate});
}

std::pair<std::string, Action> SessionManager::startOrResumeSession() {
    auto& s = state();
    std::string id;
    bool started = false;
    {
        std::lock_guard lock(s.mutex);
        const double now = platform::Clock::now();
        const double elapsed = now - lastActiveLocked(s);
        if (s.timeout < elapsed || !s.sessionID) {
            id = startNewSessionLocked(s, now);
            started = true;
        } else {
            s.lastActive = now;
            id = *s.sessionID;
        }
    }
    auto& log = LoggerUtility::shared();
    if (started) {
        logNewSession(id);
        log.debug([&] { return "New session action triggered: " + id; });
        return {id, Action::new_};
    }
    log.debug([&] { return "Update session action triggered: " + id; });
    return {id, Action::update};
}

void SessionManager::endSession() {
    std::optional<std::string> ended;
    {
        std::lock_guard lock(state().mutex);
        ended = std::exchange(state().sessionID, std::nullopt);
    }
    LoggerUtility::shared().info([&] { return "Session ended with ID: " + ended.value_or("unknown"); });
}

double SessionManager::getLastActiveTimestamp() {
    std::lock_guard lock(state().mutex);
    return lastActiveLocked(state());
}

void SessionManager::setLastActiveTimestamp(double secondsSince1970) {
    std::lock_guard lock(state().mutex);
    state().lastActive = secondsSince1970;
}

std::optional<std::string> SessionManager::getCurrentSessionID() {
    std::lock_guard lock(state().mutex);
    return state().sessionID;
}

void SessionManager::setCurrentSessionID(std::optional<std::string> sessionID) {
    std::lock_guard lock(state().mutex);
    state().sessionID = std::move(sessionID);
}

void SessionManager::appDidEnterBackground() {
    LoggerUtility::shared().info("App entered background");
    std::lock_guard lock(state().mutex);
    state().lastActive = platform::Clock::now();
}

void SessionManager::appWillEnterForeground() {
    auto& log = LoggerUtility::shared();
    log.info("App will enter foreground");
    auto& s = state();
    std::optional<std::string> newID;
    std::optional<std::string> resumedID;
    {
        std::lock_guard lock(s.mutex);
        const double now = platform::Clock::now();
        const double elapsed = now - lastActiveLocked(s);
        if (s.timeout < elapsed) {
            newID = startNewSessionLocked(s, now);
        } else {
            // Without a session nothing starts here; the next submission starts one.
            s.lastActive = now;
            resumedID = s.sessionID;
        }
    }
    if (newID) {
        log.debug("Session timeout detected. Starting a new session.");
        logNewSession(*newID);
    } else {
        log.debug([&] { return "Resuming existing session with ID: " + resumedID.value_or("unknown"); });
    }
}

void SessionManager::appWillTerminate() {
    LoggerUtility::shared().info("App will terminate");
    endSession();
}

void SessionManager::resetForTesting() {
    std::vector<platform::NotificationCenter::Token> observers;
    {
        std::lock_guard lock(state().mutex);
        auto& s = state();
        observers.swap(s.observers);
        s.timeout = defaultSessionTimeout;
        s.lastActive.reset();
        s.sessionID.reset();
    }
    for (auto token : observers) platform::NotificationCenter::defaultCenter().removeObserver(token);
}

}  // namespace tavrin
