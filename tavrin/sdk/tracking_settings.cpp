#include "tavrin/sdk/internal/tracking_settings.h"

#include <mutex>

#include "tavrin/platform/internal/fatal_error.h"
#include "tavrin/sdk/internal/logger_utility.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"

namespace tavrin {

namespace {

constexpr const char* kNotInitialized =
    "TrackingSettings is not initialized. Call TrackingSettings.configure(...) first.";

// The slot is written at start-up and read from any thread afterwards; the
// mutex only makes the pointer swap itself safe.
struct Slot {
    std::mutex mutex;
    std::shared_ptr<TrackingSettings> instance;
};

Slot& slot() {
    static auto* s = new Slot();
    return *s;
}

void install(std::shared_ptr<TrackingSettings> instance) {
    std::shared_ptr<TrackingSettings> previous;
    std::lock_guard lock(slot().mutex);
    previous = std::exchange(slot().instance, std::move(instance));
}

}  // namespace

std::shared_ptr<TrackingSettings> TrackingSettings::shared() {
    std::shared_ptr<TrackingSettings> instance;
    {
        std::lock_guard lock(slot().mutex);
        instance = slot().instance;
    }
    if (!instance) {
        LoggerUtility::shared().error(kNotInitialized);
        detail::fatalError(kNotInitialized);
    }
    LoggerUtility::shared().debug("Accessing TrackingSettings.");
    return instance;
}

void TrackingSettings::configure(const TrackConfig& config) {
    install(std::make_shared<TrackingSettings>(config));
    // The token is a secret and never stored: the saved configuration has an
    // empty one (and replaces one an earlier version stored with it). A failed
    // save logs its own line; the configuration is in place regardless.
    TrackConfig stored = config;
    stored.authorizationToken.clear();
    UserDefaultsUtility::save(stored, userDefaultsKey);
    LoggerUtility::shared().info("TrackConfig saved to UserDefaults.");
    LoggerUtility::shared().info("TrackingSettings configured successfully.");
}

void TrackingSettings::loadConfigFromUserDefaults() {
    auto read = UserDefaultsUtility::read<TrackConfig>(userDefaultsKey);
    const std::string unreadable = read ? std::string() : read.error().message;
    auto config = read ? std::move(read).value() : std::nullopt;
    if (!unreadable.empty())
        LoggerUtility::shared().warning([&] {
            return std::string("TrackConfig: the value stored under key ") + userDefaultsKey + " " + unreadable +
                   "; it is ignored.";
        });
    if (!config) {
        LoggerUtility::shared().warning("No TrackConfig found in UserDefaults.");
        return;
    }
    install(std::make_shared<TrackingSettings>(std::move(*config)));
    LoggerUtility::shared().info("TrackConfig loaded from UserDefaults.");
}

void TrackingSettings::clearConfigFromUserDefaults() {
    UserDefaultsUtility::remove(userDefaultsKey);
    install(nullptr);
    LoggerUtility::shared().info("TrackingSettings removed from UserDefaults.");
}

void TrackingSettings::resetForTesting() { install(nullptr); }

const TrackConfig& TrackingSettings::required() const {
    if (!config_) detail::fatalError("TrackConfig is not available.");
    return *config_;
}

const std::string& TrackingSettings::trackDomain() const { return required().trackDomain; }
const std::string& TrackingSettings::container() const { return required().container; }
TrackConfig::Environment TrackingSettings::environment() const { return required().environment; }
const std::string& TrackingSettings::authorizationToken() const { return required().authorizationToken; }

std::optional<std::string> TrackingSettings::version() const { return config_ ? config_->version : std::nullopt; }
std::optional<std::string> TrackingSettings::debugCode() const { return config_ ? config_->debugCode : std::nullopt; }
std::optional<double> TrackingSettings::sessionTimeoutInSeconds() const {
    return config_ ? config_->sessionTimeoutInSeconds : std::nullopt;
}
std::optional<std::string> TrackingSettings::customProtocol() const {
    return config_ ? config_->customProtocol : std::nullopt;
}
bool TrackingSettings::enableOfflineTracking() const { return config_ ? config_->enableOfflineTracking : false; }
double TrackingSettings::offlineTrackingTimeout() const { return config_ ? config_->offlineTrackingTimeout : 3600.0; }

}  // namespace tavrin
