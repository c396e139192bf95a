#pragma once
// The host application's configuration of the SDK: where the data goes and
// how the SDK behaves, handed to TavrinService::configure.
//
//     tavrin::TrackConfig config{.trackDomain = "collect.example.com",
//                                .container = "shop-app",
//                                .environment = tavrin::TrackConfig::Environment::stage,
//                                .debugCode = "shop-debug",
//                                .authorizationToken = "shop-token",
//                                .enableOfflineTracking = true,
//                                .offlineTrackingTimeout = 86400};  // seconds a cached request is kept
//     auto environment = tavrin::environmentFromRawValue("live");  // Environment::live; "Live" gives nothing
//
// An aggregate, so designated initializers read like labelled arguments (in
// the order of the fields). C++ aggregates have no required fields, so a field
// left out takes a defined value: the optionals are empty, and the rest the
// fallbacks TrackingSettings itself answers with when nothing is configured
// (live, offline tracking off, one hour), never an indeterminate value or a
// zero timeout that would expire every cached request at once. The three
// texts the host always names (domain, container, token) stay without an
// initializer, so a compiler that checks (-Wmissing-field-initializers)
// points at a missing one; left out, they are empty.

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "tavrin/platform/api.h"

namespace tavrin {

struct TAVRIN_API TrackConfig {
    enum class Environment { live, stage };
    static constexpr std::array<Environment, 2> allEnvironments{Environment::live, Environment::stage};

    std::string trackDomain;
    std::string container;
    Environment environment = Environment::live;
    std::optional<std::string> version = std::nullopt;
    std::optional<std::string> debugCode = std::nullopt;
    std::optional<double> sessionTimeoutInSeconds = std::nullopt;
    std::string authorizationToken;
    std::optional<std::string> customProtocol = std::nullopt;
    bool enableOfflineTracking = false;
    double offlineTrackingTimeout = 3600.0;  // seconds

    friend bool operator==(const TrackConfig&, const TrackConfig&) = default;
};

// "live", "stage".
constexpr const char* rawValue(TrackConfig::Environment environment) noexcept {
    return environment == TrackConfig::Environment::live ? "live" : "stage";
}
// Exactly "live" or "stage" (case-sensitive); anything else gives nothing.
TAVRIN_API std::optional<TrackConfig::Environment> environmentFromRawValue(std::string_view raw) noexcept;

}  // namespace tavrin
