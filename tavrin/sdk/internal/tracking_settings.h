#pragma once
// The process-wide holder of the active configuration, persisted as the JSON
// of the TrackConfig under "com.tavrin.TrackingSettings" so a later launch
// can load it again.
//
// configure and a successful load install a new instance; whoever kept the
// previous one keeps reading the old configuration. An instance never changes.

#include <memory>
#include <optional>
#include <string>

#include "tavrin/sdk/internal/track_config_coding.h"
#include "tavrin/sdk/track_config.h"

namespace tavrin {

class TrackingSettings {
public:
    static constexpr const char* userDefaultsKey = "com.tavrin.TrackingSettings";

    explicit TrackingSettings(std::optional<TrackConfig> config) : config_(std::move(config)) {}

    // The shared instance (logged at debug). Without one: error log, then a
    // fatal stop naming configure.
    static std::shared_ptr<TrackingSettings> shared();
    // Installs a new shared instance holding `config`, then persists it
    // without the authorization token, which is never stored.
    static void configure(const TrackConfig& config);
    // Installs the persisted configuration when one decodes (with an empty
    // token: configure gives it again); otherwise warns and leaves the shared
    // instance as it is.
    static void loadConfigFromUserDefaults();
    // Removes the persisted configuration and empties the shared slot.
    static void clearConfigFromUserDefaults();
    // Tests: empties the shared slot; the persisted configuration stays.
    static void resetForTesting();

    const std::optional<TrackConfig>& config() const noexcept { return config_; }

    // Required fields: a fatal stop "TrackConfig is not available." without a configuration.
    const std::string& trackDomain() const;
    const std::string& container() const;
    TrackConfig::Environment environment() const;
    const std::string& authorizationToken() const;
    // Optional fields: empty without a configuration.
    std::optional<std::string> version() const;
    std::optional<std::string> debugCode() const;
    std::optional<double> sessionTimeoutInSeconds() const;
    std::optional<std::string> customProtocol() const;
    // Answerable before configuration: false and 3600 seconds.
    bool enableOfflineTracking() const;
    double offlineTrackingTimeout() const;

private:
    const TrackConfig& required() const;

    const std::optional<TrackConfig> config_;
};

}  // namespace tavrin
