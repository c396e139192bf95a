#pragma once
// The host application's configuration of the SDK: where the data goes and
// how the SDK behaves. An aggregate, so designated initializers name every
// field; no field has a default.

#include <array>
#include <optional>
#include <string>
#include <string_view>


namespace tavrin {

struct TrackConfig {
    enum class Environment { live, stage };
    static constexpr std::array<Environment, 2> allEnvironments{Environment::live, Environment::stage};

    std::string trackDomain;
    std::string container;
    Environment environment;
    std::optional<std::string> version;
    std::optional<std::string> debugCode;
    std::optional<double> sessionTimeoutInSeconds;
    std::string authorizationToken;
    std::optional<std::string> customProtocol;
    bool enableOfflineTracking;
    double offlineTrackingTimeout;  // seconds

    friend bool operator==(const TrackConfig&, const TrackConfig&) = default;
};

// "live", "stage".
constexpr const char* rawValue(TrackConfig::Environment environment) noexcept {
    return environment == TrackConfig::Environment::live ? "live" : "stage";
}
// Exactly "live" or "stage" (case-sensitive); anything else gives nothing.
std::optional<TrackConfig::Environment> environmentFromRawValue(std::string_view raw) noexcept;

}  // namespace tavrin
