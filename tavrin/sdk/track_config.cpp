#include "tavrin/sdk/track_config.h"
#include "tavrin/sdk/internal/track_config_coding.h"

#include <cmath>

namespace tavrin {

namespace {

Json encodeDuration(double seconds, const char* key) {
    // JSON has no NaN or infinity, and null would break the no-null rule.
    if (!std::isfinite(seconds))
        throw EncodingError({key}, std::string("Unable to encode Double.") +
                                       (std::isnan(seconds) ? "nan" : "infinity") + " directly in JSON.");
    return Json(seconds);
}

TrackConfig::Environment decodeEnvironment(const Decoder& decoder) {
    const std::string raw = decoder.decodeString();
    auto environment = environmentFromRawValue(raw);
    if (!environment) decoder.dataCorrupted("Cannot initialize Environment from invalid String value " + raw);
    return *environment;
}

}  // namespace

std::optional<TrackConfig::Environment> environmentFromRawValue(std::string_view raw) noexcept {
    for (auto environment : TrackConfig::allEnvironments)
        if (raw == rawValue(environment)) return environment;
    return std::nullopt;
}

Json encodeJson(const TrackConfig& config) {
    const auto& [trackDomain, container, environment, version, debugCode, sessionTimeoutInSeconds, authorizationToken,
                 customProtocol, enableOfflineTracking, offlineTrackingTimeout] = config;
    Json out = Json::object();
    out["trackDomain"] = trackDomain;
    out["container"] = container;
    out["environment"] = rawValue(environment);
    encodeMemberIfPresent(out, "version", version);
    encodeMemberIfPresent(out, "debugCode", debugCode);
    if (sessionTimeoutInSeconds)
        out["sessionTimeoutInSeconds"] = encodeDuration(*sessionTimeoutInSeconds, "sessionTimeoutInSeconds");
    out["authorizationToken"] = authorizationToken;
    encodeMemberIfPresent(out, "customProtocol", customProtocol);
    out["enableOfflineTracking"] = enableOfflineTracking;
    out["offlineTrackingTimeout"] = encodeDuration(offlineTrackingTimeout, "offlineTrackingTimeout");
    return out;
}

TrackConfig JsonDecode<TrackConfig>::decode(const Decoder& decoder) {
    // Members are read in field order so the first bad key is the one reported.
    auto trackDomain = decodeMember<std::string>(decoder, "trackDomain");
    auto container = decodeMember<std::string>(decoder, "container");
    auto environment = decodeEnvironment(decoder.nested("environment"));
    auto version = decodeMemberIfPresent<std::string>(decoder, "version");
    auto debugCode = decodeMemberIfPresent<std::string>(decoder, "debugCode");
    auto sessionTimeoutInSeconds = decodeMemberIfPresent<double>(decoder, "sessionTimeoutInSeconds");
    auto authorizationToken = decodeMember<std::string>(decoder, "authorizationToken");
    auto customProtocol = decodeMemberIfPresent<std::string>(decoder, "customProtocol");
    auto enableOfflineTracking = decodeMember<bool>(decoder, "enableOfflineTracking");
    auto offlineTrackingTimeout = decodeMember<double>(decoder, "offlineTrackingTimeout");
    return TrackConfig{.trackDomain = std::move(trackDomain),
                       .container = std::move(container),
                       .environment = environment,
                       .version = std::move(version),
                       .debugCode = std::move(debugCode),
                       .sessionTimeoutInSeconds = sessionTimeoutInSeconds,
                       .authorizationToken = std::move(authorizationToken),
                       .customProtocol = std::move(customProtocol),
                       .enableOfflineTracking = enableOfflineTracking,
                       .offlineTrackingTimeout = offlineTrackingTimeout};
}

}  // namespace tavrin
