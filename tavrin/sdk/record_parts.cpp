#include "tavrin/sdk/internal/record_parts.h"

#include "tavrin/sdk/internal/tracking_settings.h"

namespace tavrin {

Json SystemRecord::encode() const {
    Json out = Json::object();
    out["type"] = type;
    out["timestamp"] = timestamp;
    out["navigator-userAgent"] = navigatorUserAgent;
    out["initiator"] = initiator;
    return out;
}

SystemRecord SystemRecord::decode(const Decoder& decoder) {
    SystemRecord out;
    out.type = decodeMember<std::string>(decoder, "type");
    out.timestamp = decodeMember<std::int64_t>(decoder, "timestamp");
    out.navigatorUserAgent = decodeMember<std::string>(decoder, "navigator-userAgent");
    out.initiator = decodeMember<std::string>(decoder, "initiator");
    return out;
}

Json ConfigurationRecord::encode() const {
    Json out = Json::object();
    out["container"] = container;
    out["environment"] = environment;
    encodeMemberIfPresent(out, "version", version);
    encodeMemberIfPresent(out, "debugcode", debugcode);
    return out;
}

ConfigurationRecord ConfigurationRecord::decode(const Decoder& decoder) {
    ConfigurationRecord out;
    out.container = decodeMember<std::string>(decoder, "container");
    out.environment = decodeMember<std::string>(decoder, "environment");
    out.version = decodeMemberIfPresent<std::string>(decoder, "version");
    out.debugcode = decodeMemberIfPresent<std::string>(decoder, "debugcode");
    return out;
}

Json IdentifierRecord::encode() const {
    Json out = Json::object();
    out["id"] = id;
    out["action"] = action;
    return out;
}

IdentifierRecord IdentifierRecord::decode(const Decoder& decoder) {
    IdentifierRecord out;
    out.id = decodeMember<std::string>(decoder, "id");
    out.action = decodeMember<std::string>(decoder, "action");
    return out;
}

RecordHeader RecordHeader::current(std::string userAgent, std::int64_t timestamp, std::string initiator) {
    const auto settings = TrackingSettings::shared();
    return {.version = "3",
            .system = {.type = "sdk-ios",
                       .timestamp = timestamp,
                       .navigatorUserAgent = std::move(userAgent),
                       .initiator = std::move(initiator)},
            .configuration = {.container = settings->container(),
                              .environment = rawValue(settings->environment()),
                              .version = settings->version(),
                              .debugcode = settings->debugCode()}};
}

}  // namespace tavrin
